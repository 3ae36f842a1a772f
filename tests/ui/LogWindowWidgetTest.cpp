#include "ui/LogWindowWidget.h"

#include "UiTestSupport.h"
#include "app/LogWindowController.h"
#include "common/TestUtil.h"
#include "ui/LogTableView.h"
#include "util/NotificationCenter.h"

#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QTest>
#include <QThread>
#include <gtest/gtest.h>
#include <memory>

using UiTest::tr;

namespace {

LogObject entry(const QString &name, qint64 size, const QString &path, bool folder = false)
{
    // No description: that cell shows only its row's colour.
    return LogObject::createLogObjectWithName(name, QStringLiteral("work_add"), size, path, folder,
                                              QStringLiteral("2024/03/01 10:00:00"), QString(), true);
}

void post(bool fromServer, const LogObject &log)
{
    NotificationCenter::defaultCenter()->postNotificationName(
        QStringLiteral("kKeyLogNotification"), fromServer,
        {{QStringLiteral("log"), QVariant::fromValue(log)}});
}

QString cell(LogTableView *view, int row, int column)
{
    return view->model()->index(row, column).data().toString();
}

// The colour painted in the middle of a cell.
QColor paintedAt(LogTableView *view, int row, int column)
{
    const QImage image = view->viewport()->grab().toImage();
    const QRect rect = view->visualRect(view->model()->index(row, column));
    return image.pixelColor(QPoint(rect.center().x(), rect.center().y()) * image.devicePixelRatio());
}

bool near(const QColor &painted, double r, double g, double b)
{
    return std::abs(painted.redF() - r) < 0.02 && std::abs(painted.greenF() - g) < 0.02 &&
           std::abs(painted.blueF() - b) < 0.02;
}

class LogWindowWidgetTest : public ::testing::Test
{
protected:
    void SetUp() override { UiTest::useLanguage(QLocale::English); }
    void TearDown() override { UiTest::useLanguage(QLocale::English); }
};

} // namespace

TEST_F(LogWindowWidgetTest, ShowsWorkerEntriesNewestFirstWithSizeTextsAndRowColours)
{
    LogWindowController controller;
    LogWindowWidget window(&controller);
    EXPECT_FALSE(window.isVisible());
    controller.showWindow();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
    EXPECT_EQ(window.windowTitle(), tr("log"));
    LogTableView *server = window.serverTableView();
    LogTableView *local = window.localTableView();

    const qint64 sizes[] = {1023, 1024, 1048576, 1073741824, 1073741825};
    std::unique_ptr<QThread> worker(QThread::create([&] {
        for (qint64 size : sizes)
            post(true, entry(QString::number(size), size, QStringLiteral("/a/") + QString::number(size)));
        post(false, entry(QStringLiteral("photos"), -1, QStringLiteral("/photos"), true));
    }));
    worker->start();
    ASSERT_TRUE(worker->wait(10000));
    ASSERT_TRUE(TestUtil::waitFor([&] {
        return server->model()->rowCount() == 5 && local->model()->rowCount() == 1 && !server->isSliding();
    }));

    const QStringList expectedSizes = {QStringLiteral("1.00 GB"), QStringLiteral("1024.00 MB"),
                                       QStringLiteral("1.00 MB"), QStringLiteral("1.00 KB"),
                                       QStringLiteral("1023.00 B")};
    for (int row = 0; row < 5; ++row) {
        EXPECT_EQ(cell(server, row, LogTableViewDataSource::Size), expectedSizes[row]);
        EXPECT_EQ(cell(server, row, LogTableViewDataSource::Name), QString::number(sizes[4 - row]));
        EXPECT_EQ(cell(server, row, LogTableViewDataSource::Work), tr("work_add"));
    }
    EXPECT_EQ(cell(local, 0, LogTableViewDataSource::Size), QString());
    EXPECT_EQ(cell(local, 0, LogTableViewDataSource::IsFolder), QStringLiteral("Y"));
    EXPECT_EQ(server->horizontalHeader()->count(), 8);
    EXPECT_EQ(server->model()->headerData(LogTableViewDataSource::Path, Qt::Horizontal).toString(),
              tr("log_path"));

    // Even rows deep blue, odd rows light blue, as painted.
    EXPECT_TRUE(near(paintedAt(server, 0, LogTableViewDataSource::Description), 0.0, 0.60, 0.99));
    EXPECT_TRUE(near(paintedAt(server, 1, LogTableViewDataSource::Description), 0.59, 0.80, 0.98));
    EXPECT_TRUE(near(paintedAt(server, 2, LogTableViewDataSource::Description), 0.0, 0.60, 0.99));

    // The clear button does nothing, by design.
    auto *clear = window.findChild<QPushButton *>(QStringLiteral("clearButton"));
    ASSERT_NE(clear, nullptr);
    EXPECT_EQ(clear->text(), tr("clear_log"));
    QTest::mouseClick(clear, Qt::LeftButton);
    EXPECT_EQ(server->model()->rowCount(), 5);

    // Closing only hides the window; showing it again brings it back.
    window.close();
    EXPECT_TRUE(controller.window()->isHidden());
    controller.showWindow();
    EXPECT_TRUE(window.isVisible());
}

TEST_F(LogWindowWidgetTest, RowsFitLongTextsAndFollowColumnResizes)
{
    LogWindowController controller;
    LogWindowWidget window(&controller);
    controller.showWindow();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
    LogTableView *local = window.localTableView();

    QString longPath;
    for (int i = 0; i < 12; ++i)
        longPath += QStringLiteral("/folder_with_a_long_name_%1").arg(i);
    post(false, entry(QStringLiteral("short"), 10, QStringLiteral("/short")));
    post(false, entry(QStringLiteral("deep"), 10, longPath));
    ASSERT_TRUE(TestUtil::waitFor([&] { return local->model()->rowCount() == 2 && !local->isSliding(); }));

    const int single = local->rowHeight(1);
    const int tall = local->rowHeight(0);
    EXPECT_GT(tall, 2 * single) << "a long path wraps onto several lines";
    EXPECT_EQ(tall, local->fittingHeight(0));

    // Widening the column lets the path fit on fewer lines; narrowing it again needs more.
    local->setColumnWidth(LogTableViewDataSource::Path,
                          local->fontMetrics().horizontalAdvance(longPath) + 40);
    ASSERT_TRUE(TestUtil::waitFor([&] { return local->rowHeight(0) == single; }));
    local->setColumnWidth(LogTableViewDataSource::Path, 120);
    ASSERT_TRUE(TestUtil::waitFor([&] { return local->rowHeight(0) > tall; }));
    EXPECT_EQ(local->rowHeight(0), local->fittingHeight(0));
    EXPECT_EQ(local->rowHeight(1), single);
}

TEST_F(LogWindowWidgetTest, EveryCaptionFollowsTheLanguage)
{
    LogWindowController controller;
    LogWindowWidget window(&controller);
    controller.showWindow();
    post(true, entry(QStringLiteral("a"), 1, QStringLiteral("/a")));
    ASSERT_TRUE(TestUtil::waitFor([&] { return window.serverTableView()->model()->rowCount() == 1; }));
    auto *fromServer = window.findChild<QLabel *>(QStringLiteral("fromServerLabel"));
    auto *fromSync = window.findChild<QLabel *>(QStringLiteral("fromSyncLabel"));
    auto *clear = window.findChild<QPushButton *>(QStringLiteral("clearButton"));
    ASSERT_TRUE(fromServer && fromSync && clear);

    const auto captions = [&] {
        return QStringList{window.windowTitle(),
                           fromServer->text(),
                           fromSync->text(),
                           clear->text(),
                           window.serverTableView()->model()->headerData(0, Qt::Horizontal).toString(),
                           cell(window.serverTableView(), 0, LogTableViewDataSource::Work)};
    };
    const QStringList english = {tr("log"),       tr("from_server"), tr("from_sync"),
                                 tr("clear_log"), tr("log_name"),    tr("work_add")};
    EXPECT_EQ(captions(), english);

    UiTest::useLanguage(QLocale::German);
    controller.setTitleForComponent();
    const QStringList german = {QStringLiteral("Aktivitätsprotokoll"),
                                QStringLiteral("Vom Server"),
                                QStringLiteral("Von diesem Computer"),
                                QStringLiteral("Protokoll leeren"),
                                QStringLiteral("Name"),
                                QStringLiteral("Hinzufügen")};
    EXPECT_EQ(captions(), german);

    UiTest::useLanguage(QLocale::English);
    controller.setTitleForComponent();
    EXPECT_EQ(captions(), english);
}
