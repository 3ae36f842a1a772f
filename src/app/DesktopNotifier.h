#pragma once
// Shows desktop notifications through the freedesktop notification service
// (org.freedesktop.Notifications on the session bus): a title and a message, no icon, normal
// urgency, the server's default time-out. The call is asynchronous: a desktop without the
// service costs a diagnostic line, never a wait.
//
// Threading: lives on the thread that creates it (the main thread); notify() may be called from
// any thread and is queued to that one without waiting.

#include <QDBusConnection>
#include <QObject>
#include <QString>

class DesktopNotifier final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(DesktopNotifier)
public:
    static QString serviceName() { return QStringLiteral("org.freedesktop.Notifications"); }
    static QString objectPath() { return QStringLiteral("/org/freedesktop/Notifications"); }
    // The application name the service shows.
    static QString applicationName() { return QStringLiteral("Ferrovane"); }

    // On the session bus.
    explicit DesktopNotifier(QObject *parent = nullptr);
    explicit DesktopNotifier(const QDBusConnection &bus, QObject *parent = nullptr);

    // Hands (title, message) to the service.
    void notify(const QString &title, const QString &message);

signals:
    // The service took the notification and gave it this id.
    void delivered(uint id);
    // The notification could not be shown (no bus, no service, or the service refused).
    void failed(const QString &reason);

private:
    QDBusConnection m_bus;
};
