#include "catalogue/StoreSql.h"

#include <QHash>

namespace StoreSql {

QString quoted(const QString &identifier)
{
    QString text = identifier;
    text.replace(u'"', QStringLiteral("\"\""));
    return u'"' + text + u'"';
}

QString foldedPathColumn()
{
    return QStringLiteral("_fold_path");
}

static QString sqlType(AttributeType type)
{
    return type == AttributeType::String ? QStringLiteral("TEXT") : QStringLiteral("INTEGER");
}

QList<QPair<QString, QString>> columns(const EntityDescription &entity)
{
    QList<QPair<QString, QString>> list;
    for (const AttributeDescription &attribute : entity.attributes)
        list.append({attribute.name, sqlType(attribute.type)});
    if (entity.pathIndex() >= 0)
        list.append({foldedPathColumn(), QStringLiteral("TEXT")});
    return list;
}

QStringList schemaStatements(const EntityDescription &entity)
{
    QStringList columnText{QStringLiteral("\"_id\" INTEGER PRIMARY KEY")};
    for (const auto &[name, type] : columns(entity))
        columnText.append(quoted(name) + u' ' + type);
    QStringList statements{QStringLiteral("CREATE TABLE IF NOT EXISTS ") + quoted(entity.name) + u'(' +
                           columnText.join(QStringLiteral(", ")) + u')'};
    QStringList indexed;
    for (const QString &name :
         {QStringLiteral("key"), QStringLiteral("pkey"), QStringLiteral("path"), QStringLiteral("account")}) {
        if (entity.indexOf(name) >= 0)
            indexed.append(name);
    }
    if (entity.pathIndex() >= 0)
        indexed.append(foldedPathColumn());
    if (entity.name == u"Task")
        indexed.append(QStringLiteral("time"));
    for (const QString &name : indexed) {
        statements.append(QStringLiteral("CREATE INDEX IF NOT EXISTS ") + quoted(entity.name + u'_' + name) +
                          QStringLiteral(" ON ") + quoted(entity.name) + u'(' + quoted(name) + u')');
    }
    return statements;
}

QVariant storedValue(AttributeType type, const QVariant &value)
{
    const QVariant normal = normalisedAttributeValue(type, value);
    if (normal.isNull())
        return {};
    switch (type) {
    case AttributeType::String:
        return normal.toString();
    case AttributeType::Integer:
        return normal.toLongLong();
    case AttributeType::Boolean:
        return qlonglong(normal.toBool() ? 1 : 0);
    case AttributeType::Date:
        return qlonglong(normal.toDateTime().toMSecsSinceEpoch());
    }
    return {};
}

namespace {

bool hasWildcard(const QString &pattern)
{
    return pattern.contains(u'*') || pattern.contains(u'?');
}

// GLOB also gives "[...]" a meaning; like does not, so brackets become one-character sets.
QString globPattern(const QString &pattern)
{
    QString glob;
    glob.reserve(pattern.size() + 8);
    for (const QChar c : pattern) {
        if (c == u'[')
            glob += QStringLiteral("[[]");
        else if (c == u']')
            glob += QStringLiteral("[]]");
        else
            glob += c;
    }
    return glob;
}

// Bounds of the byte range holding every string that starts with `prefix`: [prefix, upper).
// The last byte of valid UTF-8 is never 0xFF, so incrementing it cannot overflow.
QByteArray upperBound(QByteArray prefix)
{
    prefix[prefix.size() - 1] = char(quint8(prefix.back()) + 1);
    return prefix;
}

bool whereClause(const EntityDescription &entity, const Predicate &predicate, QString *sql,
                 QVariantList *bindings, QString *error)
{
    switch (predicate.kind()) {
    case Predicate::Kind::True:
        *sql += QStringLiteral("1");
        return true;
    case Predicate::Kind::False:
        *sql += QStringLiteral("0");
        return true;
    case Predicate::Kind::And:
    case Predicate::Kind::Or: {
        const QList<Predicate> operands = predicate.operands();
        *sql += u'(';
        if (!whereClause(entity, operands[0], sql, bindings, error))
            return false;
        *sql += predicate.kind() == Predicate::Kind::And ? QStringLiteral(" AND ") : QStringLiteral(" OR ");
        if (!whereClause(entity, operands[1], sql, bindings, error))
            return false;
        *sql += u')';
        return true;
    }
    default:
        break;
    }
    const int index = entity.indexOf(predicate.key());
    if (index < 0) {
        *error = QStringLiteral("Entity %1 has no attribute '%2'").arg(entity.name, predicate.key());
        return false;
    }
    const AttributeType type = entity.attributes[std::size_t(index)].type;
    const QString column = quoted(predicate.key());
    const QVariant value = predicate.value();
    switch (predicate.kind()) {
    case Predicate::Kind::Equal: {
        const QVariant stored = storedValue(type, value);
        if (stored.isNull()) {
            *sql += column + QStringLiteral(" IS NULL");
        } else {
            *sql += column + QStringLiteral(" = ?");
            bindings->append(stored);
        }
        return true;
    }
    case Predicate::Kind::Like: {
        if (value.isNull()) {
            *sql += QStringLiteral("0");
            return true;
        }
        const QString pattern = value.toString();
        if (hasWildcard(pattern)) {
            *sql += column + QStringLiteral(" GLOB ?");
            bindings->append(globPattern(pattern));
        } else {
            *sql += column + QStringLiteral(" = ?");
            bindings->append(pattern);
        }
        return true;
    }
    case Predicate::Kind::BeginsWithCD: {
        if (value.isNull()) {
            *sql += QStringLiteral("0");
            return true;
        }
        const QString target = index == entity.pathIndex()
                                   ? quoted(foldedPathColumn())
                                   : QString::fromLatin1(kFoldFunction) + u'(' + column + u')';
        const QByteArray prefix = foldedString(value.toString()).toUtf8();
        if (prefix.isEmpty()) {
            *sql += target + QStringLiteral(" IS NOT NULL");
        } else {
            *sql += u'(' + target + QStringLiteral(" >= ? AND ") + target + QStringLiteral(" < ?)");
            bindings->append(prefix);
            bindings->append(upperBound(prefix));
        }
        return true;
    }
    default:
        *error = QStringLiteral("Unsupported predicate");
        return false;
    }
}

QString makeSelectHead(const EntityDescription &entity)
{
    QStringList names{QStringLiteral("\"_id\"")};
    for (const AttributeDescription &attribute : entity.attributes)
        names.append(quoted(attribute.name));
    return QStringLiteral("SELECT ") + names.join(QStringLiteral(", ")) + QStringLiteral(" FROM ") +
           quoted(entity.name);
}

// "SELECT <columns> FROM <entity>", made once per entity: every fetch starts with it.
QString selectHead(const EntityDescription &entity)
{
    static const QHash<const EntityDescription *, QString> heads = [] {
        QHash<const EntityDescription *, QString> made;
        for (const EntityDescription *known : EntityDescription::allEntities())
            made.insert(known, makeSelectHead(*known));
        return made;
    }();
    const auto found = heads.constFind(&entity);
    return found != heads.cend() ? found.value() : makeSelectHead(entity);
}

} // namespace

bool selectQuery(const EntityDescription &entity, const Predicate &predicate,
                 const QList<SortDescriptor> &sortDescriptors, int limit, Query *query, QString *error)
{
    QString sql = selectHead(entity);
    QVariantList bindings;
    if (!predicate.isTrue()) {
        sql += QStringLiteral(" WHERE ");
        if (!whereClause(entity, predicate, &sql, &bindings, error))
            return false;
    }
    QStringList order;
    for (const SortDescriptor &sort : sortDescriptors) {
        if (entity.indexOf(sort.key) < 0) {
            *error = QStringLiteral("Entity %1 has no attribute '%2' to sort by").arg(entity.name, sort.key);
            return false;
        }
        order.append(quoted(sort.key) + (sort.ascending ? QStringLiteral(" ASC") : QStringLiteral(" DESC")));
    }
    if (!order.isEmpty()) {
        order.append(QStringLiteral("\"_id\" ASC"));
        sql += QStringLiteral(" ORDER BY ") + order.join(QStringLiteral(", "));
    }
    if (limit > 0)
        sql += QStringLiteral(" LIMIT ") + QString::number(limit);
    query->sql = sql;
    query->bindings = bindings;
    return true;
}

bool countQuery(const EntityDescription &entity, const Predicate &predicate, Query *query, QString *error)
{
    QString sql = QStringLiteral("SELECT COUNT(*) FROM ") + quoted(entity.name);
    QVariantList bindings;
    if (!predicate.isTrue()) {
        sql += QStringLiteral(" WHERE ");
        if (!whereClause(entity, predicate, &sql, &bindings, error))
            return false;
    }
    query->sql = sql;
    query->bindings = bindings;
    return true;
}

bool replaceInPathQuery(const EntityDescription &entity, const Predicate &predicate, const QString &from,
                        const QString &to, Query *query, QString *error)
{
    if (entity.pathIndex() < 0) {
        *error = QStringLiteral("Entity %1 has no path").arg(entity.name);
        return false;
    }
    // ?1 and ?2 are `from` and `to`, ?3 and ?4 their folded forms; the condition's own parameters
    // follow. Folding maps each character on its own, so a path that holds `from` only at its start
    // keeps the folded rest of its stored folded form; only other paths are folded anew.
    const QString path = quoted(QStringLiteral("path"));
    const QString folded = quoted(foldedPathColumn());
    const QString replaced = QStringLiteral("replace(") + path + QStringLiteral(", ?1, ?2)");
    QString sql = QStringLiteral("UPDATE ") + quoted(entity.name) + QStringLiteral(" SET ") + path +
                  QStringLiteral(" = ") + replaced + QStringLiteral(", ") + folded +
                  QStringLiteral(" = CASE WHEN substr(") + path +
                  QStringLiteral(", 1, length(?1)) = ?1 AND instr(substr(") + path +
                  QStringLiteral(", length(?1) + 1), ?1) = 0 AND substr(") + folded +
                  QStringLiteral(", 1, length(?4)) = ?4 THEN ?3 || substr(") + folded +
                  QStringLiteral(", length(?4) + 1) ELSE ") + QString::fromLatin1(kFoldFunction) + u'(' +
                  replaced + QStringLiteral(") END WHERE ");
    QVariantList bindings{from, to, foldedString(to), foldedString(from)};
    if (!whereClause(entity, predicate, &sql, &bindings, error))
        return false;
    sql += QStringLiteral(" AND instr(") + path + QStringLiteral(", ?1) > 0 RETURNING \"_id\", ") + path;
    query->sql = sql;
    query->bindings = bindings;
    return true;
}

} // namespace StoreSql
