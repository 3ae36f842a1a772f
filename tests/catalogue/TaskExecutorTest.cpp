// The task executor on a real worker thread against the local server: every task type, the result
// codes that keep or drop a task, and whole-state checks (server tree == sync folder == catalogue).
#include "CatalogueFixture.h"
#include "catalogue/CataloguePaths.h"
#include "protocol/UploadFile.h"

#include <QFile>
#include <QFileInfo>

namespace {

QString nfc(const QString &text)
{
    return text.normalized(QString::NormalizationForm_C);
}

Tree normalised(const Tree &tree, bool keepKeys)
{
    Tree result;
    for (auto it = tree.cbegin(); it != tree.cend(); ++it) {
        TreeItem item = *it;
        if (!keepKeys)
            item.key.clear();
        result.insert(nfc(it.key()), item);
    }
    return result;
}

class TaskExecutorTest : public ServerCatalogueFixture
{
protected:
    void SetUp() override
    {
        ServerCatalogueFixture::SetUp();
        if (HasFatalFailure())
            return;
        worker = std::make_unique<SyncWorker>(*services);
        base = QDateTime::currentDateTime().addSecs(-3600);
    }
    void TearDown() override
    {
        worker.reset();
        ServerCatalogueFixture::TearDown();
    }

    // Stores a task row directly (no admission, no run), in time order of the calls.
    void queue(int type, const QString &relative, bool folder, const QString &newRelative = {})
    {
        ASSERT_TRUE(worker->run([&] {
            auto task = worker->context()->insertNewObject<Task>();
            task->setTaskType(type);
            task->setPath(at(relative));
            task->setName(CataloguePaths::lastPathComponent(relative));
            if (!newRelative.isEmpty())
                task->setNewPath(at(newRelative));
            task->setFolder(folder);
            task->setTime(base.addMSecs(++sequence));
            ASSERT_TRUE(worker->context()->save());
        }));
    }
    // The admission path, as local change capture uses it (it also hands a run to the worker).
    void admit(int type, const QString &relative, bool folder)
    {
        ASSERT_TRUE(worker->run([&] {
            db->addTaskWithDictionary(
                {{QStringLiteral("kKeyTaskType"), type},
                 {QStringLiteral("kKeyTaskFolder"), folder},
                 {QStringLiteral("kKeyTaskPath"), at(relative)},
                 {QStringLiteral("kKeyTaskName"), CataloguePaths::lastPathComponent(relative)},
                 {QStringLiteral("kKeyTaskTime"), base.addMSecs(++sequence)}},
                worker->context());
        }));
    }
    void runTasks()
    {
        ASSERT_TRUE(worker->run([&] { db->doTask(); }, 60000));
    }
    QList<int> pendingTypes()
    {
        QList<int> types;
        worker->run([&] {
            for (const TaskPtr &task : worker->context()->fetch<Task>(
                     Predicate(), {SortDescriptor::sortDescriptorWithKey(QStringLiteral("time"), true)}))
                types.append(int(task->taskType().value_or(0)));
        });
        return types;
    }
    QStringList commands()
    {
        return server().requestedCommands().filter(
            QRegularExpression(QStringLiteral("^(PUT|RENAME|DEL|MOVE|UPLOAD)$")));
    }
    // Server, sync folder and catalogue hold the same items (names compared in precomposed form).
    // `localOnly`: items expected locally but not on the server; `unsent`: also catalogued.
    void expectSameEverywhere(const QStringList &localOnly = {}, const QStringList &unsent = {})
    {
        const Tree onServer = normalised(serverTree(server(), ServerHarness::user()), true);
        Tree local = normalised(localTree(root), false);
        Tree catalogue = normalised(catalogueTree(*context, root), true);
        for (const QString &path : localOnly + unsent)
            local.remove(path);
        for (const QString &path : unsent)
            catalogue.remove(path);
        EXPECT_EQ(normalised(onServer, false), local);
        EXPECT_EQ(catalogue, onServer);
    }
    QStringList works()
    {
        QStringList list;
        for (const LogObject &log : activity.logObjects())
            list.append(QStringLiteral("%1 %2 %3").arg(log.work(), log.path(), log.getIsSuccessStr()));
        return list;
    }

    std::unique_ptr<SyncWorker> worker;
    QDateTime base;
    int sequence = 0;
    ActivityLog activity;
};

} // namespace

TEST_F(TaskExecutorTest, NewFoldersAndFilesAreUploaded)
{
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("docs/a.txt")), "alpha"));
    const QString oddName = QStringLiteral("Cafe\u0301 & <co>.txt"); // decomposed, with XML specials
    ASSERT_TRUE(TestUtil::writeFile(at(oddName), "bravo"));
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("empty.txt")), ""));

    // Admission hands each new task to the worker, which runs it.
    admit(1, QStringLiteral("docs"), true);
    admit(1, QStringLiteral("docs/a.txt"), false);
    admit(5, oddName, false);
    admit(1, QStringLiteral("empty.txt"), false);
    ASSERT_TRUE(TestUtil::waitFor([&] { return pendingTypes().isEmpty() && !db->isDoTask(); }, 60000));

    expectSameEverywhere();
    for (const FilePtr &row : context->fetch<File>())
        EXPECT_EQ(row->uploadDone(), true) << qPrintable(row->path());
    EXPECT_EQ(serverTree(server(), ServerHarness::user()).value(QStringLiteral("empty.txt")).md5,
              u"d41d8cd98f00b204e9800998ecf8427e");

    // The PUT that announced the odd name: precomposed, escaped, MD5 empty, path relative.
    const QString time = db->serverTimeOfFileAtPath(at(oddName));
    const QString expected =
        QStringLiteral("<XML><PUT SESSION =\"%1\"  PCNAME=\"desk\" ><FILE NAME=\"Caf\u00e9 &amp; "
                       "&lt;co&gt;.txt\" SIZE=\"5\" MD5=\"\" TIME=\"%2\" KIND=\"SYNC\">/Caf\u00e9 "
                       "&amp; &lt;co&gt;.txt</FILE></PUT></XML>")
            .arg(harness->session, time);
    QStringList bodies;
    for (const RequestLogEntry &entry : server().requestLog())
        if (entry.command == u"PUT")
            bodies.append(QString::fromUtf8(entry.body));
    EXPECT_TRUE(bodies.contains(expected)) << qPrintable(bodies.join(u'\n'));

    EXPECT_TRUE(works().contains(QStringLiteral("work_add /docs Y")));
    EXPECT_TRUE(works().contains(QStringLiteral("work_add /docs/a.txt Y")));
    EXPECT_TRUE(services->notifications().contains(QStringLiteral("upload_complete | folder: docs")));
    EXPECT_TRUE(services->notifications().contains(QStringLiteral("upload_complete | file: a.txt")));
    EXPECT_TRUE(TestUtil::waitFor([&] { return services->animationStops > 0; }));
    EXPECT_GE(services->animationStarts.load(), 4);
}

TEST_F(TaskExecutorTest, NewFoldersGoBeforeWhatTheyHoldWhateverTheOrderOfTheirTasks)
{
    // A tree moved in: its files keep their old dates, which date their tasks before the folders'.
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("tree/sub/deep.txt")), "deep"));
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("tree/top.txt")), "top"));
    queue(1, QStringLiteral("tree/sub/deep.txt"), false);
    queue(1, QStringLiteral("tree/top.txt"), false);
    queue(1, QStringLiteral("tree/sub"), true);
    queue(1, QStringLiteral("tree"), true);
    runTasks();
    EXPECT_TRUE(pendingTypes().isEmpty());
    expectSameEverywhere();
    EXPECT_EQ(commands().count(QStringLiteral("UPLOAD")), 2);
}

TEST_F(TaskExecutorTest, RenamesReachTheServerAndTheCatalogue)
{
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("docs/sub/a.txt")), "alpha"));
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("b.txt")), "bravo"));
    queue(1, QStringLiteral("docs"), true);
    queue(1, QStringLiteral("docs/sub"), true);
    queue(1, QStringLiteral("docs/sub/a.txt"), false);
    queue(1, QStringLiteral("b.txt"), false);
    runTasks();
    expectSameEverywhere();

    ASSERT_TRUE(QDir().rename(at(QStringLiteral("docs")), at(QStringLiteral("papers"))));
    ASSERT_TRUE(QDir().rename(at(QStringLiteral("b.txt")), at(QStringLiteral("c.txt"))));
    queue(3, QStringLiteral("docs"), true, QStringLiteral("papers"));
    queue(3, QStringLiteral("b.txt"), false, QStringLiteral("c.txt"));
    server().clearRequestLog();
    runTasks();
    EXPECT_TRUE(pendingTypes().isEmpty());
    EXPECT_EQ(commands(), (QStringList{QStringLiteral("RENAME"), QStringLiteral("RENAME")}));
    expectSameEverywhere();
    EXPECT_TRUE(
        activity.texts().contains(QStringLiteral("Sent rename folder old name: docs ---- new name: papers")));
    EXPECT_TRUE(
        activity.texts().contains(QStringLiteral("Sent rename file old name: b.txt ---- new name: c.txt")));
    EXPECT_TRUE(works().contains(QStringLiteral("work_rename /papers Y")));
}

TEST_F(TaskExecutorTest, ARenameOrMoveIntoAPlaceJustEmptiedGoesAfterTheOneThatEmptiedIt)
{
    // "café" spelled decomposed here: on the server, where names are composed, it is "café".
    const QString decomposed = QStringLiteral("cafe\u0301.txt");
    for (const char *file : {"x/f.txt", "z/f.txt", "a.txt", "b.txt", "d.txt"})
        ASSERT_TRUE(TestUtil::writeFile(at(QLatin1String(file)), QByteArray("was ") + file));
    ASSERT_TRUE(TestUtil::writeFile(at(decomposed), "was café"));
    ASSERT_TRUE(QDir().mkpath(at(QStringLiteral("y"))));
    for (const char *folder : {"x", "y", "z"})
        queue(1, QLatin1String(folder), true);
    for (const char *file : {"x/f.txt", "z/f.txt", "a.txt", "b.txt", "d.txt"})
        queue(1, QLatin1String(file), false);
    queue(1, decomposed, false);
    runTasks();
    expectSameEverywhere();

    // One file moved away and another moved into its place; two names swapped through a third; a
    // file deleted and another renamed to its name in the other spelling.
    const auto move = [&](const char *from, const char *to) {
        ASSERT_TRUE(QDir().rename(at(QLatin1String(from)), at(QLatin1String(to))));
    };
    move("x/f.txt", "y/f.txt");
    move("z/f.txt", "x/f.txt");
    move("a.txt", "t.txt");
    move("b.txt", "a.txt");
    move("t.txt", "b.txt");
    ASSERT_TRUE(QFile::remove(at(decomposed)));
    ASSERT_TRUE(QDir().rename(at(QStringLiteral("d.txt")), at(QStringLiteral("caf\u00e9.txt"))));
    queue(4, QStringLiteral("x/f.txt"), false, QStringLiteral("y/f.txt"));
    queue(4, QStringLiteral("z/f.txt"), false, QStringLiteral("x/f.txt"));
    queue(3, QStringLiteral("a.txt"), false, QStringLiteral("t.txt"));
    queue(3, QStringLiteral("b.txt"), false, QStringLiteral("a.txt"));
    queue(3, QStringLiteral("t.txt"), false, QStringLiteral("b.txt"));
    queue(2, decomposed, false);
    queue(3, QStringLiteral("d.txt"), false, QStringLiteral("caf\u00e9.txt"));
    // The tasks carry the files' dates: those recorded later may well be the older ones.
    ASSERT_TRUE(worker->run([&] {
        for (const TaskPtr &task : worker->context()->fetch<Task>())
            task->setTime(base.addSecs(-task->objectID()));
        ASSERT_TRUE(worker->context()->save());
    }));
    server().clearRequestLog();
    runTasks();
    EXPECT_TRUE(pendingTypes().isEmpty());
    expectSameEverywhere();
    EXPECT_EQ(server().fileContents(ServerHarness::user(), QStringLiteral("y/f.txt")), "was x/f.txt");
    EXPECT_EQ(server().fileContents(ServerHarness::user(), QStringLiteral("x/f.txt")), "was z/f.txt");
    EXPECT_EQ(server().fileContents(ServerHarness::user(), QStringLiteral("a.txt")), "was b.txt");
    EXPECT_EQ(server().fileContents(ServerHarness::user(), QStringLiteral("b.txt")), "was a.txt");
    EXPECT_EQ(server().fileContents(ServerHarness::user(), QStringLiteral("caf\u00e9.txt")), "was d.txt");
}

TEST_F(TaskExecutorTest, WritesAndNewItemsWaitForTheRenameOrMoveTheyDependOn)
{
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("docs/a.txt")), "alpha"));
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("b.txt")), "bravo"));
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("m.txt")), "mike"));
    queue(1, QStringLiteral("docs"), true);
    queue(1, QStringLiteral("docs/a.txt"), false);
    queue(1, QStringLiteral("b.txt"), false);
    queue(1, QStringLiteral("m.txt"), false);
    runTasks();
    expectSameEverywhere();

    // Written, then renamed (or moved) before the task ran: the write's task is dated by the file,
    // before the rename's, and names a path where nothing is any more.
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("b.txt")), "bravo, written again"));
    ASSERT_TRUE(QDir().rename(at(QStringLiteral("b.txt")), at(QStringLiteral("c.txt"))));
    queue(5, QStringLiteral("b.txt"), false);
    queue(3, QStringLiteral("b.txt"), false, QStringLiteral("c.txt"));
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("m.txt")), "mike, written again"));
    ASSERT_TRUE(QDir().rename(at(QStringLiteral("m.txt")), at(QStringLiteral("docs/m.txt"))));
    queue(5, QStringLiteral("m.txt"), false);
    queue(4, QStringLiteral("m.txt"), false, QStringLiteral("docs/m.txt"));
    // A folder renamed, then a file made in it, whose task is dated before the rename's.
    ASSERT_TRUE(QDir().rename(at(QStringLiteral("docs")), at(QStringLiteral("papers"))));
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("papers/new.txt")), "new"));
    queue(1, QStringLiteral("papers/new.txt"), false);
    queue(3, QStringLiteral("docs"), true, QStringLiteral("papers"));
    // Renamed away, a new file made under the old name and renamed twice: the new file's tasks go
    // with the last renames, not with the first.
    ASSERT_TRUE(QDir().rename(at(QStringLiteral("c.txt")), at(QStringLiteral("d.txt"))));
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("c.txt")), "charlie, the second"));
    ASSERT_TRUE(QDir().rename(at(QStringLiteral("c.txt")), at(QStringLiteral("e.txt"))));
    ASSERT_TRUE(QDir().rename(at(QStringLiteral("e.txt")), at(QStringLiteral("f.txt"))));
    queue(3, QStringLiteral("c.txt"), false, QStringLiteral("d.txt"));
    queue(1, QStringLiteral("c.txt"), false);
    queue(5, QStringLiteral("c.txt"), false);
    queue(3, QStringLiteral("c.txt"), false, QStringLiteral("e.txt"));
    queue(3, QStringLiteral("e.txt"), false, QStringLiteral("f.txt"));
    // A new folder where the renamed one was, with a file: they stay where they are.
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("docs/again.txt")), "again"));
    queue(1, QStringLiteral("docs"), true);
    queue(1, QStringLiteral("docs/again.txt"), false);
    // Something made in a folder just before it moved, whose task ran (and went, its path gone)
    // before the move was reported: taken up again after the move.
    ASSERT_TRUE(QDir().mkpath(at(QStringLiteral("box"))));
    queue(1, QStringLiteral("box"), true);
    runTasks();
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("box/late/f.txt")), "foxtrot"));
    ASSERT_TRUE(QDir().rename(at(QStringLiteral("box")), at(QStringLiteral("crate"))));
    queue(3, QStringLiteral("box"), true, QStringLiteral("crate"));
    runTasks();

    EXPECT_TRUE(pendingTypes().isEmpty());
    expectSameEverywhere();
    const Tree onServer = serverTree(server(), ServerHarness::user());
    EXPECT_TRUE(onServer.contains(QStringLiteral("crate/late/f.txt")));
    EXPECT_EQ(onServer.value(QStringLiteral("d.txt")).md5,
              UploadFile::getMD5OfFileAtPath(at(QStringLiteral("d.txt"))));
    EXPECT_EQ(onServer.value(QStringLiteral("f.txt")).md5,
              UploadFile::getMD5OfFileAtPath(at(QStringLiteral("f.txt"))));
    EXPECT_EQ(onServer.value(QStringLiteral("papers/m.txt")).md5,
              UploadFile::getMD5OfFileAtPath(at(QStringLiteral("papers/m.txt"))));
    EXPECT_TRUE(onServer.contains(QStringLiteral("docs/again.txt")));
}

TEST_F(TaskExecutorTest, DeletesReachTheServerAndAFolderMadeAgainIsSentAnew)
{
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("docs/a.txt")), "alpha"));
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("x.txt")), "x-ray"));
    queue(1, QStringLiteral("docs"), true);
    queue(1, QStringLiteral("docs/a.txt"), false);
    queue(1, QStringLiteral("x.txt"), false);
    runTasks();
    expectSameEverywhere();
    const QString oldDocsKey = serverTree(server(), ServerHarness::user()).value(QStringLiteral("docs")).key;

    ASSERT_TRUE(QFile::remove(at(QStringLiteral("x.txt"))));
    ASSERT_TRUE(QDir(at(QStringLiteral("docs"))).removeRecursively());
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("docs/n.txt")), "november")); // the folder is back
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("late.txt")), "lima"));
    queue(2, QStringLiteral("x.txt"), false);
    queue(2, QStringLiteral("docs"), true);
    queue(1, QStringLiteral("docs/n.txt"), false); // dropped with the folder's restart, found again
    queue(1, QStringLiteral("late.txt"), false);   // taken after the restart
    server().clearRequestLog();
    runTasks();

    EXPECT_TRUE(pendingTypes().isEmpty());
    EXPECT_EQ(commands(), (QStringList{QStringLiteral("DEL"), QStringLiteral("DEL"), QStringLiteral("PUT"),
                                       QStringLiteral("PUT"), QStringLiteral("UPLOAD"), QStringLiteral("PUT"),
                                       QStringLiteral("UPLOAD")}));
    const Tree onServer = serverTree(server(), ServerHarness::user(), false);
    EXPECT_EQ(onServer.keys(), (QStringList{QStringLiteral("docs"), QStringLiteral("docs/n.txt"),
                                            QStringLiteral("late.txt")}));
    EXPECT_NE(serverTree(server(), ServerHarness::user()).value(QStringLiteral("docs")).key, oldDocsKey);
    expectSameEverywhere();
    EXPECT_TRUE(activity.texts().contains(QStringLiteral("Sent delete file: x.txt")));
    EXPECT_TRUE(activity.texts().contains(QStringLiteral("Sent delete folder: docs")));
    EXPECT_TRUE(services->notifications().contains(QStringLiteral("deleted | file: x.txt")));
    EXPECT_TRUE(works().contains(QStringLiteral("work_delete /x.txt Y")));
}

TEST_F(TaskExecutorTest, MoveIntoAFolderNotYetOnTheServerWaitsForIt)
{
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("x.txt")), "x-ray"));
    queue(1, QStringLiteral("x.txt"), false);
    runTasks();
    ASSERT_TRUE(QDir().mkpath(at(QStringLiteral("new"))));
    ASSERT_TRUE(QDir().rename(at(QStringLiteral("x.txt")), at(QStringLiteral("new/x.txt"))));
    queue(4, QStringLiteral("x.txt"), false, QStringLiteral("new/x.txt"));
    queue(1, QStringLiteral("new"), true);
    runTasks();
    EXPECT_EQ(pendingTypes(), QList<int>{4}); // kept until the folder is known
    EXPECT_TRUE(serverTree(server(), ServerHarness::user()).contains(QStringLiteral("x.txt")));

    runTasks();
    EXPECT_TRUE(pendingTypes().isEmpty());
    expectSameEverywhere();
    const Tree onServer = serverTree(server(), ServerHarness::user());
    EXPECT_EQ(db->getFileWithPath(at(QStringLiteral("new/x.txt")), context)->pkey(),
              onServer.value(QStringLiteral("new")).key);
    EXPECT_TRUE(
        activity.texts().contains(QStringLiteral("Sent move file old path: %1 ---- new path: %2")
                                      .arg(at(QStringLiteral("x.txt")), at(QStringLiteral("new/x.txt")))));

    // And back to the top level, whose key is the account's root key.
    ASSERT_TRUE(QDir().rename(at(QStringLiteral("new/x.txt")), at(QStringLiteral("x.txt"))));
    queue(4, QStringLiteral("new/x.txt"), false, QStringLiteral("x.txt"));
    runTasks();
    expectSameEverywhere();
    EXPECT_EQ(db->getFileWithPath(at(QStringLiteral("x.txt")), context)->pkey(), harness->rootKey);
}

TEST_F(TaskExecutorTest, UploadsThatFailOrAreCancelledStayUntilStored)
{
    // Refused, cut off before the verdict, or lost without an answer: new file and edit alike stay.
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("r.txt")), "romeo"));
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("e.txt")), "echo"));
    server().refuseUploads(1);
    Fault cut;
    cut.kind = Fault::Kind::CutReply;
    cut.command = QStringLiteral("UPLOAD");
    server().addFault(cut);
    queue(1, QStringLiteral("r.txt"), false);
    queue(5, QStringLiteral("e.txt"), false);
    runTasks();
    EXPECT_EQ(pendingTypes(), (QList<int>{1, 5}));
    EXPECT_TRUE(serverTree(server(), ServerHarness::user()).isEmpty());
    ASSERT_TRUE(db->getFileWithPath(at(QStringLiteral("r.txt")), context));
    EXPECT_EQ(db->getFileWithPath(at(QStringLiteral("r.txt")), context)->uploadDone(), false);
    EXPECT_TRUE(works().contains(QStringLiteral("work_add /r.txt N")));
    EXPECT_TRUE(works().contains(QStringLiteral("work_add /e.txt N")));
    server().cutReplies(QStringLiteral("UPLOAD"), 1); // strikes the oldest, r.txt
    runTasks();
    EXPECT_EQ(pendingTypes(), QList<int>{1});
    runTasks();
    EXPECT_TRUE(pendingTypes().isEmpty());
    expectSameEverywhere();

    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("c.txt")), "charlie"));
    server().delayReplies(QStringLiteral("UPLOAD"), 30000);
    queue(1, QStringLiteral("c.txt"), false);
    auto finished = std::make_shared<std::atomic<bool>>(false);
    worker->post([this, finished] {
        db->doTask();
        *finished = true;
    });
    ASSERT_TRUE(TestUtil::waitFor([] { return UploadFile::currentUpload() != nullptr; }));
    UploadFile::cancelCurrentUpload();
    ASSERT_TRUE(TestUtil::waitFor([&] { return finished->load(); }));
    EXPECT_EQ(pendingTypes(), QList<int>{1});
    EXPECT_TRUE(works().contains(QStringLiteral("work_add /c.txt N")));

    server().clearFaults();
    runTasks();
    EXPECT_TRUE(pendingTypes().isEmpty());
    expectSameEverywhere();
}

TEST_F(TaskExecutorTest, AFileWrittenAgainDuringItsUploadIsSentAgain)
{
    // Larger than what the connection holds: the upload is reading it when it is written again.
    const QString file = at(QStringLiteral("f.bin"));
    const QByteArray before(16 * 1024 * 1024, 'a'), after(16 * 1024 * 1024, 'b');
    ASSERT_TRUE(TestUtil::writeFile(file, before));
    const QDateTime dated = QFileInfo(file).lastModified();
    server().delayReplies(QStringLiteral("UPLOAD"), 1500);
    queue(1, QStringLiteral("f.bin"), false);
    auto finished = std::make_shared<std::atomic<bool>>(false);
    worker->post([this, finished] {
        db->doTask();
        *finished = true;
    });
    // The server logs the upload once its whole body is in: 16 MiB under the sanitizers on a busy
    // machine can take longer than the default bound.
    ASSERT_TRUE(TestUtil::waitFor(
        [&] { return server().requestedCommands().contains(QStringLiteral("UPLOAD")); }, 60000));
    // Same size, same second: only the contents differ from what is being sent.
    ASSERT_TRUE(TestUtil::writeFile(file, after));
    ASSERT_TRUE(setMTime(file, dated));
    ASSERT_TRUE(TestUtil::waitFor([&] { return finished->load(); }, 60000));
    ASSERT_TRUE(pendingTypes().isEmpty());

    admit(5, QStringLiteral("f.bin"), false); // what the watcher reports of the second write
    ASSERT_TRUE(TestUtil::waitFor([&] { return pendingTypes().isEmpty() && !db->isDoTask(); }, 60000));
    EXPECT_TRUE(server().fileContents(ServerHarness::user(), QStringLiteral("f.bin")) == after);
    expectSameEverywhere();
}

TEST_F(TaskExecutorTest, LostRepliesKeepTheTaskOrResendThePut)
{
    // Answers that break off after their head: the network layer does not resend those by itself.
    auto cut = [this](const QString &command, int count) {
        Fault fault;
        fault.kind = Fault::Kind::CutReply;
        fault.command = command;
        fault.count = count;
        server().addFault(fault);
    };
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("a.txt")), "alpha"));
    cut(QStringLiteral("PUT"), 2);
    queue(1, QStringLiteral("a.txt"), false);
    runTasks();
    EXPECT_TRUE(pendingTypes().isEmpty());
    EXPECT_EQ(commands(), (QStringList{QStringLiteral("PUT"), QStringLiteral("PUT"), QStringLiteral("PUT"),
                                       QStringLiteral("UPLOAD")})); // resent until answered
    expectSameEverywhere();

    ASSERT_TRUE(QDir().rename(at(QStringLiteral("a.txt")), at(QStringLiteral("b.txt"))));
    queue(3, QStringLiteral("a.txt"), false, QStringLiteral("b.txt"));
    cut(QStringLiteral("RENAME"), 1);
    runTasks();
    EXPECT_EQ(pendingTypes(), QList<int>{3});
    runTasks();
    EXPECT_TRUE(pendingTypes().isEmpty());
    expectSameEverywhere();

    // A reply that is not XML ends the run; the task stays and the next run completes it.
    LogCapture diagnostics;
    ASSERT_TRUE(QFile::remove(at(QStringLiteral("b.txt"))));
    queue(2, QStringLiteral("b.txt"), false);
    server().replyWithBody(QStringLiteral("DEL"), "-3");
    runTasks();
    EXPECT_FALSE(db->isDoTask());
    EXPECT_EQ(pendingTypes(), QList<int>{2});
    EXPECT_TRUE(diagnostics.contains(QStringLiteral("Error read xml")));
    runTasks();
    EXPECT_TRUE(pendingTypes().isEmpty());
    expectSameEverywhere();
}

TEST_F(TaskExecutorTest, IgnoredTasksSendNothing)
{
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral(".DS_Store")), "finder"));
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("kept.txt")), "kilo"));
    queue(1, QStringLiteral(".DS_Store"), false);
    queue(5, QStringLiteral(".DS_Store"), false);
    queue(1, QStringLiteral("missing.txt"), false);
    queue(6, QStringLiteral("kept.txt"), false);
    queue(2, QStringLiteral("never-catalogued.txt"), false);
    queue(4, QStringLiteral("unknown.txt"), false, QStringLiteral("elsewhere.txt"));
    queue(9, QStringLiteral("kept.txt"), false); // unknown code: left alone
    // One run at a time: a run in progress makes another return at once.
    db->setIsDoTask(true);
    runTasks();
    EXPECT_EQ(pendingTypes().size(), 7);
    db->setIsDoTask(false);
    runTasks();
    EXPECT_EQ(pendingTypes(), QList<int>{9});
    EXPECT_TRUE(commands().isEmpty());
}

TEST_F(TaskExecutorTest, RenameOfANeverUploadedFolderUploadsItUnderTheNewName)
{
    ASSERT_TRUE(QDir().mkpath(at(QStringLiteral("old"))));
    queue(1, QStringLiteral("old"), true);
    ASSERT_TRUE(QDir().rename(at(QStringLiteral("old")), at(QStringLiteral("fresh"))));
    queue(3, QStringLiteral("old"), true, QStringLiteral("fresh"));
    runTasks();
    EXPECT_TRUE(pendingTypes().isEmpty());
    EXPECT_EQ(commands(), QStringList{QStringLiteral("PUT")});
    expectSameEverywhere();
    EXPECT_TRUE(serverTree(server(), ServerHarness::user()).contains(QStringLiteral("fresh")));
}

TEST_F(TaskExecutorTest, TheWatchersReportOfARenameFromTheServerSendsNothing)
{
    ASSERT_TRUE(QDir().mkpath(at(QStringLiteral("docs"))));
    queue(1, QStringLiteral("docs"), true);
    runTasks();
    // The server renamed it and that was applied here; then the watcher reports the rename.
    ASSERT_TRUE(QDir().rename(at(QStringLiteral("docs")), at(QStringLiteral("papers"))));
    ASSERT_TRUE(worker->run([&] {
        const DirectoryPtr row = db->getDirectoryWithPath(at(QStringLiteral("docs")), worker->context());
        ASSERT_TRUE(row);
        row->setName(QStringLiteral("papers"));
        row->setPath(at(QStringLiteral("papers")));
        ASSERT_TRUE(worker->context()->save());
    }));
    ASSERT_TRUE(server().renameItem(ServerHarness::user(), QStringLiteral("docs"), QStringLiteral("papers")));
    queue(3, QStringLiteral("docs"), true, QStringLiteral("papers"));
    server().clearRequestLog();
    runTasks();
    EXPECT_TRUE(pendingTypes().isEmpty());
    EXPECT_EQ(commands(), QStringList());
    expectSameEverywhere();
}

TEST_F(TaskExecutorTest, PlaceholderDateHoldsTheUploadAndCancellationEndsTheWorker)
{
    LogCapture diagnostics;
    const QDateTime placeholder(QDate(1904, 1, 1), QTime(7, 6, 40));
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("w.txt")), "whiskey"));
    ASSERT_TRUE(setMTime(at(QStringLiteral("w.txt")), placeholder));
    queue(1, QStringLiteral("w.txt"), false);
    auto finished = std::make_shared<std::atomic<bool>>(false);
    worker->post([this, finished] {
        db->doTask();
        *finished = true;
    });
    ASSERT_TRUE(
        TestUtil::waitFor([&] { return diagnostics.lines().filter(QStringLiteral("]Wait")).size() >= 2; }));
    EXPECT_TRUE(commands().isEmpty());
    ASSERT_TRUE(setMTime(at(QStringLiteral("w.txt")), QDateTime::currentDateTime()));
    ASSERT_TRUE(TestUtil::waitFor([&] { return finished->load(); }, 60000));
    EXPECT_TRUE(pendingTypes().isEmpty());
    expectSameEverywhere();

    // Cancelled while waiting: the upload gives up and the worker thread ends.
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("z.txt")), "zulu"));
    ASSERT_TRUE(setMTime(at(QStringLiteral("z.txt")), placeholder));
    queue(1, QStringLiteral("z.txt"), false);
    queue(1, QStringLiteral("w.txt"), false); // never reached
    diagnostics.clear();
    worker->post([this] { db->doTask(); });
    ASSERT_TRUE(TestUtil::waitFor([&] { return diagnostics.contains(QStringLiteral("]Wait")); }));
    worker->thread()->requestInterruption();
    ASSERT_TRUE(TestUtil::waitFor([&] { return worker->thread()->isFinished(); }));
    EXPECT_FALSE(db->isDoTask());
    EXPECT_EQ(context->fetch<Task>().size(), 1); // z.txt's task went with -5; w.txt's stays
}
