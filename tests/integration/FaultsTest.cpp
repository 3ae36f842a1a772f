// Faults on the way between the computers and the server, in the watcher and on the disk, with the
// real programs: replies lost after the server carried a command out, a kernel event queue that
// overflows, a tree moved in from outside, downloads that break off or do not fit. Each ends in
// whole-state checks: the server's tree (one item per path) equals every sync folder and catalogue.
#include "integration/EndToEndSupport.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QTemporaryDir>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <sys/mount.h>
#include <sys/stat.h>

using namespace EndToEnd;

namespace {

const QString kUser = QStringLiteral("carol");
const QString kPassword = QStringLiteral("pw <&> ok");
constexpr int kConverge = 90000;

Entry fileEntry(const QByteArray &content)
{
    return {false, content.size(), md5Hex(content), 0};
}

Entry folderEntry()
{
    return {true, -1, QString(), 0};
}

// Lines of a client's output whose first field is `kind` and which contain `text`.
int linesWith(Computer &c, const QString &kind, const QString &text)
{
    int n = 0;
    for (const QString &line : c.output())
        n += line.startsWith(kind + u'\t') && line.contains(text);
    return n;
}

class FaultsTest : public AccountTest
{
protected:
    FaultsTest() : AccountTest(kUser, kPassword) {}

    // Puts `content` on the server as another computer would, and into the expected tree.
    void serverFile(Tree &expected, const QString &path, const QByteArray &content)
    {
        ASSERT_TRUE(server.put(kUser, path, content));
        expected.insert(path, fileEntry(content));
    }

    void serverFolder(Tree &expected, const QString &path)
    {
        ASSERT_TRUE(server.mkdir(kUser, path));
        expected.insert(path, folderEntry());
    }

    // Waits until the server, the computers' folders and catalogues agree; on failure the
    // clients' output goes to a file named in the message.
    ::testing::AssertionResult converge(const QList<Computer *> &computers, int timeoutMs = kConverge)
    {
        if (waitFor([&] { return outOfStep(server, kUser, computers).isEmpty(); }, timeoutMs))
            return ::testing::AssertionSuccess();
        auto result = ::testing::AssertionFailure() << qPrintable(outOfStep(server, kUser, computers));
        for (Computer *c : computers) {
            const QString file = QDir::temp().filePath(
                QStringLiteral("ferrovane-faults-%1-%2.log")
                    .arg(QString::fromUtf8(::testing::UnitTest::GetInstance()->current_test_info()->name()),
                         c->name())
                    .replace(u'/', u'_'));
            QFile log(file);
            if (log.open(QIODevice::WriteOnly))
                log.write(
                    (c->output().join(u'\n') + QStringLiteral("\n--- stderr\n") + c->errorOutput()).toUtf8());
            result << "\n--- " << qPrintable(c->name()) << " said: see " << qPrintable(file);
        }
        return result;
    }

    // The server holds exactly `expected` (contents by MD5), each path once, and no file that was
    // announced but never uploaded.
    ::testing::AssertionResult serverHoldsExactly(const Tree &expected)
    {
        const QString diff = difference(expected, server.tree(kUser));
        if (!diff.isEmpty())
            return ::testing::AssertionFailure() << "server tree:\n" << qPrintable(diff);
        QStringList paths = server.treePaths(kUser, true);
        paths.sort();
        for (qsizetype i = 1; i < paths.size(); ++i) {
            if (paths[i] == paths[i - 1])
                return ::testing::AssertionFailure() << "the server holds twice: " << qPrintable(paths[i]);
        }
        if (paths.size() != expected.size())
            return ::testing::AssertionFailure()
                   << "the server holds " << paths.size() << " items with those never uploaded, expected "
                   << expected.size() << ":\n"
                   << qPrintable(paths.join(u'\n'));
        return ::testing::AssertionSuccess();
    }

    // Waits for `count` more work-list passes of a computer's client.
    bool passes(Computer &c, int count)
    {
        const auto done = [&c] {
            return linesWith(c, QStringLiteral("message"), QStringLiteral("Read sync list complete"));
        };
        const int target = done() + count;
        return waitFor([&] { return done() >= target; }, kConverge);
    }
};

// --- Replies lost after the server carried the command out ---

// "drop-after": the answer breaks off after its head, so the client itself tries again later;
// "drop-after-silent": the connection closes before any byte, so the network stack sends the
// same request again at once. Either way the command reaches the server twice.
class LostReplyTest : public FaultsTest, public ::testing::WithParamInterface<const char *>
{
};

TEST_P(LostReplyTest, EveryCommandCarriedOutTwiceLeavesOneItemPerPathAndTheRightTree)
{
    Tree expected;
    serverFolder(expected, QStringLiteral("/docs"));
    serverFolder(expected, QStringLiteral("/docs/sub"));
    serverFile(expected, QStringLiteral("/docs/sub/b.txt"), "bee");
    serverFile(expected, QStringLiteral("/old name.txt"), "renamed later");
    serverFile(expected, QStringLiteral("/gone.txt"), "deleted later");
    serverFolder(expected, QStringLiteral("/gone folder"));
    serverFile(expected, QStringLiteral("/gone folder/inside.txt"), "deleted with its folder");
    serverFile(expected, QStringLiteral("/travels.txt"), "moved later");
    serverFolder(expected, QStringLiteral("/travelling"));
    serverFile(expected, QStringLiteral("/travelling/along.txt"), "moved with its folder");
    serverFolder(expected, QStringLiteral("/target"));
    auto a = std::make_unique<Computer>(QStringLiteral("a"), server);
    auto b = std::make_unique<Computer>(QStringLiteral("b"), server);
    ASSERT_TRUE(a->startSyncing(kUser, kPassword));
    ASSERT_TRUE(b->startSyncing(kUser, kPassword));
    ASSERT_TRUE(converge({a.get(), b.get()}));
    ASSERT_TRUE(serverHoldsExactly(expected));
    QDir root(a->syncFolder());

    struct Step
    {
        const char *what;
        const char *command;
        std::function<void()> change;
    };
    const QList<Step> steps = {
        {"new file", "PUT",
         [&] {
             ASSERT_TRUE(a->writeFile(QStringLiteral("/new.txt"), "new on a"));
             expected.insert(QStringLiteral("/new.txt"), fileEntry("new on a"));
         }},
        {"new folder", "PUT",
         [&] {
             ASSERT_TRUE(root.mkdir(QStringLiteral("new folder")));
             expected.insert(QStringLiteral("/new folder"), folderEntry());
         }},
        {"file renamed", "RENAME",
         [&] {
             ASSERT_TRUE(root.rename(QStringLiteral("old name.txt"), QStringLiteral("new name.txt")));
             expected.insert(QStringLiteral("/new name.txt"), expected.take(QStringLiteral("/old name.txt")));
         }},
        {"folder renamed", "RENAME",
         [&] {
             ASSERT_TRUE(root.rename(QStringLiteral("docs/sub"), QStringLiteral("docs/sub2")));
             expected.remove(QStringLiteral("/docs/sub"));
             expected.remove(QStringLiteral("/docs/sub/b.txt"));
             expected.insert(QStringLiteral("/docs/sub2"), folderEntry());
             expected.insert(QStringLiteral("/docs/sub2/b.txt"), fileEntry("bee"));
         }},
        {"file deleted", "DEL",
         [&] {
             ASSERT_TRUE(root.remove(QStringLiteral("gone.txt")));
             expected.remove(QStringLiteral("/gone.txt"));
         }},
        {"folder deleted", "DEL",
         [&] {
             ASSERT_TRUE(QDir(a->path(QStringLiteral("/gone folder"))).removeRecursively());
             expected.remove(QStringLiteral("/gone folder"));
             expected.remove(QStringLiteral("/gone folder/inside.txt"));
         }},
        {"file moved", "MOVE",
         [&] {
             ASSERT_TRUE(root.rename(QStringLiteral("travels.txt"), QStringLiteral("target/travels.txt")));
             expected.insert(QStringLiteral("/target/travels.txt"),
                             expected.take(QStringLiteral("/travels.txt")));
         }},
        {"file moved under another name", "MOVE",
         [&] {
             ASSERT_TRUE(root.rename(QStringLiteral("new name.txt"), QStringLiteral("docs/third name.txt")));
             expected.insert(QStringLiteral("/docs/third name.txt"),
                             expected.take(QStringLiteral("/new name.txt")));
         }},
        {"folder moved", "MOVE",
         [&] {
             ASSERT_TRUE(root.rename(QStringLiteral("travelling"), QStringLiteral("target/travelling")));
             expected.remove(QStringLiteral("/travelling"));
             expected.remove(QStringLiteral("/travelling/along.txt"));
             expected.insert(QStringLiteral("/target/travelling"), folderEntry());
             expected.insert(QStringLiteral("/target/travelling/along.txt"),
                             fileEntry("moved with its folder"));
         }},
    };
    for (const Step &step : steps) {
        SCOPED_TRACE(step.what);
        const QString command = QString::fromLatin1(step.command);
        server.clearLog();
        ASSERT_TRUE(server.fault({{QStringLiteral("kind"), QString::fromLatin1(GetParam())},
                                  {QStringLiteral("command"), command}}));
        step.change();
        if (HasFatalFailure())
            return;
        // The fault must have struck, and the command gone again, or this step proves nothing.
        ASSERT_TRUE(waitFor([&] { return server.pendingFaults() == 0; }, kConverge));
        ASSERT_TRUE(converge({a.get(), b.get()}));
        EXPECT_GE(server.commandLog().count(command), 2) << qPrintable(server.commandLog().join(u' '));
        ASSERT_TRUE(serverHoldsExactly(expected));
    }
    // Nothing is left to send, and nothing more is sent.
    server.clearLog();
    ASSERT_TRUE(passes(*a, 3));
    EXPECT_EQ(a->pendingTasks(kUser), 0);
    EXPECT_EQ(b->pendingTasks(kUser), 0);
    for (const QString &command : server.commandLog())
        EXPECT_TRUE(command != u"PUT" && command != u"RENAME" && command != u"DEL" && command != u"MOVE")
            << qPrintable(command);
    EXPECT_TRUE(serverHoldsExactly(expected));
}

INSTANTIATE_TEST_SUITE_P(ClientRetriesOrStackResends, LostReplyTest,
                         ::testing::Values("drop-after", "drop-after-silent"),
                         [](const ::testing::TestParamInfo<const char *> &info) {
                             return std::string(info.param) == "drop-after" ? std::string("ClientRetries")
                                                                            : std::string("StackResends");
                         });

// A download cut off by the server leaves no part under the file's name (where it would pass for
// the file and go back to the server over the good copy); the next pass fetches it whole.
TEST_F(FaultsTest, DownloadCutOffLeavesNothingUnderTheNameAndTheServerCopyIntact)
{
    Tree expected;
    serverFile(expected, QStringLiteral("/first.txt"), "first");
    auto a = std::make_unique<Computer>(QStringLiteral("a"), server);
    ASSERT_TRUE(a->startSyncing(kUser, kPassword));
    ASSERT_TRUE(converge({a.get()}));

    const QByteArray fresh(300 * 1024, 'n');
    const QByteArray edited = QByteArray(200 * 1024, 'e');
    ASSERT_TRUE(server.fault({{QStringLiteral("kind"), QStringLiteral("cut-download")},
                              {QStringLiteral("command"), QStringLiteral("DOWNLOAD")},
                              {QStringLiteral("bytes"), 1000},
                              {QStringLiteral("count"), 2}}));
    serverFile(expected, QStringLiteral("/fresh.bin"), fresh);
    serverFile(expected, QStringLiteral("/first.txt"), edited);
    ASSERT_TRUE(waitFor([&] { return server.pendingFaults() == 0; }, kConverge));
    ASSERT_TRUE(converge({a.get()}));
    EXPECT_TRUE(serverHoldsExactly(expected));
    EXPECT_EQ(a->pendingTasks(kUser), 0);
    QStringList hidden = QDir(a->syncFolder()).entryList(QDir::Hidden | QDir::Files);
    EXPECT_EQ(hidden.filter(QStringLiteral(".ferrovane-")), QStringList());
}

// --- The watcher ---

// The kernel's event queue overflows for real: the daemon is held (SIGSTOP) while more events than
// fs.inotify.max_queued_events are made, then changes follow that the kernel can no longer queue.
// Holding the daemon, rather than lowering that limit, leaves the limit alone for every other
// program on the machine. The daemon must let the client's connection go, and the client's
// rescan must find what changed.
TEST_F(FaultsTest, QueueOverflowEndsTheLinkAndTheRescanFindsEveryChange)
{
    Tree expected;
    serverFolder(expected, QStringLiteral("/docs"));
    serverFile(expected, QStringLiteral("/docs/edited.txt"), "before");
    serverFile(expected, QStringLiteral("/docs/deleted.txt"), "deleted while unseen");
    serverFile(expected, QStringLiteral("/renamed.txt"), "renamed while unseen");
    serverFile(expected, QStringLiteral("/noise-1.txt"), "touched");
    serverFile(expected, QStringLiteral("/noise-2.txt"), "touched");
    auto a = std::make_unique<Computer>(QStringLiteral("a"), server);
    ASSERT_TRUE(a->startSyncing(kUser, kPassword));
    ASSERT_TRUE(converge({a.get()}));
    const QString linked = QStringLiteral("Connect to socket server complete");
    ASSERT_TRUE(
        waitFor([&] { return a->daemonPid() > 0 && linesWith(*a, QStringLiteral("message"), linked) > 0; },
                kConverge));
    const qint64 daemon = a->daemonPid();
    const int links = linesWith(*a, QStringLiteral("message"), linked);

    QFile limitFile(QStringLiteral("/proc/sys/fs/inotify/max_queued_events"));
    ASSERT_TRUE(limitFile.open(QIODevice::ReadOnly));
    const long limit = limitFile.readAll().trimmed().toLong();
    ASSERT_GT(limit, 0);
    ASSERT_LT(limit, 50 * 1000 * 1000) << "too many events to make";

    struct Resume
    {
        pid_t pid;
        ~Resume() { ::kill(pid, SIGCONT); }
    } resume{pid_t(daemon)};
    ASSERT_EQ(::kill(pid_t(daemon), SIGSTOP), 0);
    // Attribute events of two files in turn (the kernel merges an event equal to the last one
    // queued), with their dates set to what they are: nothing changes but the queue fills.
    const QByteArray noise[2] = {QFile::encodeName(a->path(QStringLiteral("/noise-1.txt"))),
                                 QFile::encodeName(a->path(QStringLiteral("/noise-2.txt")))};
    struct timespec times[2][2];
    for (int i = 0; i < 2; ++i) {
        struct stat info;
        ASSERT_EQ(::stat(noise[i].constData(), &info), 0);
        times[i][0] = info.st_atim;
        times[i][1] = info.st_mtim;
    }
    for (long n = 0; n < limit + 100; ++n)
        ASSERT_EQ(::utimensat(AT_FDCWD, noise[n % 2].constData(), times[n % 2], 0), 0);

    // These the kernel drops.
    ASSERT_TRUE(a->writeFile(QStringLiteral("/docs/edited.txt"), "after, and longer"));
    expected.insert(QStringLiteral("/docs/edited.txt"), fileEntry("after, and longer"));
    ASSERT_TRUE(QFile::remove(a->path(QStringLiteral("/docs/deleted.txt"))));
    expected.remove(QStringLiteral("/docs/deleted.txt"));
    ASSERT_TRUE(
        QDir(a->syncFolder()).rename(QStringLiteral("renamed.txt"), QStringLiteral("docs/moved.txt")));
    expected.insert(QStringLiteral("/docs/moved.txt"), expected.take(QStringLiteral("/renamed.txt")));
    ASSERT_TRUE(a->writeFile(QStringLiteral("/unseen/deeper/new.txt"), "new while unseen"));
    expected.insert(QStringLiteral("/unseen"), folderEntry());
    expected.insert(QStringLiteral("/unseen/deeper"), folderEntry());
    expected.insert(QStringLiteral("/unseen/deeper/new.txt"), fileEntry("new while unseen"));
    ASSERT_TRUE(QDir().mkpath(a->path(QStringLiteral("/unseen empty"))));
    expected.insert(QStringLiteral("/unseen empty"), folderEntry());
    ASSERT_EQ(::kill(pid_t(daemon), SIGCONT), 0);

    ASSERT_TRUE(converge({a.get()}));
    EXPECT_TRUE(serverHoldsExactly(expected));
    // The same daemon let the link go and the client made it again.
    EXPECT_EQ(a->daemonPid(), daemon);
    EXPECT_GT(linesWith(*a, QStringLiteral("message"), linked), links);

    // And it watches again: a change now comes as an event.
    ASSERT_TRUE(a->writeFile(QStringLiteral("/unseen/deeper/watched.txt"), "seen"));
    expected.insert(QStringLiteral("/unseen/deeper/watched.txt"), fileEntry("seen"));
    ASSERT_TRUE(converge({a.get()}));
    EXPECT_TRUE(serverHoldsExactly(expected));
    EXPECT_EQ(a->pendingTasks(kUser), 0);
}

// A whole tree moved in from outside, and changes made in its folders at once, before the watches
// of the moved folders can be in place: all of it reaches the server.
TEST_F(FaultsTest, TreeMovedInFromOutsideIsSyncedWholeWithChangesMadeRightAfter)
{
    Tree expected;
    serverFile(expected, QStringLiteral("/here.txt"), "here");
    auto a = std::make_unique<Computer>(QStringLiteral("a"), server);
    ASSERT_TRUE(a->startSyncing(kUser, kPassword));
    ASSERT_TRUE(converge({a.get()}));

    QTemporaryDir outside(a->syncFolder() + QStringLiteral("/../outside-XXXXXX"));
    ASSERT_TRUE(outside.isValid());
    const QString tree = outside.filePath(QStringLiteral("album"));
    for (const QString &folder : {QStringLiteral("/2023/summer"), QStringLiteral("/2023/winter"),
                                  QStringLiteral("/2024/spring/raw"), QStringLiteral("/empty")}) {
        ASSERT_TRUE(QDir().mkpath(tree + folder));
    }
    int n = 0;
    for (const QString &folder : {QString(), QStringLiteral("/2023"), QStringLiteral("/2023/summer"),
                                  QStringLiteral("/2023/winter"), QStringLiteral("/2024/spring/raw")}) {
        for (int i = 0; i < 3; ++i) {
            QFile file(tree + folder + QStringLiteral("/p%1.jpg").arg(++n));
            ASSERT_TRUE(file.open(QIODevice::WriteOnly));
            file.write(QByteArray(1000 + n, char('a' + n % 26)));
        }
    }
    QDirIterator it(tree, QDir::AllEntries | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QString relative = QStringLiteral("/album") + path.mid(tree.size());
        if (it.fileInfo().isDir()) {
            expected.insert(relative, folderEntry());
        } else {
            QFile file(path);
            ASSERT_TRUE(file.open(QIODevice::ReadOnly));
            expected.insert(relative, fileEntry(file.readAll()));
        }
    }
    expected.insert(QStringLiteral("/album"), folderEntry());

    ASSERT_TRUE(QDir().rename(tree, a->path(QStringLiteral("/album"))));
    ASSERT_TRUE(a->writeFile(QStringLiteral("/album/2024/spring/raw/right after.jpg"), "right after"));
    expected.insert(QStringLiteral("/album/2024/spring/raw/right after.jpg"), fileEntry("right after"));
    ASSERT_TRUE(a->writeFile(QStringLiteral("/album/2023/summer/p7.jpg"), "edited right after"));
    expected.insert(QStringLiteral("/album/2023/summer/p7.jpg"), fileEntry("edited right after"));
    ASSERT_TRUE(QDir().mkpath(a->path(QStringLiteral("/album/empty/made right after"))));
    expected.insert(QStringLiteral("/album/empty/made right after"), folderEntry());

    ASSERT_TRUE(converge({a.get()}));
    EXPECT_TRUE(serverHoldsExactly(expected));
    EXPECT_EQ(a->pendingTasks(kUser), 0);
}

// --- A full disk ---

// A small tmpfs mounted over a computer's sync folder; unmounted when the test ends.
class SmallDisk
{
public:
    SmallDisk(const QString &path, qint64 bytes) : m_path(QFile::encodeName(path))
    {
        QDir().mkpath(path);
        const QByteArray options = "size=" + QByteArray::number(bytes) + ",mode=0755";
        if (::mount("tmpfs", m_path.constData(), "tmpfs", 0, options.constData()) == 0)
            m_mounted = true;
        else
            m_error = QString::fromLocal8Bit(std::strerror(errno));
    }
    ~SmallDisk()
    {
        if (m_mounted)
            ::umount2(m_path.constData(), MNT_DETACH);
    }
    SmallDisk(const SmallDisk &) = delete;
    SmallDisk &operator=(const SmallDisk &) = delete;

    bool mounted() const { return m_mounted; }
    QString error() const { return m_error; }
    bool resize(qint64 bytes)
    {
        const QByteArray options = "size=" + QByteArray::number(bytes);
        return ::mount("tmpfs", m_path.constData(), "tmpfs", MS_REMOUNT, options.constData()) == 0;
    }

private:
    QByteArray m_path;
    bool m_mounted = false;
    QString m_error;
};

// A file that does not fit: said once, in words; nothing under its name, no catalogue row for it;
// fetched once there is room. Both at the first synchronisation (b) and from the work list (a).
TEST_F(FaultsTest, DownloadThatDoesNotFitIsSaidRecordedNowhereAndFetchedOnceThereIsRoom)
{
    Tree expected;
    serverFile(expected, QStringLiteral("/small.txt"), "small");
    auto a = std::make_unique<Computer>(QStringLiteral("a"), server);
    auto b = std::make_unique<Computer>(QStringLiteral("b"), server);
    SmallDisk diskA(a->syncFolder(), 512 * 1024);
    if (!diskA.mounted())
        GTEST_SKIP() << "cannot mount a tmpfs here (" << qPrintable(diskA.error())
                     << "): a full disk cannot be made for the test";
    SmallDisk diskB(b->syncFolder(), 512 * 1024);
    ASSERT_TRUE(diskB.mounted()) << qPrintable(diskB.error());
    ASSERT_TRUE(a->startSyncing(kUser, kPassword));
    ASSERT_TRUE(converge({a.get()}));

    // From the work list: the big file, and a change after it that waits for it.
    const QByteArray big(2 * 1024 * 1024 + 5, 'B');
    serverFile(expected, QStringLiteral("/big.bin"), big);
    serverFile(expected, QStringLiteral("/after.txt"), "after the big one");
    const QString said = QStringLiteral("Not enough disk space to download /big.bin");
    ASSERT_TRUE(waitFor([&] { return linesWith(*a, QStringLiteral("message"), said) > 0; }, kConverge))
        << qPrintable(a->output().join(u'\n'));
    // At the first synchronisation.
    ASSERT_TRUE(b->startSyncing(kUser, kPassword));
    ASSERT_TRUE(waitFor([&] { return linesWith(*b, QStringLiteral("message"), said) > 0; }, kConverge))
        << qPrintable(b->output().join(u'\n'));

    ASSERT_TRUE(passes(*a, 3));
    ASSERT_TRUE(passes(*b, 3));
    for (Computer *c : {a.get(), b.get()}) {
        SCOPED_TRACE(qPrintable(c->name()));
        EXPECT_EQ(linesWith(*c, QStringLiteral("message"), said), 1) << "said once, not every pass";
        EXPECT_FALSE(c->localTree().contains(QStringLiteral("/big.bin")));
        EXPECT_FALSE(c->catalogueTree(kUser).contains(QStringLiteral("/big.bin")));
        EXPECT_EQ(
            QDir(c->syncFolder()).entryList(QDir::Hidden | QDir::Files).filter(QStringLiteral(".ferrovane-")),
            QStringList());
        EXPECT_TRUE(c->localTree().contains(QStringLiteral("/small.txt")));
        EXPECT_EQ(c->pendingTasks(kUser), 0) << "nothing of this is sent back";
    }

    // A single run says that it did not end in step.
    EXPECT_EQ(a->stopClient(), 0);
    EXPECT_EQ(a->runClient({QStringLiteral("--once"), QStringLiteral("--pc-name"), a->name()}, QString(),
                           kConverge),
              8)
        << qPrintable(a->output().join(u'\n'));
    EXPECT_EQ(linesWith(*a, QStringLiteral("error"), QStringLiteral("not-in-step")), 1);
    ASSERT_TRUE(a->startSyncing(kUser, kPassword));

    // Room again: both disks grow.
    ASSERT_TRUE(diskA.resize(8 * 1024 * 1024));
    ASSERT_TRUE(converge({a.get()}));
    ASSERT_TRUE(diskB.resize(3 * 1024 * 1024));
    ASSERT_TRUE(converge({a.get(), b.get()}));
    EXPECT_TRUE(serverHoldsExactly(expected));
    EXPECT_EQ(a->pendingTasks(kUser), 0);
    EXPECT_EQ(b->pendingTasks(kUser), 0);
    EXPECT_EQ(a->stopClient(), 0);
    EXPECT_EQ(b->stopClient(), 0);
}

} // namespace
