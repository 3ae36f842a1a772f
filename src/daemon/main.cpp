// ferrovane-daemon: the separate watcher process. It waits on the session bus for the client's
// start notification, watches the sync folder and sends each change to the client over loopback
// TCP. It runs until SIGTERM or SIGINT, or until its session bus goes away (the session ended).

#include "daemon/FerrovaneDaemon.h"
#include "link/DistributedNotificationCenter.h"
#include "util/Log.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QSocketNotifier>
#include <csignal>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// The bus name that keeps a second daemon of the same session from starting.
const QString kServiceName = u"com.velmora.FerrovaneDaemon"_qs;

int g_signalPipe[2] = {-1, -1};

void onSignal(int signal)
{
    const char byte = char(signal);
    // Only async-signal-safe work here: the event loop picks the byte up.
    [[maybe_unused]] const ssize_t written = ::write(g_signalPipe[1], &byte, 1);
}

bool installSignalHandlers()
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, g_signalPipe) != 0)
        return false;
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    return ::sigaction(SIGTERM, &action, nullptr) == 0 && ::sigaction(SIGINT, &action, nullptr) == 0;
}

// Ends the program when the bus connection is lost: nothing can reach the daemon any more.
class BusLoss final : public QObject
{
    Q_OBJECT
public slots:
    void disconnected()
    {
        FV_LOG(u"The session bus went away: exiting"_qs);
        QCoreApplication::quit();
    }
};

} // namespace

int main(int argc, char **argv)
{
    // Its threads take the plain event loop, as the client's do (see the client's main).
    if (!qEnvironmentVariableIsSet("QT_NO_THREADED_GLIB"))
        qputenv("QT_NO_THREADED_GLIB", "1");
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(u"ferrovane-daemon"_qs);
    QCoreApplication::setApplicationVersion(QStringLiteral(FERROVANE_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        u"Watches the Ferrovane sync folder and reports its changes to the Ferrovane client.\n"
        u"Started and stopped by the client through the session bus; runs until SIGTERM or SIGINT."_qs);
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption verbose(u"verbose"_qs, u"Mirror diagnostic lines to standard error."_qs);
    parser.addOption(verbose);
    parser.process(app);
    Log::setVerbose(parser.isSet(verbose));

    if (!installSignalHandlers()) {
        FV_LOG(u"Cannot install the signal handlers"_qs);
        return 1;
    }
    QSocketNotifier signalNotifier(g_signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&signalNotifier, &QSocketNotifier::activated, &app, [] {
        char byte = 0;
        if (::read(g_signalPipe[0], &byte, 1) == 1)
            FV_LOG(u"Signal %1: exiting"_qs.arg(int(byte)));
        QCoreApplication::quit();
    });

    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        FV_LOG(u"No session bus: %1"_qs.arg(bus.lastError().message()));
        std::fprintf(stderr, "ferrovane-daemon: no D-Bus session bus\n");
        return 1;
    }
    BusLoss busLoss;
    bus.connect(QString(), u"/org/freedesktop/DBus/Local"_qs, u"org.freedesktop.DBus.Local"_qs,
                u"Disconnected"_qs, &busLoss, SLOT(disconnected()));
    // Subscribed first, then named: whoever sees the name can post to us.
    DistributedNotificationCenter *center = DistributedNotificationCenter::defaultCenter();
    if (!center->isConnected())
        return 1;
    FerrovaneDaemon daemon(center);
    const auto registered =
        bus.interface()->registerService(kServiceName, QDBusConnectionInterface::DontQueueService,
                                         QDBusConnectionInterface::DontAllowReplacement);
    if (!registered.isValid() || registered.value() != QDBusConnectionInterface::ServiceRegistered) {
        FV_LOG(u"Another ferrovane-daemon already runs in this session"_qs);
        std::fprintf(stderr, "ferrovane-daemon: already running in this session\n");
        return 1;
    }
    FV_LOG(u"Waiting for the client"_qs);
    const int result = QCoreApplication::exec();
    daemon.stopListener();
    bus.interface()->unregisterService(kServiceName);
    return result;
}

#include "main.moc"
