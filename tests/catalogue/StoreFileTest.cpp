#include "StoreFixture.h"
#include "catalogue/StoreSql.h"

#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <sys/stat.h>

namespace {
QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeAll(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(bytes);
}

unsigned modeOf(const QString &path)
{
    struct stat st
    {
    };
    return ::stat(QFile::encodeName(path).constData(), &st) == 0 ? (st.st_mode & 0777) : 0;
}

// Runs SQL on a raw connection to `path` (used to make foreign or old stores).
void rawExec(const QString &path, const char *statements)
{
    sqlite3 *db = nullptr;
    ASSERT_EQ(sqlite3_open(path.toUtf8().constData(), &db), SQLITE_OK);
    char *message = nullptr;
    EXPECT_EQ(sqlite3_exec(db, statements, nullptr, nullptr, &message), SQLITE_OK)
        << (message ? message : "");
    sqlite3_free(message);
    sqlite3_close(db);
}
} // namespace

TEST(StoreFile, UnusableFilesAreReportedAndLeftUntouched)
{
    QTemporaryDir dir;
    LogCapture log;

    // Random bytes.
    QByteArray noise(8192, Qt::Uninitialized);
    QRandomGenerator generator(42);
    for (char &c : noise)
        c = char(generator.bounded(256));
    // A real store cut short.
    const QString good = dir.filePath(QStringLiteral("good.storedata"));
    {
        auto coordinator = PersistentStoreCoordinator::create(good);
        ASSERT_TRUE(coordinator);
        auto ctx = ManagedObjectContext::create(coordinator);
        for (int i = 0; i < 400; ++i) {
            auto file = ctx->insertNewObject<File>();
            file->setKey(QStringLiteral("key-%1").arg(i));
            file->setPath(QStringLiteral("/some/longer/path/to/make/pages/%1").arg(i));
        }
        ASSERT_TRUE(ctx->save());
    }
    const QByteArray whole = readAll(good);
    ASSERT_GT(whole.size(), 8 * 4096);
    const QByteArray truncated = whole.left(3 * 4096 + 100);

    struct Case
    {
        const char *name;
        QByteArray bytes;
        int code;
    };
    const QList<Case> cases = {
        {"noise", noise, PersistentStoreCoordinator::NotAStore},
        {"truncated", truncated, PersistentStoreCoordinator::NotAStore},
        {"short", QByteArray("SQLite format 3"), PersistentStoreCoordinator::NotAStore}};
    for (const Case &c : cases) {
        const QString path = dir.filePath(QString::fromLatin1(c.name) + QStringLiteral(".storedata"));
        writeAll(path, c.bytes);
        FvError error;
        log.clear();
        EXPECT_FALSE(PersistentStoreCoordinator::create(path, &error)) << c.name;
        EXPECT_EQ(error.code, c.code) << c.name;
        EXPECT_TRUE(error.localizedDescription().contains(path)) << c.name;
        EXPECT_EQ(readAll(path), c.bytes) << c.name;
        EXPECT_FALSE(QFile::exists(path + QStringLiteral("-wal"))) << c.name;
        EXPECT_TRUE(log.contains(QStringLiteral("cannot be used"))) << c.name;
    }

    // Another program's database, and one of ours from a newer version.
    const QString foreign = dir.filePath(QStringLiteral("foreign.db"));
    rawExec(foreign, "CREATE TABLE notes(x); INSERT INTO notes VALUES (1);");
    const QByteArray foreignBytes = readAll(foreign);
    FvError error;
    EXPECT_FALSE(PersistentStoreCoordinator::create(foreign, &error));
    EXPECT_EQ(error.code, PersistentStoreCoordinator::NotAStore);
    EXPECT_EQ(readAll(foreign), foreignBytes);

    rawExec(good, "PRAGMA user_version=99");
    EXPECT_FALSE(PersistentStoreCoordinator::create(good, &error));
    EXPECT_EQ(error.code, PersistentStoreCoordinator::NewerVersion);

    // A folder where the file should be.
    EXPECT_FALSE(PersistentStoreCoordinator::create(dir.path(), &error));
    EXPECT_EQ(error.code, PersistentStoreCoordinator::NotAStore);
}

TEST(StoreFile, OwnerOnlyModesAndWriteAheadLog)
{
    QTemporaryDir dir;
    const mode_t old = ::umask(022);
    const QString path = dir.filePath(QStringLiteral("Tarnwick_u.storedata"));
    auto coordinator = PersistentStoreCoordinator::create(path);
    ASSERT_TRUE(coordinator);
    auto ctx = ManagedObjectContext::create(coordinator);
    ctx->insertNewObject<Task>()->setPath(QStringLiteral("/x"));
    ASSERT_TRUE(ctx->save());
    ::umask(old);
    EXPECT_EQ(modeOf(path), 0600u);
    EXPECT_TRUE(QFile::exists(path + QStringLiteral("-wal")));
    EXPECT_EQ(modeOf(path + QStringLiteral("-wal")), 0600u);
}

TEST(StoreFile, OlderStoreGetsMissingColumnsAndKeepsItsRows)
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("old.storedata"));
    // An earlier layout: no kind, no folded path.
    rawExec(path, "PRAGMA application_id=1180062769;"
                  "CREATE TABLE Directory(\"_id\" INTEGER PRIMARY KEY, \"key\" TEXT, \"path\" TEXT);"
                  "INSERT INTO Directory(key, path) VALUES ('k', '/S/Été/x');");
    auto coordinator = PersistentStoreCoordinator::create(path);
    ASSERT_TRUE(coordinator);
    auto ctx = ManagedObjectContext::create(coordinator);
    const auto rows =
        ctx->fetch<Directory>(Predicate::beginsWithCD(QStringLiteral("path"), QStringLiteral("/s/ete/")));
    ASSERT_EQ(rows.size(), 1);
    EXPECT_EQ(rows[0]->key(), QStringLiteral("k"));
    rows[0]->setKind(QStringLiteral("folder"));
    EXPECT_TRUE(ctx->save());
}

using StoreIndex = StoreFixture;

TEST_F(StoreIndex, CatalogueLookupsUseAnIndex)
{
    sqlite3 *db = coordinator->openConnection(nullptr);
    ASSERT_TRUE(db);
    auto plan = [db](const QString &entityName, const Predicate &predicate,
                     const QList<SortDescriptor> &sort = {}) {
        StoreSql::Query query;
        QString message;
        EXPECT_TRUE(StoreSql::selectQuery(*EntityDescription::entityForName(entityName), predicate, sort, 1,
                                          &query, &message));
        sqlite3_stmt *st = nullptr;
        EXPECT_EQ(sqlite3_prepare_v2(db,
                                     (QStringLiteral("EXPLAIN QUERY PLAN ") + query.sql).toUtf8().constData(),
                                     -1, &st, nullptr),
                  SQLITE_OK);
        for (int i = 0; i < query.bindings.size(); ++i) {
            const QByteArray bytes = query.bindings[i].typeId() == QMetaType::QByteArray
                                         ? query.bindings[i].toByteArray()
                                         : query.bindings[i].toString().toUtf8();
            sqlite3_bind_text(st, i + 1, bytes.constData(), int(bytes.size()), SQLITE_TRANSIENT);
        }
        QString detail;
        while (sqlite3_step(st) == SQLITE_ROW)
            detail += QString::fromUtf8(reinterpret_cast<const char *>(sqlite3_column_text(st, 3))) + u'\n';
        sqlite3_finalize(st);
        return detail;
    };
    const QString k = QStringLiteral("key"), p = QStringLiteral("path"), pk = QStringLiteral("pkey");
    EXPECT_TRUE(plan(QStringLiteral("Directory"), Predicate::like(k, QStringLiteral("K1")))
                    .contains(u"INDEX Directory_key"));
    EXPECT_TRUE(plan(QStringLiteral("File"), Predicate::like(p, QStringLiteral("/a/b")))
                    .contains(u"INDEX File_path"));
    EXPECT_TRUE(plan(QStringLiteral("File"),
                     Predicate::like(pk, QStringLiteral("P")) || Predicate::like(pk, QStringLiteral("Q")))
                    .contains(u"INDEX File_pkey"));
    EXPECT_TRUE(plan(QStringLiteral("File"),
                     Predicate::like(k, QStringLiteral("K")) && Predicate::like(p, QStringLiteral("/a")))
                    .contains(u"USING INDEX"));
    EXPECT_TRUE(plan(QStringLiteral("Task"), Predicate::equalTo(p, QStringLiteral("/a")))
                    .contains(u"INDEX Task_path"));
    EXPECT_TRUE(plan(QStringLiteral("Directory"), Predicate::beginsWithCD(p, QStringLiteral("/A/")))
                    .contains(u"INDEX Directory__fold_path"));
    EXPECT_TRUE(plan(QStringLiteral("Task"), {}, {SortDescriptor{QStringLiteral("time"), true}})
                    .contains(u"INDEX Task_time"));
    EXPECT_TRUE(
        plan(QStringLiteral("Directory"), {}, {SortDescriptor{k, true}}).contains(u"INDEX Directory_key"));
    sqlite3_close_v2(db);
}
