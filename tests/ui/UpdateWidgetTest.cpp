#include "UiTestSupport.h"
#include "app/CheckUpdate.h"
#include "app/UrlOpener.h"
#include "common/TestServer.h"
#include "common/TestUtil.h"
#include "ui/DownloadUpdateWindowWidget.h"
#include "ui/UpdateOfferUi.h"
#include "util/Pace.h"

#include <QLabel>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <gtest/gtest.h>

using UiTest::tr;

namespace {

struct RecordingOpener : UrlOpener
{
    QList<QUrl> opened;
    bool openURL(const QUrl &url) override
    {
        opened << url;
        return true;
    }
};

QString newerVersion()
{
    QStringList parts = CheckUpdate::shortVersionString().split(u'.');
    parts.last() = QString::number(parts.last().toInt() + 1);
    return parts.join(u'.');
}

QPushButton *buttonLabelled(QMessageBox *box, const QString &text)
{
    for (QAbstractButton *button : box->buttons()) {
        if (button->text() == text)
            return qobject_cast<QPushButton *>(button);
    }
    return nullptr;
}

class UpdateWidgets : public ::testing::Test
{
protected:
    void SetUp() override
    {
        UiTest::useLanguage(QLocale::English);
        ASSERT_TRUE(server.ok()) << qPrintable(server.error());
        UrlOpener::setShared(&opener);
        // Checks only when the test asks.
        scale = Pace::scale();
        Pace::setScale(1);
        checker = std::make_unique<CheckUpdate>();
        checker->setDomain(server->domain());
        ui = std::make_unique<UpdateOfferUi>(checker.get(), nullptr);
    }
    void TearDown() override
    {
        ui.reset();
        checker.reset();
        // The windows that went with the checker.
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        Pace::setScale(scale);
        UrlOpener::setShared(nullptr);
    }

    // Runs a check; the offer on screen, or nullptr when the check ended without one.
    QMessageBox *check()
    {
        QSignalSpy finished(checker.get(), &CheckUpdate::checkFinished);
        checker->checkUpdate();
        EXPECT_TRUE(TestUtil::waitFor(
            [&] { return !finished.isEmpty() || (ui->alert() && ui->alert()->isVisible()); }));
        return finished.isEmpty() ? ui->alert() : nullptr;
    }

    // Accepts the offer and waits for the download window to settle.
    DownloadUpdateWindowWidget *accept(QMessageBox *alert)
    {
        QPushButton *update = buttonLabelled(alert, tr("update"));
        EXPECT_NE(update, nullptr);
        if (!update)
            return nullptr;
        QTest::mouseClick(update, Qt::LeftButton);
        DownloadUpdateWindowWidget *window = nullptr;
        EXPECT_TRUE(TestUtil::waitFor(
            [&] {
                window = UiTest::visibleTopLevel<DownloadUpdateWindowWidget>();
                return window && checker->downloadWindow() && !checker->downloadWindow()->isDownloading();
            },
            30000));
        return window;
    }

    TestUtil::TempDataHome dataHome;
    TestServer server;
    RecordingOpener opener;
    double scale = 1;
    std::unique_ptr<CheckUpdate> checker;
    std::unique_ptr<UpdateOfferUi> ui;
};

} // namespace

TEST_F(UpdateWidgets, NewerVersionIsOfferedDownloadedAndInstalled)
{
    const QByteArray package(1 << 20, 'k');
    ASSERT_TRUE(server->setUpdate(newerVersion(), QStringLiteral("42"), package));
    QMessageBox *alert = check();
    ASSERT_NE(alert, nullptr);
    EXPECT_EQ(alert->text(), CheckUpdate::alertTitle());
    EXPECT_EQ(alert->informativeText(),
              tr("new_version") + u' ' + newerVersion() + QStringLiteral(" build 42"));
    EXPECT_EQ(alert->defaultButton(), buttonLabelled(alert, tr("update")));
    ASSERT_NE(buttonLabelled(alert, tr("cancel")), nullptr);

    DownloadUpdateWindowWidget *window = accept(alert);
    ASSERT_NE(window, nullptr);
    EXPECT_FALSE(ui->alert());
    auto *label = window->findChild<QLabel *>(QStringLiteral("downloadLabel"));
    auto *bar = window->findChild<QProgressBar *>(QStringLiteral("downloadLeveIndicator"));
    auto *install = window->findChild<QPushButton *>(QStringLiteral("installButton"));
    auto *cancel = window->findChild<QPushButton *>(QStringLiteral("cancelButton"));
    ASSERT_TRUE(label && bar && install && cancel);
    EXPECT_EQ(window->windowTitle(), tr("update_window_title"));
    EXPECT_EQ(label->text(), tr("download_complete"));
    EXPECT_EQ(bar->value(), bar->maximum());
    EXPECT_TRUE(install->isVisible());
    EXPECT_EQ(install->text(), tr("close_install"));
    EXPECT_EQ(cancel->text(), tr("cancel"));
    EXPECT_TRUE(TestUtil::readFile(DownloadUpdateWindowController::packagePath()) == package);

    QTest::mouseClick(install, Qt::LeftButton);
    EXPECT_EQ(opener.opened, QList<QUrl>{QUrl::fromLocalFile(DownloadUpdateWindowController::packagePath())});
}

TEST_F(UpdateWidgets, OlderVersionIsNotOfferedAndDecliningEndsTheOffer)
{
    ASSERT_TRUE(server->setUpdate(QStringLiteral("0"), QStringLiteral("1")));
    EXPECT_EQ(check(), nullptr);
    EXPECT_EQ(UiTest::visibleTopLevel<QMessageBox>(), nullptr);

    ASSERT_TRUE(server->setUpdate(newerVersion(), QStringLiteral("1")));
    QMessageBox *alert = check();
    ASSERT_NE(alert, nullptr);
    EXPECT_TRUE(checker->isShowingUpdate());
    QTest::mouseClick(buttonLabelled(alert, tr("cancel")), Qt::LeftButton);
    ASSERT_TRUE(TestUtil::waitFor([&] { return !checker->isShowingUpdate(); }));
    EXPECT_EQ(checker->downloadWindow(), nullptr);
    EXPECT_EQ(UiTest::visibleTopLevel<DownloadUpdateWindowWidget>(), nullptr);
}

TEST_F(UpdateWidgets, MissingPackageLeavesTheInstallButtonHidden)
{
    ASSERT_TRUE(server->setUpdate(newerVersion(), QStringLiteral("1"))); // no package: 404
    QMessageBox *alert = check();
    ASSERT_NE(alert, nullptr);
    DownloadUpdateWindowWidget *window = accept(alert);
    ASSERT_NE(window, nullptr);
    EXPECT_EQ(window->findChild<QLabel *>(QStringLiteral("downloadLabel"))->text(), tr("file_not_found"));
    EXPECT_FALSE(window->findChild<QPushButton *>(QStringLiteral("installButton"))->isVisible());

    // The relabelled window keeps saying what happened, in the new language.
    UiTest::useLanguage(QLocale::German);
    checker->downloadWindow()->setTitleForComponent();
    EXPECT_EQ(window->findChild<QLabel *>(QStringLiteral("downloadLabel"))->text(),
              QStringLiteral("Die Update-Datei wurde nicht gefunden."));
    EXPECT_EQ(window->findChild<QPushButton *>(QStringLiteral("cancelButton"))->text(),
              QStringLiteral("Abbrechen"));
    UiTest::useLanguage(QLocale::English);

    // Cancel closes the window.
    QTest::mouseClick(window->findChild<QPushButton *>(QStringLiteral("cancelButton")), Qt::LeftButton);
    EXPECT_FALSE(window->isVisible());
}
