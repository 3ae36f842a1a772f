#include "link/DaemonLauncher.h"

#include "util/Log.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusReply>
#include <QDBusServiceWatcher>
#include <QFileInfo>
#include <QProcess>

QString DaemonLauncher::serviceName()
{
    return QStringLiteral("com.velmora.FerrovaneDaemon");
}

QString DaemonLauncher::programPath()
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/ferrovane-daemon");
}

DaemonLauncher::DaemonLauncher(QObject *parent) : QObject(parent)
{
    m_timeout.setSingleShot(true);
    connect(&m_timeout, &QTimer::timeout, this, &DaemonLauncher::timedOut);
}

DaemonLauncher::~DaemonLauncher() = default;

bool DaemonLauncher::isRunning()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected() || !bus.interface())
        return false;
    const QDBusReply<bool> reply = bus.interface()->isServiceRegistered(serviceName());
    return reply.isValid() && reply.value();
}

void DaemonLauncher::whenRunning(std::function<void()> ready, int timeoutMs)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected() || !bus.interface()) {
        FV_LOG(QStringLiteral("No session bus: the watcher daemon cannot be reached"));
        return;
    }
    const bool waiting = static_cast<bool>(m_ready);
    m_ready = std::move(ready);
    if (!m_watcher) {
        // Watched before asking, so a name that appears between the question and the answer is seen.
        m_watcher = new QDBusServiceWatcher(
            serviceName(), bus,
            QDBusServiceWatcher::WatchForRegistration | QDBusServiceWatcher::WatchForUnregistration, this);
        connect(m_watcher, &QDBusServiceWatcher::serviceRegistered, this, &DaemonLauncher::registered);
        connect(m_watcher, &QDBusServiceWatcher::serviceUnregistered, this, &DaemonLauncher::daemonGone);
    }
    if (isRunning()) {
        registered();
        return;
    }
    m_timeout.start(timeoutMs);
    if (waiting)
        return; // already being started
    const QString program = programPath();
    if (QFileInfo(program).isExecutable()) {
        QStringList arguments;
        if (Log::isVerbose())
            arguments << QStringLiteral("--verbose");
        qint64 pid = 0;
        if (QProcess::startDetached(program, arguments, QString(), &pid)) {
            FV_LOG(QStringLiteral("Started %1 (pid %2)").arg(program).arg(pid));
            return;
        }
        FV_LOG(QStringLiteral("Cannot start %1").arg(program));
    }
    // Not beside us (an installed layout may differ): the bus starts it when a service file says how.
    bus.interface()->asyncCall(QStringLiteral("StartServiceByName"), serviceName(), 0u);
    FV_LOG(QStringLiteral("Asked the session bus to start %1").arg(serviceName()));
}

void DaemonLauncher::cancel()
{
    m_ready = nullptr;
    m_timeout.stop();
}

void DaemonLauncher::registered()
{
    m_timeout.stop();
    if (auto ready = std::exchange(m_ready, nullptr))
        ready();
}

void DaemonLauncher::timedOut()
{
    if (!m_ready)
        return;
    m_ready = nullptr;
    FV_LOG(
        QStringLiteral("The watcher daemon did not appear on the session bus: local changes are not seen"));
}
