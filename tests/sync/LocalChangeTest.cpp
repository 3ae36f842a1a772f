// Local changes through the real watcher daemon, which the engine starts itself: every kind of
// change reaches the server, and a daemon that already runs is used instead of a second one.
#include "EngineTestSupport.h"

#include "link/DaemonLauncher.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusReply>
#include <QDir>
#include <QFile>
#include <cstdio>

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
        ASSERT_EQ(std::rename(QFile::encodeName(at(from)).constData(), QFile::encodeName(at(to)).constData()), 0)
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
        return TestUtil::waitFor([&] { return log.count(QStringLiteral("Connect to socket server complete")) > 0; },
                                 30000);
    }
};

} // namespace

TEST_F(LocalChangeTest, EveryLocalChangeReachesTheServerThroughTheDaemon)
{
    ASSERT_FALSE(srv().putFile(user(), QStringLiteral("Docs/a.txt"), "alpha", QStringLiteral("20200101000000")).isEmpty());
    ASSERT_FALSE(srv().putFile(user(), QStringLiteral("Docs/b.txt"), "beta", QStringLiteral("20200101000000")).isEmpty());
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
    ASSERT_TRUE(QDir(at(QStringLiteral("Other"))).removeRecursively());
    step("folder delete");
    EXPECT_EQ(srv().fileContents(user(), QStringLiteral("Docs/a.txt")), "alpha, edited and longer");

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
