// `ferrovane --headless` as a process against the in-process server: what it prints and how it
// ends for each way a start can fail, and a clean stop on SIGTERM.
#include "app/HeadlessClient.h"

#include "common/TestServer.h"
#include "common/TestUtil.h"
#include "link/DistributedNotificationCenter.h"
#include "link/LinkNames.h"
#include "util/LogObject.h"

#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace {

struct Outcome
{
    int exitCode = -1;
    bool finished = false;
    QStringList lines;

    // The lines whose first fields are `prefix`.
    QStringList starting(const QStringList &prefix) const
    {
        const QString head = prefix.join(u'\t');
        QStringList found;
        for (const QString &line : lines)
            if (line == head || line.startsWith(head + u'\t'))
                found << line;
        return found;
    }
};

class Headless : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.ok()) << qPrintable(server.error());
        ASSERT_TRUE(server->addUser(QStringLiteral("alice"), QStringLiteral("secret")));
        ASSERT_TRUE(QFileInfo::exists(program())) << qPrintable(program());
    }

    static QString program() { return QCoreApplication::applicationDirPath() + QStringLiteral("/ferrovane"); }

    // A home of its own for the client; the test process's certificate trusted unless told not to.
    QProcessEnvironment environment(bool trustServer = true) const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), home.path());
        env.insert(QStringLiteral("XDG_DATA_HOME"), home.filePath(QStringLiteral("data")));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
        if (trustServer)
            env.insert(QStringLiteral("FERROVANE_CA_FILE"), TestServer::certificatePath());
        else
            env.remove(QStringLiteral("FERROVANE_CA_FILE"));
        return env;
    }

    QStringList signIn(const QString &domain) const
    {
        return {QStringLiteral("--headless"), QStringLiteral("--domain"), domain,
                QStringLiteral("--user"),     QStringLiteral("alice"),    QStringLiteral("--password-stdin")};
    }

    // Runs the client to its end (bounded). `whenLine` may act on the running process.
    Outcome run(const QStringList &arguments, const QByteArray &input = {},
                const QProcessEnvironment &env = {},
                const std::function<void(QProcess &, const QString &line)> &whenLine = {})
    {
        Outcome outcome;
        QProcess process;
        process.setProcessEnvironment(env.isEmpty() ? environment() : env);
        process.setProcessChannelMode(QProcess::SeparateChannels);
        QByteArray pending;
        QObject::connect(&process, &QProcess::readyReadStandardOutput, &process, [&] {
            pending += process.readAllStandardOutput();
            qsizetype end;
            while ((end = pending.indexOf('\n')) >= 0) {
                const QString line = QString::fromUtf8(pending.left(end));
                pending.remove(0, end + 1);
                outcome.lines << line;
                if (whenLine)
                    whenLine(process, line);
            }
        });
        process.start(program(), arguments);
        if (!process.waitForStarted(10000))
            return outcome;
        process.write(input);
        process.closeWriteChannel();
        outcome.finished = TestUtil::waitFor([&] { return process.state() == QProcess::NotRunning; }, 60000);
        if (!outcome.finished) {
            process.kill();
            process.waitForFinished(5000);
        }
        outcome.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        return outcome;
    }

    QTemporaryDir home;
    TestServer server;
};

} // namespace

TEST_F(Headless, HelpAndBadOptions)
{
    Outcome help = run({QStringLiteral("--help")});
    EXPECT_EQ(help.exitCode, 0);
    const QString text = help.lines.join(u'\n');
    for (const char *expected : {"--headless", "--password-stdin", "--folder", "--once", "Exit codes:",
                                 "  5  the server's certificate is not trusted", "notification  title"})
        EXPECT_TRUE(text.contains(QString::fromLatin1(expected))) << expected;

    EXPECT_EQ(run({QStringLiteral("--headless"), QStringLiteral("--user"), QStringLiteral("alice")}).exitCode,
              HeadlessClient::UsageError);
    EXPECT_EQ(run(signIn(server->domain()), "").exitCode, HeadlessClient::UsageError); // no password
    // Nothing stored and nothing given.
    Outcome nothing = run({QStringLiteral("--headless")});
    EXPECT_EQ(nothing.exitCode, HeadlessClient::UsageError);
    EXPECT_EQ(nothing.starting({QStringLiteral("error"), QStringLiteral("usage")}).size(), 1);
}

TEST_F(Headless, EachFailedStartEndsWithItsOwnCode)
{
    Outcome refused = run(signIn(server->domain()), "wrong\n");
    EXPECT_EQ(refused.exitCode, HeadlessClient::SignInRefused) << qPrintable(refused.lines.join(u'\n'));
    EXPECT_EQ(refused.starting({QStringLiteral("error"), QStringLiteral("refused")}).size(), 1);

    // A port nobody listens on.
    QTcpServer closed;
    ASSERT_TRUE(closed.listen(QHostAddress::LocalHost));
    const QString nobody = QStringLiteral("127.0.0.1:%1").arg(closed.serverPort());
    closed.close();
    Outcome unreachable = run(signIn(nobody), "secret\n");
    EXPECT_EQ(unreachable.exitCode, HeadlessClient::ServerUnreachable)
        << qPrintable(unreachable.lines.join(u'\n'));
    EXPECT_EQ(unreachable.starting({QStringLiteral("error"), QStringLiteral("unreachable")}).size(), 1);

    Outcome untrusted = run(signIn(server->domain()), "secret\n", environment(false));
    EXPECT_EQ(untrusted.exitCode, HeadlessClient::UntrustedCertificate)
        << qPrintable(untrusted.lines.join(u'\n'));
    EXPECT_EQ(untrusted.starting({QStringLiteral("error"), QStringLiteral("certificate")}).size(), 1);

    // A sync folder that cannot be one: checked before anything is sent.
    server->clearRequestLog();
    const QString file = home.filePath(QStringLiteral("a file"));
    ASSERT_TRUE(TestUtil::writeFile(file, "x"));
    Outcome folder = run(signIn(server->domain()) << QStringLiteral("--folder") << file, "secret\n");
    EXPECT_EQ(folder.exitCode, HeadlessClient::FolderUnusable);
    EXPECT_EQ(folder.starting({QStringLiteral("error"), QStringLiteral("folder")}).size(), 1);
    EXPECT_TRUE(server->requestLog().isEmpty());

    // None of them stored anything to sign in with later.
    EXPECT_EQ(run({QStringLiteral("--headless")}).exitCode, HeadlessClient::UsageError);
}

TEST_F(Headless, SigtermStopsSyncTellsTheDaemonAndExitsZero)
{
    DistributedNotificationCenter daemonSide;
    ASSERT_TRUE(daemonSide.isConnected());
    QObject observer;
    int stops = 0;
    daemonSide.addObserver(
        &observer, [&](const QString &, const QString &) { ++stops; }, LinkNames::kDemonStopListener);

    const QString folder = home.filePath(QStringLiteral("Sync"));
    const auto stopWhenSyncing = [](QProcess &process, const QString &line) {
        if (line.startsWith(QLatin1String("status\tsync-on\t")))
            process.terminate();
    };
    Outcome first =
        run(signIn(server->domain()) << QStringLiteral("--folder") << folder << QStringLiteral("--sync"),
            "secret\n", {}, stopWhenSyncing);
    ASSERT_TRUE(first.finished);
    EXPECT_EQ(first.exitCode, HeadlessClient::Success) << qPrintable(first.lines.join(u'\n'));
    const QStringList expected = {
        QStringLiteral("status\tsigning-in\talice@") + server->domain(),
        QStringLiteral("status\tsigned-in\talice\t") + server->domain(),
        QStringLiteral("status\tfolder\t") + folder,
        QStringLiteral("status\tsync-on\t") + folder,
        QStringLiteral("status\tstopping\tSIGTERM"),
    };
    // The engine's first messages race the signal: they may come before or after "stopping", and
    // the worker ends after its current job, so one of that job's may still follow.
    const QStringList statuses = first.starting({QStringLiteral("status")});
    EXPECT_EQ(statuses.mid(0, expected.size()), expected) << qPrintable(first.lines.join(u'\n'));
    ASSERT_FALSE(statuses.isEmpty());
    EXPECT_EQ(statuses.last(), QStringLiteral("status\tsync-off")) << qPrintable(first.lines.join(u'\n'));
    EXPECT_TRUE(QFileInfo(folder).isDir());
    EXPECT_TRUE(TestUtil::waitFor([&] { return stops >= 1; }, 5000));

    // The next start signs in with what was stored and, the switch having been used, syncs the
    // stored folder by itself.
    server->clearRequestLog();
    Outcome second = run({QStringLiteral("--headless")}, {}, {}, stopWhenSyncing);
    EXPECT_EQ(second.exitCode, HeadlessClient::Success) << qPrintable(second.lines.join(u'\n'));
    EXPECT_EQ(second.starting({QStringLiteral("status"), QStringLiteral("signed-in")}).size(), 1);
    EXPECT_EQ(second.starting({QStringLiteral("status"), QStringLiteral("sync-on"), folder}).size(), 1);
    EXPECT_EQ(server->requestedCommands().count(QStringLiteral("LOGIN")), 1);
}

TEST(HeadlessLines, FieldsAreTabSeparatedWithEscapes)
{
    EXPECT_EQ(HeadlessClient::formatLine({QStringLiteral("message"), QStringLiteral("a\tb\\c\nd\re")}),
              QStringLiteral("message\ta\\tb\\\\c\\nd\\re"));
    const LogObject entry = LogObject::createLogObjectWithName(
        QStringLiteral("Grüße.txt"), QStringLiteral("work_add"), 1234, QStringLiteral("/docs/Grüße.txt"),
        false, QStringLiteral("2024/05/01 12:00:00"), QString(), true);
    EXPECT_EQ(HeadlessClient::formatLine(HeadlessClient::logEntryFields(entry, true)),
              QStringLiteral("log\tserver\twork_add\tok\tfile\t1234\tGrüße.txt\t/docs/Grüße.txt\t2024/05/01 "
                             "12:00:00\t"));
    const LogObject folder = LogObject::createLogObjectWithName(
        QStringLiteral("d"), QStringLiteral("work_delete"), -1, QStringLiteral("/d"), true, {}, {}, false);
    EXPECT_EQ(HeadlessClient::logEntryFields(folder, false).mid(1, 5),
              (QStringList{QStringLiteral("local"), QStringLiteral("work_delete"), QStringLiteral("failed"),
                           QStringLiteral("folder"), QStringLiteral("-")}));
}
