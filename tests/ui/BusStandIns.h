#pragma once
// Stand-ins for the desktop's services on the test's session bus (dbus-run-session), each on a bus
// connection of its own so that the client's calls really travel over the bus.

#include "common/TestUtil.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusContext>
#include <QDBusMessage>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

namespace BusStandIns {

// org.freedesktop.Notifications: records the summaries it is asked to show.
class Notifications : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    QStringList summaries;
    QStringList bodies;

    ~Notifications() override
    {
        if (m_bus.isConnected()) {
            m_bus.unregisterService(QStringLiteral("org.freedesktop.Notifications"));
            QDBusConnection::disconnectFromBus(m_bus.name());
        }
    }
    // Other test programs on the same bus may hold the name for a moment: waits (bounded) in the
    // queue for it, so that every notification sent afterwards comes here.
    bool start()
    {
        m_bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus,
                                              QStringLiteral("standin-notifications"));
        if (!m_bus.registerObject(QStringLiteral("/org/freedesktop/Notifications"), this,
                                  QDBusConnection::ExportAllSlots))
            return false;
        const QString name = QStringLiteral("org.freedesktop.Notifications");
        m_bus.interface()->registerService(name, QDBusConnectionInterface::QueueService,
                                           QDBusConnectionInterface::DontAllowReplacement);
        return TestUtil::waitFor(
            [&] { return m_bus.interface()->serviceOwner(name).value() == m_bus.baseService(); }, 30000);
    }

public slots:
    uint Notify(const QString &, uint, const QString &, const QString &summary, const QString &body,
                const QStringList &, const QVariantMap &, int)
    {
        summaries << summary;
        bodies << body;
        return uint(summaries.size());
    }

private:
    QDBusConnection m_bus{QString()};
};

// org.kde.StatusNotifierWatcher with a host present: records the items that register (the bus
// name each gives, and the unique name it called from).
class StatusNotifierWatcher : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ isHostRegistered)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ items)
public:
    QStringList registered;
    QStringList callers;

    ~StatusNotifierWatcher() override
    {
        if (m_bus.isConnected()) {
            m_bus.unregisterService(QStringLiteral("org.kde.StatusNotifierWatcher"));
            QDBusConnection::disconnectFromBus(m_bus.name());
        }
    }
    bool start()
    {
        m_bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("standin-watcher"));
        return m_bus.registerObject(QStringLiteral("/StatusNotifierWatcher"), this,
                                    QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals |
                                        QDBusConnection::ExportAllProperties) &&
               m_bus.registerService(QStringLiteral("org.kde.StatusNotifierWatcher"));
    }
    QDBusConnection bus() const { return m_bus; }

    bool isHostRegistered() const { return true; }
    int protocolVersion() const { return 0; }
    QStringList items() const { return registered; }

public slots:
    void RegisterStatusNotifierItem(const QString &service)
    {
        registered << service;
        callers << message().service();
        emit StatusNotifierItemRegistered(service);
    }
    void RegisterStatusNotifierHost(const QString &) {}

signals:
    void StatusNotifierItemRegistered(const QString &service);
    void StatusNotifierItemUnregistered(const QString &service);
    void StatusNotifierHostRegistered();

private:
    QDBusConnection m_bus{QString()};
};

} // namespace BusStandIns
