#include "link/DistributedNotificationCenter.h"

#include "link/LinkNames.h"
#include "util/Log.h"

#include <QDBusError>
#include <QDBusMessage>
#include <QThread>
#include <atomic>

DistributedNotificationCenter *DistributedNotificationCenter::defaultCenter()
{
    // Never destroyed: the bus connection must not be torn down after the application object.
    static DistributedNotificationCenter *const center = new DistributedNotificationCenter();
    return center;
}

namespace {
QString newConnectionName()
{
    static std::atomic<int> counter{0};
    return QStringLiteral("ferrovane-notifications-%1").arg(++counter);
}
} // namespace

DistributedNotificationCenter::DistributedNotificationCenter(QObject *parent)
    : DistributedNotificationCenter(
          QDBusConnection::connectToBus(QDBusConnection::SessionBus, newConnectionName()), parent)
{
    m_ownedConnection = m_bus.name();
}

DistributedNotificationCenter::DistributedNotificationCenter(const QDBusConnection &bus, QObject *parent)
    : QObject(parent), m_bus(bus)
{
    if (!m_bus.isConnected()) {
        const QDBusError error = m_bus.lastError();
        reportNoBus(error.isValid() ? error.message() : QStringLiteral("not connected"));
        return;
    }
    m_connected = m_bus.connect(QString(), LinkNames::kBusObjectPath, LinkNames::kBusInterface,
                                LinkNames::kBusSignal, this, SLOT(receive(QString, QString)));
    if (!m_connected) {
        FV_LOG(QStringLiteral("Cannot subscribe to distributed notifications: ") +
               m_bus.lastError().message());
        return;
    }
    // The subscription is sent without waiting. One round trip on the same connection makes sure
    // the bus has it before anyone is told to post to us (the bus handles a connection's messages
    // in order).
    const QDBusMessage ping = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetId"));
    const QDBusMessage reply = m_bus.call(ping, QDBus::Block, 10000);
    if (reply.type() == QDBusMessage::ErrorMessage)
        FV_LOG(QStringLiteral("Bus did not answer after subscribing: ") + reply.errorMessage());
}

DistributedNotificationCenter::~DistributedNotificationCenter()
{
    if (m_connected)
        m_bus.disconnect(QString(), LinkNames::kBusObjectPath, LinkNames::kBusInterface,
                         LinkNames::kBusSignal, this, SLOT(receive(QString, QString)));
    if (!m_ownedConnection.isEmpty())
        QDBusConnection::disconnectFromBus(m_ownedConnection);
}

void DistributedNotificationCenter::reportNoBus(const QString &reason)
{
    // Said once: a missing bus is a property of the session, not of each post.
    if (!m_saidNoBus.exchange(true))
        FV_LOG(QStringLiteral("No D-Bus session bus, distributed notifications are off: ") + reason);
}

bool DistributedNotificationCenter::postNotificationName(const QString &name, const QString &object)
{
    if (!m_bus.isConnected()) {
        reportNoBus(QStringLiteral("not connected"));
        return false;
    }
    // D-Bus strings cannot carry NUL; the receiver would see a different name.
    if (name.contains(QChar(0)) || object.contains(QChar(0))) {
        FV_LOG(QStringLiteral("Not posting notification with a NUL character in its name or object: ") +
               name);
        return false;
    }
    QDBusMessage message = QDBusMessage::createSignal(LinkNames::kBusObjectPath, LinkNames::kBusInterface,
                                                      LinkNames::kBusSignal);
    message << name << object;
    if (!m_bus.send(message)) {
        FV_LOG(QStringLiteral("Cannot post notification %1: %2").arg(name, m_bus.lastError().message()));
        return false;
    }
    return true;
}

void DistributedNotificationCenter::addObserver(QObject *observer, Handler selector, const QString &name)
{
    if (!observer || !selector)
        return;
    m_observations.append({observer, name, std::move(selector)});
}

void DistributedNotificationCenter::removeObserver(QObject *observer, const QString &name)
{
    m_observations.removeIf([&](const Observation &o) {
        return o.observer.isNull() || (o.observer == observer && (name.isEmpty() || o.name == name));
    });
}

void DistributedNotificationCenter::receive(const QString &name, const QString &object)
{
    emit notificationPosted(name, object);
    m_observations.removeIf([](const Observation &o) { return o.observer.isNull(); });
    // A copy: a selector may add or remove observations while we go through them.
    const QList<Observation> observations = m_observations;
    for (const Observation &o : observations) {
        QObject *observer = o.observer.data();
        if (!observer || (!o.name.isEmpty() && o.name != name))
            continue;
        if (observer->thread() == QThread::currentThread()) {
            o.selector(name, object);
        } else {
            QMetaObject::invokeMethod(
                observer, [selector = o.selector, name, object] { selector(name, object); },
                Qt::QueuedConnection);
        }
    }
}
