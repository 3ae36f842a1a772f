#include "util/LogObject.h"

#include "common/TestUtil.h"
#include "util/NotificationCenter.h"

#include <QMutex>
#include <QThread>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

TEST(LogObject, SizeTextPicksTheUnitWithTheExclusiveGigabyteLimit)
{
    const std::pair<qint64, const char16_t *> cases[] = {
        {0, u"0.00 B"},
        {1023, u"1023.00 B"},
        {1024, u"1.00 KB"},
        {1536, u"1.50 KB"},
        {1048575, u"1024.00 KB"},
        {1048576, u"1.00 MB"},
        {1073741824, u"1024.00 MB"},
        {1073741825, u"1.00 GB"},
        {5368709120, u"5.00 GB"},
        {-1, u"-1.00 B"},
    };
    LogObject log;
    for (const auto &[size, text] : cases) {
        log.setSize(size);
        EXPECT_EQ(log.getSizeStr(), QString::fromUtf16(text)) << size;
    }
}

TEST(LogObject, BuilderFillsFieldsInOrderAndFlagsReadYOrN)
{
    const LogObject folder = LogObject::createLogObjectWithName(
        u"Docs"_s, u"work_add"_s, -1, u"/Docs"_s, true, u"2024/01/02 03:04:05"_s, QString(), false);
    EXPECT_EQ(folder.name(), u"Docs"_s);
    EXPECT_EQ(folder.work(), u"work_add"_s);
    EXPECT_EQ(folder.size(), -1);
    EXPECT_EQ(folder.path(), u"/Docs"_s);
    EXPECT_EQ(folder.time(), u"2024/01/02 03:04:05"_s);
    EXPECT_TRUE(folder.description().isEmpty());
    EXPECT_EQ(folder.getSizeStr(), QString());
    EXPECT_EQ(folder.getIsFolderStr(), u"Y"_s);
    EXPECT_EQ(folder.getIsSuccessStr(), u"N"_s);

    LogObject file = folder;
    file.setFolder(false);
    file.setSuccess(true);
    file.setSize(2048);
    EXPECT_EQ(file.getIsFolderStr(), u"N"_s);
    EXPECT_EQ(file.getIsSuccessStr(), u"Y"_s);
    EXPECT_EQ(file.getSizeStr(), u"2.00 KB"_s);
    EXPECT_NE(file, folder); // copies are independent values
}

TEST(LogObject, TravelsInsideTheLogNotificationAcrossThreads)
{
    const LogObject sent = LogObject::createLogObjectWithName(u"a.txt"_s, u"work_upload"_s, 12, u"/a.txt"_s,
                                                              false, u"now"_s, u"ok"_s, true);
    QMutex mutex;
    QList<LogObject> received;
    int ignored = 0;
    QObject context;
    QObject::connect(NotificationCenter::defaultCenter(), &NotificationCenter::posted, &context,
                     [&](const QString &name, const QVariant &, const QVariantMap &info) {
                         if (name != u"kKeyLogNotification")
                             return;
                         const QVariant log = info.value(u"log"_s);
                         QMutexLocker locker(&mutex);
                         if (log.metaType() == QMetaType::fromType<LogObject>())
                             received.append(log.value<LogObject>());
                         else
                             ++ignored; // plain strings are posted under the same name
                     });

    std::unique_ptr<QThread> worker(QThread::create([&] {
        NotificationCenter::defaultCenter()->postNotificationName(u"kKeyLogNotification"_s, true,
                                                                  {{u"log"_s, QVariant::fromValue(sent)}});
        NotificationCenter::defaultCenter()->postNotificationName(u"kKeyLogNotification"_s, false,
                                                                  {{u"log"_s, u"text"_s}});
    }));
    worker->start();
    ASSERT_TRUE(worker->wait(10000));
    ASSERT_TRUE(TestUtil::waitFor([&] {
        QMutexLocker locker(&mutex);
        return received.size() + ignored == 2;
    }));
    ASSERT_EQ(received.size(), 1);
    EXPECT_EQ(received.first(), sent);
    EXPECT_EQ(ignored, 1);
}
