#include "catalogue/ManagedObjectContext.h"

#include "catalogue/PersistentStoreCoordinator.h"
#include "catalogue/StoreSql.h"
#include "util/Log.h"

#include <QHash>
#include <QSet>
#include <QThread>
#include <algorithm>
#include <limits>
#include <map>
#include <sqlite3.h>
#include <unordered_map>

namespace {

struct StatementReset
{
    sqlite3_stmt *statement;
    ~StatementReset()
    {
        sqlite3_reset(statement);
        sqlite3_clear_bindings(statement);
    }
};

void bindValue(sqlite3_stmt *statement, int position, const QVariant &value)
{
    if (value.isNull()) {
        sqlite3_bind_null(statement, position);
        return;
    }
    switch (value.typeId()) {
    case QMetaType::QByteArray: {
        const QByteArray bytes = value.toByteArray();
        sqlite3_bind_text(statement, position, bytes.constData(), int(bytes.size()), SQLITE_TRANSIENT);
        return;
    }
    case QMetaType::QString: {
        const QByteArray bytes = value.toString().toUtf8();
        sqlite3_bind_text(statement, position, bytes.constData(), int(bytes.size()), SQLITE_TRANSIENT);
        return;
    }
    case QMetaType::Double:
        sqlite3_bind_double(statement, position, value.toDouble());
        return;
    default:
        sqlite3_bind_int64(statement, position, value.toLongLong());
        return;
    }
}

QVariant columnValue(sqlite3_stmt *statement, int column, AttributeType type)
{
    switch (sqlite3_column_type(statement, column)) {
    case SQLITE_NULL:
        return {};
    case SQLITE_INTEGER: {
        const qlonglong number = sqlite3_column_int64(statement, column);
        // The forms the store writes, made directly: every fetched row passes here.
        if (type == AttributeType::Integer)
            return number;
        if (type == AttributeType::Boolean)
            return number != 0;
        if (type == AttributeType::Date)
            return QDateTime::fromMSecsSinceEpoch(number);
        return normalisedAttributeValue(type, number);
    }
    case SQLITE_FLOAT:
        return normalisedAttributeValue(type, sqlite3_column_double(statement, column));
    default: {
        const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(statement, column));
        QString string = QString::fromUtf8(text, sqlite3_column_bytes(statement, column));
        if (string.isNull())
            string = QStringLiteral(""); // an empty stored string is a value, not an absence
        if (type == AttributeType::String)
            return string;
        return normalisedAttributeValue(type, string);
    }
    }
}

// Orders by SQLite's rules: absent values first, then numbers, then text by code point.
int compareStored(const QVariant &a, const QVariant &b)
{
    if (a.isNull() || b.isNull())
        return int(!a.isNull()) - int(!b.isNull());
    if (a.typeId() == QMetaType::QString && b.typeId() == QMetaType::QString) {
        const QString x = a.toString(), y = b.toString();
        const qsizetype n = std::min(x.size(), y.size());
        for (qsizetype i = 0; i < n; ++i) {
            const char16_t p = x[i].unicode(), q = y[i].unicode();
            if (p == q)
                continue;
            // A surrogate stands for a code point above every other UTF-16 unit.
            const bool ps = QChar::isSurrogate(p), qs = QChar::isSurrogate(q);
            if (ps != qs)
                return ps ? 1 : -1;
            return p < q ? -1 : 1;
        }
        return x.size() == y.size() ? 0 : (x.size() < y.size() ? -1 : 1);
    }
    if (a.typeId() == QMetaType::QString || b.typeId() == QMetaType::QString)
        return a.typeId() == QMetaType::QString ? 1 : -1;
    const qlonglong x = a.toLongLong(), y = b.toLongLong();
    return x == y ? 0 : (x < y ? -1 : 1);
}

} // namespace

struct ManagedObjectContext::Private
{
    std::shared_ptr<PersistentStoreCoordinator> coordinator;
    sqlite3 *db = nullptr;
    QThread *thread = nullptr;
    bool reportedForeignThread = false;

    // Identity map: one object per row. Unchanged objects are held weakly (the caller owns them);
    // objects with pending changes are also held strongly in the lists below until saved.
    struct RowMap
    {
        std::unordered_map<qint64, std::weak_ptr<ManagedObject>> rows;
        std::size_t purgeAt = 256;

        // Drops the entries of objects no one holds any more (each still pins its object's
        // memory, allocated with the reference count) and sets when to look again.
        void purge()
        {
            std::erase_if(rows, [](const auto &entry) { return entry.second.expired(); });
            purgeAt = std::max<std::size_t>(256, rows.size() * 2);
        }
    };
    QHash<const EntityDescription *, RowMap> identity;
    std::vector<ManagedObjectPtr> inserted; // in insertion order
    QHash<ManagedObject *, ManagedObjectPtr> updated;
    QHash<ManagedObject *, ManagedObjectPtr> deleted;
    // Attributes changed since the last save, one bit per attribute index, of each edited object:
    // an UPDATE sets only those columns, so indexes on untouched columns are left alone.
    QHash<ManagedObject *, quint64> changedColumns;
    QHash<QString, sqlite3_stmt *> statements;
    std::map<std::pair<const EntityDescription *, quint64>, QString> updateStatements;

    ~Private()
    {
        for (sqlite3_stmt *statement : std::as_const(statements))
            sqlite3_finalize(statement);
        sqlite3_close_v2(db);
    }

    void checkThread(const char *operation)
    {
        if (QThread::currentThread() == thread || reportedForeignThread)
            return;
        reportedForeignThread = true;
        FV_LOG(
            QStringLiteral("Context used from a thread other than its own (%1); each thread must use its own "
                           "context")
                .arg(QString::fromLatin1(operation)));
    }

    sqlite3_stmt *prepare(const QString &sql, FvError *error)
    {
        if (sqlite3_stmt *cached = statements.value(sql))
            return cached;
        sqlite3_stmt *statement = nullptr;
        const QByteArray text = sql.toUtf8();
        const int rc = sqlite3_prepare_v3(db, text.constData(), int(text.size()), SQLITE_PREPARE_PERSISTENT,
                                          &statement, nullptr);
        if (rc != SQLITE_OK) {
            if (error)
                *error = PersistentStoreCoordinator::makeError(
                    PersistentStoreCoordinator::QueryFailed, QStringLiteral("A store query failed."), db, rc);
            sqlite3_finalize(statement);
            return nullptr;
        }
        statements.insert(sql, statement);
        return statement;
    }

    bool run(const QString &sql, const QVariantList &bindings, FvError *error)
    {
        sqlite3_stmt *statement = prepare(sql, error);
        if (!statement)
            return false;
        StatementReset reset{statement};
        for (int i = 0; i < bindings.size(); ++i)
            bindValue(statement, i + 1, bindings[i]);
        const int rc = sqlite3_step(statement);
        if (rc != SQLITE_DONE && rc != SQLITE_ROW) {
            if (error)
                *error = PersistentStoreCoordinator::makeError(PersistentStoreCoordinator::QueryFailed,
                                                               QStringLiteral("A store statement failed."),
                                                               db, rc);
            return false;
        }
        return true;
    }

    void readValues(sqlite3_stmt *statement, ManagedObject *object)
    {
        const auto &attributes = object->entity().attributes;
        for (std::size_t i = 0; i < attributes.size(); ++i)
            object->m_values[i] = columnValue(statement, int(i) + 1, attributes[i].type);
    }

    QVariantList rowBindings(const ManagedObject &object)
    {
        QVariantList values;
        const EntityDescription &entity = object.entity();
        for (std::size_t i = 0; i < entity.attributes.size(); ++i)
            values.append(StoreSql::storedValue(entity.attributes[i].type, object.m_values[i]));
        if (entity.pathIndex() >= 0) {
            const QVariant path = object.m_values[std::size_t(entity.pathIndex())];
            values.append(path.isNull() ? QVariant() : QVariant(foldedString(path.toString())));
        }
        return values;
    }

    void remember(const EntityDescription &entity, qint64 rowId, const ManagedObjectPtr &object)
    {
        RowMap &map = identity[&entity];
        map.rows[rowId] = object;
        if (map.rows.size() >= map.purgeAt)
            map.purge();
    }

    void forget(const EntityDescription &entity, qint64 rowId)
    {
        auto it = identity.find(&entity);
        if (it != identity.end())
            it->rows.erase(rowId);
    }

    // Pending objects of one entity: inserted ones first, in order, then edited ones.
    std::vector<ManagedObjectPtr> pendingOf(const EntityDescription &entity, int *changedRows) const
    {
        std::vector<ManagedObjectPtr> result;
        *changedRows = 0;
        for (const ManagedObjectPtr &object : inserted) {
            if (&object->entity() == &entity)
                result.push_back(object);
        }
        for (const ManagedObjectPtr &object : updated) {
            if (&object->entity() == &entity) {
                result.push_back(object);
                ++*changedRows;
            }
        }
        for (const ManagedObjectPtr &object : deleted) {
            if (&object->entity() == &entity)
                ++*changedRows;
        }
        return result;
    }
};

ManagedObjectContext::ManagedObjectContext() : d(std::make_unique<Private>()) {}

ManagedObjectContext::~ManagedObjectContext()
{
    // Objects may outlive their context; they keep their values but no longer report edits.
    for (const Private::RowMap &map : std::as_const(d->identity)) {
        for (const auto &[rowId, weak] : map.rows) {
            if (ManagedObjectPtr object = weak.lock())
                object->m_context = nullptr;
        }
    }
    for (const ManagedObjectPtr &object : d->inserted)
        object->m_context = nullptr;
    for (const ManagedObjectPtr &object : std::as_const(d->deleted))
        object->m_context = nullptr;
    if (QThread::currentThread() != d->thread && d->thread)
        FV_LOG(QStringLiteral("Context released on a thread other than its own"));
}

std::shared_ptr<ManagedObjectContext>
ManagedObjectContext::create(const std::shared_ptr<PersistentStoreCoordinator> &coordinator, FvError *error)
{
    if (!coordinator) {
        if (error)
            *error = PersistentStoreCoordinator::makeError(PersistentStoreCoordinator::OpenFailed,
                                                           QStringLiteral("There is no store to open."));
        return nullptr;
    }
    sqlite3 *db = coordinator->openConnection(error);
    if (!db)
        return nullptr;
    std::shared_ptr<ManagedObjectContext> context(new ManagedObjectContext);
    context->d->coordinator = coordinator;
    context->d->db = db;
    context->d->thread = QThread::currentThread();
    return context;
}

std::shared_ptr<PersistentStoreCoordinator> ManagedObjectContext::persistentStoreCoordinator() const
{
    return d->coordinator;
}

QThread *ManagedObjectContext::thread() const
{
    return d->thread;
}

ManagedObjectPtr ManagedObjectContext::insertNewObjectForEntityForName(const QString &entityName)
{
    d->checkThread("insert");
    const EntityDescription *entity = EntityDescription::entityForName(entityName);
    if (!entity) {
        FV_LOG(QStringLiteral("No entity named %1").arg(entityName));
        return nullptr;
    }
    ManagedObjectPtr object = entity->factory();
    object->m_context = this;
    object->m_state = ManagedObject::State::Inserted;
    d->inserted.push_back(object);
    return object;
}

void ManagedObjectContext::deleteObject(const ManagedObjectPtr &object)
{
    d->checkThread("delete");
    if (!object)
        return;
    if (object->m_context != this) {
        FV_LOG(
            QStringLiteral("Cannot delete a %1 that belongs to another context").arg(object->entityName()));
        return;
    }
    switch (object->m_state) {
    case ManagedObject::State::Inserted:
        std::erase(d->inserted, object);
        object->m_state = ManagedObject::State::Detached;
        object->m_context = nullptr;
        break;
    case ManagedObject::State::Updated:
        d->updated.remove(object.get());
        d->changedColumns.remove(object.get());
        [[fallthrough]];
    case ManagedObject::State::Clean:
        object->m_state = ManagedObject::State::Deleted;
        d->deleted.insert(object.get(), object);
        break;
    default:
        break;
    }
}

void ManagedObjectContext::objectWillChange(ManagedObject *object, int index)
{
    d->checkThread("edit");
    if (object->m_state == ManagedObject::State::Clean) {
        object->m_state = ManagedObject::State::Updated;
        d->updated.insert(object, object->shared_from_this());
    }
    if (object->m_state == ManagedObject::State::Updated && index >= 0 && index < 64)
        d->changedColumns[object] |= quint64(1) << index;
}

QList<ManagedObjectPtr> ManagedObjectContext::executeFetchRequest(const FetchRequest &request, FvError *error)
{
    d->checkThread("fetch");
    const EntityDescription *entity = EntityDescription::entityForName(request.entityName);
    if (!entity) {
        if (error)
            *error = PersistentStoreCoordinator::makeError(
                PersistentStoreCoordinator::QueryFailed,
                QStringLiteral("No entity named %1").arg(request.entityName));
        return {};
    }
    int changedRows = 0;
    const std::vector<ManagedObjectPtr> pending = d->pendingOf(*entity, &changedRows);
    // Rows whose objects are edited or deleted are left out of the store's answer, so ask for
    // enough more that the limit can still be filled.
    const int limit = request.fetchLimit > 0 ? request.fetchLimit + changedRows : 0;

    StoreSql::Query query;
    QString message;
    if (!StoreSql::selectQuery(*entity, request.predicate, request.sortDescriptors, limit, &query,
                               &message)) {
        FV_LOG(message);
        if (error)
            *error = PersistentStoreCoordinator::makeError(PersistentStoreCoordinator::QueryFailed, message);
        return {};
    }
    sqlite3_stmt *statement = d->prepare(query.sql, error);
    if (!statement)
        return {};
    QList<ManagedObjectPtr> result;
    {
        StatementReset reset{statement};
        for (int i = 0; i < query.bindings.size(); ++i)
            bindValue(statement, i + 1, query.bindings[i]);
        int rc;
        while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
            const qint64 rowId = sqlite3_column_int64(statement, 0);
            ManagedObjectPtr object;
            auto &rows = d->identity[entity].rows;
            if (auto it = rows.find(rowId); it != rows.end())
                object = it->second.lock();
            if (object && object->hasChanges())
                continue; // answered from memory below (or deleted)
            if (!object) {
                object = entity->factory();
                object->m_context = this;
                object->m_rowId = rowId;
                object->m_state = ManagedObject::State::Clean;
                d->remember(*entity, rowId, object);
            }
            // Unchanged objects take the stored values, which another context may have saved.
            d->readValues(statement, object.get());
            result.append(object);
        }
        if (rc != SQLITE_DONE) {
            if (error)
                *error =
                    PersistentStoreCoordinator::makeError(PersistentStoreCoordinator::QueryFailed,
                                                          QStringLiteral("A store query failed."), d->db, rc);
            return {};
        }
    }

    bool merged = false;
    for (const ManagedObjectPtr &object : pending) {
        if (request.predicate.evaluateWithObject(*object)) {
            result.append(object);
            merged = true;
        }
    }
    if (merged && !request.sortDescriptors.isEmpty()) {
        QList<std::pair<int, AttributeType>> keys;
        for (const SortDescriptor &sort : request.sortDescriptors) {
            const int index = entity->indexOf(sort.key);
            keys.append({index, entity->attributes[std::size_t(index)].type});
        }
        std::stable_sort(result.begin(), result.end(),
                         [&](const ManagedObjectPtr &a, const ManagedObjectPtr &b) {
                             for (int i = 0; i < keys.size(); ++i) {
                                 const auto [index, type] = keys[i];
                                 const int c = compareStored(StoreSql::storedValue(type, a->valueAt(index)),
                                                             StoreSql::storedValue(type, b->valueAt(index)));
                                 if (c != 0)
                                     return request.sortDescriptors[i].ascending ? c < 0 : c > 0;
                             }
                             // Ties: by row id, unsaved objects last, as the store orders them.
                             const qint64 x = a->m_rowId ? a->m_rowId : std::numeric_limits<qint64>::max();
                             const qint64 y = b->m_rowId ? b->m_rowId : std::numeric_limits<qint64>::max();
                             return x < y;
                         });
    }
    if (request.fetchLimit > 0 && result.size() > request.fetchLimit)
        result.resize(request.fetchLimit);
    return result;
}

int ManagedObjectContext::countForFetchRequest(const FetchRequest &request, FvError *error)
{
    d->checkThread("count");
    const EntityDescription *entity = EntityDescription::entityForName(request.entityName);
    int changedRows = 0;
    if (!entity || !d->pendingOf(*entity, &changedRows).empty() || changedRows > 0) {
        FetchRequest all = request;
        all.fetchLimit = 0;
        return int(executeFetchRequest(all, error).size());
    }
    StoreSql::Query query;
    QString message;
    if (!StoreSql::countQuery(*entity, request.predicate, &query, &message)) {
        if (error)
            *error = PersistentStoreCoordinator::makeError(PersistentStoreCoordinator::QueryFailed, message);
        return 0;
    }
    sqlite3_stmt *statement = d->prepare(query.sql, error);
    if (!statement)
        return 0;
    StatementReset reset{statement};
    for (int i = 0; i < query.bindings.size(); ++i)
        bindValue(statement, i + 1, query.bindings[i]);
    if (sqlite3_step(statement) != SQLITE_ROW) {
        if (error)
            *error = PersistentStoreCoordinator::makeError(PersistentStoreCoordinator::QueryFailed,
                                                           QStringLiteral("A store query failed."), d->db,
                                                           sqlite3_errcode(d->db));
        return 0;
    }
    return int(sqlite3_column_int64(statement, 0));
}

void ManagedObjectContext::releaseMemory()
{
    // After a pass over 10,000 rows, forgotten entries pin thousands of blocks across the heap.
    for (Private::RowMap &map : d->identity) {
        map.purge();
        map.rows.rehash(0);
    }
    if (!d->db)
        return;
    const QByteArray sql = "PRAGMA mmap_size=0; PRAGMA mmap_size=" +
                           QByteArray::number(PersistentStoreCoordinator::kMmapBytes) + "; PRAGMA shrink_memory;";
    if (sqlite3_exec(d->db, sql.constData(), nullptr, nullptr, nullptr) != SQLITE_OK)
        FV_LOG(QStringLiteral("The store's memory could not be released: %1")
                   .arg(QString::fromUtf8(sqlite3_errmsg(d->db))));
}

bool ManagedObjectContext::hasChanges() const
{
    return !d->inserted.empty() || !d->updated.isEmpty() || !d->deleted.isEmpty();
}

bool ManagedObjectContext::save(FvError *error)
{
    d->checkThread("save");
    if (!hasChanges())
        return true;
    return saveWith({}, error);
}

bool ManagedObjectContext::saveWith(const std::function<bool(FvError *)> &first, FvError *error)
{
    FvError failure;
    if (!d->run(QStringLiteral("BEGIN IMMEDIATE"), {}, &failure)) {
        if (error)
            *error = failure;
        return false;
    }
    bool ok = !first || first(&failure);
    for (auto it = d->deleted.cbegin(); ok && it != d->deleted.cend(); ++it) {
        const ManagedObjectPtr &object = it.value();
        ok = d->run(QStringLiteral("DELETE FROM ") + StoreSql::quoted(object->entityName()) +
                        QStringLiteral(" WHERE \"_id\" = ?"),
                    {object->m_rowId}, &failure);
    }
    for (auto it = d->updated.cbegin(); ok && it != d->updated.cend(); ++it) {
        const ManagedObject &object = *it.value();
        const EntityDescription &entity = object.entity();
        const std::size_t count = entity.attributes.size();
        quint64 mask = d->changedColumns.value(it.key(), 0);
        if (mask == 0 || count > 64)
            mask = ~quint64(0); // unknown: write every column
        QString &sql = d->updateStatements[{&entity, mask}];
        if (sql.isEmpty()) {
            QStringList assignments;
            for (std::size_t i = 0; i < count; ++i) {
                if (mask & (quint64(1) << i))
                    assignments.append(StoreSql::quoted(entity.attributes[i].name) + QStringLiteral(" = ?"));
            }
            if (entity.pathIndex() >= 0 && (mask & (quint64(1) << entity.pathIndex())))
                assignments.append(StoreSql::quoted(StoreSql::foldedPathColumn()) + QStringLiteral(" = ?"));
            sql = QStringLiteral("UPDATE ") + StoreSql::quoted(entity.name) + QStringLiteral(" SET ") +
                  assignments.join(QStringLiteral(", ")) + QStringLiteral(" WHERE \"_id\" = ?");
        }
        QVariantList values;
        for (std::size_t i = 0; i < count; ++i) {
            if (mask & (quint64(1) << i))
                values.append(StoreSql::storedValue(entity.attributes[i].type, object.m_values[i]));
        }
        if (entity.pathIndex() >= 0 && (mask & (quint64(1) << entity.pathIndex()))) {
            const QVariant path = object.m_values[std::size_t(entity.pathIndex())];
            values.append(path.isNull() ? QVariant() : QVariant(foldedString(path.toString())));
        }
        values.append(object.m_rowId);
        ok = d->run(sql, values, &failure);
    }
    // Row ids are handed to the objects only once the transaction has committed.
    std::vector<qint64> newRowIds;
    for (std::size_t i = 0; ok && i < d->inserted.size(); ++i) {
        const ManagedObject &object = *d->inserted[i];
        QStringList names, marks;
        for (const auto &[name, type] : StoreSql::columns(object.entity())) {
            names.append(StoreSql::quoted(name));
            marks.append(QStringLiteral("?"));
        }
        ok = d->run(QStringLiteral("INSERT INTO ") + StoreSql::quoted(object.entityName()) + u'(' +
                        names.join(QStringLiteral(", ")) + QStringLiteral(") VALUES (") +
                        marks.join(QStringLiteral(", ")) + u')',
                    d->rowBindings(object), &failure);
        if (ok)
            newRowIds.push_back(sqlite3_last_insert_rowid(d->db));
    }
    if (ok)
        ok = d->run(QStringLiteral("COMMIT"), {}, &failure);
    if (!ok) {
        if (!sqlite3_get_autocommit(d->db))
            sqlite3_exec(d->db, "ROLLBACK", nullptr, nullptr, nullptr);
        if (error)
            *error = failure;
        return false;
    }

    for (const ManagedObjectPtr &object : std::as_const(d->deleted)) {
        d->forget(object->entity(), object->m_rowId);
        object->m_state = ManagedObject::State::Detached;
        object->m_context = nullptr;
        object->m_rowId = 0;
    }
    for (const ManagedObjectPtr &object : std::as_const(d->updated))
        object->m_state = ManagedObject::State::Clean;
    for (std::size_t i = 0; i < d->inserted.size(); ++i) {
        const ManagedObjectPtr &object = d->inserted[i];
        object->m_rowId = newRowIds[i];
        object->m_state = ManagedObject::State::Clean;
        d->remember(object->entity(), object->m_rowId, object);
    }
    d->deleted.clear();
    d->updated.clear();
    d->changedColumns.clear();
    d->inserted.clear();
    return true;
}

bool ManagedObjectContext::replaceInPaths(const QString &entityName, const Predicate &predicate,
                                          const QString &from, const QString &to, FvError *error)
{
    d->checkThread("replace in paths");
    if (from.isEmpty())
        return save(error);
    const EntityDescription *entity = EntityDescription::entityForName(entityName);
    StoreSql::Query query;
    QString message;
    if (!entity || !StoreSql::replaceInPathQuery(*entity, predicate, from, to, &query, &message)) {
        if (message.isEmpty())
            message = QStringLiteral("No entity named %1").arg(entityName);
        FV_LOG(message);
        if (error)
            *error = PersistentStoreCoordinator::makeError(PersistentStoreCoordinator::QueryFailed, message);
        return false;
    }
    const int pathIndex = entity->pathIndex();
    auto rewrite = [&](const ManagedObjectPtr &object) {
        QString path = object->valueAt(pathIndex).toString();
        object->setValueAt(pathIndex, path.replace(from, to));
    };

    // Objects with unsaved edits are rewritten here and written by the save after the statement,
    // so that their values win, as they do in a fetch.
    QSet<const ManagedObject *> rewritten;
    int changedRows = 0;
    for (const ManagedObjectPtr &object : d->pendingOf(*entity, &changedRows)) {
        if (predicate.evaluateWithObject(*object)) {
            rewrite(object);
            rewritten.insert(object.get());
        }
    }
    // Unchanged objects of this context whose row the statement rewrote take the new path once
    // the transaction has committed.
    std::vector<std::pair<ManagedObjectPtr, QVariant>> stored;
    auto statement = [&](FvError *failure) {
        sqlite3_stmt *update = d->prepare(query.sql, failure);
        if (!update)
            return false;
        StatementReset reset{update};
        for (int i = 0; i < query.bindings.size(); ++i)
            bindValue(update, i + 1, query.bindings[i]);
        const auto &rows = d->identity[entity].rows;
        int rc;
        while ((rc = sqlite3_step(update)) == SQLITE_ROW) {
            const auto found = rows.find(sqlite3_column_int64(update, 0));
            ManagedObjectPtr object = found != rows.end() ? found->second.lock() : nullptr;
            if (object && object->m_state == ManagedObject::State::Clean)
                stored.emplace_back(std::move(object), columnValue(update, 1, AttributeType::String));
        }
        if (rc != SQLITE_DONE) {
            *failure =
                PersistentStoreCoordinator::makeError(PersistentStoreCoordinator::QueryFailed,
                                                      QStringLiteral("A store statement failed."), d->db, rc);
            return false;
        }
        return true;
    };
    FvError failure;
    if (saveWith(statement, &failure)) {
        for (auto &[object, path] : stored)
            object->m_values[std::size_t(pathIndex)] = std::move(path);
        return true;
    }
    // Nothing reached the store: the other matching objects take the rewrite as pending edits.
    for (const ManagedObjectPtr &object : executeFetchRequest({entityName, predicate, {}, 0})) {
        if (!rewritten.contains(object.get()))
            rewrite(object);
    }
    if (error)
        *error = failure;
    return false;
}

void ManagedObjectContext::rollback()
{
    d->checkThread("rollback");
    for (const ManagedObjectPtr &object : d->inserted) {
        object->m_state = ManagedObject::State::Detached;
        object->m_context = nullptr;
    }
    d->inserted.clear();
    QList<ManagedObjectPtr> reload = d->updated.values() + d->deleted.values();
    d->updated.clear();
    d->changedColumns.clear();
    d->deleted.clear();
    for (const ManagedObjectPtr &object : reload) {
        object->m_state = ManagedObject::State::Clean;
        StoreSql::Query query;
        QString message;
        StoreSql::selectQuery(object->entity(), Predicate(), {}, 0, &query, &message);
        sqlite3_stmt *statement = d->prepare(query.sql + QStringLiteral(" WHERE \"_id\" = ?"), nullptr);
        bool found = false;
        if (statement) {
            StatementReset reset{statement};
            sqlite3_bind_int64(statement, 1, object->m_rowId);
            if (sqlite3_step(statement) == SQLITE_ROW) {
                d->readValues(statement, object.get());
                found = true;
            }
        }
        if (!found) {
            d->forget(object->entity(), object->m_rowId);
            object->m_state = ManagedObject::State::Detached;
            object->m_context = nullptr;
        }
    }
}
