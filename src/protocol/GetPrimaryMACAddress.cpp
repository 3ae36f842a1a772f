#include "protocol/GetPrimaryMACAddress.h"

#include <QFile>
#include <QRegularExpression>
#include <cstdio>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>

namespace {
constexpr unsigned kRouteUp = 0x0001; // RTF_UP

// The interface of the lowest-metric IPv4 default route in /proc/net/route form.
QString defaultRouteInterface(const QByteArray &table)
{
    QString best;
    qlonglong bestMetric = -1;
    const QList<QByteArray> lines = table.split('\n');
    for (qsizetype i = 1; i < lines.size(); ++i) { // line 0 holds the column names
        const QList<QByteArray> cols = lines.at(i).simplified().split(' ');
        if (cols.size() < 8)
            continue;
        bool okDest = false, okFlags = false, okMask = false, okMetric = false;
        const qulonglong dest = cols.at(1).toULongLong(&okDest, 16);
        const uint flags = cols.at(3).toUInt(&okFlags, 16);
        const qlonglong metric = cols.at(6).toLongLong(&okMetric);
        const qulonglong mask = cols.at(7).toULongLong(&okMask, 16);
        if (!okDest || !okFlags || !okMask || !okMetric || dest != 0 || mask != 0 || !(flags & kRouteUp))
            continue;
        if (bestMetric < 0 || metric < bestMetric) {
            best = QString::fromUtf8(cols.at(0));
            bestMetric = metric;
        }
    }
    return best;
}
} // namespace

QString GetPrimaryMACAddress::MacAddress()
{
    QString address = primaryAddressFrom(QStringLiteral("/proc/net/route"), QStringLiteral("/sys/class/net"));
    if (address.isEmpty())
        address = fallbackAddress();
    return address;
}

QString GetPrimaryMACAddress::primaryAddressFrom(const QString &routeFile, const QString &interfacesFolder)
{
    QFile table(routeFile);
    if (!table.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "Cannot read the routing table %s\n", qPrintable(routeFile));
        return {};
    }
    const QString name = defaultRouteInterface(table.readAll());
    if (name.isEmpty() || name.contains(QLatin1Char('/')) || name.startsWith(QLatin1Char('.')))
        return {};
    QFile addressFile(interfacesFolder + QLatin1Char('/') + name + QStringLiteral("/address"));
    if (!addressFile.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "Cannot read the hardware address of %s\n", qPrintable(name));
        return {};
    }
    const QString text = QString::fromLatin1(addressFile.readAll()).trimmed().toLower();
    static const QRegularExpression sixBytes(QStringLiteral("^[0-9a-f]{2}(:[0-9a-f]{2}){5}$"));
    if (!sixBytes.match(text).hasMatch() || text == QLatin1String("00:00:00:00:00:00"))
        return {};
    return text;
}

QString GetPrimaryMACAddress::fallbackAddress()
{
    struct ifaddrs *list = nullptr;
    if (::getifaddrs(&list) != 0) {
        std::fprintf(stderr, "getifaddrs failed\n");
        return {};
    }
    QString result;
    for (struct ifaddrs *entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_PACKET || (entry->ifa_flags & IFF_LOOPBACK))
            continue;
        const auto *link = reinterpret_cast<const struct sockaddr_ll *>(entry->ifa_addr);
        if (link->sll_halen != 6)
            continue;
        char buffer[18];
        std::snprintf(buffer, sizeof buffer, "%02X:%02X:%02X:%02X:%02X:%02X", link->sll_addr[0],
                      link->sll_addr[1], link->sll_addr[2], link->sll_addr[3], link->sll_addr[4],
                      link->sll_addr[5]);
        result = QString::fromLatin1(buffer);
        break;
    }
    ::freeifaddrs(list);
    return result;
}
