#include "app/DesktopNotifier.h"

#include "util/Log.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QThread>

DesktopNotifier::DesktopNotifier(QObject *parent) : DesktopNotifier(QDBusConnection::sessionBus(), parent) {}

DesktopNotifier::DesktopNotifier(const QDBusConnection &bus, QObject *parent) : QObject(parent), m_bus(bus) {}

void DesktopNotifier::notify(const QString &title, const QString &message)
{
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(
            this, [this, title, message] { notify(title, message); }, Qt::QueuedConnection);
        return;
    }
    if (!m_bus.isConnected()) {
        const QString reason = QStringLiteral("No session bus: notification \"%1\" not shown").arg(title);
        FV_LOG(reason);
        emit failed(reason);
        return;
    }
    QDBusMessage call =
        QDBusMessage::createMethodCall(serviceName(), objectPath(), serviceName(), QStringLiteral("Notify"));
    // Normal urgency; no actions; -1 lets the service choose how long it stays.
    const QVariantMap hints{{QStringLiteral("urgency"), QVariant::fromValue(uchar(1))}};
    call << applicationName() << uint(0) << QString() << title << message << QStringList() << hints
         << int(-1);
    // Started by its bus name if it is not running yet; a desktop without one answers with an error.
    call.setAutoStartService(true);
    auto *watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, title](QDBusPendingCallWatcher *w) {
        w->deleteLater();
        const QDBusPendingReply<uint> reply = *w;
        if (reply.isError()) {
            const QString reason = QStringLiteral("Notification \"%1\" not shown: %2 %3")
                                       .arg(title, reply.error().name(), reply.error().message());
            FV_LOG(reason);
            emit failed(reason);
            return;
        }
        emit delivered(reply.value());
    });
}
