#include "watch/VDKQueue.h"

#include "WatchTestSupport.h"
#include "common/TestUtil.h"
#include "util/Log.h"
#include "util/NotificationCenter.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QMutex>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace FileTest;
using namespace WatchTest;

namespace {

class QueueRecorder final : public VDKQueueDelegate
{
public:
    QStringList events; // "<name> <file name>"
    void VDKQueueReceivedNotificationForPath(VDKQueue *, const QString &name, const QString &path) override
    {
        events << name + u' ' + QFileInfo(path).fileName();
    }
    // Events for `file`, in order.
    QStringList about(const QString &file) const
    {
        QStringList names;
        for (const QString &event : events)
            if (event.endsWith(u' ' + file))
                names << event.left(event.size() - file.size() - 1);
        return names;
    }
};

QStringList g_queueLog;
QMutex g_queueLogMutex;
void captureQueueLog(const QString &line)
{
    QMutexLocker lock(&g_queueLogMutex);
    g_queueLog << line;
}

class VDKQueueTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        root = m_dir.path();
        marker = root + u"/marker"_qs;
        write(marker);
        markerFile.setFileName(marker);
        ASSERT_TRUE(markerFile.open(QIODevice::Append | QIODevice::Unbuffered));
        queue = VDKQueue::create();
        ASSERT_TRUE(queue);
        queue->setDelegate(&recorder);
        queue->addPath(marker, VDKQueueFlag::Write);
    }

    // Writes the marker and waits for its report: every earlier change has been delivered by then.
    // One byte appended through a descriptor kept open is one kernel event, so one report: a write
    // that also truncated would be two, and the second, when read apart, would pass for the next
    // settle's report before the changes in between had come.
    void settle()
    {
        const int before = int(recorder.about(u"marker"_qs).size());
        ASSERT_EQ(markerFile.write("+", 1), 1);
        EXPECT_TRUE(TestUtil::waitFor([&] { return recorder.about(u"marker"_qs).size() > before; }));
    }

    QTemporaryDir m_dir;
    QString root, marker;
    QFile markerFile;
    QueueRecorder recorder;
    std::unique_ptr<VDKQueue> queue;
};

TEST_F(VDKQueueTest, SubscriptionsWidenButNeverNarrow)
{
    const QString file = root + u"/notes.txt"_qs;
    write(file, "a");
    queue->addPath(file, VDKQueueFlag::Write);
    queue->addPath(file, VDKQueueFlag::Write);
    EXPECT_EQ(queue->numberOfWatchedPaths(), 2);

    QFile appended(file);
    ASSERT_TRUE(appended.open(QIODevice::Append));
    appended.write("b");
    appended.flush();
    ASSERT_EQ(::chmod(QFile::encodeName(file).constData(), 0600), 0); // attributes: not subscribed
    settle();
    EXPECT_EQ(recorder.about(u"notes.txt"_qs), QStringList({VDKQueueWriteNotification}));

    queue->addPath(file, VDKQueueFlag::Extend); // widens
    queue->addPath(file, VDKQueueFlag::Write);  // a subset: no change
    queue->addPath(file);                       // already watched: no change
    recorder.events.clear();
    appended.write("c");
    appended.flush();
    ASSERT_EQ(::chmod(QFile::encodeName(file).constData(), 0644), 0);
    settle();
    EXPECT_EQ(recorder.about(u"notes.txt"_qs),
              QStringList({VDKQueueWriteNotification, VDKQueueSizeIncreaseNotification}));
    EXPECT_EQ(queue->numberOfWatchedPaths(), 2);

    queue->removePath(file);
    recorder.events.clear();
    appended.write("d");
    appended.flush();
    settle();
    EXPECT_TRUE(recorder.about(u"notes.txt"_qs).isEmpty());
    EXPECT_EQ(queue->numberOfWatchedPaths(), 1);
    queue->removeAllPaths();
    EXPECT_EQ(queue->numberOfWatchedPaths(), 0);
}

TEST_F(VDKQueueTest, KindsFollowTheItemAndComeInTableOrder)
{
    const QString file = root + u"/item.txt"_qs, folder = root + u"/folder"_qs;
    write(file, "x");
    mkpath(folder);
    queue->addPath(file);
    queue->addPath(folder);

    // A new subfolder is a write and a link-count change of its parent.
    mkpath(folder + u"/child"_qs);
    settle();
    EXPECT_EQ(recorder.about(u"folder"_qs),
              QStringList({VDKQueueWriteNotification, VDKQueueLinkCountChangeNotification}));

    // The watch follows the item, not the name: renamed, then deleted under its new name.
    move(file, root + u"/moved.txt"_qs);
    settle();
    ASSERT_TRUE(QFile::remove(root + u"/moved.txt"_qs));
    settle();
    const QStringList names = recorder.about(u"item.txt"_qs);
    ASSERT_FALSE(names.isEmpty());
    EXPECT_EQ(names.constFirst(), VDKQueueRenameNotification);
    EXPECT_TRUE(names.contains(VDKQueueDeleteNotification));
    EXPECT_LT(names.indexOf(VDKQueueRenameNotification), names.indexOf(VDKQueueDeleteNotification));

    EXPECT_EQ(
        VDKQueue::notificationNames(VDKQueueFlag::All),
        QStringList({u"VDKQueueFileRenamedNotification"_qs, u"VDKQueueFileWrittenToNotification"_qs,
                     u"VDKQueueFileDeletedNotification"_qs, u"VDKQueueFileAttributesChangedNotification"_qs,
                     u"VDKQueueFileSizeIncreasedNotification"_qs, u"VDKQueueLinkCountChangedNotification"_qs,
                     u"VDKQueueAccessWasRevokedNotification"_qs}));
}

TEST_F(VDKQueueTest, NotificationsArePostedWithoutADelegateOrWhenAsked)
{
    QList<QPair<QString, QVariantMap>> posted;
    QObject context;
    QObject::connect(NotificationCenter::defaultCenter(), &NotificationCenter::posted, &context,
                     [&](const QString &name, const QVariant &object, const QVariantMap &info) {
                         if (object.value<QObject *>() == queue.get())
                             posted.append({name, info});
                     });
    EXPECT_FALSE(queue->alwaysPostNotifications());
    settle();
    EXPECT_TRUE(posted.isEmpty());

    queue->setAlwaysPostNotifications(true);
    settle();
    ASSERT_FALSE(posted.isEmpty()); // one per write call that the watcher saw separately
    for (const auto &[name, info] : std::as_const(posted)) {
        EXPECT_EQ(name, VDKQueueWriteNotification);
        EXPECT_EQ(info, QVariantMap({{u"path"_qs, marker}}));
    }

    queue->setAlwaysPostNotifications(false);
    queue->setDelegate(nullptr);
    posted.clear();
    write(marker, "again");
    EXPECT_TRUE(TestUtil::waitFor([&] { return !posted.isEmpty(); }));
    EXPECT_EQ(posted.constFirst().first, VDKQueueWriteNotification);
}

TEST_F(VDKQueueTest, UnopenablePathIsNotAddedAndSaysWhy)
{
    {
        QMutexLocker lock(&g_queueLogMutex);
        g_queueLog.clear();
    }
    Log::setSink(&captureQueueLog);
    const QString missing = root + u"/no/such/file"_qs;
    queue->addPath(missing);
    queue->addPath(QString());
    Log::setSink(nullptr);
    EXPECT_EQ(queue->numberOfWatchedPaths(), 1);
    QMutexLocker lock(&g_queueLogMutex);
    ASSERT_EQ(g_queueLog.size(), 1);
    EXPECT_TRUE(g_queueLog.constFirst().endsWith(
        u"VDKQueue tried to add the path "_qs + missing +
        u" to watchedPathEntries, but the VDKQueuePathEntry was nil. \nIt's possible that the host process "
        u"has hit its max open file descriptors limit."_qs));
}

TEST_F(VDKQueueTest, DestructionStopsTheWatcherPromptly)
{
    settle(); // the watcher thread is running
    QElapsedTimer timer;
    timer.start();
    queue.reset();
    EXPECT_LT(timer.elapsed(), 5000);
    write(marker, "after"); // nothing left to deliver to
    QCoreApplication::processEvents();
}

} // namespace
