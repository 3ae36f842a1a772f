// The built ferrovane-daemon on a private session bus: started with QProcess, told to start by a
// distributed notification, connected to over TCP at the port it announces, and checked against the
// exact messages that real changes in a real tree produce.

#include "DaemonTestSupport.h"
#include "common/TestUtil.h"
#include "link/DistributedNotificationCenter.h"
#include "link/KeyedArchive.h"
#include "link/LinkNames.h"
#include "link/MessageFraming.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace FileTest;

namespace {

const QString kServiceName = u"com.velmora.FerrovaneDaemon"_qs;

// A session bus of our own, so that other tests' daemons and clients never hear us.
class PrivateBus
{
public:
    explicit PrivateBus(const QString &connectionName = u"daemon-test"_qs) : m_name(connectionName) {}
    bool start()
    {
        const QString program = QStandardPaths::findExecutable(u"dbus-daemon"_qs);
        if (program.isEmpty())
            return false;
        m_process.start(program, {u"--session"_qs, u"--nofork"_qs, u"--print-address=1"_qs});
        if (!m_process.waitForStarted(5000))
            return false;
        TestUtil::waitFor([&] { return m_process.canReadLine(); }, 10000);
        address = QString::fromUtf8(m_process.readLine()).trimmed();
        if (address.isEmpty())
            return false;
        bus = std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(address, m_name));
        return bus->isConnected();
    }
    ~PrivateBus() { stop(); }
    // Ends the bus daemon, as the end of a session does.
    void stop()
    {
        if (bus) {
            bus.reset();
            QDBusConnection::disconnectFromBus(m_name);
        }
        if (m_process.state() == QProcess::NotRunning)
            return;
        m_process.terminate();
        if (!m_process.waitForFinished(3000))
            m_process.kill();
    }

    QString address;
    std::unique_ptr<QDBusConnection> bus;

private:
    QString m_name;
    QProcess m_process;
};

struct Received
{
    QString name;
    QVariant object;
    QVariant payload; // the user info's "object"
};

class DaemonProcess : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_bus = new PrivateBus;
        if (!s_bus->start()) {
            delete s_bus;
            s_bus = nullptr;
        }
    }
    static void TearDownTestSuite()
    {
        delete s_bus;
        s_bus = nullptr;
    }

    void SetUp() override
    {
        if (!s_bus)
            GTEST_SKIP() << "dbus-daemon is not available";
        ASSERT_TRUE(m_dir.isValid() && m_outside.isValid());
        root = m_dir.path() + u"/CloudFolder"_qs;
        outside = m_outside.path();
        write(root + u"/docs/report.txt"_qs, "first");
        QDir().mkpath(root + u"/photos"_qs);

        center = std::make_unique<DistributedNotificationCenter>(*s_bus->bus);
        ASSERT_TRUE(center->isConnected());
        center->addObserver(
            &m_context, [this](const QString &, const QString &object) { ports << object; },
            LinkNames::kKeyMyFSListenerPort);
        m_keepAlive.setInterval(20);
        QObject::connect(&m_keepAlive, &QTimer::timeout, &m_context, [this] {
            if (socket && socket->state() == QAbstractSocket::ConnectedState)
                socket->write(LinkNames::kKeepAlive, 4);
        });
        m_keepAlive.start();
    }

    void TearDown() override
    {
        if (daemon.state() != QProcess::NotRunning) {
            daemon.terminate();
            if (!daemon.waitForFinished(5000))
                daemon.kill();
        }
        socket.reset();
    }

    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(u"DBUS_SESSION_BUS_ADDRESS"_qs, s_bus->address);
        // A 50 ms batch latency: the steps below are each one batch even on a busy machine.
        env.insert(u"FERROVANE_TIME_SCALE"_qs, u"0.25"_qs);
        return env;
    }

    bool serviceRunning() const { return s_bus->bus->interface()->isServiceRegistered(kServiceName).value(); }

    // With `channels` SeparateChannels the daemon's diagnostics are read with readAllStandardError.
    void launch(QProcess::ProcessChannelMode channels = QProcess::ForwardedErrorChannel)
    {
        daemon.setProcessEnvironment(environment());
        daemon.setProcessChannelMode(channels);
        daemon.start(QCoreApplication::applicationDirPath() + u"/ferrovane-daemon"_qs, {u"--verbose"_qs});
        ASSERT_TRUE(daemon.waitForStarted(5000));
        ASSERT_TRUE(TestUtil::waitFor([&] { return serviceRunning(); }, 20000));
    }

    // Posts the start notification and connects to the port it makes the daemon announce.
    void startAndConnect()
    {
        const qsizetype before = ports.size();
        center->postNotificationName(LinkNames::kDemonStartListener, root);
        ASSERT_TRUE(TestUtil::waitFor([&] { return ports.size() > before; }, 20000));
        connectTo(ports.constLast().toUShort());
    }

    void connectTo(quint16 port)
    {
        ASSERT_NE(port, 0);
        received.clear();
        m_frames = {};
        socket = std::make_unique<QTcpSocket>();
        QObject::connect(socket.get(), &QTcpSocket::readyRead, &m_context, [this] {
            for (const QByteArray &body : m_frames.readFrom(*socket)) {
                const std::optional<QVariantList> message = KeyedArchive::unarchiveMessage(body);
                ASSERT_TRUE(message.has_value());
                ASSERT_EQ(message->size(), 3);
                received.append({message->at(0).toString(), message->at(1),
                                 message->at(2).toMap().value(LinkNames::kUserInfoObjectKey)});
            }
        });
        socket->connectToHost(u"127.0.0.1"_qs, port);
        ASSERT_TRUE(TestUtil::waitFor([&] { return socket->state() == QAbstractSocket::ConnectedState; }));
    }

    // Writes a marker file and waits for its message: everything before it has been sent. Returns
    // the step's messages (paths relative to the root; the markers left out). A file created and
    // written can straddle two batches on a loaded machine; the update that follows its creation
    // then says nothing new and is left out too.
    QStringList settle()
    {
        const QString marker = root + u"/.marker-"_qs + QString::number(++m_markers);
        write(marker);
        const auto seen = [&] {
            for (const Received &message : std::as_const(received))
                if (message.payload == marker)
                    return true;
            return false;
        };
        EXPECT_TRUE(TestUtil::waitFor(seen, 20000)) << "no message for " << qPrintable(marker);
        QStringList texts, created;
        for (const Received &message : std::exchange(received, {})) {
            const QString path = message.payload.toStringList().join(u" -> "_qs);
            if (path.contains(u"/.marker-"_qs))
                continue;
            // Every payload travels under "object" in the user info and as the object.
            EXPECT_EQ(message.object, message.payload) << qPrintable(message.name);
            if (message.name == LinkNames::kKeyMyFSListenerCreateFile)
                created << path;
            if (message.name == LinkNames::kKeyMyFSListenerUpdateFile && created.contains(path))
                continue;
            texts << describe({message.name, message.payload});
        }
        texts.replaceInStrings(root + u'/', QString());
        return texts;
    }

    static PrivateBus *s_bus;
    QTemporaryDir m_dir, m_outside;
    QString root, outside;
    QObject m_context;
    QTimer m_keepAlive;
    std::unique_ptr<DistributedNotificationCenter> center;
    QStringList ports;
    QProcess daemon;
    std::unique_ptr<QTcpSocket> socket;
    MessageFraming::FrameBuffer m_frames;
    QList<Received> received;
    int m_markers = 0;
};

PrivateBus *DaemonProcess::s_bus = nullptr;

TEST_F(DaemonProcess, EveryChangeInTheTreeArrivesAsOneMessage)
{
    launch();
    startAndConnect();
    const QString docs = root + u"/docs"_qs;

    write(docs + u"/a.txt"_qs, "hello");
    EXPECT_EQ(settle(), QStringList({u"CreateFile docs/a.txt"_qs}));

    write(docs + u"/report.txt"_qs, "second");
    EXPECT_EQ(settle(), QStringList({u"UpdateFile docs/report.txt"_qs}));

    move(docs + u"/a.txt"_qs, docs + u"/b.txt"_qs);
    EXPECT_EQ(settle(), QStringList({u"RenameFile docs/a.txt -> docs/b.txt"_qs}));

    move(docs + u"/b.txt"_qs, root + u"/photos/b.txt"_qs);
    EXPECT_EQ(settle(), QStringList({u"RenameFile docs/b.txt -> photos/b.txt"_qs}));

    move(root + u"/photos"_qs, docs + u"/pictures"_qs);
    EXPECT_EQ(settle(), QStringList({u"RenameDir photos -> docs/pictures"_qs}));

    write(outside + u"/in.txt"_qs);
    move(outside + u"/in.txt"_qs, docs + u"/in.txt"_qs);
    EXPECT_EQ(settle(), QStringList({u"CreateFile docs/in.txt"_qs}));

    write(outside + u"/album/top.txt"_qs);
    write(outside + u"/album/2019/p.jpg"_qs);
    move(outside + u"/album"_qs, root + u"/album"_qs);
    EXPECT_EQ(settle(), QStringList({u"CreateDir album"_qs, u"CreateDir album/2019"_qs,
                                     u"CreateFile album/top.txt"_qs, u"CreateFile album/2019/p.jpg"_qs}));
    write(root + u"/album/2019/q.jpg"_qs); // the moved-in folder is watched
    EXPECT_EQ(settle(), QStringList({u"CreateFile album/2019/q.jpg"_qs}));

    move(docs + u"/in.txt"_qs, outside + u"/in.txt"_qs);
    EXPECT_EQ(settle(), QStringList({u"DeleteFile docs/in.txt"_qs}));
    move(root + u"/album"_qs, outside + u"/album-back"_qs);
    EXPECT_EQ(settle(), QStringList({u"DeleteDir album"_qs}));

    ASSERT_TRUE(QFile::remove(docs + u"/pictures/b.txt"_qs));
    EXPECT_EQ(settle(), QStringList({u"DeleteFile docs/pictures/b.txt"_qs}));

    ASSERT_TRUE(QDir().mkpath(root + u"/x/y/z"_qs));
    EXPECT_EQ(settle(), QStringList({u"CreateDir x"_qs, u"CreateDir x/y"_qs, u"CreateDir x/y/z"_qs}));
    write(root + u"/x/y/z/deep.txt"_qs);
    EXPECT_EQ(settle(), QStringList({u"CreateFile x/y/z/deep.txt"_qs}));

    ASSERT_TRUE(QDir(root + u"/x"_qs).removeRecursively());
    EXPECT_EQ(settle(), QStringList({u"DeleteFile x/y/z/deep.txt"_qs, u"DeleteDir x/y/z"_qs,
                                     u"DeleteDir x/y"_qs, u"DeleteDir x"_qs}));

    // An editor's save through a temporary file renamed over the original.
    write(docs + u"/.report.txt.kate-swp"_qs, "third");
    move(docs + u"/.report.txt.kate-swp"_qs, docs + u"/report.txt"_qs);
    QStringList save = settle();
    // (On a machine slow enough to split the save into two batches, the temporary file is seen to
    // come and go first; it is never reported as renamed.)
    if (save.size() == 3) {
        EXPECT_EQ(save.mid(0, 2), QStringList({u"CreateFile docs/.report.txt.kate-swp"_qs,
                                               u"DeleteFile docs/.report.txt.kate-swp"_qs}));
        save = save.mid(2);
    }
    EXPECT_EQ(save, QStringList({u"UpdateFile docs/report.txt"_qs}));
}

TEST_F(DaemonProcess, StopEndsTheConnectionAndStartAnnouncesANewPort)
{
    launch();
    startAndConnect();
    write(root + u"/one.txt"_qs);
    EXPECT_EQ(settle(), QStringList({u"CreateFile one.txt"_qs}));

    center->postNotificationName(LinkNames::kDemonStopListener);
    ASSERT_TRUE(
        TestUtil::waitFor([&] { return socket->state() == QAbstractSocket::UnconnectedState; }, 20000));
    write(root + u"/unseen.txt"_qs); // not watched now

    // Changes made between the announcement and the connection are kept for the client.
    const qsizetype before = ports.size();
    center->postNotificationName(LinkNames::kDemonStartListener, root);
    ASSERT_TRUE(TestUtil::waitFor([&] { return ports.size() > before; }, 20000));
    EXPECT_EQ(ports.size(), before + 1);
    write(root + u"/early.txt"_qs);
    connectTo(ports.constLast().toUShort());
    EXPECT_EQ(settle(), QStringList({u"CreateFile early.txt"_qs}));

    // A second daemon in the same session refuses to run; the first keeps going.
    QProcess second;
    second.setProcessEnvironment(environment());
    second.start(QCoreApplication::applicationDirPath() + u"/ferrovane-daemon"_qs);
    ASSERT_TRUE(second.waitForFinished(20000));
    EXPECT_EQ(second.exitCode(), 1);
    write(root + u"/two.txt"_qs);
    EXPECT_EQ(settle(), QStringList({u"CreateFile two.txt"_qs}));

    // SIGTERM: a clean exit, the connection closed, the bus name released.
    daemon.terminate();
    ASSERT_TRUE(daemon.waitForFinished(20000));
    EXPECT_EQ(daemon.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(daemon.exitCode(), 0);
    EXPECT_TRUE(TestUtil::waitFor([&] { return socket->state() == QAbstractSocket::UnconnectedState; }));
    EXPECT_TRUE(TestUtil::waitFor([&] { return !serviceRunning(); }));
}

TEST_F(DaemonProcess, LostKernelEventsCloseTheConnectionAndTheTreeIsWatchedAfresh)
{
    launch();
    startAndConnect();
    // Stopped, the daemon reads nothing while more changes happen than the kernel's queue holds.
    QFile limitFile(u"/proc/sys/fs/inotify/max_queued_events"_qs);
    const int limit = limitFile.open(QIODevice::ReadOnly) ? limitFile.readAll().trimmed().toInt() : 0;
    if (limit <= 0 || limit > 100000)
        GTEST_SKIP() << "the kernel's event queue limit is unknown or too large";
    const pid_t pid = pid_t(daemon.processId());
    ASSERT_EQ(::kill(pid, SIGSTOP), 0);
    for (int i = 0; i <= limit; ++i) {
        const int fd = ::open(QFile::encodeName(root + u"/flood-"_qs + QString::number(i)).constData(),
                              O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        if (fd >= 0)
            ::close(fd);
    }
    ASSERT_EQ(::kill(pid, SIGCONT), 0);
    // The client is let go: it would have missed changes.
    ASSERT_TRUE(
        TestUtil::waitFor([&] { return socket->state() == QAbstractSocket::UnconnectedState; }, 30000));
    // The daemon keeps its port and watches the tree as it is now.
    const qsizetype announced = ports.size();
    connectTo(ports.constLast().toUShort());
    write(root + u"/after.txt"_qs);
    EXPECT_EQ(settle(), QStringList({u"CreateFile after.txt"_qs}));
    EXPECT_EQ(ports.size(), announced);
}

TEST_F(DaemonProcess, StartForSomethingThatIsNotAFolderAnnouncesNothing)
{
    launch();
    center->postNotificationName(LinkNames::kDemonStartListener, root + u"/docs/report.txt"_qs);
    center->postNotificationName(LinkNames::kDemonStartListener, QString());
    // The daemon handles notifications in order: a good start after the bad ones is the only answer.
    startAndConnect();
    EXPECT_EQ(ports.size(), 1);
    write(root + u"/ok.txt"_qs);
    EXPECT_EQ(settle(), QStringList({u"CreateFile ok.txt"_qs}));
}

TEST_F(DaemonProcess, StartForAFolderNotMadeYetAnnouncesItsPortOnceItIsThere)
{
    launch(QProcess::SeparateChannels);
    // Stopped before it appears: nothing is announced for it.
    const QString dropped = m_dir.path() + u"/Dropped"_qs;
    center->postNotificationName(LinkNames::kDemonStartListener, dropped);
    center->postNotificationName(LinkNames::kDemonStopListener);
    // As a first synchronisation does: the start is asked for, then the folder made.
    root = m_dir.path() + u"/Later/CloudFolder"_qs;
    center->postNotificationName(LinkNames::kDemonStartListener, root);
    QByteArray said;
    ASSERT_TRUE(TestUtil::waitFor(
        [&] { return (said += daemon.readAllStandardError()).contains(QFile::encodeName(root)); }, 20000));
    ASSERT_TRUE(QDir().mkpath(dropped));
    ASSERT_TRUE(QDir().mkpath(root));
    ASSERT_TRUE(TestUtil::waitFor([&] { return !ports.isEmpty(); }, 20000));
    connectTo(ports.constLast().toUShort());
    write(root + u"/made.txt"_qs);
    EXPECT_EQ(settle(), QStringList({u"CreateFile made.txt"_qs}));
    EXPECT_EQ(ports.size(), 1);
}

TEST(DaemonSession, ExitsWhenItsSessionBusGoesAway)
{
    PrivateBus bus(u"daemon-session-test"_qs);
    if (!bus.start())
        GTEST_SKIP() << "dbus-daemon is not available";
    QProcess daemon;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(u"DBUS_SESSION_BUS_ADDRESS"_qs, bus.address);
    daemon.setProcessEnvironment(env);
    daemon.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    daemon.start(QCoreApplication::applicationDirPath() + u"/ferrovane-daemon"_qs);
    ASSERT_TRUE(daemon.waitForStarted(5000));
    ASSERT_TRUE(TestUtil::waitFor(
        [&] { return bus.bus->interface()->isServiceRegistered(kServiceName).value(); }, 20000));

    bus.stop();
    // Left running it would outlive the session that started it.
    const bool exited = daemon.waitForFinished(20000);
    if (!exited)
        daemon.kill();
    EXPECT_TRUE(exited);
}

} // namespace
