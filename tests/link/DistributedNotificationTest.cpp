#include "LinkTestUtil.h"
#include "common/TestUtil.h"
#include "link/DistributedNotificationCenter.h"
#include "link/LinkNames.h"
#include "util/Log.h"

#include <QCoreApplication>
#include <QProcess>
#include <QStandardPaths>
#include <gtest/gtest.h>
#include <memory>

namespace {

using Seen = QList<QPair<QString, QString>>;

// Skips the test when there is no session bus (ctest outside dbus-run-session).
#define REQUIRE_SESSION_BUS()                                                                                \
    if (!QDBusConnection::sessionBus().isConnected())                                                        \
    GTEST_SKIP() << "no D-Bus session bus; run the tests under dbus-run-session"

QStringList g_logLines;
void collectLog(const QString &line)
{
    g_logLines.append(line);
}

} // namespace

TEST(DistributedNotifications, OwnPostsReachObserversByName)
{
    REQUIRE_SESSION_BUS();
    DistributedNotificationCenter center;
    ASSERT_TRUE(center.isConnected());

    QObject port, all;
    Seen portSeen, allSeen;
    center.addObserver(
        &port,
        [&](const QString &n, const QString &o) {
            portSeen.append({n, o});
        },
        LinkNames::kKeyMyFSListenerPort);
    center.addObserver(
        &all,
        [&](const QString &n, const QString &o) {
            allSeen.append({n, o});
        },
        QString());
    auto dying = std::make_unique<QObject>();
    int dyingCalls = 0;
    center.addObserver(
        dying.get(), [&](const QString &, const QString &) { ++dyingCalls; }, QString());
    dying.reset();

    ASSERT_TRUE(center.postNotificationName(LinkNames::kDemonStopListener));
    ASSERT_TRUE(center.postNotificationName(LinkNames::kKeyMyFSListenerPort, QStringLiteral("40123")));
    ASSERT_TRUE(TestUtil::waitFor([&] { return allSeen.size() >= 2; }));
    EXPECT_EQ(allSeen, (Seen{{LinkNames::kDemonStopListener, QString()},
                             {LinkNames::kKeyMyFSListenerPort, QStringLiteral("40123")}}));
    EXPECT_EQ(portSeen, (Seen{{LinkNames::kKeyMyFSListenerPort, QStringLiteral("40123")}}));
    EXPECT_EQ(dyingCalls, 0);

    // Removed by name: the catch-all observation of the same object is unaffected by others.
    center.removeObserver(&port, LinkNames::kKeyMyFSListenerPort);
    ASSERT_TRUE(center.postNotificationName(LinkNames::kKeyMyFSListenerPort, QStringLiteral("40124")));
    ASSERT_TRUE(TestUtil::waitFor([&] { return allSeen.size() >= 3; }));
    EXPECT_EQ(portSeen.size(), 1);
    center.removeObserver(&all);

    // The Qt signal sees everything, without any observer.
    Seen signalSeen;
    QObject::connect(&center, &DistributedNotificationCenter::notificationPosted, &port,
                     [&](const QString &n, const QString &o) {
                         signalSeen.append({n, o});
                     });
    ASSERT_TRUE(center.postNotificationName(LinkNames::kTestNotification));
    ASSERT_TRUE(
        center.postNotificationName(LinkNames::kDemonStartListener, QStringLiteral("/home/u/CloudFolder")));
    ASSERT_TRUE(TestUtil::waitFor([&] { return signalSeen.size() >= 2; }));
    EXPECT_EQ(signalSeen, (Seen{{LinkNames::kTestNotification, QString()},
                                {LinkNames::kDemonStartListener, QStringLiteral("/home/u/CloudFolder")}}));
    EXPECT_EQ(allSeen.size(), 3);
}

TEST(DistributedNotifications, PostsArriveInTheOrderTheyWereSent)
{
    // Stop-then-start must not turn into start-then-stop, also right after a center is made.
    REQUIRE_SESSION_BUS();
    DistributedNotificationCenter receiver;
    DistributedNotificationCenter sender;
    QObject observer;
    QStringList seen;
    receiver.addObserver(
        &observer, [&](const QString &n, const QString &) { seen.append(n); }, QString());
    QStringList sent{LinkNames::kDemonStopListener, LinkNames::kDemonStartListener};
    for (int i = 0; i < 40; ++i)
        sent.append(QString::number(i));
    for (const QString &name : sent)
        ASSERT_TRUE(sender.postNotificationName(name));
    ASSERT_TRUE(TestUtil::waitFor([&] { return seen.size() >= sent.size(); }));
    EXPECT_EQ(seen, sent);
}

TEST(DistributedNotifications, OtherProcessesSeeOurPostsAndWeSeeTheirs)
{
    REQUIRE_SESSION_BUS();
    DistributedNotificationCenter center;
    QObject observer;
    Seen seen;
    center.addObserver(
        &observer,
        [&](const QString &n, const QString &o) {
            seen.append({n, o});
        },
        LinkNames::kKeyMyFSListenerPort);

    // A peer posts; we observe.
    QProcess poster;
    poster.start(QStringLiteral(LINK_BUS_PEER),
                 {QStringLiteral("post"), LinkNames::kKeyMyFSListenerPort, QStringLiteral("5555")});
    ASSERT_TRUE(poster.waitForFinished(10000));
    EXPECT_EQ(poster.exitCode(), 0) << poster.readAllStandardError().constData();
    ASSERT_TRUE(TestUtil::waitFor([&] { return !seen.isEmpty(); }));
    EXPECT_EQ(seen.first(), qMakePair(LinkNames::kKeyMyFSListenerPort, QStringLiteral("5555")));

    // A peer observes; we post once it is subscribed.
    QProcess listener;
    listener.start(QStringLiteral(LINK_BUS_PEER), {QStringLiteral("listen"), LinkNames::kDemonStartListener});
    ASSERT_TRUE(TestUtil::waitFor(
        [&] { return listener.canReadLine() || listener.state() == QProcess::NotRunning; }));
    ASSERT_EQ(listener.readLine().trimmed(), "ready");
    center.postNotificationName(LinkNames::kDemonStartListener, QStringLiteral("/home/ü/CloudFolder"));
    ASSERT_TRUE(listener.waitForFinished(10000));
    EXPECT_EQ(listener.exitCode(), 0);
    EXPECT_EQ(QString::fromUtf8(listener.readAllStandardOutput()),
              LinkNames::kDemonStartListener + u"\t/home/ü/CloudFolder\n");

    // The wire format is the plain signal: a generic bus tool can post it.
    const QString dbusSend = QStandardPaths::findExecutable(QStringLiteral("dbus-send"));
    if (dbusSend.isEmpty())
        GTEST_SKIP() << "dbus-send is not installed";
    QProcess tool;
    tool.start(dbusSend,
               {QStringLiteral("--session"), QStringLiteral("--type=signal"), LinkNames::kBusObjectPath,
                LinkNames::kBusInterface + u'.' + LinkNames::kBusSignal,
                QStringLiteral("string:") + LinkNames::kKeyMyFSListenerPort, QStringLiteral("string:6666")});
    ASSERT_TRUE(tool.waitForFinished(10000));
    ASSERT_TRUE(TestUtil::waitFor([&] { return seen.size() >= 2; }));
    EXPECT_EQ(seen.last(), qMakePair(LinkNames::kKeyMyFSListenerPort, QStringLiteral("6666")));
}

TEST(DistributedNotifications, WithoutABusPostsDoNothingAndSayWhyOnce)
{
    g_logLines.clear();
    Log::setSink(collectLog);
    {
        const QDBusConnection nowhere =
            QDBusConnection::connectToBus(QStringLiteral("unix:path=/nonexistent/ferrovane-test-bus"),
                                          QStringLiteral("ferrovane-test-nowhere"));
        DistributedNotificationCenter first(nowhere);
        EXPECT_FALSE(first.isConnected());
        QObject observer;
        int calls = 0;
        first.addObserver(
            &observer, [&](const QString &, const QString &) { ++calls; }, QString());
        for (int i = 0; i < 3; ++i)
            EXPECT_FALSE(first.postNotificationName(LinkNames::kDemonStopListener));
        QCoreApplication::processEvents();
        EXPECT_EQ(calls, 0);
    }
    QDBusConnection::disconnectFromBus(QStringLiteral("ferrovane-test-nowhere"));
    Log::setSink(nullptr);
    ASSERT_EQ(g_logLines.size(), 1) << qPrintable(g_logLines.join(u'\n'));
    EXPECT_TRUE(g_logLines[0].contains(u"No D-Bus session bus")) << qPrintable(g_logLines[0]);
}
