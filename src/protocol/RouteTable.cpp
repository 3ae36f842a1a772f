#include "protocol/RouteTable.h"

#include "protocol/Reachability.h"

#include <QFile>
#include <QNetworkInterface>
#include <QtEndian>

namespace {
constexpr uint kRouteUp = 0x0001;      // RTF_UP
constexpr uint kRouteGateway = 0x0002; // RTF_GATEWAY
constexpr uint kRouteReject = 0x0200;  // RTF_REJECT

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

int prefixFromMask(quint32 hostOrderMask)
{
    int bits = 0;
    while (bits < 32 && (hostOrderMask & (0x80000000u >> bits)))
        ++bits;
    return bits;
}

QHostAddress ipv6FromHex(const QByteArray &hex)
{
    if (hex.size() != 32)
        return {};
    const QByteArray bytes = QByteArray::fromHex(hex);
    if (bytes.size() != 16)
        return {};
    return QHostAddress(reinterpret_cast<const quint8 *>(bytes.constData()));
}

void parseIpv4(const QByteArray &table, QList<RouteTable::Route> &routes)
{
    const QList<QByteArray> lines = table.split('\n');
    for (qsizetype i = 1; i < lines.size(); ++i) { // line 0 names the columns
        const QList<QByteArray> c = lines.at(i).simplified().split(' ');
        if (c.size() < 8)
            continue;
        bool ok[5] = {};
        const quint32 dest = c.at(1).toUInt(&ok[0], 16);
        const quint32 gateway = c.at(2).toUInt(&ok[1], 16);
        const uint flags = c.at(3).toUInt(&ok[2], 16);
        const qlonglong metric = c.at(6).toLongLong(&ok[3]);
        const quint32 mask = c.at(7).toUInt(&ok[4], 16);
        if (!(ok[0] && ok[1] && ok[2] && ok[3] && ok[4]) || !(flags & kRouteUp) || (flags & kRouteReject))
            continue;
        // The file prints each address as the integer its network-order bytes make in memory.
        RouteTable::Route route;
        route.network = QHostAddress(qFromBigEndian(dest));
        route.prefixLength = prefixFromMask(qFromBigEndian(mask));
        route.hasGateway = (flags & kRouteGateway) && gateway != 0;
        route.interfaceName = QString::fromUtf8(c.at(0));
        route.metric = metric;
        routes.append(route);
    }
}

void parseIpv6(const QByteArray &table, QList<RouteTable::Route> &routes)
{
    for (const QByteArray &line : table.split('\n')) {
        const QList<QByteArray> c = line.simplified().split(' ');
        if (c.size() < 10)
            continue;
        bool ok[3] = {};
        const int prefix = c.at(1).toInt(&ok[0], 16);
        const qlonglong metric = c.at(5).toLongLong(&ok[1], 16);
        const uint flags = c.at(8).toUInt(&ok[2], 16);
        const QHostAddress network = ipv6FromHex(c.at(0));
        const QHostAddress gateway = ipv6FromHex(c.at(4));
        if (!(ok[0] && ok[1] && ok[2]) || network.isNull() || prefix > 128 || !(flags & kRouteUp) ||
            (flags & kRouteReject))
            continue;
        RouteTable::Route route;
        route.network = network;
        route.prefixLength = prefix;
        route.hasGateway = (flags & kRouteGateway) && !gateway.isNull() && gateway != QHostAddress::AnyIPv6;
        route.interfaceName = QString::fromUtf8(c.at(9));
        route.metric = metric;
        routes.append(route);
    }
}
} // namespace

RouteTable RouteTable::fromKernel()
{
    return parse(readAll(QStringLiteral("/proc/net/route")), readAll(QStringLiteral("/proc/net/ipv6_route")),
                 QNetworkInterface::allAddresses());
}

RouteTable RouteTable::parse(const QByteArray &ipv4Table, const QByteArray &ipv6Table,
                             const QList<QHostAddress> &localAddresses)
{
    RouteTable table;
    parseIpv4(ipv4Table, table.m_routes);
    parseIpv6(ipv6Table, table.m_routes);
    for (const QHostAddress &address : localAddresses) {
        QHostAddress plain = address;
        plain.setScopeId(QString());
        table.m_local.append(plain);
    }
    return table;
}

const RouteTable::Route *RouteTable::bestRoute(const QHostAddress &target) const
{
    const Route *best = nullptr;
    for (const Route &route : m_routes) {
        if (route.network.protocol() != target.protocol() ||
            !target.isInSubnet(route.network, route.prefixLength))
            continue;
        if (!best || route.prefixLength > best->prefixLength ||
            (route.prefixLength == best->prefixLength && route.metric < best->metric))
            best = &route;
    }
    return best;
}

quint32 RouteTable::flagsForAddress(const QHostAddress &target) const
{
    QHostAddress address = target;
    address.setScopeId(QString());
    bool isV4 = false;
    const quint32 v4 = address.toIPv4Address(&isV4);
    if (isV4)
        address = QHostAddress(v4); // IPv4-mapped IPv6 answers as IPv4

    const quint32 localFlags =
        Reachability::kReachable | Reachability::kIsLocalAddress | Reachability::kIsDirect;
    if (address.isLoopback() || m_local.contains(address))
        return localFlags;

    if (address == QHostAddress(QHostAddress::AnyIPv4) || address == QHostAddress(QHostAddress::AnyIPv6)) {
        // Any route to the internet: the best default route of that family.
        const Route *best = nullptr;
        for (const Route &route : m_routes) {
            if (route.prefixLength == 0 && route.network.protocol() == address.protocol() &&
                (!best || route.metric < best->metric))
                best = &route;
        }
        if (!best)
            return 0;
        return Reachability::kReachable | (best->hasGateway ? 0 : Reachability::kIsDirect);
    }

    const Route *route = bestRoute(address);
    if (!route)
        return 0;
    if (route->interfaceName == QLatin1String("lo"))
        return localFlags;
    return Reachability::kReachable | (route->hasGateway ? 0 : Reachability::kIsDirect);
}
