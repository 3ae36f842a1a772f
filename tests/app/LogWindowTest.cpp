#include "app/LanguageUtil.h"
#include "app/LogWindowController.h"
#include "common/TestUtil.h"
#include "util/NotificationCenter.h"

#include <QSignalSpy>
#include <QThread>
#include <gtest/gtest.h>
#include <memory>

namespace {

QString tr(const char *key)
{
    return LanguageUtil::getStringByKey(QString::fromLatin1(key));
}

LogObject entry(const QString &name, qint64 size, bool folder = false)
{
    return LogObject::createLogObjectWithName(
        name, QStringLiteral("work_add"), size, QStringLiteral("/dir/") + name, folder,
        QStringLiteral("2024/03/01 10:00:00"), QStringLiteral("desc"), true);
}

void post(bool fromServer, const QVariant &log)
{
    NotificationCenter::defaultCenter()->postNotificationName(QStringLiteral("kKeyLogNotification"),
                                                              fromServer, {{QStringLiteral("log"), log}});
}

QStringList names(const LogTableViewDataSource &table)
{
    QStringList result;
    for (int row = 0; row < table.rowCount(); ++row)
        result << table.data(table.index(row, LogTableViewDataSource::Name)).toString();
    return result;
}

class LogWindow : public ::testing::Test
{
protected:
    void SetUp() override
    {
        QLocale::setDefault(QLocale::c());
        LanguageUtil::readLanguage();
    }
    void TearDown() override
    {
        QLocale::setDefault(QLocale::c());
        LanguageUtil::readLanguage();
    }
};

} // namespace

TEST_F(LogWindow, EntriesFromWorkerThreadsReachTheirTablesNewestFirst)
{
    LogWindowController controller;
    LogTableViewDataSource *server = controller.serverTableViewDataSource();
    LogTableViewDataSource *local = controller.localTableViewDataSource();
    constexpr int kEach = 200;
    auto producer = [](bool fromServer) {
        return QThread::create([fromServer] {
            for (int i = 0; i < kEach; ++i)
                post(fromServer, QVariant::fromValue(entry(QString::number(i), i)));
            // The engine also posts plain texts under this name, and other names pass by.
            post(fromServer, QStringLiteral("just a text"));
            NotificationCenter::defaultCenter()->postNotificationName(
                QStringLiteral("other"), fromServer,
                {{QStringLiteral("log"), QVariant::fromValue(entry({}, 0))}});
        });
    };
    std::unique_ptr<QThread> fromServer(producer(true)), fromSync(producer(false));
    fromServer->start();
    fromSync->start();
    // The main thread waits for the producers without serving its event loop: posting must not
    // need it.
    ASSERT_TRUE(fromServer->wait(30000));
    ASSERT_TRUE(fromSync->wait(30000));
    ASSERT_TRUE(TestUtil::waitFor([&] { return server->rowCount() == kEach && local->rowCount() == kEach; }));
    QStringList expected;
    for (int i = kEach - 1; i >= 0; --i)
        expected << QString::number(i);
    EXPECT_EQ(names(*server), expected);
    EXPECT_EQ(names(*local), expected);

    // Clearing does nothing, by design.
    controller.clear();
    controller.clear_press();
    controller.setStringForLog(QStringLiteral("x"));
    EXPECT_EQ(server->rowCount(), kEach);
    EXPECT_EQ(local->rowCount(), kEach);
    EXPECT_TRUE(controller.logTextView()->stringValue().isEmpty());
    EXPECT_EQ(controller.log(), QStringLiteral("[Ferrovane]"));
}

TEST_F(LogWindow, CellsShowTheEightColumnsWithSizeTextsAndAlternatingColours)
{
    LogTableViewDataSource table;
    ASSERT_EQ(table.columnCount(), 8);
    QSignalSpy inserted(&table, &QAbstractItemModel::rowsInserted);
    const struct
    {
        qint64 size;
        const char *text;
    } sizes[] = {{1023, "1023.00 B"},        {1024, "1.00 KB"},       {1048576, "1.00 MB"},
                 {1073741824, "1024.00 MB"}, {1073741825, "1.00 GB"}, {0, "0.00 B"}};
    for (const auto &s : sizes)
        table.insertNewLog(entry(QString::fromLatin1(s.text), s.size));
    table.insertNewLog(entry(QStringLiteral("folder"), -1, true));
    ASSERT_EQ(inserted.size(), 7);
    for (const QList<QVariant> &args : inserted) {
        EXPECT_EQ(args.at(1).toInt(), 0); // always one row at the top
        EXPECT_EQ(args.at(2).toInt(), 0);
    }
    ASSERT_EQ(table.rowCount(), 7);
    for (int i = 0; i < 6; ++i) {
        const int row = 6 - i; // newest first
        EXPECT_EQ(table.data(table.index(row, LogTableViewDataSource::Size)).toString(),
                  QString::fromLatin1(sizes[i].text));
        EXPECT_EQ(table.data(table.index(row, LogTableViewDataSource::IsFolder)).toString(),
                  QStringLiteral("N"));
    }
    const auto cell = [&](int column) { return table.data(table.index(0, column)).toString(); };
    EXPECT_EQ(cell(LogTableViewDataSource::Name), QStringLiteral("folder"));
    EXPECT_EQ(cell(LogTableViewDataSource::Work), tr("work_add"));
    EXPECT_EQ(cell(LogTableViewDataSource::Size), QString());
    EXPECT_EQ(cell(LogTableViewDataSource::Path), QStringLiteral("/dir/folder"));
    EXPECT_EQ(cell(LogTableViewDataSource::IsFolder), QStringLiteral("Y"));
    EXPECT_EQ(cell(LogTableViewDataSource::Time), QStringLiteral("2024/03/01 10:00:00"));
    EXPECT_EQ(cell(LogTableViewDataSource::Description), QStringLiteral("desc"));
    EXPECT_EQ(cell(LogTableViewDataSource::IsSuccess), QStringLiteral("Y"));
    EXPECT_EQ(table.data(table.index(0, 8)), QVariant());

    const QVariantList even{0.0, 0.60, 0.99, 1.0}, odd{0.59, 0.80, 0.98, 1.0};
    for (int row = 0; row < table.rowCount(); ++row)
        EXPECT_EQ(table.data(table.index(row, 3), LogTableViewDataSource::RowColorRole).toList(),
                  row % 2 ? odd : even);
    // An insert moves every row down one: the colours stay with the row numbers, so the views
    // are told the rows below changed.
    QSignalSpy changed(&table, &QAbstractItemModel::dataChanged);
    table.insertNewLog(entry(QStringLiteral("newest"), 1));
    ASSERT_EQ(changed.size(), 1);
    EXPECT_EQ(changed.first().at(0).toModelIndex().row(), 1);
    EXPECT_EQ(changed.first().at(1).toModelIndex().row(), 7);

    // The producers' 14-digit local times are shown in the window's form; other texts as they are.
    LogObject stamped = entry(QStringLiteral("stamped"), 1, false);
    stamped.setTime(QStringLiteral("20261123024329"));
    table.insertNewLog(stamped);
    EXPECT_EQ(cell(LogTableViewDataSource::Time), QStringLiteral("2026/11/23 02:43:29"));
    stamped.setTime(QStringLiteral("2026113"));
    table.insertNewLog(stamped);
    EXPECT_EQ(cell(LogTableViewDataSource::Time), QStringLiteral("2026113"));
}

TEST_F(LogWindow, CaptionsFollowTheLanguage)
{
    LogWindowController controller;
    EXPECT_EQ(controller.fromServerLabel()->stringValue(), tr("from_server"));
    EXPECT_EQ(controller.fromSyncLabel()->stringValue(), tr("from_sync"));
    EXPECT_EQ(controller.window()->stringValue(), tr("log"));
    EXPECT_TRUE(controller.window()->isHidden());
    LogTableViewDataSource *table = controller.serverTableViewDataSource();
    table->insertNewLog(entry(QStringLiteral("a"), 1));
    const QString englishSize = table->headerData(LogTableViewDataSource::Size, Qt::Horizontal).toString();
    const QString englishWork = table->data(table->index(0, LogTableViewDataSource::Work)).toString();

    QSignalSpy headers(table, &QAbstractItemModel::headerDataChanged);
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
    LanguageUtil::readLanguage();
    controller.setTitleForComponent();
    EXPECT_EQ(controller.fromServerLabel()->stringValue(), QStringLiteral("Vom Server"));
    EXPECT_EQ(controller.fromSyncLabel()->stringValue(), QStringLiteral("Von diesem Computer"));
    EXPECT_EQ(headers.size(), 1);
    EXPECT_EQ(table->headerData(LogTableViewDataSource::Size, Qt::Horizontal).toString(),
              QStringLiteral("Größe"));
    EXPECT_NE(table->headerData(LogTableViewDataSource::Size, Qt::Horizontal).toString(), englishSize);
    EXPECT_EQ(table->data(table->index(0, LogTableViewDataSource::Work)).toString(),
              QStringLiteral("Hinzufügen"));
    EXPECT_NE(englishWork, QStringLiteral("Hinzufügen"));

    QSignalSpy focus(controller.window(), &ViewControl::focusRequested);
    controller.showWindow();
    EXPECT_FALSE(controller.window()->isHidden());
    EXPECT_EQ(focus.size(), 1);
}
