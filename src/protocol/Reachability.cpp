#include "protocol/Reachability.h"

#include "protocol/RouteTable.h"
#include "util/Log.h"
#include "util/NotificationCenter.h"

#include <QHostInfo>
#include <QSocketNotifier>
#include <cerrno>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

Reachability::~Reachability()
{
    stopNotifier();
}

std::unique_ptr<Reachability> Reachability::reachabilityWithHostName(const QString &hostName)
{
    const QString name = hostName.trimmed();
    if (name.isEmpty() || name.size() > 253 || name != hostName)
        return nullptr;
    for (const QChar c : name) {
        if (c.isSpace() || c.isNull() || c == QLatin1Char('/'))
            return nullptr;
    }
    std::unique_ptr<Reachability> target(new Reachability);
    target->m_hostName = name;
    target->m_valid = true;
    return target;
}

std::unique_ptr<Reachability> Reachability::reachabilityWithAddress(const struct sockaddr *hostAddress)
{
    if (!hostAddress || (hostAddress->sa_family != AF_INET && hostAddress->sa_family != AF_INET6))
        return nullptr;
    return reachabilityWithAddress(QHostAddress(hostAddress));
}

std::unique_ptr<Reachability> Reachability::reachabilityWithAddress(const QHostAddress &hostAddress)
{
    if (hostAddress.protocol() != QAbstractSocket::IPv4Protocol &&
        hostAddress.protocol() != QAbstractSocket::IPv6Protocol)
        return nullptr;
    std::unique_ptr<Reachability> target(new Reachability);
    target->m_address = hostAddress;
    target->m_valid = true;
    return target;
}

std::unique_ptr<Reachability> Reachability::reachabilityForInternetConnection()
{
    struct sockaddr_in zeroAddress = {};
    zeroAddress.sin_family = AF_INET;
    return reachabilityWithAddress(reinterpret_cast<const struct sockaddr *>(&zeroAddress));
}

std::unique_ptr<Reachability> Reachability::reachabilityForLocalWiFi()
{
    struct sockaddr_in localWifiAddress = {};
    localWifiAddress.sin_family = AF_INET;
    localWifiAddress.sin_addr.s_addr = htonl(0xA9FE0000u); // 169.254.0.0
    std::unique_ptr<Reachability> target =
        reachabilityWithAddress(reinterpret_cast<const struct sockaddr *>(&localWifiAddress));
    if (target)
        target->m_localWiFiRef = true;
    return target;
}

bool Reachability::getFlags(quint32 *flags) const
{
    if (!m_valid)
        return false;
    const RouteTable table = RouteTable::fromKernel();
    if (!m_hostName.isEmpty()) {
        // A name that does not resolve is readable and simply not reachable.
        const QHostInfo info = QHostInfo::fromName(m_hostName);
        quint32 best = 0;
        for (const QHostAddress &address : info.addresses()) {
            const quint32 candidate = table.flagsForAddress(address);
            if (candidate & kReachable) {
                best = candidate;
                break;
            }
        }
        *flags = best;
        return true;
    }
    *flags = table.flagsForAddress(m_address);
    return true;
}

QString Reachability::flagStatusLine(quint32 flags, const char *comment)
{
    auto mark = [flags](quint32 bit, char c) { return QLatin1Char((flags & bit) ? c : '-'); };
    return QStringLiteral("Reachability Flag Status: ") + mark(kReachable, 'R') + QLatin1Char(' ') +
           mark(kTransientConnection, 't') + mark(kConnectionRequired, 'c') +
           mark(kConnectionOnTraffic, 'C') + mark(kInterventionRequired, 'i') +
           mark(kConnectionOnDemand, 'D') + mark(kIsLocalAddress, 'l') + mark(kIsDirect, 'd') +
           QLatin1Char(' ') + QString::fromLatin1(comment) + QLatin1Char('\n');
}

Reachability::NetworkStatus Reachability::localWiFiStatusForFlags(quint32 flags) const
{
    FV_LOG(flagStatusLine(flags, "localWiFiStatusForFlags"));
    return ((flags & kReachable) && (flags & kIsDirect)) ? ReachableViaWiFi : NotReachable;
}

Reachability::NetworkStatus Reachability::networkStatusForFlags(quint32 flags) const
{
    FV_LOG(flagStatusLine(flags, "networkStatusForFlags"));
    if (!(flags & kReachable))
        return NotReachable;
    NetworkStatus status = NotReachable;
    if (!(flags & kConnectionRequired))
        status = ReachableViaWiFi;
    if ((flags & (kConnectionOnDemand | kConnectionOnTraffic)) && !(flags & kInterventionRequired))
        status = ReachableViaWiFi;
    return status;
}

Reachability::NetworkStatus Reachability::currentReachabilityStatus() const
{
    Q_ASSERT_X(m_valid, "currentReachabilityStatus", "currentNetworkStatus called with NULL reachabilityRef");
    quint32 flags = 0;
    if (!getFlags(&flags))
        return NotReachable;
    return m_localWiFiRef ? localWiFiStatusForFlags(flags) : networkStatusForFlags(flags);
}

bool Reachability::connectionRequired() const
{
    Q_ASSERT_X(m_valid, "connectionRequired", "connectionRequired called with NULL reachabilityRef");
    quint32 flags = 0;
    return getFlags(&flags) && (flags & kConnectionRequired);
}

bool Reachability::startNotifier()
{
    if (m_notifier)
        return true;
    if (!m_valid)
        return false;
    const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0) {
        FV_LOG(QStringLiteral("Cannot open the routing socket: %1")
                   .arg(QString::fromLocal8Bit(strerror(errno))));
        return false;
    }
    struct sockaddr_nl local = {};
    local.nl_family = AF_NETLINK;
    local.nl_groups =
        RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_IFADDR | RTMGRP_IPV6_ROUTE;
    if (::bind(fd, reinterpret_cast<struct sockaddr *>(&local), sizeof local) != 0) {
        FV_LOG(QStringLiteral("Cannot listen to routing changes: %1")
                   .arg(QString::fromLocal8Bit(strerror(errno))));
        ::close(fd);
        return false;
    }
    m_netlink = fd;
    m_lastFlagsValid = getFlags(&m_lastFlags);
    m_notifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &Reachability::routingChanged);
    return true;
}

void Reachability::stopNotifier()
{
    if (m_notifier) {
        m_notifier->setEnabled(false);
        delete m_notifier;
        m_notifier = nullptr;
    }
    if (m_netlink >= 0) {
        ::close(m_netlink);
        m_netlink = -1;
    }
}

void Reachability::routingChanged()
{
    // Drain the burst of messages: only the resulting state matters.
    char buffer[8192];
    while (::recv(m_netlink, buffer, sizeof buffer, 0) > 0) {
    }
    quint32 flags = 0;
    const bool valid = getFlags(&flags);
    if (valid == m_lastFlagsValid && flags == m_lastFlags)
        return;
    m_lastFlags = flags;
    m_lastFlagsValid = valid;
    NotificationCenter::defaultCenter()->postNotificationName(
        QStringLiteral("kNetworkReachabilityChangedNotification"), QVariant::fromValue(this));
}
