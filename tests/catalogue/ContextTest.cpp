#include "StoreFixture.h"

#include <QThread>
#include <sqlite3.h>
#include <thread>

namespace {
Predicate byKey(const QString &key)
{
    return Predicate::like(QStringLiteral("key"), key);
}

DirectoryPtr addDirectory(ManagedObjectContext &ctx, const QString &key, const QString &path)
{
    auto dir = ctx.insertNewObject<Directory>();
    dir->setKey(key);
    dir->setPath(path);
    return dir;
}
} // namespace

using Context = StoreFixture;

TEST_F(Context, ValuesRoundTripWithTypesAndAbsence)
{
    auto file = context->insertNewObject<File>();
    file->setKey(QStringLiteral("k"));
    file->setMd5(QStringLiteral("")); // empty is a value, not an absence
    file->setMemo(-7);
    file->setUploadDone(false);
    auto task = context->insertNewObject<Task>();
    const QDateTime when = QDateTime::fromMSecsSinceEpoch(1700000000123);
    task->setTime(when);
    task->setTaskType(5);
    EXPECT_EQ(context->insertNewObjectForEntityForName(QStringLiteral("Nope")), nullptr);
    ASSERT_TRUE(context->save());
    EXPECT_GT(file->objectID(), 0);

    auto other = newContext();
    auto f = other->fetchFirst<File>(byKey(QStringLiteral("k")));
    ASSERT_TRUE(f);
    EXPECT_FALSE(f->md5().isNull());
    EXPECT_TRUE(f->md5().isEmpty());
    EXPECT_TRUE(f->name().isNull());
    EXPECT_EQ(f->memo(), -7);
    EXPECT_EQ(f->uploadDone(), false);
    EXPECT_EQ(f->sync(), std::nullopt);
    auto t = other->fetchFirst<Task>(Predicate::equalTo(QStringLiteral("time"), when));
    ASSERT_TRUE(t);
    EXPECT_EQ(t->time(), when);
    EXPECT_EQ(t->taskType(), 5);
    EXPECT_FALSE(t->folder().has_value());
}

TEST_F(Context, OneObjectPerRowAndFetchesSeePendingChanges)
{
    addDirectory(*context, QStringLiteral("a"), QStringLiteral("/s/a"));
    addDirectory(*context, QStringLiteral("b"), QStringLiteral("/s/b"));
    addDirectory(*context, QStringLiteral("c"), QStringLiteral("/s/c"));
    ASSERT_TRUE(context->save());

    auto a = context->fetchFirst<Directory>(byKey(QStringLiteral("a")));
    EXPECT_EQ(
        a, context->fetchFirst<Directory>(Predicate::like(QStringLiteral("path"), QStringLiteral("/s/a"))));

    // Edited: matched on its new value, not on the stored one.
    a->setKey(QStringLiteral("a2"));
    EXPECT_FALSE(context->fetchFirst<Directory>(byKey(QStringLiteral("a"))));
    EXPECT_EQ(context->fetchFirst<Directory>(byKey(QStringLiteral("a2"))), a);
    // Deleted: gone before the save.
    context->deleteObject(context->fetchFirst<Directory>(byKey(QStringLiteral("b"))));
    EXPECT_FALSE(context->fetchFirst<Directory>(byKey(QStringLiteral("b"))));
    // Inserted: found before the save, in sort order among stored rows.
    auto inserted = addDirectory(*context, QStringLiteral("0"), QStringLiteral("/s/0"));
    const auto sorted = context->fetch<Directory>({}, {SortDescriptor{QStringLiteral("key"), true}});
    ASSERT_EQ(sorted.size(), 3);
    EXPECT_EQ(sorted[0], inserted);
    EXPECT_EQ(sorted[1], a);
    EXPECT_EQ(sorted[2]->key(), QStringLiteral("c"));
    // A limit is filled even when edited or deleted rows drop out of the store's answer.
    const auto first = context->fetch<Directory>({}, {SortDescriptor{QStringLiteral("key"), false}}, 2);
    ASSERT_EQ(first.size(), 2);
    EXPECT_EQ(first[0]->key(), QStringLiteral("c"));
    EXPECT_EQ(first[1], a);
    EXPECT_EQ(
        context->countForFetchRequest(FetchRequest::fetchRequestWithEntityName(QStringLiteral("Directory"))),
        3);

    // Another context does not see unsaved work, then sees it after the save.
    auto other = newContext();
    EXPECT_TRUE(other->fetchFirst<Directory>(byKey(QStringLiteral("b"))));
    ASSERT_TRUE(context->save());
    EXPECT_FALSE(context->hasChanges());
    EXPECT_FALSE(other->fetchFirst<Directory>(byKey(QStringLiteral("b"))));
    EXPECT_EQ(other->fetch<Directory>().size(), 3);

    // An unsaved insert that is deleted never reaches the store.
    auto temp = addDirectory(*context, QStringLiteral("t"), QStringLiteral("/s/t"));
    context->deleteObject(temp);
    EXPECT_FALSE(context->hasChanges());
    EXPECT_EQ(temp->managedObjectContext(), nullptr);
}

TEST_F(Context, FailedSaveKeepsEveryEditAndALaterSaveWritesThem)
{
    addDirectory(*context, QStringLiteral("d"), QStringLiteral("/s/d"));
    auto task = context->insertNewObject<Task>();
    task->setPath(QStringLiteral("/s/t"));
    ASSERT_TRUE(context->save());

    // The store refuses new files for now.
    sql(QStringLiteral(
        "CREATE TRIGGER refuse BEFORE INSERT ON File BEGIN SELECT RAISE(ABORT, 'refused'); END"));
    auto dir = context->fetchFirst<Directory>(byKey(QStringLiteral("d")));
    dir->setName(QStringLiteral("renamed"));
    context->deleteObject(task);
    auto file = context->insertNewObject<File>();
    file->setKey(QStringLiteral("f"));

    FvError error;
    EXPECT_FALSE(context->save(&error));
    EXPECT_EQ(error.domain, PersistentStoreCoordinator::errorDomain());
    EXPECT_FALSE(error.localizedDescription().isEmpty());
    // Nothing reached the store, all of it is still pending here.
    EXPECT_EQ(sql(QStringLiteral("SELECT count(*) FROM Task")), QStringList{QStringLiteral("1")});
    EXPECT_EQ(sql(QStringLiteral("SELECT count(*) FROM Directory WHERE name = 'renamed'")),
              QStringList{QStringLiteral("0")});
    EXPECT_TRUE(context->hasChanges());
    EXPECT_TRUE(dir->isUpdated());
    EXPECT_TRUE(task->isDeleted());
    EXPECT_TRUE(file->isInserted());
    EXPECT_EQ(file->objectID(), 0);
    EXPECT_EQ(context->fetchFirst<File>(byKey(QStringLiteral("f"))), file);
    EXPECT_TRUE(context->fetch<Task>().isEmpty());

    sql(QStringLiteral("DROP TRIGGER refuse"));
    ASSERT_TRUE(context->save(&error)) << qPrintable(error.toString());
    EXPECT_FALSE(context->hasChanges());
    EXPECT_GT(file->objectID(), 0);
    EXPECT_EQ(sql(QStringLiteral("SELECT count(*) FROM Task")), QStringList{QStringLiteral("0")});
    EXPECT_EQ(sql(QStringLiteral("SELECT name FROM Directory")), QStringList{QStringLiteral("renamed")});
    EXPECT_EQ(sql(QStringLiteral("SELECT key FROM File")), QStringList{QStringLiteral("f")});
}

TEST_F(Context, RollbackRestoresTheStoredState)
{
    addDirectory(*context, QStringLiteral("d"), QStringLiteral("/s/d"));
    ASSERT_TRUE(context->save());
    auto dir = context->fetchFirst<Directory>(byKey(QStringLiteral("d")));
    dir->setPath(QStringLiteral("/elsewhere"));
    auto extra = addDirectory(*context, QStringLiteral("e"), QStringLiteral("/s/e"));
    context->rollback();
    EXPECT_FALSE(context->hasChanges());
    EXPECT_EQ(dir->path(), QStringLiteral("/s/d"));
    EXPECT_EQ(context->fetch<Directory>().size(), 1);
}

TEST_F(Context, EachThreadWritesThroughItsOwnContext)
{
    LogCapture log;
    constexpr int kRows = 150;
    auto work = [this](const QString &prefix, bool *ok) {
        auto own = newContext();
        for (int i = 0; i < kRows; ++i)
            addDirectory(*own, prefix + QString::number(i),
                         QStringLiteral("/s/") + prefix + u'/' + QString::number(i));
        *ok = own->save() &&
              own->fetch<Directory>(
                     Predicate::beginsWithCD(QStringLiteral("path"), QStringLiteral("/s/") + prefix + u'/'))
                      .size() == kRows;
    };
    bool okA = false, okB = false;
    std::thread a(work, QStringLiteral("a"), &okA);
    std::thread b(work, QStringLiteral("B"), &okB);
    a.join();
    b.join();
    EXPECT_TRUE(okA);
    EXPECT_TRUE(okB);
    EXPECT_EQ(context->fetch<Directory>().size(), 2 * kRows);
    EXPECT_FALSE(log.contains(QStringLiteral("other than its own")));

    // Using this thread's context from another thread is reported.
    std::thread stray([this] { context->fetch<Directory>(byKey(QStringLiteral("a1"))); });
    stray.join();
    EXPECT_TRUE(log.contains(QStringLiteral("Context used from a thread other than its own")));
}

namespace {
// Every stored path with its folded form, "path | folded", by key.
const QString kStoredPaths = QStringLiteral("SELECT path || ' | ' || _fold_path FROM Directory ORDER BY key");

QString stored(const QString &path)
{
    return path + QStringLiteral(" | ") + foldedString(path);
}
} // namespace

TEST_F(Context, PathRewriteLeavesStoreAndObjectsAsEditingEachPathWould)
{
    // Folded, the Hangul syllable is three letters: the folded form is longer than the path.
    const QString from = QStringLiteral("/s/Été한"), to = QStringLiteral("/s/Ça");
    addDirectory(*context, QStringLiteral("1"), from + QStringLiteral("/a"));
    addDirectory(*context, QStringLiteral("2"), from + QStringLiteral("/b"));
    addDirectory(*context, QStringLiteral("3"), from + QStringLiteral("/s/Été한/c")); // twice: both go
    addDirectory(*context, QStringLiteral("4"),
                 QStringLiteral("/s/ÉTÉ한/d")); // below it folded, not replaced
    addDirectory(*context, QStringLiteral("5"), from + QStringLiteral("/gone"));
    addDirectory(*context, QStringLiteral("6"), from + QStringLiteral("/away"));
    addDirectory(*context, QStringLiteral("7"), from + QStringLiteral("/never fetched"));
    addDirectory(*context, QStringLiteral("8"), QStringLiteral("/s/Été한s/e")); // shares the prefix only
    ASSERT_TRUE(context->save());

    // Held unchanged, edited, deleted, moved away in memory, and a new one not yet saved.
    const auto held = context->fetchFirst<Directory>(byKey(QStringLiteral("1")));
    const auto edited = context->fetchFirst<Directory>(byKey(QStringLiteral("2")));
    edited->setName(QStringLiteral("edited"));
    context->deleteObject(context->fetchFirst<Directory>(byKey(QStringLiteral("5"))));
    const auto away = context->fetchFirst<Directory>(byKey(QStringLiteral("6")));
    away->setPath(QStringLiteral("/s/other/away"));
    const auto inserted = addDirectory(*context, QStringLiteral("9"), from + QStringLiteral("/new"));

    FvError error;
    ASSERT_TRUE(context->replaceInPaths(Directory::entityName(),
                                        Predicate::beginsWithCD(QStringLiteral("path"), from + u'/'), from,
                                        to, &error))
        << qPrintable(error.toString());
    EXPECT_FALSE(context->hasChanges());
    const QStringList expected{
        stored(to + QStringLiteral("/a")),       stored(to + QStringLiteral("/b")),
        stored(to + QStringLiteral("/s/Ça/c")),  stored(QStringLiteral("/s/ÉTÉ한/d")),
        stored(QStringLiteral("/s/other/away")), stored(to + QStringLiteral("/never fetched")),
        stored(QStringLiteral("/s/Été한s/e")),   stored(to + QStringLiteral("/new"))};
    EXPECT_EQ(sql(kStoredPaths), expected);
    EXPECT_EQ(held->path(), to + QStringLiteral("/a"));
    EXPECT_FALSE(held->hasChanges());
    EXPECT_EQ(edited->path(), to + QStringLiteral("/b"));
    EXPECT_EQ(sql(QStringLiteral("SELECT name FROM Directory WHERE key = '2'")), QStringList{u"edited"_qs});
    EXPECT_EQ(away->path(), QStringLiteral("/s/other/away"));
    EXPECT_EQ(inserted->path(), to + QStringLiteral("/new"));
    // The folded column serves the subtree queries under the new name.
    EXPECT_EQ(
        context->fetch<Directory>(Predicate::beginsWithCD(QStringLiteral("path"), QStringLiteral("/S/CA/")))
            .size(),
        5); // a, b, c, never fetched, new
    EXPECT_EQ(context->fetchFirst<Directory>(byKey(QStringLiteral("7")))->path(),
              to + QStringLiteral("/never fetched"));
}

TEST_F(Context, FailedPathRewriteLeavesItPendingForTheNextSave)
{
    addDirectory(*context, QStringLiteral("1"), QStringLiteral("/s/a/x"));
    addDirectory(*context, QStringLiteral("2"), QStringLiteral("/s/a/y"));
    ASSERT_TRUE(context->save());
    const auto held = context->fetchFirst<Directory>(byKey(QStringLiteral("1")));
    const auto inserted = addDirectory(*context, QStringLiteral("3"), QStringLiteral("/s/a/z"));
    sql(QStringLiteral(
        "CREATE TRIGGER refuse BEFORE UPDATE ON Directory BEGIN SELECT RAISE(ABORT, 'refused'); END"));

    FvError error;
    EXPECT_FALSE(context->replaceInPaths(
        Directory::entityName(), Predicate::beginsWithCD(QStringLiteral("path"), QStringLiteral("/s/a/")),
        QStringLiteral("/s/a"), QStringLiteral("/s/b"), &error));
    EXPECT_EQ(error.domain, PersistentStoreCoordinator::errorDomain());
    EXPECT_EQ(sql(QStringLiteral("SELECT path FROM Directory ORDER BY key")),
              QStringList({u"/s/a/x"_qs, u"/s/a/y"_qs}));
    // In memory, each path was rewritten once, and waits to be saved.
    EXPECT_TRUE(held->isUpdated());
    EXPECT_EQ(held->path(), QStringLiteral("/s/b/x"));
    EXPECT_EQ(inserted->path(), QStringLiteral("/s/b/z"));
    EXPECT_EQ(context->fetchFirst<Directory>(byKey(QStringLiteral("2")))->path(), QStringLiteral("/s/b/y"));

    sql(QStringLiteral("DROP TRIGGER refuse"));
    ASSERT_TRUE(context->save(&error)) << qPrintable(error.toString());
    EXPECT_EQ(sql(kStoredPaths),
              QStringList({stored(u"/s/b/x"_qs), stored(u"/s/b/y"_qs), stored(u"/s/b/z"_qs)}));
}

TEST_F(Context, ReleasedMemoryIsMappedAgainOnUseAndKeepsPendingChangesAndLiveObjects)
{
    // How many of this process's mappings are of the store file (each connection has its own).
    const auto storeMaps = [this] {
        QFile maps(QStringLiteral("/proc/self/maps"));
        if (!maps.open(QIODevice::ReadOnly))
            return -1;
        return int(maps.readAll().count(QByteArray(QFile::encodeName(coordinator->path()) + '\n')));
    };
    addDirectory(*context, QStringLiteral("a"), QStringLiteral("/a"));
    ASSERT_TRUE(context->save());
    // Pages are read through the map once they are in the store file, not only in its journal.
    const auto checkpoint = [this] {
        sqlite3 *raw = coordinator->openConnection(nullptr);
        ASSERT_TRUE(raw);
        EXPECT_EQ(sqlite3_exec(raw, "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close_v2(raw);
    };
    checkpoint();
    const DirectoryPtr held = context->fetchFirst<Directory>(byKey(QStringLiteral("a")));
    ASSERT_TRUE(held);
    const int mapped = storeMaps();
    ASSERT_GE(mapped, 1) << qPrintable(coordinator->path());

    addDirectory(*context, QStringLiteral("b"), QStringLiteral("/b")); // pending over the release
    context->releaseMemory();
    EXPECT_EQ(storeMaps(), mapped - 1);
    ASSERT_TRUE(context->save());
    EXPECT_EQ(newContext()->fetch<Directory>().size(), 2);
    checkpoint();
    EXPECT_EQ(context->fetchFirst<Directory>(byKey(QStringLiteral("b")))->path(), u"/b");
    EXPECT_EQ(storeMaps(), mapped); // mapped again by the first read that needs it
    // An object still held is still the one a fetch gives.
    EXPECT_EQ(context->fetchFirst<Directory>(byKey(QStringLiteral("a"))).get(), held.get());
}
