// The engine's end of the daemon link against a stand-in daemon that this test process plays: it
// holds the daemon's bus name, answers the start notification with a port, and writes whatever
// frames a test wants, whole or cut anywhere. Covers the framing, the order in which messages are
// classified, renames and moves in and out of the folder, ".DS_Store", the deletion of the sync
// folder itself, the keep-alive and the restart of the listener.
#include "EngineTestSupport.h"
#include "link/DaemonLauncher.h"
#include "link/DistributedNotificationCenter.h"
#include "link/KeyedArchive.h"
#include "link/LinkNames.h"
#include "link/MessageFraming.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>
#include <cstdio>

namespace {

class FakeDaemon
{
public:
    FakeDaemon()
    {
        const auto reply = QDBusConnection::sessionBus().interface()->registerService(
            DaemonLauncher::serviceName(), QDBusConnectionInterface::DontQueueService,
            QDBusConnectionInterface::DontAllowReplacement);
        registered = reply.isValid() && reply.value() == QDBusConnectionInterface::ServiceRegistered;
        center.addObserver(
            &m_context,
            [this](const QString &, const QString &folder) {
                starts.append(folder);
                listen();
            },
            LinkNames::kDemonStartListener);
        center.addObserver(
            &m_context, [this](const QString &, const QString &) { ++stops; }, LinkNames::kDemonStopListener);
    }
    ~FakeDaemon()
    {
        QDBusConnection::sessionBus().interface()->unregisterService(DaemonLauncher::serviceName());
    }

    void listen()
    {
        client.reset();
        server = std::make_unique<QTcpServer>();
        server->listen(QHostAddress::LocalHost, 0);
        QObject::connect(server.get(), &QTcpServer::newConnection, &m_context, [this] {
            client.reset(server->nextPendingConnection());
            ++connections;
            QObject::connect(client.get(), &QTcpSocket::readyRead, &m_context,
                             [this] { received += client->readAll(); });
        });
        center.postNotificationName(LinkNames::kKeyMyFSListenerPort, QString::number(server->serverPort()));
    }
    bool waitConnected(int count = 1)
    {
        return TestUtil::waitFor([&] { return connections >= count && client; }, 30000);
    }
    // Writes `bytes` in pieces of `piece` bytes, each one flushed before the next, so that the
    // engine meets them in separate reads.
    void send(const QByteArray &bytes, int piece)
    {
        for (qsizetype at = 0; at < bytes.size(); at += piece) {
            client->write(bytes.mid(at, piece));
            client->flush();
            if (piece < bytes.size()) {
                QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
                QThread::usleep(100);
                QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
            }
        }
    }
    static QByteArray frame(const QString &name, const QString &path) { return frame(name, QVariant(path)); }
    static QByteArray frame(const QString &name, const QVariant &payload)
    {
        const auto body = KeyedArchive::archiveMessage(name, payload.toStringList().value(0),
                                                       QVariantMap{{LinkNames::kUserInfoObjectKey, payload}});
        return MessageFraming::frame(*body).value();
    }

    bool registered = false;
    DistributedNotificationCenter center;
    std::unique_ptr<QTcpServer> server;
    std::unique_ptr<QTcpSocket> client;
    QStringList starts;
    int stops = 0;
    int connections = 0;
    QByteArray received;

private:
    QObject m_context;
};

class DaemonLinkTest : public EngineFixture
{
protected:
    void SetUp() override
    {
        EngineFixture::SetUp();
        ASSERT_TRUE(daemon.registered) << "the daemon's bus name is taken";
    }
    // The handlers the listener queue ran, with their payloads, in order.
    QStringList handled()
    {
        static const QRegularExpression handler(
            QStringLiteral("(myFSListener\\w+OnThread)[^\\]]*\\[LINE: \\d+\\](.*)"));
        QStringList found;
        for (const QString &line : log.diagnostics(QStringLiteral("OnThread"))) {
            const QRegularExpressionMatch match = handler.match(line);
            if (match.hasMatch())
                found.append(match.captured(1) + u' ' + match.captured(2));
        }
        return found;
    }
    void rename(const QString &from, const QString &to)
    {
        ASSERT_EQ(std::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()), 0)
            << qPrintable(from);
    }
    // Sends one message (and a marker the listener queue handles after it), then waits until the
    // marker has been handled and everything the message caused is done.
    void event(const QString &name, const QVariant &payload)
    {
        const QString handled = QStringLiteral("File was remove: ") + root + u'/' + kMarker;
        const qsizetype markers = log.diagnostics(handled).size();
        daemon.send(FakeDaemon::frame(name, payload) +
                        FakeDaemon::frame(LinkNames::kKeyMyFSListenerDeleteFile, root + u'/' + kMarker),
                    1 << 20);
        ASSERT_TRUE(TestUtil::waitFor(
            [&] { return log.diagnostics(handled).size() > markers && engine->isQuiet(); }));
    }
    const QString kMarker = QStringLiteral("marker-never-there");
    FakeDaemon daemon;
};

} // namespace

TEST_F(DaemonLinkTest, FramesCutAtEveryByteGiveTheSameEventsAsWholeFrames)
{
    start();
    ASSERT_TRUE(daemon.waitConnected());
    ASSERT_TRUE(waitQuiet());
    const QString nowhere = root + QStringLiteral("/nowhere/");
    const QString longName = nowhere + QStringLiteral("deep/").repeated(400) + QStringLiteral("long.txt");
    QByteArray stream;
    stream += FakeDaemon::frame(LinkNames::kKeyMyFSListenerCreateFile, nowhere + QStringLiteral("one.txt"));
    stream += FakeDaemon::frame(LinkNames::kKeyMyFSListenerMoveFile,
                                QStringList{nowhere + QStringLiteral("x"), nowhere + QStringLiteral("y")});
    stream += FakeDaemon::frame(LinkNames::kKeyMyFSListenerDeleteFile, nowhere + QStringLiteral("two.txt"));
    stream += "00000"; // an empty body is skipped
    stream +=
        FakeDaemon::frame(LinkNames::kKeyMyFSListenerRenameFile,
                          QStringList{nowhere + QStringLiteral("a.txt"), nowhere + QStringLiteral("b.txt")});
    stream += "00004junk"; // not an archive: dropped
    stream += FakeDaemon::frame(LinkNames::kKeyMyFSListenerUpdateFile, nowhere + QStringLiteral("three.txt"));
    stream += FakeDaemon::frame(QStringLiteral("kKeySomethingElse"), nowhere);
    stream += FakeDaemon::frame(LinkNames::kKeyMyFSListenerCreateDir, nowhere + QStringLiteral("dir"));
    stream += FakeDaemon::frame(LinkNames::kKeyMyFSListenerDeleteDir,
                                QStringList{nowhere + QStringLiteral("gone")});
    stream += FakeDaemon::frame(LinkNames::kKeyMyFSListenerCreateFile, longName); // more than 1024 bytes
    ASSERT_GT(FakeDaemon::frame(LinkNames::kKeyMyFSListenerCreateFile, longName).size(), 2 * 1024);

    const auto deliver = [&](int piece) {
        log.clear();
        daemon.send(stream, piece);
        EXPECT_TRUE(TestUtil::waitFor([&] { return handled().size() >= 7 && engine->isQuiet(); }));
        return handled();
    };
    const QStringList whole = deliver(int(stream.size()));
    ASSERT_EQ(whole.size(), 7) << qPrintable(whole.join(u'\n'));
    const QStringList order = {
        QStringLiteral("myFSListenerCreateFileOnThread"), QStringLiteral("myFSListenerDeleteFileOnThread"),
        QStringLiteral("myFSListenerRenameFileOnThread"), QStringLiteral("myFSListenerUpdateFileOnThread"),
        QStringLiteral("myFSListenerCreateDirOnThread"),  QStringLiteral("myFSListenerDeleteDirOnThread"),
        QStringLiteral("myFSListenerCreateFileOnThread")};
    for (int i = 0; i < order.size(); ++i)
        EXPECT_TRUE(whole[i].startsWith(order[i])) << qPrintable(whole[i]);
    EXPECT_TRUE(whole.last().contains(QStringLiteral("long.txt")));
    EXPECT_EQ(deliver(1), whole); // every byte boundary a cut
    EXPECT_EQ(deliver(7), whole);
    EXPECT_EQ(deliver(1023), whole);
}

TEST_F(DaemonLinkTest, RenamesMovesAndRemovalsAreToldApart)
{
    ASSERT_FALSE(
        srv().putFile(user(), QStringLiteral("A/x.txt"), "x", QStringLiteral("20200101000000")).isEmpty());
    ASSERT_FALSE(
        srv().putFile(user(), QStringLiteral("A/y.txt"), "y", QStringLiteral("20200101000000")).isEmpty());
    ASSERT_FALSE(
        srv().putFile(user(), QStringLiteral("C/z.txt"), "z", QStringLiteral("20200101000000")).isEmpty());
    ASSERT_FALSE(srv().makeFolder(user(), QStringLiteral("B")).isEmpty());
    start();
    ASSERT_TRUE(daemon.waitConnected());
    ASSERT_TRUE(waitInStep());
    QTemporaryDir outside;

    const auto expectCommand = [&](const char *command) {
        ASSERT_TRUE(waitInStep()) << command << local() << server();
        const QString sent = commands().join(u' ');
        EXPECT_TRUE(commands().contains(QLatin1String(command))) << command << qPrintable(sent);
        for (const char *other : {"RENAME", "MOVE", "DEL", "PUT"}) {
            if (qstrcmp(other, command) != 0) {
                EXPECT_FALSE(commands().contains(QLatin1String(other))) << command << qPrintable(sent);
            }
        }
        srv().clearRequestLog();
    };
    srv().clearRequestLog();
    rename(at(QStringLiteral("A/x.txt")), at(QStringLiteral("A/x2.txt")));
    event(LinkNames::kKeyMyFSListenerRenameFile,
          QStringList{at(QStringLiteral("A/x.txt")), at(QStringLiteral("A/x2.txt"))});
    expectCommand("RENAME");
    rename(at(QStringLiteral("A/y.txt")), at(QStringLiteral("B/y.txt")));
    event(LinkNames::kKeyMyFSListenerRenameFile,
          QStringList{at(QStringLiteral("A/y.txt")), at(QStringLiteral("B/y.txt"))});
    expectCommand("MOVE");
    rename(at(QStringLiteral("B/y.txt")), outside.filePath(QStringLiteral("y.txt")));
    event(LinkNames::kKeyMyFSListenerRenameFile,
          QStringList{at(QStringLiteral("B/y.txt")), outside.filePath(QStringLiteral("y.txt"))});
    expectCommand("DEL");
    rename(at(QStringLiteral("C")), at(QStringLiteral("C2")));
    event(LinkNames::kKeyMyFSListenerRenameDir,
          QStringList{at(QStringLiteral("C")), at(QStringLiteral("C2"))});
    expectCommand("RENAME");

    // ".DS_Store" is never sent, but its removal is a task like any other (with nothing to delete).
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral(".DS_Store")), "finder"));
    event(LinkNames::kKeyMyFSListenerCreateFile, at(QStringLiteral(".DS_Store")));
    event(LinkNames::kKeyMyFSListenerUpdateFile, at(QStringLiteral(".DS_Store")));
    ASSERT_TRUE(QFile::remove(at(QStringLiteral(".DS_Store"))));
    event(LinkNames::kKeyMyFSListenerDeleteFile, at(QStringLiteral(".DS_Store")));
    EXPECT_EQ(log.diagnostics(QStringLiteral("File was remove: ") + at(QStringLiteral(".DS_Store"))).size(),
              1);
    // A move message straight from the daemon is not one of the names it may send: ignored.
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("moved-in.txt")), "m"));
    event(LinkNames::kKeyMyFSListenerMoveFile,
          QStringList{outside.filePath(QStringLiteral("m.txt")), at(QStringLiteral("moved-in.txt"))});
    EXPECT_EQ(commands().join(u' '), QString());
    ASSERT_TRUE(QFile::remove(at(QStringLiteral("moved-in.txt"))));
    expectInStep();

    // The sync folder itself removed: its first level goes, here and on the server.
    ASSERT_TRUE(QDir(root).removeRecursively());
    event(LinkNames::kKeyMyFSListenerDeleteDir, QStringList{root});
    ASSERT_TRUE(waitInStep()) << local() << server();
    EXPECT_EQ(server(), Tree());
    EXPECT_TRUE(TestUtil::waitFor([&] { return QFileInfo(root).isDir(); })); // made again by the next pass
}

TEST_F(DaemonLinkTest, ARunningDaemonIsUsedAndTheListenerRestartsWhenTheStreamEnds)
{
    start();
    ASSERT_TRUE(daemon.waitConnected());
    EXPECT_EQ(daemon.starts.join(u'|'), root);
    EXPECT_TRUE(log.diagnostics(QStringLiteral("ferrovane-daemon (pid")).isEmpty());
    ASSERT_TRUE(TestUtil::waitFor([&] { return daemon.received.count("live") >= 3; }));
    EXPECT_EQ(QByteArray(daemon.received).replace("live", ""), QByteArray());

    // The daemon closes the stream: it is told to stop and start again, and a new port is used.
    daemon.client->close();
    ASSERT_TRUE(daemon.waitConnected(2));
    EXPECT_EQ(daemon.stops, 1);
    EXPECT_EQ(daemon.starts.join(u'|'), root + u'|' + root);
    EXPECT_TRUE(TestUtil::waitFor(
        [&] { return log.count(QStringLiteral("Connect to socket server complete")) == 2; }));

    stop();
    EXPECT_TRUE(TestUtil::waitFor([&] { return daemon.stops == 2; }));
}
