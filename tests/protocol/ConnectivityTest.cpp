#include "protocol/CheckConnection.h"
#include "protocol/Reachability.h"
#include "protocol/RouteTable.h"
#include "util/Log.h"

#include <QStringList>
#include <gtest/gtest.h>

namespace {
constexpr quint32 R = Reachability::kReachable;
constexpr quint32 c = Reachability::kConnectionRequired;
constexpr quint32 C = Reachability::kConnectionOnTraffic;
constexpr quint32 i = Reachability::kInterventionRequired;
constexpr quint32 D = Reachability::kConnectionOnDemand;
constexpr quint32 l = Reachability::kIsLocalAddress;
constexpr quint32 d = Reachability::kIsDirect;

QStringList g_lines;
void capture(const QString &line)
{
    g_lines << line;
}

// A machine with a LAN on eth0 (192.168.1.0/24, default gateway 192.168.1.1), a point-to-point
// link without gateway, an IPv6 default route and a rejected (unreachable) route.
RouteTable sampleTable()
{
    const QByteArray v4 =
        "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n"
        "eth0\t00000000\t0101A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"
        "eth0\t0001A8C0\t00000000\t0001\t0\t0\t100\t00FFFFFF\t0\t0\t0\n"
        "tun0\t0000000A\t00000000\t0001\t0\t0\t0\t000000FF\t0\t0\t0\n"
        "eth0\t0000010B\t00000000\t0201\t0\t0\t0\t0000FFFF\t0\t0\t0\n";
    const QByteArray v6 = "20010db8000000000000000000000000 20 00000000000000000000000000000000 00 "
                          "00000000000000000000000000000000 00000100 00000001 00000000 00000001 eth0\n"
                          "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
                          "fe800000000000000000000000000001 00000400 00000001 00000000 00000003 eth0\n";
    return RouteTable::parse(v4, v6, {QHostAddress(QStringLiteral("192.168.1.20"))});
}
} // namespace

TEST(ReachabilityFlags, StatusMappingFollowsTheFlagRules)
{
    auto target = Reachability::reachabilityForInternetConnection();
    ASSERT_TRUE(target);
    EXPECT_EQ(target->networkStatusForFlags(0), Reachability::NotReachable);
    EXPECT_EQ(target->networkStatusForFlags(c | C | D), Reachability::NotReachable); // not reachable at all
    EXPECT_EQ(target->networkStatusForFlags(R), Reachability::ReachableViaWiFi);
    EXPECT_EQ(target->networkStatusForFlags(R | c), Reachability::NotReachable);
    EXPECT_EQ(target->networkStatusForFlags(R | c | D), Reachability::ReachableViaWiFi);
    EXPECT_EQ(target->networkStatusForFlags(R | c | C), Reachability::ReachableViaWiFi);
    EXPECT_EQ(target->networkStatusForFlags(R | c | C | i), Reachability::NotReachable);
    // Intervention only matters for the on-demand rule.
    EXPECT_EQ(target->networkStatusForFlags(R | i), Reachability::ReachableViaWiFi);

    auto wifi = Reachability::reachabilityForLocalWiFi();
    ASSERT_TRUE(wifi);
    EXPECT_TRUE(wifi->localWiFiRef());
    EXPECT_EQ(wifi->localWiFiStatusForFlags(R | d), Reachability::ReachableViaWiFi);
    EXPECT_EQ(wifi->localWiFiStatusForFlags(R), Reachability::NotReachable);
    EXPECT_EQ(wifi->localWiFiStatusForFlags(d), Reachability::NotReachable);

    EXPECT_EQ(CheckConnection::statusForReachability(0), 0);
    EXPECT_EQ(CheckConnection::statusForReachability(1), 1);
    EXPECT_EQ(CheckConnection::statusForReachability(2), 2);
    EXPECT_EQ(CheckConnection::statusForReachability(7), 3);
    EXPECT_EQ(CheckConnection::statusForReachability(-1), 3);
}

TEST(ReachabilityFlags, EachMappingLogsTheFlagLine)
{
    g_lines.clear();
    Log::setSink(capture);
    auto target = Reachability::reachabilityForInternetConnection();
    target->networkStatusForFlags(R | C | l | d);
    target->localWiFiStatusForFlags(Reachability::kTransientConnection | c | i | D);
    Log::setSink(nullptr);
    ASSERT_EQ(g_lines.size(), 2);
    EXPECT_TRUE(
        g_lines[0].endsWith(QStringLiteral("Reachability Flag Status: R --C--ld networkStatusForFlags\n")))
        << qPrintable(g_lines[0]);
    EXPECT_TRUE(
        g_lines[1].endsWith(QStringLiteral("Reachability Flag Status: - tc-iD-- localWiFiStatusForFlags\n")))
        << qPrintable(g_lines[1]);
}

TEST(RouteTable, FlagsComeFromTheLongestMatchingRoute)
{
    const RouteTable table = sampleTable();
    // Through the default gateway: reachable, not direct.
    EXPECT_EQ(table.flagsForAddress(QHostAddress(QStringLiteral("8.8.8.8"))), R);
    // On the LAN: direct.
    EXPECT_EQ(table.flagsForAddress(QHostAddress(QStringLiteral("192.168.1.77"))), R | d);
    EXPECT_EQ(table.flagsForAddress(QHostAddress(QStringLiteral("10.0.0.5"))), R | d);
    // Our own address and loopback: local.
    EXPECT_EQ(table.flagsForAddress(QHostAddress(QStringLiteral("192.168.1.20"))), R | l | d);
    EXPECT_EQ(table.flagsForAddress(QHostAddress(QStringLiteral("127.0.0.1"))), R | l | d);
    EXPECT_EQ(table.flagsForAddress(QHostAddress(QStringLiteral("::ffff:192.168.1.77"))), R | d);
    // The rejected 11.1.0.0/16 route is skipped, so the default route carries it.
    EXPECT_EQ(table.flagsForAddress(QHostAddress(QStringLiteral("11.1.2.3"))), R);
    // The zero address means any route to the internet.
    EXPECT_EQ(table.flagsForAddress(QHostAddress(QHostAddress::AnyIPv4)), R);
    // IPv6: the /32 is on-link, the rest goes through the gateway.
    EXPECT_EQ(table.flagsForAddress(QHostAddress(QStringLiteral("2001:db8::5"))), R | d);
    EXPECT_EQ(table.flagsForAddress(QHostAddress(QStringLiteral("2606:4700::1"))), R);
    // The link-local network has no route here.
    EXPECT_EQ(table.flagsForAddress(QHostAddress(QStringLiteral("169.254.0.0"))), R);

    // Without any route nothing but our own addresses is reachable.
    const RouteTable empty = RouteTable::parse({}, {}, {});
    EXPECT_EQ(empty.flagsForAddress(QHostAddress(QStringLiteral("8.8.8.8"))), 0u);
    EXPECT_EQ(empty.flagsForAddress(QHostAddress(QHostAddress::AnyIPv4)), 0u);
    EXPECT_EQ(empty.flagsForAddress(QHostAddress(QStringLiteral("127.0.0.1"))), R | l | d);
}

TEST(Reachability, TargetsAndTheLiveKernelState)
{
    EXPECT_EQ(Reachability::reachabilityWithHostName(QString()), nullptr);
    EXPECT_EQ(Reachability::reachabilityWithHostName(QStringLiteral("bad name")), nullptr);
    EXPECT_EQ(Reachability::reachabilityWithAddress(QHostAddress()), nullptr);

    // Loopback is always there and always local.
    auto loopback = Reachability::reachabilityWithHostName(QStringLiteral("localhost"));
    ASSERT_TRUE(loopback);
    quint32 flags = 0;
    ASSERT_TRUE(loopback->getFlags(&flags));
    EXPECT_EQ(flags, R | l | d);
    EXPECT_EQ(loopback->currentReachabilityStatus(), Reachability::ReachableViaWiFi);
    EXPECT_FALSE(loopback->connectionRequired());

    // A name that never resolves is readable and unreachable.
    auto nowhere = Reachability::reachabilityWithHostName(QStringLiteral("nothing.invalid"));
    ASSERT_TRUE(nowhere);
    ASSERT_TRUE(nowhere->getFlags(&flags));
    EXPECT_EQ(flags, 0u);
    EXPECT_EQ(nowhere->currentReachabilityStatus(), Reachability::NotReachable);

    // The whole question agrees with the kernel's own answer for the zero address.
    auto internet = Reachability::reachabilityForInternetConnection();
    const int expected = CheckConnection::statusForReachability(internet->currentReachabilityStatus());
    EXPECT_EQ(CheckConnection::checkConnection(), expected);

    EXPECT_TRUE(internet->startNotifier());
    EXPECT_TRUE(internet->startNotifier());
    internet->stopNotifier();
    internet->stopNotifier();
}
