#pragma once
// SQL text of the catalogue store: the schema, and the SELECT for a fetch request. Used by the
// coordinator and the contexts; pure functions, any thread.
//
// Tables are named after the entities, columns after the attributes (all nullable), plus
// "_id" (the row id) and, for entities with a `path`, "_fold_path" (foldedString of the path,
// indexed, for BEGINSWITH[cd]). Stored forms: strings TEXT, integers INTEGER, booleans 0/1,
// dates INTEGER milliseconds since the epoch (UTC).

#include "catalogue/Predicate.h"
#include "catalogue/Records.h"

#include <QString>
#include <QStringList>
#include <QVariantList>

namespace StoreSql {

// The SQL name of the SQLite function that computes foldedString (registered on every connection).
inline constexpr const char *kFoldFunction = "fv_fold";

QString quoted(const QString &identifier);
QString foldedPathColumn();

// CREATE TABLE / CREATE INDEX statements (IF NOT EXISTS) for one entity.
QStringList schemaStatements(const EntityDescription &entity);
// The column definitions of an entity (name -> "TEXT"/"INTEGER"), extra columns included.
QList<QPair<QString, QString>> columns(const EntityDescription &entity);

// A value in the form it is stored and bound: QString, qlonglong, or null.
QVariant storedValue(AttributeType type, const QVariant &value);

struct Query
{
    QString sql;
    // QString and qlonglong are bound as text and integer; QByteArray is bound as raw UTF-8 text
    // (used for range bounds that are not valid UTF-8).
    QVariantList bindings;
};

// SELECT "_id", <attributes in declaration order> FROM <entity> WHERE ... ORDER BY ... [LIMIT n].
// False, with `error` set, when the predicate or a sort names an attribute the entity lacks.
bool selectQuery(const EntityDescription &entity, const Predicate &predicate,
                 const QList<SortDescriptor> &sortDescriptors, int limit, Query *query, QString *error);
// SELECT COUNT(*) with the same condition.
bool countQuery(const EntityDescription &entity, const Predicate &predicate, Query *query, QString *error);
// UPDATE that replaces every occurrence of `from` with `to` in the path (and refolds it) of the rows
// that match and contain `from`, RETURNING "_id" and the new "path". Entities with a path only.
bool replaceInPathQuery(const EntityDescription &entity, const Predicate &predicate, const QString &from,
                        const QString &to, Query *query, QString *error);

} // namespace StoreSql
