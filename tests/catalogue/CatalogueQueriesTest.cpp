// Queries, path rewriting, task admission and time conversion: the parts that need no server.
#include "CatalogueFixture.h"
#include "catalogue/CataloguePaths.h"

#include <QCryptographicHash>
#include <QFile>
#include <QThread>

namespace {

class CatalogueQueriesTest : public CatalogueFixture
{
protected:
    DirectoryPtr addDirectory(const QString &key, const QString &path, const QString &time = {},
                              const QString &pkey = {})
    {
        auto row = context->insertNewObject<Directory>();
        row->setKey(key);
        row->setPath(path);
        row->setName(CataloguePaths::lastPathComponent(path));
        row->setTime(time);
        row->setPkey(pkey);
        return row;
    }
    FilePtr addFile(const QString &key, const QString &path, const QString &time = {},
                    const QString &md5 = {}, const QString &pkey = {})
    {
        auto row = context->insertNewObject<File>();
        row->setKey(key);
        row->setPath(path);
        row->setName(CataloguePaths::lastPathComponent(path));
        row->setTime(time);
        row->setMd5(md5);
        row->setPkey(pkey);
        return row;
    }
    QStringList paths(const QList<FilePtr> &rows)
    {
        QStringList list;
        for (const auto &row : rows)
            list.append(row->path());
        list.sort();
        return list;
    }
};

} // namespace

TEST_F(CatalogueQueriesTest, LikeLookupsMatchWholeStringsWithWildcards)
{
    addFile(QStringLiteral("k1"), at(QStringLiteral("report.txt")));
    addFile(QStringLiteral("k2"), at(QStringLiteral("Report.txt")));
    addFile(QStringLiteral("k*"), at(QStringLiteral("star?.txt")));
    ASSERT_TRUE(context->save());

    EXPECT_EQ(db->getFileWithPath(at(QStringLiteral("Report.txt")), context)->key(), u"k2"); // case-sensitive
    EXPECT_EQ(db->getFileWithPath(at(QStringLiteral("report")), context), nullptr);          // whole string
    // Wildcards in a value act as wildcards: "k?" finds some other row, "star?.txt" matches itself.
    EXPECT_NE(db->getFileWithKey(QStringLiteral("k?"), context), nullptr);
    EXPECT_EQ(db->getFileWithPath(at(QStringLiteral("star?.txt")), context)->key(), u"k*");
    EXPECT_EQ(db->getFileWithKey(QStringLiteral("k*"), at(QStringLiteral("report.txt")), context)->key(),
              u"k1");
    EXPECT_EQ(db->getFileWithKey(QStringLiteral("k2"), at(QStringLiteral("report.txt")), context), nullptr);
    // The main-context forms see the same rows.
    EXPECT_EQ(db->getFileWithKey(QStringLiteral("k1"))->path(), at(QStringLiteral("report.txt")));
    EXPECT_EQ(db->getFileWithKey(QStringLiteral("k1"), at(QStringLiteral("report.txt")))->key(), u"k1");

    // From a worker thread the main-context form waits for the main thread.
    FilePtr fromWorker;
    QThread *worker =
        QThread::create([&] { fromWorker = db->getFileWithPath(at(QStringLiteral("report.txt"))); });
    worker->start();
    ASSERT_TRUE(TestUtil::waitFor([&] { return worker->isFinished(); }));
    worker->wait();
    delete worker;
    ASSERT_TRUE(fromWorker);
    EXPECT_EQ(fromWorker->key(), u"k1");
}

// Looked up together, keys find what one lookup each finds: saved rows (over several queries),
// unsaved ones, edited keys, two rows of one key (the first wins), none; wildcard keys are left out.
TEST_F(CatalogueQueriesTest, KeysLookedUpTogetherFindWhatOneLookupEachFinds)
{
    QStringList keys;
    for (int i = 0; i < 37; ++i) {
        keys.append(QStringLiteral("f%1").arg(i));
        if (i % 3 != 0)
            addFile(keys.last(), at(QStringLiteral("d/%1").arg(i)));
    }
    addFile(QStringLiteral("f1"), at(QStringLiteral("d/twin")));
    addFile(QStringLiteral("old"), at(QStringLiteral("d/renamed")));
    ASSERT_TRUE(context->save());
    addFile(QStringLiteral("f3"), at(QStringLiteral("d/unsaved")));
    db->getFileWithKey(QStringLiteral("old"), context)->setKey(QStringLiteral("f6"));
    db->getFileWithKey(QStringLiteral("f2"), context)->setKey(QStringLiteral("gone"));
    keys << QStringLiteral("old") << QStringLiteral("f4") << QStringLiteral("f*");

    const QHash<QString, FilePtr> found = db->getFilesWithKeys(keys, context);
    EXPECT_FALSE(found.contains(QStringLiteral("f*")));
    EXPECT_EQ(found.size(), 38);
    for (const QString &key : found.keys())
        EXPECT_EQ(found.value(key), db->getFileWithKey(key, context)) << qPrintable(key);
    EXPECT_EQ(found.value(QStringLiteral("f3"))->path(), at(QStringLiteral("d/unsaved")));
    EXPECT_EQ(found.value(QStringLiteral("f6"))->path(), at(QStringLiteral("d/renamed")));
    EXPECT_EQ(found.value(QStringLiteral("f2")), nullptr);
    EXPECT_EQ(found.value(QStringLiteral("f36")), nullptr);
    EXPECT_NE(found.value(QStringLiteral("f35")), nullptr);
}

TEST_F(CatalogueQueriesTest, SubtreeQueriesIgnoreCaseAndDiacriticsButStopAtTheSeparator)
{
    addFile(QStringLiteral("1"), at(QStringLiteral("A/x.txt")));
    addFile(QStringLiteral("2"), at(QStringLiteral("Été/y.txt")));
    addFile(QStringLiteral("3"), at(QStringLiteral("ab/z.txt"))); // shares the prefix "a" but not "a/"
    addFile(QStringLiteral("4"), at(QStringLiteral("a")));        // the folder's own path is not below it
    ASSERT_TRUE(context->save());
    EXPECT_EQ(paths(db->getFileContainPath(at(QStringLiteral("a")), context)),
              QStringList{at(QStringLiteral("A/x.txt"))});
    EXPECT_EQ(paths(db->getFileContainPath(at(QStringLiteral("ete")), context)),
              QStringList{at(QStringLiteral("Été/y.txt"))});
    EXPECT_TRUE(db->getFileContainPath(at(QStringLiteral("none")), context).isEmpty());
}

TEST_F(CatalogueQueriesTest, RewritingBelowAFolderReplacesEveryOccurrence)
{
    const QString a = at(QStringLiteral("a"));
    addDirectory(QStringLiteral("d1"), a + QStringLiteral("/s"));
    addFile(QStringLiteral("f1"), a + QStringLiteral("/x"));
    // The old path appears twice in this one: both go.
    addFile(QStringLiteral("f2"), a + QStringLiteral("/") + a.mid(1) + QStringLiteral("/y"));
    addFile(QStringLiteral("f3"),
            at(QStringLiteral("A/z"))); // found case-insensitively, replaced case-sensitively
    addFile(QStringLiteral("f4"), at(QStringLiteral("other/x")));
    ASSERT_TRUE(context->save());
    const QString b = at(QStringLiteral("b"));
    db->changePathOfDirectory(b, a, context);
    db->changePathOfFile(b, a, context);
    EXPECT_FALSE(context->hasChanges());
    EXPECT_EQ(db->getDirectoryWithKey(QStringLiteral("d1"), context)->path(), b + QStringLiteral("/s"));
    EXPECT_EQ(db->getFileWithKey(QStringLiteral("f1"), context)->path(), b + QStringLiteral("/x"));
    EXPECT_EQ(db->getFileWithKey(QStringLiteral("f2"), context)->path(),
              b + QStringLiteral("/") + b.mid(1) + QStringLiteral("/y"));
    EXPECT_EQ(db->getFileWithKey(QStringLiteral("f3"), context)->path(), at(QStringLiteral("A/z")));
    EXPECT_EQ(db->getFileWithKey(QStringLiteral("f4"), context)->path(), at(QStringLiteral("other/x")));

    // A new path outside the sync folder is refused: nothing changes.
    db->changePathOfFile(QStringLiteral("/tmp/elsewhere"), b, context);
    EXPECT_EQ(db->getFileWithKey(QStringLiteral("f1"), context)->path(), b + QStringLiteral("/x"));

    db->deleteFileContainsPath(b, context);
    db->deleteDirectoryContainsPath(b, context);
    EXPECT_EQ(context->fetch<File>().size(), 2);
    EXPECT_TRUE(context->fetch<Directory>().isEmpty());
}

TEST_F(CatalogueQueriesTest, ListsSortsAndParentKeyDeletionsQueueFolderTasks)
{
    for (const char *key : {"9", "10", "2"})
        addDirectory(QString::fromLatin1(key), at(QStringLiteral("d") + QString::fromLatin1(key)), {},
                     QStringLiteral("p"));
    addFile(QStringLiteral("f"), at(QStringLiteral("d9/f")), {}, {}, QStringLiteral("p"));
    addFile(QStringLiteral("g"), at(QStringLiteral("d9/g")), {}, {}, QStringLiteral("q"));
    ASSERT_TRUE(context->save());
    QStringList keys;
    for (const auto &row : db->getAllDirectoryWithManagedObjectContext(context))
        keys.append(row->key());
    EXPECT_EQ(keys,
              (QStringList{QStringLiteral("10"), QStringLiteral("2"), QStringLiteral("9")})); // text order
    EXPECT_EQ(paths(db->getAllFileWithPKey(QStringLiteral("p"), context)),
              QStringList{at(QStringLiteral("d9/f"))});

    db->deleteAllDirectoryWithPKey(QStringLiteral("p"), context);
    db->deleteAllFileWithPKey(QStringLiteral("q"), context);
    const auto tasks = context->fetch<Task>();
    ASSERT_EQ(tasks.size(), 4);
    for (const auto &task : tasks) {
        EXPECT_EQ(task->taskType(), 2);
        EXPECT_EQ(task->folder(), true);
        EXPECT_EQ(task->name(), CataloguePaths::lastPathComponent(task->path()));
    }
    EXPECT_TRUE(db->getTaskWithPath(at(QStringLiteral("d9/g")), context));
    EXPECT_EQ(db->getAllTaskWithPath(at(QStringLiteral("D9")), context).size(), 1);
    EXPECT_FALSE(db->getTaskWithPath(at(QStringLiteral("D9/g")), context)); // == is exact
}

TEST_F(CatalogueQueriesTest, ItemsAtANewPlaceAreFoundByTimeAndNameOrByContent)
{
    const QDateTime when = QDateTime::fromSecsSinceEpoch(1700000000);
    ASSERT_TRUE(QDir().mkpath(at(QStringLiteral("moved/folder"))));
    ASSERT_TRUE(setMTime(at(QStringLiteral("moved/folder")), when));
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("moved/note.txt")), "hello"));
    ASSERT_TRUE(setMTime(at(QStringLiteral("moved/note.txt")), when));
    const QString serverTime = db->localTimeToServerTime(when);
    addDirectory(QStringLiteral("d"), at(QStringLiteral("old/folder")), serverTime);
    addFile(QStringLiteral("same-time-name"), at(QStringLiteral("old/note.txt")), serverTime,
            QStringLiteral("x"));
    addFile(QStringLiteral("same-content"), at(QStringLiteral("old/renamed.txt")), QStringLiteral("1"),
            QStringLiteral("5d41402abc4b2a76b9719d911017c592")); // MD5 of "hello"
    ASSERT_TRUE(context->save());

    EXPECT_EQ(db->getDirectoryWithNewPath(at(QStringLiteral("moved/folder")), context)->key(), u"d");
    EXPECT_EQ(db->getFileWithNewPath(at(QStringLiteral("moved/note.txt")), context)->key(),
              u"same-time-name");
    db->getFileWithKey(QStringLiteral("same-time-name"), context)->setName(QStringLiteral("other"));
    EXPECT_EQ(db->getFileWithNewPath(at(QStringLiteral("moved/note.txt")), context)->key(), u"same-content");
    EXPECT_EQ(db->getFileWithNewPath(at(QStringLiteral("missing")), context), nullptr);
}

// --- Task admission ---

namespace {

// SameTimeOtherContents: dated the same second as the row, but no longer the row's contents.
// SameTimeNotUploaded: the row's contents, but their upload never finished.
enum class Row {
    None,
    SameTime,
    SameTimeOtherContents,
    SameTimeNotUploaded,
    DiskNewer,
    DiskOlder,
    DiskOlderOtherContents, // an older file put in its place
    FileMissing
};

struct AdmissionCase
{
    const char *name;
    int type;
    bool folder;
    Row row;
    int pendingType; // 0: no pending task for the path
    int expected;    // 0: nothing queued
};

class TaskAdmissionTest : public CatalogueQueriesTest, public ::testing::WithParamInterface<AdmissionCase>
{
};

} // namespace

TEST_P(TaskAdmissionTest, AdmitsOrFiltersTheChange)
{
    const AdmissionCase &c = GetParam();
    const QString path = at(QStringLiteral("item"));
    const QDateTime disk = QDateTime::fromSecsSinceEpoch(1700000000);
    if (c.row != Row::FileMissing) {
        if (c.folder)
            ASSERT_TRUE(QDir().mkpath(path));
        else
            ASSERT_TRUE(TestUtil::writeFile(path, "data"));
        ASSERT_TRUE(setMTime(path, disk.addMSecs(400))); // sub-second part is ignored
    }
    const qint64 shift = c.row == Row::DiskNewer                                           ? -5
                         : c.row == Row::DiskOlder || c.row == Row::DiskOlderOtherContents ? 5
                                                                                           : 0;
    if (c.row != Row::None) {
        const QString time = db->localTimeToServerTime(disk.addSecs(shift));
        if (c.folder) {
            addDirectory(QStringLiteral("k"), path, time);
        } else {
            // The row describes the file's "data", or other contents of the same size.
            const QByteArray described =
                c.row == Row::SameTimeOtherContents || c.row == Row::DiskOlderOtherContents ? "dada" : "data";
            const FilePtr row = addFile(
                QStringLiteral("k"), path, time,
                QString::fromLatin1(QCryptographicHash::hash(described, QCryptographicHash::Md5).toHex()));
            row->setSize(QStringLiteral("4"));
            row->setUploadDone(c.row != Row::SameTimeNotUploaded);
        }
    }
    if (c.pendingType) {
        auto pending = context->insertNewObject<Task>();
        pending->setPath(path);
        pending->setTaskType(c.pendingType);
        if (c.pendingType == 3 || c.pendingType == 4)
            pending->setNewPath(at(QStringLiteral("elsewhere")));
    }
    ASSERT_TRUE(context->save());

    const QVariantMap change{{QStringLiteral("kKeyTaskType"), c.type},
                             {QStringLiteral("kKeyTaskFolder"), c.folder},
                             {QStringLiteral("kKeyTaskPath"), path},
                             {QStringLiteral("kKeyTaskNewPath"), at(QStringLiteral("new"))},
                             {QStringLiteral("kKeyTaskName"), QStringLiteral("item")},
                             {QStringLiteral("kKeyTaskTime"), disk}};
    const TaskPtr task = db->addTaskWithDictionary(change, context);
    EXPECT_FALSE(context->hasChanges());
    const int stored = int(context->fetch<Task>().size());
    if (c.expected == 0) {
        EXPECT_EQ(task, nullptr);
        EXPECT_EQ(stored, c.pendingType ? 1 : 0);
        return;
    }
    ASSERT_TRUE(task);
    EXPECT_EQ(task->taskType(), c.expected);
    EXPECT_EQ(stored, c.pendingType ? 2 : 1);
    EXPECT_EQ(task->path(), path);
    EXPECT_EQ(task->newPath(), at(QStringLiteral("new")));
    EXPECT_EQ(task->name(), u"item");
    EXPECT_EQ(task->folder(), c.folder);
    EXPECT_EQ(task->time(), disk);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, TaskAdmissionTest,
    ::testing::Values(
        AdmissionCase{"UpdateWithSameTimeQueuesNothing", 5, false, Row::SameTime, 0, 0},
        AdmissionCase{"UpdateInTheSameSecondWithOtherContentsIsSent", 5, false, Row::SameTimeOtherContents, 0,
                      5},
        AdmissionCase{"AddInTheSameSecondWithOtherContentsIsSent", 1, false, Row::SameTimeOtherContents, 0,
                      5},
        AdmissionCase{"UnfinishedUploadIsSentAgain", 5, false, Row::SameTimeNotUploaded, 0, 5},
        AdmissionCase{"UnfinishedUploadWithItsTaskWaitingStands", 5, false, Row::SameTimeNotUploaded, 1, 0},
        AdmissionCase{"AddOfNewerFileBecomesUpload", 1, false, Row::DiskNewer, 0, 5},
        AdmissionCase{"AddOfOlderFileBecomesNoOp", 1, false, Row::DiskOlder, 0, 6},
        AdmissionCase{"UpdateToAnOlderFileWithOtherContentsIsSent", 5, false, Row::DiskOlderOtherContents, 0,
                      5},
        AdmissionCase{"UpdateOfVanishedFileBecomesDelete", 5, false, Row::FileMissing, 0, 2},
        AdmissionCase{"KnownFolderIsNeverQueuedAgain", 1, true, Row::SameTime, 0, 0},
        AdmissionCase{"KnownFolderWithNewerDateStillNotQueued", 5, true, Row::DiskNewer, 0, 0},
        AdmissionCase{"NewFolderIsQueued", 1, true, Row::None, 0, 1},
        AdmissionCase{"NewFileIsQueued", 5, false, Row::None, 0, 5},
        AdmissionCase{"SameTypeAlreadyPending", 5, false, Row::None, 5, 0},
        AdmissionCase{"EarlierPendingTaskOfOtherTypeStands", 5, false, Row::None, 1, 0},
        AdmissionCase{"PendingFolderTaskStands", 1, true, Row::None, 2, 0},
        AdmissionCase{"NewFileWhereAPendingMoveLeftIsQueued", 1, false, Row::None, 4, 1},
        AdmissionCase{"NewFileWhereAPendingRenameLeftIsQueued", 1, false, Row::None, 3, 1},
        AdmissionCase{"NewFolderWhereAKnownOneIsBeingRenamedAwayIsQueued", 1, true, Row::SameTime, 3, 1},
        AdmissionCase{"NewFolderWhereAKnownOneIsBeingMovedAwayIsQueued", 1, true, Row::SameTime, 4, 1},
        AdmissionCase{"RemovalAlwaysQueued", 2, false, Row::SameTime, 2, 2},
        AdmissionCase{"MoveAlwaysQueued", 4, false, Row::SameTime, 4, 4},
        AdmissionCase{"RenameQueuedDespitePending", 3, true, Row::SameTime, 1, 3}),
    [](const ::testing::TestParamInfo<AdmissionCase> &info) { return std::string(info.param.name); });

// --- Time ---

namespace {

struct ZoneCase
{
    const char *text;
    int offset;
};

class ServerZoneTest : public CatalogueFixture, public ::testing::WithParamInterface<ZoneCase>
{
};

} // namespace

TEST_P(ServerZoneTest, ZoneTextGivesFixedOffset)
{
    account->setTimezone(QString::fromUtf8(GetParam().text));
    ASSERT_TRUE(context->save());
    db->createDateFormat();
    ASSERT_TRUE(db->serverTimeZone());
    EXPECT_EQ(db->serverTimeZone()->offsetFromUtc(QDateTime::currentDateTimeUtc()), GetParam().offset);
    EXPECT_EQ(db->sTimezone(), QString::fromUtf8(GetParam().text));
    EXPECT_EQ(db->dateFormat(), u"yyyyMMddHHmmss");
    EXPECT_TRUE(db->localTimeZone());
}

INSTANTIATE_TEST_SUITE_P(Offsets, ServerZoneTest,
                         ::testing::Values(ZoneCase{"+0900", 32400}, ZoneCase{"-0530", -19800},
                                           ZoneCase{"0", 0}, ZoneCase{"GMT", 0}, ZoneCase{"0900", 32400},
                                           ZoneCase{" -0100 (CET)", -3600}, ZoneCase{"+1345", 49500},
                                           ZoneCase{"+9999", 0}));

TEST_F(CatalogueQueriesTest, ConversionsBetweenServerAndLocalTime)
{
    const QDateTime instant =
        QDateTime::fromSecsSinceEpoch(1700000000, QTimeZone::utc()); // 2023-11-14 22:13:20Z
    EXPECT_EQ(db->localTimeToServerTime(instant), u"20231115071320");
    EXPECT_EQ(db->localTimeToServerTime(instant.addMSecs(999)), u"20231115071320");
    EXPECT_EQ(db->serverTimeToLocalTime(QStringLiteral("20231115071320")).toSecsSinceEpoch(), 1700000000);
    EXPECT_EQ(db->serverTimeToLocalTimeStr(QStringLiteral("20231115071320")),
              instant.toLocalTime().toString(QStringLiteral("yyyyMMddHHmmss")));
    EXPECT_EQ(db->localTimeFromDate(instant),
              instant.toLocalTime().toString(QStringLiteral("yyyyMMddHHmmss")));
    EXPECT_EQ(DatabaseUtils::getDateServerFromDate(instant),
              instant.toLocalTime().toString(QStringLiteral("yyyyMMddHHmmss")));
    for (const char *garbage : {"", "2023111507132", "2023111507132x", "20231345071320"}) {
        EXPECT_FALSE(db->serverTimeToLocalTime(QString::fromLatin1(garbage)).isValid()) << garbage;
        EXPECT_TRUE(db->serverTimeToLocalTimeStr(QString::fromLatin1(garbage)).isEmpty()) << garbage;
    }
    // The same time asked again once either zone has changed is converted again.
    db->setServerTimeZone(QTimeZone(0));
    EXPECT_EQ(db->serverTimeToLocalTime(QStringLiteral("20231115071320")).toSecsSinceEpoch(), 1700032400);
    db->setLocalTimeZone(QTimeZone(3600));
    EXPECT_EQ(db->serverTimeToLocalTimeStr(QStringLiteral("20231115071320")), u"20231115081320");
    EXPECT_EQ(db->serverTimeToLocalTime(QStringLiteral("20231115071320")).toSecsSinceEpoch(), 1700032400);
    db->setServerTimeZone(QTimeZone(9 * 3600));
    db->setLocalTimeZone(QTimeZone::systemTimeZone());

    const QString file = at(QStringLiteral("f.txt"));
    ASSERT_TRUE(TestUtil::writeFile(file, "x"));
    ASSERT_TRUE(setMTime(file, instant.addMSecs(250)));
    EXPECT_EQ(db->serverTimeOfFileAtPath(file), u"20231115071320");
    EXPECT_EQ(db->serverTimeNSDateOfFileAtPath(file).toSecsSinceEpoch(), 1700000000);
    EXPECT_TRUE(db->serverTimeOfFileAtPath(at(QStringLiteral("missing"))).isNull());
}

TEST_F(CatalogueQueriesTest, ChangeVerdictComparesTimeToTheSecondOnly)
{
    const QString file = at(QStringLiteral("f.txt"));
    ASSERT_TRUE(TestUtil::writeFile(file, "content that differs from the server's"));
    const QDateTime disk = QDateTime::fromSecsSinceEpoch(1700000000).addMSecs(900);
    ASSERT_TRUE(setMTime(file, disk));
    const QString same = db->localTimeToServerTime(disk);
    EXPECT_EQ(db->checkFileIsModifierWithPath(file, same, QStringLiteral("not the md5")),
              DatabaseUtils::Unchanged);
    EXPECT_EQ(db->checkFileIsModifierWithPath(file, db->localTimeToServerTime(disk.addSecs(-1)), {}),
              DatabaseUtils::ChangedLocally);
    EXPECT_EQ(db->checkFileIsModifierWithPath(file, db->localTimeToServerTime(disk.addSecs(1)), {}),
              DatabaseUtils::OlderThanServer);
    EXPECT_EQ(db->checkFileIsModifierWithPath(at(QStringLiteral("none")), same, {}), DatabaseUtils::Missing);
    EXPECT_NE(db->checkFileIsModifierWithPath(file, QStringLiteral("garbage"), {}), DatabaseUtils::Unchanged);
}

TEST_F(CatalogueQueriesTest, ChangedFoldersAreListedOnceAndRemovedOnesQueuedForDeletion)
{
    const QDateTime when = QDateTime::fromSecsSinceEpoch(1700000000);
    for (const char *name : {"same", "changed"}) {
        ASSERT_TRUE(QDir().mkpath(at(QString::fromLatin1(name))));
        ASSERT_TRUE(setMTime(at(QString::fromLatin1(name)), when));
    }
    addDirectory(QStringLiteral("1"), at(QStringLiteral("same")), db->localTimeToServerTime(when));
    addDirectory(QStringLiteral("2"), at(QStringLiteral("changed")),
                 db->localTimeToServerTime(when.addSecs(-60)));
    addDirectory(QStringLiteral("3"), at(QStringLiteral("gone")), db->localTimeToServerTime(when));
    ASSERT_TRUE(context->save());

    for (int pass = 1; pass <= 2; ++pass) {
        const QList<DirectoryPtr> changed = db->getAllDirectoryChangedWithManagedObjectContext(context);
        ASSERT_EQ(changed.size(), 1);
        EXPECT_EQ(changed.first()->key(), u"2");
        // Each scan queues the removed folder again (the type-2 rule admits every removal).
        const auto tasks = context->fetch<Task>();
        ASSERT_EQ(tasks.size(), pass);
        EXPECT_EQ(tasks.last()->taskType(), 2);
        EXPECT_EQ(tasks.last()->folder(), true);
        EXPECT_EQ(tasks.last()->path(), at(QStringLiteral("gone")));
        EXPECT_EQ(tasks.last()->name(), u"gone");
    }
}

TEST_F(CatalogueQueriesTest, FolderTimeIsSetOnDiskAndInTheRow)
{
    const QString folder = at(QStringLiteral("d"));
    ASSERT_TRUE(QDir().mkpath(folder));
    addDirectory(QStringLiteral("1"), folder);
    ASSERT_TRUE(context->save());
    const QDateTime when = QDateTime::fromSecsSinceEpoch(1600000000).addMSecs(700);
    db->setTimeModifierForDirectoryAtPath(folder, when);
    EXPECT_EQ(CataloguePaths::modificationDate(folder).toSecsSinceEpoch(), 1600000000);
    EXPECT_EQ(db->getDirectoryWithPath(folder, context)->time(), db->localTimeToServerTime(when));

    ASSERT_TRUE(setMTime(folder, QDateTime::fromSecsSinceEpoch(1650000000)));
    db->setTimeModifierForDirectoryAtPath(folder);
    EXPECT_EQ(db->getDirectoryWithPath(folder, context)->time(),
              db->localTimeToServerTime(QDateTime::fromSecsSinceEpoch(1650000000)));

    db->deleteAllObjectOfEntity(QStringLiteral("Directory"));
    EXPECT_TRUE(context->fetch<Directory>().isEmpty());
    EXPECT_EQ(context->fetch<Infomation>().size(), 1);
}

TEST_F(CatalogueQueriesTest, EditsOfDifferentColumnsFromTwoContextsBothSurvive)
{
    addFile(QStringLiteral("k"), at(QStringLiteral("a/x.txt")), QStringLiteral("1"), QStringLiteral("old"));
    ASSERT_TRUE(context->save());
    auto other = ManagedObjectContext::create(coordinator);
    const FilePtr mine = db->getFileWithKey(QStringLiteral("k"), context);
    const FilePtr theirs = db->getFileWithKey(QStringLiteral("k"), other);
    mine->setPath(at(QStringLiteral("b/x.txt")));
    theirs->setMd5(QStringLiteral("new"));
    ASSERT_TRUE(other->save());
    ASSERT_TRUE(context->save());
    auto fresh = ManagedObjectContext::create(coordinator);
    const FilePtr row = db->getFileWithKey(QStringLiteral("k"), fresh);
    EXPECT_EQ(row->path(), at(QStringLiteral("b/x.txt")));
    EXPECT_EQ(row->md5(), u"new");
    // The folded copy of the path moved with it.
    EXPECT_EQ(db->getFileContainPath(at(QStringLiteral("B")), fresh).size(), 1);
    EXPECT_TRUE(db->getFileContainPath(at(QStringLiteral("a")), fresh).isEmpty());
}
