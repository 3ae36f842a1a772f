#pragma once
// A snapshot of the kernel's routing state (IPv4 and IPv6 routes plus this machine's own
// addresses) and the reachability flags it gives for a target address. A plain value; any thread.

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QString>

class RouteTable
{
public:
    struct Route
    {
        QHostAddress network;
        int prefixLength = 0;
        bool hasGateway = false;
        QString interfaceName;
        qlonglong metric = 0;
    };

    // Reads /proc/net/route, /proc/net/ipv6_route and the interface list.
    static RouteTable fromKernel();
    // Builds a table from the two route files' text (either may be empty) and the local addresses.
    static RouteTable parse(const QByteArray &ipv4Table, const QByteArray &ipv6Table,
                            const QList<QHostAddress> &localAddresses);

    // Flags in the reachability bit values: reachable when a route leads to the target, direct
    // when that route is on-link (no gateway), local address when the target is one of ours.
    // The unspecified address stands for "any route to the internet": a default route.
    quint32 flagsForAddress(const QHostAddress &target) const;

    const QList<Route> &routes() const { return m_routes; }
    const QList<QHostAddress> &localAddresses() const { return m_local; }

private:
    const Route *bestRoute(const QHostAddress &target) const;

    QList<Route> m_routes;
    QList<QHostAddress> m_local;
};
