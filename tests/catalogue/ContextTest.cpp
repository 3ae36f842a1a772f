#include "StoreFixture.h"

#include <QThread>
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
