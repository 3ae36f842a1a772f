#include "catalogue/PersistentStoreCoordinator.h"

#include "catalogue/Records.h"
#include "catalogue/StoreSql.h"
#include "util/Log.h"

#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// "FVT1": marks a database as one of our catalogue stores.
constexpr int kApplicationId = 0x46565431;
// Real time: another connection's write transaction is short; waiting is better than failing.
constexpr int kBusyTimeoutMs = 5000;

void foldFunction(sqlite3_context *context, int argc, sqlite3_value **argv)
{
    if (argc != 1 || sqlite3_value_type(argv[0]) == SQLITE_NULL) {
        sqlite3_result_null(context);
        return;
    }
    const auto *text = reinterpret_cast<const char *>(sqlite3_value_text(argv[0]));
    const QByteArray folded = foldedString(QString::fromUtf8(text, sqlite3_value_bytes(argv[0]))).toUtf8();
    sqlite3_result_text(context, folded.constData(), int(folded.size()), SQLITE_TRANSIENT);
}

bool exec(sqlite3 *db, const QString &sql, FvError *error,
          int code = PersistentStoreCoordinator::SchemaFailed)
{
    char *message = nullptr;
    const int rc = sqlite3_exec(db, sql.toUtf8().constData(), nullptr, nullptr, &message);
    sqlite3_free(message);
    if (rc != SQLITE_OK) {
        if (error)
            *error = PersistentStoreCoordinator::makeError(
                code, QStringLiteral("The store could not be prepared."), db, rc);
        return false;
    }
    return true;
}

// Runs a query whose rows are one text or integer column; false on failure.
bool queryColumn(sqlite3 *db, const QString &sql, QStringList *rows, int *rc)
{
    sqlite3_stmt *statement = nullptr;
    *rc = sqlite3_prepare_v2(db, sql.toUtf8().constData(), -1, &statement, nullptr);
    if (*rc != SQLITE_OK)
        return false;
    while ((*rc = sqlite3_step(statement)) == SQLITE_ROW) {
        const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(statement, 0));
        rows->append(QString::fromUtf8(text, sqlite3_column_bytes(statement, 0)));
    }
    sqlite3_finalize(statement);
    if (*rc != SQLITE_DONE)
        return false;
    *rc = SQLITE_OK;
    return true;
}

struct ConnectionCloser
{
    sqlite3 *db;
    ~ConnectionCloser() { sqlite3_close_v2(db); }
};

} // namespace

FvError PersistentStoreCoordinator::makeError(int code, const QString &description, sqlite3 *db,
                                              int sqliteCode)
{
    QVariantMap info{{QStringLiteral("NSLocalizedDescription"), description}};
    if (db && sqliteCode != SQLITE_OK) {
        info.insert(QStringLiteral("NSLocalizedFailureReason"), QString::fromUtf8(sqlite3_errmsg(db)));
    } else if (sqliteCode != SQLITE_OK) {
        info.insert(QStringLiteral("NSLocalizedFailureReason"),
                    QString::fromUtf8(sqlite3_errstr(sqliteCode)));
    }
    if (sqliteCode != 0)
        info.insert(QStringLiteral("SQLiteErrorCode"), sqliteCode);
    return FvError(errorDomain(), code, info);
}

PersistentStoreCoordinator::PersistentStoreCoordinator(QString path) : m_path(std::move(path)) {}
PersistentStoreCoordinator::~PersistentStoreCoordinator() = default;

std::shared_ptr<PersistentStoreCoordinator> PersistentStoreCoordinator::create(const QString &path,
                                                                               FvError *error)
{
    std::shared_ptr<PersistentStoreCoordinator> coordinator(new PersistentStoreCoordinator(path));
    if (!coordinator->prepareStore(error))
        return nullptr;
    return coordinator;
}

sqlite3 *PersistentStoreCoordinator::openConnection(FvError *error) const
{
    sqlite3 *db = nullptr;
    // Never SQLITE_OPEN_CREATE: the file was made and checked by prepareStore.
    const int rc = sqlite3_open_v2(QFile::encodeName(m_path).constData(), &db,
                                   SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX, nullptr);
    if (rc != SQLITE_OK) {
        if (error)
            *error = makeError(OpenFailed, QStringLiteral("The store could not be opened (%1).").arg(m_path),
                               db, rc);
        sqlite3_close_v2(db);
        return nullptr;
    }
    sqlite3_extended_result_codes(db, 1);
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    sqlite3_create_function_v2(db, StoreSql::kFoldFunction, 1, SQLITE_UTF8 | SQLITE_DETERMINISTIC, nullptr,
                               foldFunction, nullptr, nullptr, nullptr);
    // The first statement reads the file's header: this is where a file that is not a database shows.
    const QByteArray pragmas =
        "PRAGMA synchronous=NORMAL; PRAGMA mmap_size=" + QByteArray::number(kMmapBytes);
    const int pragmaRc = sqlite3_exec(db, pragmas.constData(), nullptr, nullptr, nullptr);
    if (pragmaRc != SQLITE_OK) {
        const int primary = pragmaRc & 0xff;
        const bool damaged = primary == SQLITE_NOTADB || primary == SQLITE_CORRUPT;
        if (error)
            *error = makeError(
                damaged ? NotAStore : OpenFailed,
                damaged
                    ? QStringLiteral("The store file is damaged or not a catalogue store (%1).").arg(m_path)
                    : QStringLiteral("The store could not be opened (%1).").arg(m_path),
                db, pragmaRc);
        sqlite3_close_v2(db);
        return nullptr;
    }
    return db;
}

bool PersistentStoreCoordinator::prepareStore(FvError *error)
{
    const QFileInfo info(m_path);
    if (info.exists() && !info.isFile()) {
        if (error)
            *error = makeError(NotAStore, QStringLiteral("The store path is not a file (%1).").arg(m_path));
        return false;
    }
    const bool fresh = !info.exists();
    if (fresh) {
        const int fd =
            ::open(QFile::encodeName(m_path).constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0) {
            if (error)
                *error = makeError(OpenFailed, QStringLiteral("The store file could not be created (%1): %2")
                                                   .arg(m_path, QString::fromLocal8Bit(strerror(errno))));
            return false;
        }
        ::close(fd);
    }

    FvError openError;
    sqlite3 *db = openConnection(&openError);
    if (!db) {
        FV_LOG(QStringLiteral("Store %1 cannot be used: %2")
                   .arg(m_path,
                        openError.userInfo.value(QStringLiteral("NSLocalizedFailureReason")).toString()));
        if (error)
            *error = openError;
        return false;
    }
    ConnectionCloser closer{db};

    // Everything up to the schema check only reads, so a file that is not ours stays as it was.
    auto notAStore = [&](int rc, const QString &why) {
        FV_LOG(QStringLiteral("Store %1 cannot be used: %2").arg(m_path, why));
        if (error)
            *error = makeError(
                NotAStore,
                QStringLiteral("The store file is damaged or not a catalogue store (%1).").arg(m_path),
                rc != SQLITE_OK ? db : nullptr, rc);
        return false;
    };
    QStringList rows;
    int rc = SQLITE_OK;
    if (!queryColumn(db, QStringLiteral("PRAGMA quick_check"), &rows, &rc))
        return notAStore(rc, QString::fromUtf8(sqlite3_errmsg(db)));
    if (rows != QStringList{QStringLiteral("ok")})
        return notAStore(SQLITE_OK, rows.join(u"; "));
    QStringList applicationId, version, tables;
    if (!queryColumn(db, QStringLiteral("PRAGMA application_id"), &applicationId, &rc) ||
        !queryColumn(db, QStringLiteral("PRAGMA user_version"), &version, &rc) ||
        !queryColumn(db, QStringLiteral("SELECT name FROM sqlite_master WHERE type='table'"), &tables, &rc))
        return notAStore(rc, QString::fromUtf8(sqlite3_errmsg(db)));
    const int appId = applicationId.value(0).toInt();
    const int storeVersion = version.value(0).toInt();
    if (appId != kApplicationId && !(appId == 0 && tables.isEmpty()))
        return notAStore(SQLITE_OK, QStringLiteral("another program's database"));
    if (storeVersion > kSchemaVersion) {
        FV_LOG(QStringLiteral("Store %1 has version %2, newer than %3")
                   .arg(m_path)
                   .arg(storeVersion)
                   .arg(kSchemaVersion));
        if (error)
            *error = makeError(
                NewerVersion,
                QStringLiteral("The store was written by a newer version of Ferrovane (%1).").arg(m_path));
        return false;
    }

    // Build the tables, or complete those of an older version with the columns they lack.
    if (!exec(db, QStringLiteral("BEGIN IMMEDIATE"), error))
        return false;
    bool ok = exec(db, QStringLiteral("PRAGMA application_id=%1").arg(kApplicationId), error);
    for (const EntityDescription *entity : EntityDescription::allEntities()) {
        // The table first, then any columns it lacks, then the indexes (which may name those columns).
        const QStringList statements = StoreSql::schemaStatements(*entity);
        if (ok)
            ok = exec(db, statements.first(), error);
        QStringList present;
        if (ok &&
            !queryColumn(db, QStringLiteral("SELECT name FROM pragma_table_info('%1')").arg(entity->name),
                         &present, &rc)) {
            ok = false;
            if (error)
                *error = makeError(SchemaFailed, QStringLiteral("The store could not be prepared."), db, rc);
        }
        for (const auto &[name, type] : StoreSql::columns(*entity)) {
            if (!ok || present.contains(name))
                continue;
            ok = exec(db,
                      QStringLiteral("ALTER TABLE %1 ADD COLUMN %2 %3")
                          .arg(StoreSql::quoted(entity->name), StoreSql::quoted(name), type),
                      error);
            if (ok && name == StoreSql::foldedPathColumn()) {
                ok = exec(db,
                          QStringLiteral("UPDATE %1 SET %2 = %3(\"path\")")
                              .arg(StoreSql::quoted(entity->name), StoreSql::quoted(name),
                                   QString::fromLatin1(StoreSql::kFoldFunction)),
                          error);
            }
        }
        for (qsizetype i = 1; ok && i < statements.size(); ++i)
            ok = exec(db, statements[i], error);
    }
    if (ok)
        ok = exec(db, QStringLiteral("PRAGMA user_version=%1").arg(kSchemaVersion), error);
    if (ok)
        ok = exec(db, QStringLiteral("COMMIT"), error);
    if (!ok) {
        sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
        FV_LOG(QStringLiteral("Store %1: the schema could not be built").arg(m_path));
        return false;
    }
    if (!exec(db, QStringLiteral("PRAGMA journal_mode=WAL"), error))
        return false;
    // The catalogue holds the account's password and file names: owner only.
    ::chmod(QFile::encodeName(m_path).constData(), S_IRUSR | S_IWUSR);
    return true;
}
