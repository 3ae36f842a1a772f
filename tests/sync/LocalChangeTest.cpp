// Local changes through the real watcher daemon, which the engine starts itself: every kind of
// change reaches the server, and a daemon that already runs is used instead of a second one.
#include "EngineTestSupport.h"
#include "link/DaemonLauncher.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusReply>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class LocalChangeTest : public EngineFixture
{
protected:
    void write(const QString &relative, const QByteArray &data)
    {
        ASSERT_TRUE(TestUtil::writeFile(at(relative), data)) << qPrintable(relative);
    }
    void rename(const QString &from, const QString &to)
    {
        ASSERT_EQ(std::rename(QFile::encodeName(at(from)).constData(), QFile::encodeName(at(to)).constData()),
                  0)
            << qPrintable(from);
    }
    uint daemonPid()
    {
        const QDBusReply<uint> pid =
            QDBusConnection::sessionBus().interface()->servicePid(DaemonLauncher::serviceName());
        return pid.isValid() ? pid.value() : 0;
    }
    bool connected()
    {
        return TestUtil::waitFor(
            [&] { return log.count(QStringLiteral("Connect to socket server complete")) > 0; }, 30000);
    }
};

} // namespace

TEST_F(LocalChangeTest, EveryLocalChangeReachesTheServerThroughTheDaemon)
{
    ASSERT_FALSE(srv()
                     .putFile(user(), QStringLiteral("Docs/a.txt"), "alpha", QStringLiteral("20200101000000"))
                     .isEmpty());
    ASSERT_FALSE(srv()
                     .putFile(user(), QStringLiteral("Docs/b.txt"), "beta", QStringLiteral("20200101000000"))
                     .isEmpty());
    ASSERT_FALSE(srv().makeFolder(user(), QStringLiteral("Other")).isEmpty());
    start();
    ASSERT_TRUE(connected());
    ASSERT_TRUE(waitInStep());
    const uint pid = daemonPid();
    ASSERT_NE(pid, 0u);

    const auto step = [&](const char *what) {
        ASSERT_TRUE(waitInStep()) << what << local() << server();
        expectInStep();
    };
    write(QStringLiteral("new.txt"), "a new file");
    step("new file");
    write(QStringLiteral("Made/inside.txt"), "in a new folder");
    step("new folder with a file");
    write(QStringLiteral("Docs/a.txt"), "alpha, edited and longer");
    step("edit");
    rename(QStringLiteral("Docs/b.txt"), QStringLiteral("Docs/b2.txt"));
    step("rename");
    rename(QStringLiteral("Docs/b2.txt"), QStringLiteral("Other/b2.txt"));
    step("move");
    rename(QStringLiteral("Made"), QStringLiteral("Other/Made"));
    step("folder move");
    ASSERT_TRUE(QFile::remove(at(QStringLiteral("new.txt"))));
    step("delete");
    // An editor's save: a new copy written beside the file, then renamed over it.
    write(QStringLiteral("Docs/.a.txt.swp"), "alpha, saved by an editor");
    rename(QStringLiteral("Docs/.a.txt.swp"), QStringLiteral("Docs/a.txt"));
    step("atomic save");
    // Written again in the second of its last upload (dated back to it): the contents tell.
    // (Dated before the file is closed: the watcher reports a write when the file is closed.)
    {
        struct stat uploaded = {};
        ASSERT_EQ(::stat(QFile::encodeName(at(QStringLiteral("Docs/a.txt"))).constData(), &uploaded), 0);
        const int fd = ::open(QFile::encodeName(at(QStringLiteral("Docs/a.txt"))).constData(),
                              O_WRONLY | O_TRUNC | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        const QByteArray again = "alpha, SAVED by an editor"; // the same size: only the MD5 tells
        ASSERT_EQ(::write(fd, again.constData(), size_t(again.size())), again.size());
        const struct timespec times[2] = {uploaded.st_atim, uploaded.st_mtim};
        ASSERT_EQ(::futimens(fd, times), 0);
        ::close(fd);
    }
    step("edit in the same second");
    // A tree moved in from outside, its files dated long ago; then moved out again.
    QTemporaryDir outside(syncDir.filePath(QStringLiteral("outside-XXXXXX")));
    ASSERT_TRUE(TestUtil::writeFile(outside.filePath(QStringLiteral("tree/sub/deep.txt")), "deep"));
    ASSERT_TRUE(TestUtil::writeFile(outside.filePath(QStringLiteral("tree/top.txt")), "top"));
    for (const char *old : {"tree/sub/deep.txt", "tree/top.txt", "tree/sub", "tree"})
        ASSERT_TRUE(
            setMTime(outside.filePath(QLatin1String(old)), QDateTime(QDate(2001, 2, 3), QTime(4, 5, 6))));
    ASSERT_EQ(std::rename(QFile::encodeName(outside.filePath(QStringLiteral("tree"))).constData(),
                          QFile::encodeName(at(QStringLiteral("tree"))).constData()),
              0);
    step("tree moved in");
    ASSERT_EQ(std::rename(QFile::encodeName(at(QStringLiteral("tree"))).constData(),
                          QFile::encodeName(outside.filePath(QStringLiteral("back"))).constData()),
              0);
    step("tree moved out");
    ASSERT_TRUE(QDir(at(QStringLiteral("Other"))).removeRecursively());
    step("folder delete");
    EXPECT_EQ(srv().fileContents(user(), QStringLiteral("Docs/a.txt")), "alpha, SAVED by an editor");

    // A daemon holds the name: a new engine uses it and starts none.
    stop();
    log.clear();
    start();
    ASSERT_TRUE(connected());
    EXPECT_EQ(daemonPid(), pid);
    EXPECT_TRUE(log.diagnostics(QStringLiteral("ferrovane-daemon (pid")).isEmpty());
    write(QStringLiteral("again.txt"), "after a restart");
    step("after a restart");
}

TEST_F(LocalChangeTest, AnItemRenamedIntoThePlaceOfOneJustDeletedTakesItOnTheServer)
{
    // The delete may run before the rename is reported (it then finds the place filled and sends
    // what is there anew) or after it (the rename then finds the place still taken): either way the
    // server must end with one item there, and nothing left under the old name.
    for (const char *file : {"Docs/a.txt", "Docs/b.txt", "F/f.txt", "G/g.txt", "G/sub/h.txt"})
        ASSERT_FALSE(srv()
                         .putFile(user(), QLatin1String(file), QByteArray("was ") + file,
                                  QStringLiteral("20200101000000"))
                         .isEmpty());
    start();
    ASSERT_TRUE(connected());
    ASSERT_TRUE(waitInStep());

    ASSERT_TRUE(QFile::remove(at(QStringLiteral("Docs/b.txt"))));
    rename(QStringLiteral("Docs/a.txt"), QStringLiteral("Docs/b.txt"));
    ASSERT_TRUE(QDir(at(QStringLiteral("F"))).removeRecursively());
    rename(QStringLiteral("G"), QStringLiteral("F"));

    ASSERT_TRUE(waitInStep()) << local() << server();
    expectInStep();
    EXPECT_EQ(server().keys(), QStringList({QStringLiteral("Docs"), QStringLiteral("Docs/b.txt"),
                                            QStringLiteral("F"), QStringLiteral("F/g.txt"),
                                            QStringLiteral("F/sub"), QStringLiteral("F/sub/h.txt")}));
    EXPECT_EQ(srv().fileContents(user(), QStringLiteral("Docs/b.txt")), "was Docs/a.txt");
    EXPECT_EQ(srv().fileContents(user(), QStringLiteral("F/sub/h.txt")), "was G/sub/h.txt");
}

TEST_F(LocalChangeTest, AFolderMadeUnderTheNameOfOneJustRenamedIsSentWithWhatItHolds)
{
    ASSERT_FALSE(srv().putFile(user(), QStringLiteral("G/g.txt"), "in the first G").isEmpty());
    start();
    ASSERT_TRUE(connected());
    ASSERT_TRUE(waitInStep());

    rename(QStringLiteral("G"), QStringLiteral("H"));
    write(QStringLiteral("G/new.txt"), "in the new G");

    ASSERT_TRUE(waitInStep()) << local() << server();
    expectInStep();
    EXPECT_EQ(srv().fileContents(user(), QStringLiteral("H/g.txt")), "in the first G");
    EXPECT_EQ(srv().fileContents(user(), QStringLiteral("G/new.txt")), "in the new G");
}

TEST_F(LocalChangeTest, AnOlderFileRenamedOverOneGoesToTheServerDatedAfterIt)
{
    // The watcher reports a file deleted and an older one renamed to its name at once as that
    // file's update, dated before its copy: still the user's change, and dated so that other
    // computers, whose copies are the later ones, take it.
    const QString newer = QStringLiteral("20200101000000");
    ASSERT_FALSE(srv().putFile(user(), QStringLiteral("p.txt"), "the newer one", newer).isEmpty());
    ASSERT_FALSE(
        srv()
            .putFile(user(), QStringLiteral("e.txt"), "the older one", QStringLiteral("20010101000000"))
            .isEmpty());
    start();
    ASSERT_TRUE(connected());
    ASSERT_TRUE(waitInStep());

    ASSERT_TRUE(QFile::remove(at(QStringLiteral("p.txt"))));
    rename(QStringLiteral("e.txt"), QStringLiteral("p.txt"));

    ASSERT_TRUE(waitInStep()) << local() << server();
    expectInStep();
    EXPECT_EQ(srv().fileContents(user(), QStringLiteral("p.txt")), "the older one");
    const QList<TreeEntry> tree = srv().tree(user());
    ASSERT_EQ(tree.size(), 1);
    EXPECT_GT(tree.first().time, newer);
}

TEST_F(LocalChangeTest, AFileWrittenAgainAsItsUploadBeginsEndsRecordedAsSent)
{
    // Written again after the upload took the file's MD5 and before it stored the row (its
    // details are asked of the server in between, slowly here): the watcher's report of that write
    // finds only the upload's own task, which must not stand for it.
    start();
    ASSERT_TRUE(connected());
    ASSERT_TRUE(waitInStep());
    srv().clearRequestLog();
    srv().delayReplies(QStringLiteral("INFO"), 1000);
    write(QStringLiteral("f.txt"), "first");
    ASSERT_TRUE(TestUtil::waitFor([&] { return commands().contains(QStringLiteral("INFO")); }, 30000));
    write(QStringLiteral("f.txt"), "written again, longer");

    ASSERT_TRUE(waitInStep()) << local() << server() << catalogue();
    expectInStep();
    EXPECT_EQ(srv().fileContents(user(), QStringLiteral("f.txt")), "written again, longer");
}

TEST_F(LocalChangeTest, AnUploadThatFailsIsSentAgainAtALaterPassWithoutAnotherChange)
{
    start();
    ASSERT_TRUE(connected());
    ASSERT_TRUE(waitInStep());
    srv().cutReplies(QStringLiteral("UPLOAD"), 1);
    write(QStringLiteral("kept.txt"), "sent at the second try");
    ASSERT_TRUE(waitInStep()) << local() << server();
    expectInStep();
    EXPECT_EQ(srv().fileContents(user(), QStringLiteral("kept.txt")), "sent at the second try");
    EXPECT_EQ(srv().requestedCommands().count(QStringLiteral("UPLOAD")), 2);
}

TEST_F(LocalChangeTest, WhatChangedWhileTheDaemonWasGoneIsFoundByARescanAndSentOnce)
{
    ASSERT_FALSE(srv()
                     .putFile(user(), QStringLiteral("gone.txt"), "gone", QStringLiteral("20200101000000"))
                     .isEmpty());
    ASSERT_FALSE(
        srv()
            .putFile(user(), QStringLiteral("Old/inside.txt"), "in", QStringLiteral("20200101000000"))
            .isEmpty());
    ASSERT_FALSE(srv()
                     .putFile(user(), QStringLiteral("kept.txt"), "kept", QStringLiteral("20200101000000"))
                     .isEmpty());
    start();
    ASSERT_TRUE(connected());
    ASSERT_TRUE(waitInStep());
    const uint pid = daemonPid();
    ASSERT_NE(pid, 0u);
    log.clear();
    srv().clearRequestLog();

    // Killed: nothing reports these changes but the disk itself.
    ASSERT_EQ(::kill(pid_t(pid), SIGKILL), 0);
    write(QStringLiteral("unwatched.txt"), "made while no one watched");
    ASSERT_TRUE(QDir().mkpath(at(QStringLiteral("Empty folder"))));
    ASSERT_TRUE(QFile::remove(at(QStringLiteral("gone.txt"))));
    ASSERT_TRUE(QDir(at(QStringLiteral("Old"))).removeRecursively());
    ASSERT_TRUE(TestUtil::waitFor([&] { return daemonPid() != 0 && daemonPid() != pid; }, 30000));
    ASSERT_TRUE(waitInStep()) << local() << server();
    expectInStep();
    QStringList sent =
        srv().requestedCommands().filter(QRegularExpression(QStringLiteral("^(PUT|DEL|UPLOAD)$")));
    sent.sort();
    EXPECT_EQ(sent, (QStringList{QStringLiteral("DEL"), QStringLiteral("DEL"), QStringLiteral("PUT"),
                                 QStringLiteral("PUT"), QStringLiteral("UPLOAD")}));
}

TEST_F(LocalChangeTest, ANameSpelledDecomposedHereStaysOneItemWhenTheServerChangesIt)
{
    start();
    ASSERT_TRUE(connected());
    ASSERT_TRUE(waitInStep());
    const QString folder = QStringLiteral("Mu\u0308ller");
    const QString file = folder + QStringLiteral("/Cafe\u0301.txt");
    const QString composed = file.normalized(QString::NormalizationForm_C);
    write(file, "made here");
    // The server spells names composed.
    ASSERT_TRUE(TestUtil::waitFor(
        [&] { return srv().fileContents(user(), composed) == "made here" && engine->isQuiet(); }));

    ASSERT_FALSE(
        srv().putFile(user(), composed, "changed there", QStringLiteral("20300101000000")).isEmpty());
    ASSERT_FALSE(srv()
                     .putFile(user(),
                              folder.normalized(QString::NormalizationForm_C) + QStringLiteral("/new.txt"),
                              "new there")
                     .isEmpty());
    ASSERT_TRUE(TestUtil::waitFor([&] {
        return TestUtil::readFile(at(file)) == "changed there" &&
               QFileInfo::exists(at(folder + QStringLiteral("/new.txt")));
    })) << local();
    ASSERT_TRUE(waitQuiet());
    EXPECT_EQ(QDir(root).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
              QStringList{folder});
    EXPECT_EQ(QDir(at(folder)).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
              (QStringList{QStringLiteral("Cafe\u0301.txt"), QStringLiteral("new.txt")}));
    EXPECT_EQ(catalogue().size(), 3);
}
