#pragma once
// Machine-wide (session-wide) notifications between processes, carried on the D-Bus session bus as
// the signal Posted(s name, s object) (see LinkNames.h for the address). Every process on the bus
// may post and observe; a process also receives its own posts, as every listener does.
//
// Threading: create and use a center on one thread (the main thread for defaultCenter()).
// postNotificationName() may be called from any thread. Observer callbacks run on the observer
// object's thread (queued when that is not the center's thread).
// Without a session bus the center logs one diagnostic line, posts do nothing and nothing is
// ever observed.

#include <QDBusConnection>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <atomic>
#include <functional>

class DistributedNotificationCenter final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(DistributedNotificationCenter)
public:
    using Handler = std::function<void(const QString &name, const QString &object)>;

    // The process-wide center, created on first use (on the main thread); lives until exit.
    static DistributedNotificationCenter *defaultCenter();

    // A center on a session-bus connection of its own, closed with the center.
    explicit DistributedNotificationCenter(QObject *parent = nullptr);
    // A center on `bus`. Give it a connection of its own (QDBusConnection::connectToBus): the
    // shared QDBusConnection::sessionBus() holds incoming signals back until the event loop first
    // runs and can then deliver them out of order, and stop-then-start must arrive in order.
    explicit DistributedNotificationCenter(const QDBusConnection &bus, QObject *parent = nullptr);
    ~DistributedNotificationCenter() override;

    // True when the bus is connected and the signal subscription is in place.
    bool isConnected() const { return m_connected; }

    // Posts (name, object) to every listener on the bus. An absent object is the empty string.
    // Returns false when there is no bus (reported once) or the message could not be sent (reported).
    bool postNotificationName(const QString &name, const QString &object = {});

    // Calls `selector` for every notification called `name` until removeObserver or until
    // `observer` is destroyed. An empty `name` observes every notification.
    void addObserver(QObject *observer, Handler selector, const QString &name);
    // Removes the observations of `observer`; only those for `name` when it is not empty.
    void removeObserver(QObject *observer, const QString &name = {});

signals:
    // Every notification received from the bus, before the observers are called.
    void notificationPosted(const QString &name, const QString &object);

private slots:
    void receive(const QString &name, const QString &object);

private:
    struct Observation
    {
        QPointer<QObject> observer;
        QString name;
        Handler selector;
    };

    void reportNoBus(const QString &reason);

    QDBusConnection m_bus;
    QString m_ownedConnection;
    bool m_connected = false;
    std::atomic<bool> m_saidNoBus{false};
    QList<Observation> m_observations;
};
