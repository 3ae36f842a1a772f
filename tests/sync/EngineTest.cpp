// The sync engine against the local server (and the watcher daemon it starts): the first
// synchronisation, the work list with every kind of server change, session refusals, the last-check
// time, and a disconnect in the middle of a pass. States are compared whole: the server's tree with
// its MD5s, the sync folder and the catalogue.
#include "EngineTestSupport.h"
#include "catalogue/CataloguePaths.h"
#include "catalogue/DatabaseUtils.h"

#include <QDir>
#include <QFileInfo>
#include <QThread>

namespace {

using State = ProcessWindowController::State;

// What the engine may ask of the server when it has nothing of its own to send.
const QStringList kReadOnlyCommands = {QStringLiteral("LIST"),     QStringLiteral("SYNCLIST"),
                                       QStringLiteral("WORKLIST"), QStringLiteral("SERVERTIME"),
                                       QStringLiteral("INFO"),     QStringLiteral("DOWNLOAD")};

const QString kOdd = QStringLiteral("Ünïcødé & <x> \"q\" 'é'");

class EngineTest : public EngineFixture
{
protected:
    // Commands outside the read-only set, e.g. anything sent back to the server. With
    // `folderPuts` false, a PUT of folders only is left out: the rename of a folder that the engine
    // made itself is announced again, which the server takes as the folder it already has.
    QStringList writes(bool folderPuts = true)
    {
        QStringList found;
        for (const RequestLogEntry &entry : srv().requestLog()) {
            if (kReadOnlyCommands.contains(entry.command))
                continue;
            if (!folderPuts && entry.command == u"PUT" && !entry.body.contains("<FILE"))
                continue;
            found.append(entry.command);
        }
        return found;
    }
    void put(const QString &relative, const QByteArray &data, const QString &time = {})
    {
        ASSERT_FALSE(srv().putFile(user(), relative, data, time).isEmpty()) << qPrintable(relative);
    }
    // Passes go by every 0.6 s at the tests' time scale: a few of them is the longest wait for
    // something that must not happen.
    bool nothingFor(const std::function<bool()> &happened) { return !TestUtil::waitFor(happened, 2500); }
};

} // namespace

TEST_F(EngineTest, FirstSyncMirrorsTheServerTreeAndSendsNothingBack)
{
    put(QStringLiteral("Docs/report.txt"), "first report", QStringLiteral("20200102030405"));
    put(kOdd + u'/' + kOdd + QStringLiteral(".txt"), QByteArray(3000, '\x01'),
        QStringLiteral("20210304050607"));
    put(QStringLiteral("Docs/deep/er/leaf.bin"), QByteArray(70000, 'z'), QStringLiteral("20190101000001"));
    put(QStringLiteral("empty.txt"), QByteArray(), QStringLiteral("20220202020202"));
    ASSERT_FALSE(srv().makeFolder(user(), QStringLiteral("Empty folder")).isEmpty());
    srv().clearRequestLog();

    start();
    ASSERT_TRUE(waitInStep()) << local() << server();
    expectInStep();
    EXPECT_EQ(local().size(), 9);
    EXPECT_EQ(TestUtil::readFile(at(QStringLiteral("Docs/report.txt"))), "first report");
    // Dates to the second, folders included (their children were written after them).
    for (const TreeEntry &entry : srv().tree(user()))
        EXPECT_EQ(QFileInfo(at(entry.path)).lastModified().toSecsSinceEpoch(),
                  serverDate(entry.time).toSecsSinceEpoch())
            << qPrintable(entry.path);

    // Nothing goes back, not even after the watcher daemon has reported what the sync wrote.
    ASSERT_TRUE(
        TestUtil::waitFor([&] { return log.count(QStringLiteral("Connect to socket server complete")); }));
    markPasses();
    ASSERT_TRUE(waitForPasses(2));
    ASSERT_TRUE(waitQuiet());
    EXPECT_EQ(writes().join(u' '), QString());
    expectInStep();

    const InfomationPtr info = account();
    EXPECT_EQ(info->firstSync(), true);
    EXPECT_EQ(info->cloudFolderKey(), harness->rootKey); // found in the top-level listing
    EXPECT_EQ(info->lastUpdate().size(), 14);
    EXPECT_EQ(log.count(QStringLiteral("Check struct of Ferrovane!")), 1);
    EXPECT_GE(log.count(QStringLiteral("Read sync list complete")), 3)
        << qPrintable(log.activity().join(u'\n'));
    EXPECT_EQ(engine->state(), State::Idle);
    EXPECT_EQ(states.first(), State::Syncing);

    // A second start on the same store walks nothing again: SYNCLIST, no listing, no download.
    stop();
    srv().clearRequestLog();
    passes = 0;
    start();
    ASSERT_TRUE(waitQuiet());
    EXPECT_FALSE(commands().contains(QStringLiteral("LIST")));
    EXPECT_FALSE(commands().contains(QStringLiteral("DOWNLOAD")));
    EXPECT_EQ(writes().join(u' '), QString());
    expectInStep();
}

TEST_F(EngineTest, ServerChangesMadeDuringTheFirstWalkReachTheFolder)
{
    put(QStringLiteral("Walked/one.txt"), "one", QStringLiteral("20200102030405"));
    put(QStringLiteral("Walked/two.txt"), "two", QStringLiteral("20200102030405"));
    // The listing of the folder is slow: the walk is under way, the tree has been read.
    srv().delayReplies(QStringLiteral("LIST"), 1500, 2);
    const auto walking = [&] {
        const QList<RequestLogEntry> requests = srv().requestLog();
        return std::any_of(requests.cbegin(), requests.cend(), [](const RequestLogEntry &entry) {
            return entry.command == u"LIST" && entry.body.contains("DIRKEY");
        });
    };
    start();
    ASSERT_TRUE(TestUtil::waitFor(walking));
    put(QStringLiteral("during the walk.txt"), "late");
    put(QStringLiteral("Walked/two.txt"), "two, edited", QStringLiteral("20300101000000"));
    ASSERT_TRUE(waitInStep()) << local() << server();
    expectInStep();
    EXPECT_EQ(TestUtil::readFile(at(QStringLiteral("during the walk.txt"))), "late");
    EXPECT_EQ(TestUtil::readFile(at(QStringLiteral("Walked/two.txt"))), "two, edited");
}

TEST_F(EngineTest, ServerNamesThatWouldLeaveTheSyncFolderChangeNothing)
{
    const QString okKey =
        srv().putFile(user(), QStringLiteral("ok.txt"), "fine", QStringLiteral("20200101000000"));
    const QString entry = QStringLiteral("<%1 NAME=\"%2\" TIME=\"20200101000000\" SIZE=\"4\" MD5=\"\" "
                                         "KEY=\"%3\" PKEY=\"%4\" MEMO=\"0\" PRIV=\"rwd\"/>");
    QString items;
    for (const QString &name :
         {QStringLiteral(".."), QStringLiteral("a/b"), QStringLiteral("/etc"), QStringLiteral(".")})
        items += entry.arg(QStringLiteral("DIR"), name, QStringLiteral("9000"), harness->rootKey);
    for (const QString &name :
         {QStringLiteral("../escape.txt"), QStringLiteral(".."), QStringLiteral("x/../../y")})
        items += entry.arg(QStringLiteral("FILE"), name, okKey, harness->rootKey);
    items += entry.arg(QStringLiteral("FILE"), QStringLiteral("ok.txt"), okKey, harness->rootKey);
    srv().replyWithBody(QStringLiteral("SYNCLIST"),
                        QStringLiteral("<XML><SYNCLIST KEY=\"%1\">%2</SYNCLIST></XML>")
                            .arg(harness->rootKey, items)
                            .toUtf8());
    // The work list names places outside the folder too, by path and by name.
    srv().replyWithBody(
        QStringLiteral("WORKLIST"),
        QStringLiteral(
            "<XML><WORKLIST ID=\"20200101000010\">"
            "<ADD ID=\"20200101000001\" KEY=\"%1\" FOLDER=\"0\" NAME=\"ok.txt\" SIZE=\"4\" MD5=\"\" "
            "PKEY=\"%2\" TIME=\"20300101000000\">syncfolder/../ok.txt</ADD>"
            "<ADD ID=\"20200101000002\" KEY=\"%1\" FOLDER=\"0\" NAME=\"..\" SIZE=\"4\" MD5=\"\" "
            "PKEY=\"%2\" TIME=\"20300101000000\">syncfolder/..</ADD>"
            "<ADD ID=\"20200101000003\" KEY=\"9001\" FOLDER=\"1\" NAME=\"up\" SIZE=\"-1\" MD5=\"\" "
            "PKEY=\"%2\" TIME=\"20300101000000\">/../../up</ADD>"
            "<RENAME ID=\"20200101000004\" KEY=\"%1\" FOLDER=\"0\" NAME=\"../../renamed.txt\">x</RENAME>"
            "<MOVE ID=\"20200101000005\" KEY=\"%1\" FOLDER=\"0\" NAME=\"..\" DEST_PARENT_KEY=\"%2\">x</MOVE>"
            "</WORKLIST></XML>")
            .arg(okKey, harness->rootKey)
            .toUtf8());
    start();
    ASSERT_TRUE(waitForPasses(1));
    ASSERT_TRUE(waitQuiet());
    EXPECT_EQ(
        QDir(syncDir.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden).join(u'|'),
        QStringLiteral("CloudFolder"));
    EXPECT_EQ(QDir(root).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden).join(u'|'),
              QStringLiteral("ok.txt"));
    EXPECT_EQ(TestUtil::readFile(at(QStringLiteral("ok.txt"))), "fine");
    EXPECT_FALSE(log.diagnostics(QStringLiteral("outside the sync folder skipped")).isEmpty());
    expectInStep();
}

TEST_F(EngineTest, WorkListAppliesEveryKindOfServerChange)
{
    put(QStringLiteral("Docs/a.txt"), QByteArray(5000, 'a'), QStringLiteral("20200101000000"));
    put(QStringLiteral("Docs/b.txt"), "b", QStringLiteral("20200101000000"));
    put(QStringLiteral("c.txt"), "c", QStringLiteral("20200101000000"));
    put(QStringLiteral("Old/x.txt"), "x", QStringLiteral("20200101000000"));
    ASSERT_FALSE(srv().makeFolder(user(), QStringLiteral("Keep")).isEmpty());
    start();
    ASSERT_TRUE(waitInStep());
    const QString before = account()->lastUpdate();
    srv().clearRequestLog();

    // Another computer changes everything at once.
    ASSERT_FALSE(srv().makeFolder(user(), QStringLiteral("New/Sub")).isEmpty());
    put(QStringLiteral("New/Sub/n.txt"), "new");
    put(QStringLiteral("Docs/a.txt"), "shorter now", QStringLiteral("20300101000000")); // edited
    ASSERT_TRUE(srv().renameItem(user(), QStringLiteral("Docs/b.txt"), QStringLiteral("b2.txt")));
    ASSERT_TRUE(srv().moveItem(user(), QStringLiteral("c.txt"), QStringLiteral("Keep")));
    ASSERT_TRUE(srv().deleteItem(user(), QStringLiteral("Old")));
    ASSERT_TRUE(srv().renameItem(user(), QStringLiteral("Keep"), QStringLiteral("Kept")));
    ASSERT_TRUE(srv().moveItem(user(), QStringLiteral("Docs"), QStringLiteral("New")));
    put(QStringLiteral("syncfolder notes/syncfolder.txt"), "the word in names");
    put(kOdd + QStringLiteral("/inner.txt"), "odd");

    ASSERT_TRUE(waitInStep()) << local() << server();
    expectInStep();
    EXPECT_EQ(TestUtil::readFile(at(QStringLiteral("New/Docs/a.txt"))), "shorter now");
    EXPECT_TRUE(QFileInfo::exists(at(QStringLiteral("Kept/c.txt"))));
    EXPECT_FALSE(QFileInfo::exists(at(QStringLiteral("Old"))));
    EXPECT_GT(account()->lastUpdate(), before);
    // Applied here only: nothing of it comes back to the server, and the last check moved on.
    markPasses();
    ASSERT_TRUE(waitForPasses(2));
    ASSERT_TRUE(waitQuiet());
    EXPECT_EQ(writes(false).join(u' '), QString());
    expectInStep();
}

TEST_F(EngineTest, ServerChangesThatRefillAPlaceJustLeftAreNotSentBack)
{
    // The watcher reports each server change the engine applies; by the time it does, another item
    // may stand where the first one left (taken for the user's change, the report would rename,
    // move or delete that other item on the server).
    put(QStringLiteral("Docs/a.txt"), "a", QStringLiteral("20200101000000"));
    put(QStringLiteral("Docs/c.txt"), "c", QStringLiteral("20200101000000"));
    put(QStringLiteral("b.txt"), "b", QStringLiteral("20200101000000"));
    put(QStringLiteral("d.txt"), "d", QStringLiteral("20200101000000"));
    put(QStringLiteral("x.txt"), "x", QStringLiteral("20200101000000"));
    put(QStringLiteral("y.txt"), "y", QStringLiteral("20200101000000"));
    ASSERT_FALSE(srv().makeFolder(user(), QStringLiteral("Keep")).isEmpty());
    ASSERT_FALSE(srv().makeFolder(user(), QStringLiteral("F")).isEmpty());
    ASSERT_FALSE(srv().makeFolder(user(), QStringLiteral("G")).isEmpty());
    start();
    ASSERT_TRUE(waitInStep());
    srv().clearRequestLog();

    ASSERT_TRUE(srv().moveItem(user(), QStringLiteral("Docs/a.txt"), QStringLiteral("Keep")));
    ASSERT_TRUE(srv().renameItem(user(), QStringLiteral("Docs/c.txt"), QStringLiteral("a.txt")));
    ASSERT_TRUE(srv().renameItem(user(), QStringLiteral("b.txt"), QStringLiteral("b2.txt")));
    ASSERT_TRUE(srv().renameItem(user(), QStringLiteral("d.txt"), QStringLiteral("b.txt")));
    ASSERT_TRUE(srv().deleteItem(user(), QStringLiteral("x.txt")));
    ASSERT_TRUE(srv().renameItem(user(), QStringLiteral("y.txt"), QStringLiteral("x.txt")));
    ASSERT_TRUE(srv().renameItem(user(), QStringLiteral("F"), QStringLiteral("F2")));
    ASSERT_TRUE(srv().renameItem(user(), QStringLiteral("G"), QStringLiteral("F")));

    ASSERT_TRUE(waitInStep()) << local() << server();
    markPasses();
    ASSERT_TRUE(waitForPasses(2));
    ASSERT_TRUE(waitQuiet());
    EXPECT_EQ(writes(false).join(u' '), QString());
    expectInStep();
    EXPECT_EQ(TestUtil::readFile(at(QStringLiteral("Keep/a.txt"))), "a");
    EXPECT_EQ(TestUtil::readFile(at(QStringLiteral("Docs/a.txt"))), "c");
    EXPECT_EQ(TestUtil::readFile(at(QStringLiteral("b.txt"))), "d");
    EXPECT_EQ(TestUtil::readFile(at(QStringLiteral("x.txt"))), "y");
    EXPECT_TRUE(QFileInfo(at(QStringLiteral("F2"))).isDir());
}

TEST_F(EngineTest, AServerEditDatedTheSameSecondAsTheLocalCopyIsFetched)
{
    // Dates are kept to the second: only the contents tell these two copies apart.
    const QString time = QStringLiteral("20200101000000");
    put(QStringLiteral("same second.txt"), "as it was", time);
    put(QStringLiteral("Docs/other.txt"), "other", time);
    start();
    ASSERT_TRUE(waitInStep());
    put(QStringLiteral("same second.txt"), "as another computer wrote it", time);
    put(QStringLiteral("Docs/other.txt"), "other, edited", time);
    ASSERT_TRUE(waitInStep()) << local() << server();
    expectInStep();
    EXPECT_EQ(TestUtil::readFile(at(QStringLiteral("same second.txt"))), "as another computer wrote it");
}

TEST_F(EngineTest, AServerEditMadeWhileTheLastOneIsRecordedIsFetchedToo)
{
    // Another computer saves a file twice within one second; the second save lands between the
    // fetch of the first and its recording (whose details are the server's current ones).
    put(QStringLiteral("Docs/f.txt"), "as it was", QStringLiteral("20200101000000"));
    start();
    ASSERT_TRUE(waitInStep());
    srv().clearRequestLog();
    const auto infos = [&] { return int(commands().count(QStringLiteral("INFO"))); };
    Fault slowRecording;
    slowRecording.kind = Fault::Kind::Delay;
    slowRecording.command = QStringLiteral("INFO");
    slowRecording.skip = 1; // the one before the fetch goes through
    slowRecording.delayMs = 1000;
    srv().addFault(slowRecording);
    put(QStringLiteral("Docs/f.txt"), "first save, the longer one", QStringLiteral("20300101000000"));
    ASSERT_TRUE(TestUtil::waitFor([&] { return infos() >= 2; }, 30000));
    put(QStringLiteral("Docs/f.txt"), "second save", QStringLiteral("20300101000000"));

    ASSERT_TRUE(waitInStep()) << local() << server();
    expectInStep();
    EXPECT_EQ(TestUtil::readFile(at(QStringLiteral("Docs/f.txt"))), "second save");
}

class SessionRefusal : public EngineTest, public ::testing::WithParamInterface<std::pair<const char *, int>>
{
};

TEST_P(SessionRefusal, SignsInAgainAndEndsTheWorker)
{
    const auto [body, replies] = GetParam();
    start();
    ASSERT_TRUE(waitForPasses(1)); // a readable reply: the count of unreadable ones starts at 0
    ASSERT_TRUE(waitQuiet());
    srv().replyWithBody(QStringLiteral("WORKLIST"), body, replies);
    ASSERT_TRUE(TestUtil::waitFor([&] { return services->relogins.load() == 1; }, 30000));
    EXPECT_EQ(log.count(QStringLiteral("No internet connection")), replies - 1);
    EXPECT_EQ(log.count(QStringLiteral("Try Login")), 1);
    EXPECT_TRUE(TestUtil::waitFor([&] { return engine->mainThreadCheck()->isFinished(); }));
    EXPECT_TRUE(TestUtil::waitFor([&] { return engine->state() == State::Relogin; }));
    const int passesThen = passes;
    EXPECT_TRUE(nothingFor([&] { return passes > passesThen || services->relogins > 1; }));
}

INSTANTIATE_TEST_SUITE_P(Replies, SessionRefusal,
                         ::testing::Values(std::pair{"-3", 1}, std::pair{"-2", 1},
                                           std::pair{"Service busy <try later>", 4}));

TEST_F(EngineTest, NoReplyIsNoInternetAndTheNextTickTriesAgain)
{
    start();
    ASSERT_TRUE(waitForPasses(1));
    srv().cutReplies(QStringLiteral("WORKLIST"), 2);
    ASSERT_TRUE(TestUtil::waitFor([&] { return log.count(QStringLiteral("No internet connection")) == 2; }));
    markPasses();
    ASSERT_TRUE(waitForPasses(1));
    EXPECT_EQ(services->relogins.load(), 0);
    EXPECT_EQ(engine->state(), State::Idle);
}

TEST_F(EngineTest, FirstSyncWithoutAServerStallsWithoutATimer)
{
    srv().cutReplies(QStringLiteral("SYNCLIST"), 1);
    start();
    ASSERT_TRUE(TestUtil::waitFor([&] { return engine->state() == State::Stalled; }));
    EXPECT_EQ(log.count(QStringLiteral("Please check your internet connection!")), 1);
    EXPECT_FALSE(engine->checkSyncTimer());
    EXPECT_TRUE(nothingFor([&] { return commands().contains(QStringLiteral("WORKLIST")); }));
}

TEST_F(EngineTest, LastCheckTimeNeverMovesBackwards)
{
    start();
    ASSERT_TRUE(waitForPasses(1));
    ASSERT_TRUE(waitQuiet());
    const QString stored = account()->lastUpdate();
    ASSERT_EQ(stored.size(), 14);
    // A reply whose times all lie before the stored one.
    markPasses();
    srv().replyWithBody(QStringLiteral("WORKLIST"),
                        "<XML><WORKLIST ID=\"20000101000000\"><DEL ID=\"20000101000000\" KEY=\"77777\" "
                        "FOLDER=\"0\"/><UNKNOWN ID=\"19990101000000\"/></WORKLIST></XML>");
    ASSERT_TRUE(waitForPasses(1));
    EXPECT_EQ(account()->lastUpdate(), stored);

    engine->disconnect();
    ASSERT_TRUE(TestUtil::waitFor([&] { return engine->mainThreadCheck()->isFinished(); }));
    const auto context = services->managedObjectContext();
    engine->updateLastCheck(context, QStringLiteral("20000101000000"));
    EXPECT_EQ(account()->lastUpdate(), stored);
    engine->updateLastCheck(context, stored);
    EXPECT_EQ(account()->lastUpdate(), stored);
    engine->updateLastCheck(context, QStringLiteral("29990101000000"));
    EXPECT_EQ(account()->lastUpdate(), u"29990101000000");

    // The INFO form stores any valid 14-digit time, and nothing written with separators.
    engine->updateInfoamtion({QString(), QString(), QStringLiteral("2030-01-01 00:00:00")}, context);
    EXPECT_EQ(account()->lastUpdate(), u"29990101000000");
    engine->updateInfoamtion({QString(), QString(), QStringLiteral("20300101000000")}, context);
    EXPECT_EQ(account()->lastUpdate(), u"20300101000000");

    // With nothing stored, any time is stored.
    account()->setLastUpdate(QString());
    ASSERT_TRUE(context->save());
    engine->updateLastCheck(context, QStringLiteral("20000101000000"));
    EXPECT_EQ(account()->lastUpdate(), u"20000101000000");
}

TEST_F(EngineTest, DisconnectInThePassLeavesAConsistentStoreAndStartsNoNewTick)
{
    start();
    ASSERT_TRUE(waitForPasses(1));
    constexpr int kFiles = 24;
    for (int i = 0; i < kFiles; ++i)
        put(QStringLiteral("F%1/file%2.txt").arg(i % 3).arg(i), QByteArray::number(i).repeated(100 + i));
    srv().delayReplies(QStringLiteral("DOWNLOAD"), 40, 1000);
    ASSERT_TRUE(TestUtil::waitFor([&] { return engine->state() == State::Syncing && local().size() >= 8; }));

    engine->disconnect();
    ASSERT_TRUE(TestUtil::waitFor([&] { return engine->mainThreadCheck()->isFinished(); }, 30000));
    EXPECT_EQ(engine->state(), State::Stopped);
    const qsizetype requestsThen = srv().requestLog().size();
    EXPECT_TRUE(nothingFor([&] { return srv().requestLog().size() > requestsThen; }));
    stop();

    // Every catalogued item is on disk as recorded; the pass was cut, not half-applied.
    const Tree here = local();
    const Tree known = catalogue();
    for (auto it = known.cbegin(); it != known.cend(); ++it)
        EXPECT_EQ(here.value(it.key()), *it) << qPrintable(it.key());
    const qsizetype filesThen =
        std::count_if(here.cbegin(), here.cend(), [](const TreeItem &i) { return !i.folder; });
    ASSERT_LT(filesThen, kFiles);

    // The next engine goes on after the last change applied: what was fetched is not fetched again.
    srv().clearFaults();
    srv().clearRequestLog();
    DatabaseUtils::destroy();
    passes = 0;
    start();
    ASSERT_TRUE(waitInStep()) << local() << server();
    expectInStep();
    EXPECT_LE(commands().count(QStringLiteral("DOWNLOAD")), kFiles - filesThen + 1);
}

TEST_F(EngineTest, APartLeftByADownloadCutShortIsRemovedAtStartAndNeverSent)
{
    ASSERT_FALSE(srv().putFile(user(), QStringLiteral("Docs/a.txt"), "alpha, whole").isEmpty());
    // What a client killed in the middle of fetching a.txt leaves behind.
    const QString part = CataloguePaths::downloadPartPath(at(QStringLiteral("Docs/a.txt")));
    ASSERT_TRUE(TestUtil::writeFile(part, "alpha, wh"));
    start();
    ASSERT_TRUE(waitInStep()) << local() << server();
    expectInStep();
    EXPECT_FALSE(QFileInfo::exists(part));
    EXPECT_EQ(server().size(), 2) << server(); // Docs and Docs/a.txt, nothing more
    EXPECT_EQ(TestUtil::readFile(at(QStringLiteral("Docs/a.txt"))), "alpha, whole");
}
