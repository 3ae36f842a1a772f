// Fault sweeps over one representative run (the first sync of a small tree, a local file made
// before it, then a few local changes through the watcher daemon): the Nth catalogue write or the
// Nth server reply fails, for every N the run has. After the failure, the engine's own next tries
// and a restart, the end state is the one the run reaches without a failure: the same tree on the
// server, in the sync folder and in the catalogue, and no task left.
#include "EngineTestSupport.h"
#include "catalogue/DatabaseUtils.h"
#include "util/Log.h"

#include <QDir>
#include <QFile>
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <sqlite3.h>

namespace {

// Commits of the catalogue stores of this process, counted by a commit hook every store
// connection gets when it opens (the server's own database is left alone). The commit numbered
// `failAt` is refused: SQLite rolls its transaction back and the save fails, as it would when the
// disk refuses the write.
class StoreWriteFaults
{
public:
    static void install()
    {
        static const bool installed = [] {
            return sqlite3_auto_extension(reinterpret_cast<void (*)()>(&StoreWriteFaults::onOpen)) ==
                   SQLITE_OK;
        }();
        EXPECT_TRUE(installed);
    }
    // Counting starts again; 0 fails nothing.
    static void arm(int failAt)
    {
        s_failAt = failAt;
        s_commits = 0;
        s_fired = false;
    }
    static int commits() { return s_commits; }
    static bool fired() { return s_fired; }

private:
    static int onOpen(sqlite3 *db, const char **, const sqlite3_api_routines *)
    {
        const char *file = sqlite3_db_filename(db, "main");
        if (file && QByteArray(file).endsWith(".storedata"))
            sqlite3_commit_hook(db, &StoreWriteFaults::onCommit, nullptr);
        return SQLITE_OK;
    }
    static int onCommit(void *)
    {
        if (++s_commits != s_failAt)
            return 0;
        s_fired = true;
        return 1;
    }
    static inline std::atomic<int> s_failAt{0};
    static inline std::atomic<int> s_commits{0};
    static inline std::atomic<bool> s_fired{false};
};

constexpr int kSettle = 20000;  // a failed step gets this long to recover by itself
constexpr int kRestart = 60000; // and after a restart, this long to come into step

// One computer and its server for one run: a store, a sync folder, a signed-in account, and the
// engine, which can be restarted as a new process would start (new store stack, same files).
class SyncRun
{
public:
    SyncRun()
    {
        root = QDir(m_syncDir.path()).canonicalPath() + QStringLiteral("/CloudFolder");
        harness = std::make_unique<ServerHarness>();
    }
    ~SyncRun() { stopEngine(); }

    bool ok() const { return harness->ok() && m_storeDir.isValid() && m_syncDir.isValid(); }
    FerrovaneServer &server() { return harness->server(); }

    // The tree before the first sync: a small seeded server tree and one local file of our own.
    void prepare()
    {
        const QString user = ServerHarness::user();
        ASSERT_FALSE(server().makeFolder(user, QStringLiteral("Docs/Deep")).isEmpty());
        ASSERT_FALSE(server().putFile(user, QStringLiteral("Docs/a.txt"), "alpha").isEmpty());
        ASSERT_FALSE(server().putFile(user, QStringLiteral("Docs/Deep/b.txt"), "beta").isEmpty());
        ASSERT_FALSE(server().putFile(user, QStringLiteral("top.txt"), "top").isEmpty());
        ASSERT_TRUE(
            TestUtil::writeFile(root + QStringLiteral("/Mine/own.txt"), "made here before the first sync"));
        openStore();
        const auto context = services->managedObjectContext();
        const InfomationPtr info = context->insertNewObject<Infomation>();
        info->setAccount(user);
        info->setPath(root);
        info->setTimezone(harness->timezone);
        info->setSession(harness->session);
        ASSERT_TRUE(context->save());
    }

    void startEngine()
    {
        engine = std::make_unique<ProcessWindowController>(services.get());
        QObject::connect(engine.get(), &ProcessWindowController::passCompleted, engine.get(),
                         [this] { ++passes; });
    }

    void stopEngine()
    {
        if (engine) {
            engine->disconnect();
            engine.reset();
        }
        DatabaseUtils::destroy();
        AppServices::setShared(nullptr);
    }

    // A new process on the same store file, settings and sync folder.
    void restart()
    {
        stopEngine();
        services.reset();
        passes = 0;
        openStore();
        startEngine();
    }

    // The local changes, made once the first sync is over (or has given up).
    void changeLocally()
    {
        ASSERT_TRUE(TestUtil::writeFile(at("new.txt"), "a new file"));
        ASSERT_TRUE(TestUtil::writeFile(at("Docs/a.txt"), "alpha, edited and longer"));
        ASSERT_EQ(std::rename(QFile::encodeName(at("top.txt")).constData(),
                              QFile::encodeName(at("renamed.txt")).constData()),
                  0);
        ASSERT_TRUE(QFile::remove(at("Docs/Deep/b.txt")));
    }

    // The engine quiet after a pass, and server, sync folder and catalogue (keys too) agreeing.
    bool inStep()
    {
        if (!engine || !engine->isQuiet() || passes.load() == 0)
            return false;
        const Tree onServer = serverTree(server(), ServerHarness::user(), true);
        return strip(onServer) == localTree(root) && onServer == catalogue() && tasks() == 0;
    }
    bool waitInStep(int timeoutMs)
    {
        return TestUtil::waitFor([this] { return inStep(); }, timeoutMs);
    }

    Tree serverPlain() { return strip(serverTree(server(), ServerHarness::user(), true)); }
    Tree catalogue() { return catalogueTree(*services->managedObjectContext(), root, true); }
    int tasks()
    {
        return services->managedObjectContext()->countForFetchRequest({QStringLiteral("Task"), {}, {}, 0});
    }
    QString at(const char *relative) const { return root + u'/' + QLatin1String(relative); }

    std::unique_ptr<ServerHarness> harness;
    std::unique_ptr<EngineServices> services;
    std::unique_ptr<ProcessWindowController> engine;
    std::atomic<int> passes{0};
    QString root;

private:
    static Tree strip(Tree tree)
    {
        for (TreeItem &item : tree)
            item.key.clear();
        return tree;
    }

    void openStore()
    {
        FvError error;
        auto coordinator = PersistentStoreCoordinator::create(
            m_storeDir.filePath(QStringLiteral("Tarnwick_bob.storedata")), &error);
        ASSERT_TRUE(coordinator) << qPrintable(error.toString());
        services = std::make_unique<EngineServices>(coordinator);
        AppServices::setShared(services.get());
        services->setConfigValue(ServerHarness::user(), QStringLiteral("kKeyUseID"));
        services->setConfigValue(QStringLiteral("desk"), QStringLiteral("kKeyPCName"));
        services->setConfigValue(root, QStringLiteral("kKeyPath"));
        services->setConfigValue(server().domain(), QStringLiteral("kKeyDomain"));
        services->setConfigValue(harness->session, QStringLiteral("kKeySESSTION"));
    }

    QTemporaryDir m_storeDir;
    QTemporaryDir m_syncDir;
};

// FERROVANE_SWEEP_ONLY=N replays the one N of a failing sweep, with diagnostics on stderr (which
// FERROVANE_SWEEP_VERBOSE=1 turns on for a whole sweep).
int only()
{
    return qEnvironmentVariableIntValue("FERROVANE_SWEEP_ONLY");
}

class FaultSweepTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        StoreWriteFaults::install();
        Log::setVerbose(only() > 0 || qEnvironmentVariableIsSet("FERROVANE_SWEEP_VERBOSE"));
    }
    void TearDown() override { Log::setVerbose(false); }

    TestUtil::TempDataHome dataHome; // the trash and anything else kept in the data folder

    // The whole run; `fault` is armed once the account is prepared. True when each step came
    // into step by itself; a step that did not (the engine stalled, or out of step for long) is
    // followed by a restart, after which it must come into step.
    bool play(SyncRun &run, const std::function<void()> &fault)
    {
        run.prepare();
        if (::testing::Test::HasFatalFailure())
            return false;
        fault();
        run.startEngine();
        bool unaided = settle(run, "first sync");
        run.changeLocally();
        unaided = settle(run, "local changes") && unaided;
        return unaided;
    }

    bool settle(SyncRun &run, const char *step)
    {
        const auto stalled = [&run] {
            return run.engine && run.engine->state() == ProcessWindowController::State::Stalled;
        };
        TestUtil::waitFor([&] { return run.inStep() || stalled(); }, kSettle);
        if (run.inStep())
            return true;
        run.restart();
        EXPECT_TRUE(run.waitInStep(kRestart)) << step << " not in step after a restart";
        return false;
    }

    // After a restart the run ends where the run without a fault ended.
    void expectRecovered(SyncRun &run, const Tree &expected, const std::string &what)
    {
        run.restart();
        EXPECT_TRUE(run.waitInStep(kRestart)) << what << "\nserver:\n"
                                              << run.serverPlain() << "local:\n"
                                              << localTree(run.root) << "catalogue:\n"
                                              << run.catalogue() << "tasks: " << run.tasks();
        const Tree onServer = run.serverPlain(), local = localTree(run.root);
        EXPECT_TRUE(onServer == expected) << what << "\nserver:\n" << onServer << "expected:\n" << expected;
        EXPECT_TRUE(local == expected) << what << "\nlocal:\n" << local << "expected:\n" << expected;
    }

    // The end state of a run without a fault, and how many commits and requests it made.
    Tree baseline(int *commits, int *requests)
    {
        SyncRun run;
        EXPECT_TRUE(run.ok());
        StoreWriteFaults::arm(0);
        run.server().clearRequestLog();
        EXPECT_TRUE(play(run, [] {})) << "the run without a fault did not come into step";
        *commits = StoreWriteFaults::commits();
        *requests = int(run.server().requestedCommands().size());
        const Tree end = run.serverPlain();
        EXPECT_TRUE(end.contains(QStringLiteral("renamed.txt")) &&
                    end.contains(QStringLiteral("Mine/own.txt")))
            << end;
        return end;
    }
};

} // namespace

TEST_F(FaultSweepTest, AFailedCatalogueWriteAnywhereInARunLeavesTheSameEndState)
{
    int commits = 0, requests = 0;
    const Tree expected = baseline(&commits, &requests);
    ASSERT_FALSE(HasFailure());
    ASSERT_GT(commits, 5);
    std::printf("sweeping %d catalogue writes\n", commits);
    for (int n = std::max(1, only()); n <= (only() ? only() : commits); ++n) {
        const std::string what = "catalogue write " + std::to_string(n) + " of " + std::to_string(commits);
        SyncRun run;
        ASSERT_TRUE(run.ok());
        play(run, [n] { StoreWriteFaults::arm(n); });
        const bool fired = StoreWriteFaults::fired();
        StoreWriteFaults::arm(0);
        expectRecovered(run, expected, what);
        if (!fired)
            break; // this run wrote less than the one without a fault: nothing further to fail
        if (HasFailure())
            break; // one faulty N tells enough; the rest would repeat it
    }
}

TEST_F(FaultSweepTest, ALostReplyAnywhereInARunLeavesTheSameEndState)
{
    int commits = 0, requests = 0;
    const Tree expected = baseline(&commits, &requests);
    ASSERT_FALSE(HasFailure());
    ASSERT_GT(requests, 5);
    std::printf("sweeping %d requests, twice\n", requests);
    // A reply cut off before the request was carried out, and one lost after it was.
    for (const Fault::Kind kind : {Fault::Kind::CutReply, Fault::Kind::DropAfterProcessing}) {
        for (int n = std::max(1, only()); n <= (only() ? only() : requests); ++n) {
            const std::string what =
                std::string(kind == Fault::Kind::CutReply ? "cut reply " : "lost reply ") +
                std::to_string(n) + " of " + std::to_string(requests);
            SyncRun run;
            ASSERT_TRUE(run.ok());
            play(run, [&] {
                Fault fault;
                fault.kind = kind;
                fault.command = QStringLiteral("*");
                fault.skip = n - 1;
                run.server().addFault(fault);
            });
            const bool fired = run.server().pendingFaults() == 0;
            // A run can make fewer requests than the one without a fault (its passes follow the
            // clock): a fault it never reached belongs to no step of it, not to the restart.
            run.server().clearFaults();
            expectRecovered(run, expected, what);
            if (!fired || HasFailure())
                break;
        }
    }
}
