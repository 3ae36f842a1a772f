#pragma once
// Whether one target (a host name, an address, any internet route, or the link-local network)
// can be reached now, from the kernel's routing state, with the usual flag bits and status
// values; and, once startNotifier() is called, a "kNetworkReachabilityChangedNotification"
// (object: this Reachability) through NotificationCenter whenever the flags change.
//
// Threading: queries may run on any thread; the notifier runs on the event loop of the thread
// that started it and must be stopped (or the object destroyed) on that thread.

#include <QHostAddress>
#include <QObject>
#include <QString>
#include <memory>

class QSocketNotifier;
struct sockaddr;

class Reachability final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(Reachability)
public:
    enum NetworkStatus { NotReachable = 0, ReachableViaWiFi = 1, ReachableViaWWAN = 2 };

    // Flag bits, as the platform numbers them.
    static constexpr quint32 kTransientConnection = 1u << 0;
    static constexpr quint32 kReachable = 1u << 1;
    static constexpr quint32 kConnectionRequired = 1u << 2;
    static constexpr quint32 kConnectionOnTraffic = 1u << 3;
    static constexpr quint32 kInterventionRequired = 1u << 4;
    static constexpr quint32 kConnectionOnDemand = 1u << 5;
    static constexpr quint32 kIsLocalAddress = 1u << 16;
    static constexpr quint32 kIsDirect = 1u << 17;

    ~Reachability() override;

    // nullptr when the name cannot be a host name.
    static std::unique_ptr<Reachability> reachabilityWithHostName(const QString &hostName);
    // nullptr for an address family other than IPv4 or IPv6.
    static std::unique_ptr<Reachability> reachabilityWithAddress(const struct sockaddr *hostAddress);
    static std::unique_ptr<Reachability> reachabilityWithAddress(const QHostAddress &hostAddress);
    // The zero IPv4 address: any route to the internet.
    static std::unique_ptr<Reachability> reachabilityForInternetConnection();
    // 169.254.0.0, the link-local network; answers through localWiFiStatusForFlags.
    static std::unique_ptr<Reachability> reachabilityForLocalWiFi();

    bool startNotifier();
    void stopNotifier();

    NetworkStatus currentReachabilityStatus() const;
    bool connectionRequired() const;
    // False when the flags cannot be read (a name that does not resolve gives readable flags 0).
    bool getFlags(quint32 *flags) const;

    NetworkStatus networkStatusForFlags(quint32 flags) const;
    NetworkStatus localWiFiStatusForFlags(quint32 flags) const;
    // "Reachability Flag Status: ..." as logged by the two mappings.
    static QString flagStatusLine(quint32 flags, const char *comment);

    bool localWiFiRef() const { return m_localWiFiRef; }

private:
    Reachability() = default;
    void routingChanged();

    QString m_hostName;     // target by name, or
    QHostAddress m_address; // target by address
    bool m_valid = false;   // the target handle exists
    bool m_localWiFiRef = false;
    int m_netlink = -1;
    QSocketNotifier *m_notifier = nullptr; // child
    quint32 m_lastFlags = 0;
    bool m_lastFlagsValid = false;
};

Q_DECLARE_METATYPE(Reachability *)
