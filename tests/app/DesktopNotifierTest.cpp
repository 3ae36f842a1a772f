#include "app/DesktopNotifier.h"

#include "common/TestUtil.h"
#include "util/Log.h"

#include <QDBusConnectionInterface>
#include <QSignalSpy>
#include <QThread>
#include <gtest/gtest.h>
#include <mutex>

namespace {

#define REQUIRE_SESSION_BUS()                                                                                \
    if (!QDBusConnection::sessionBus().isConnected())                                                        \
    GTEST_SKIP() << "no D-Bus session bus; run the tests under dbus-run-session"

// A stand-in for the desktop's notification service, on a bus connection of its own.
class StandInNotifications : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    struct Call
    {
        QString appName, icon, summary, body;
        QStringList actions;
        QVariantMap hints;
        int timeout = 0;
    };
    QList<Call> calls;

public slots:
    uint Notify(const QString &appName, uint, const QString &icon, const QString &summary,
                const QString &body, const QStringList &actions, const QVariantMap &hints, int timeout)
    {
        calls.append({appName, icon, summary, body, actions, hints, timeout});
        return uint(calls.size());
    }
};

QStringList g_lines;
std::mutex g_linesLock;
void collect(const QString &line)
{
    std::lock_guard lock(g_linesLock);
    g_lines << line;
}

} // namespace

TEST(DesktopNotifications, TheServiceReceivesTitleAndBodyFromAnyThread)
{
    REQUIRE_SESSION_BUS();
    QDBusConnection serviceBus =
        QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("standin"));
    StandInNotifications service;
    ASSERT_TRUE(
        serviceBus.registerObject(DesktopNotifier::objectPath(), &service, QDBusConnection::ExportAllSlots));
    // Other test programs on this bus may hold the name for a moment: wait for it in the queue.
    serviceBus.interface()->registerService(DesktopNotifier::serviceName(),
                                            QDBusConnectionInterface::QueueService,
                                            QDBusConnectionInterface::DontAllowReplacement);
    ASSERT_TRUE(TestUtil::waitFor([&] {
        return serviceBus.interface()->serviceOwner(DesktopNotifier::serviceName()).value() ==
               serviceBus.baseService();
    }));

    DesktopNotifier notifier;
    QSignalSpy delivered(&notifier, &DesktopNotifier::delivered);
    notifier.notify(QStringLiteral("Upload complete"), QStringLiteral("report <final>.pdf"));
    std::unique_ptr<QThread> worker(QThread::create(
        [&] { notifier.notify(QStringLiteral("Deleted"), QStringLiteral("Ordner \"alt\" – 2")); }));
    worker->start();
    ASSERT_TRUE(worker->wait(10000));
    ASSERT_TRUE(TestUtil::waitFor([&] { return delivered.size() == 2; }));
    ASSERT_EQ(service.calls.size(), 2);
    EXPECT_EQ(service.calls[0].appName, QStringLiteral("Ferrovane"));
    EXPECT_EQ(service.calls[0].summary, QStringLiteral("Upload complete"));
    EXPECT_EQ(service.calls[0].body, QStringLiteral("report <final>.pdf"));
    EXPECT_EQ(service.calls[0].icon, QString());
    EXPECT_TRUE(service.calls[0].actions.isEmpty());
    EXPECT_EQ(service.calls[0].timeout, -1);
    EXPECT_EQ(service.calls[1].summary, QStringLiteral("Deleted"));
    EXPECT_EQ(service.calls[1].body, QStringLiteral("Ordner \"alt\" – 2"));
    EXPECT_EQ(delivered.at(1).at(0).toUInt(), 2u);

    serviceBus.unregisterService(DesktopNotifier::serviceName());
    QDBusConnection::disconnectFromBus(QStringLiteral("standin"));
}

TEST(DesktopNotifications, WithoutTheServiceALineIsLoggedAndNothingWaits)
{
    REQUIRE_SESSION_BUS();
    const QDBusReply<bool> owned =
        QDBusConnection::sessionBus().interface()->isServiceRegistered(DesktopNotifier::serviceName());
    if (owned.isValid() && owned.value())
        GTEST_SKIP() << "a notification service runs on this bus";
    Log::setSink(&collect);
    DesktopNotifier notifier;
    QSignalSpy failed(&notifier, &DesktopNotifier::failed);
    QSignalSpy delivered(&notifier, &DesktopNotifier::delivered);
    notifier.notify(QStringLiteral("Title"), QStringLiteral("Message"));
    // notify() returned before the bus answered.
    EXPECT_TRUE(failed.isEmpty());
    ASSERT_TRUE(TestUtil::waitFor([&] { return !failed.isEmpty(); }));
    EXPECT_TRUE(delivered.isEmpty());
    Log::setSink(nullptr);
    std::lock_guard lock(g_linesLock);
    ASSERT_FALSE(g_lines.isEmpty());
    EXPECT_TRUE(g_lines.last().contains(QStringLiteral("Notification \"Title\" not shown")))
        << qPrintable(g_lines.last());

    // No bus at all: one line too.
    DesktopNotifier offBus(QDBusConnection(QStringLiteral("no such connection")));
    QSignalSpy offFailed(&offBus, &DesktopNotifier::failed);
    offBus.notify(QStringLiteral("Title"), QStringLiteral("Message"));
    EXPECT_EQ(offFailed.size(), 1);
}

#include "DesktopNotifierTest.moc"
