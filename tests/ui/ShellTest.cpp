// The whole widget shell around a real AppDelegate, driven offscreen as a user would: typing and
// clicking in the main window, choosing tray menu items, ticking the preferences; the local server
// answers.
#include "BusStandIns.h"
#include "UiTestSupport.h"
#include "app/AppDelegate.h"
#include "app/CheckUpdate.h"
#include "app/LogWindowController.h"
#include "app/UrlOpener.h"
#include "catalogue/DatabaseUtils.h"
#include "common/TestServer.h"
#include "common/TestUtil.h"
#include "ui/CDLoginViewWidget.h"
#include "ui/DesktopShell.h"
#include "ui/ImageButton.h"
#include "ui/LogWindowWidget.h"
#include "ui/MainWindowWidget.h"
#include "ui/PreferencesPanelWidget.h"
#include "ui/SettingsViewWidget.h"
#include "ui/StatusItem.h"
#include "ui/StatusMenu.h"

#include <QCheckBox>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QSysInfo>
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

class Shell : public ::testing::Test
{
protected:
    void SetUp() override
    {
        UiTest::useLanguage(QLocale::English);
        ASSERT_TRUE(server.ok()) << qPrintable(server.error());
        ASSERT_TRUE(
            server->addUser(QStringLiteral("alice"), QStringLiteral("secret"), QStringLiteral("alice@corp")));
    }
    void TearDown() override
    {
        shell.reset();
        app.reset();
        DatabaseUtils::destroy();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        UrlOpener::setShared(nullptr);
        UiTest::useLanguage(QLocale::English);
    }

    void launch()
    {
        app = std::make_unique<AppDelegate>();
        shell = std::make_unique<DesktopShell>(app.get());
        // The shell installed the desktop's opener; the test records instead.
        UrlOpener::setShared(&opener);
        app->applicationDidFinishLaunching();
        shell->didFinishLaunching();
    }

    template <class T> T *child(QObject *parent, const char *name)
    {
        T *found = parent ? parent->findChild<T *>(QString::fromLatin1(name)) : nullptr;
        EXPECT_NE(found, nullptr) << name;
        return found;
    }
    QWidget *window() { return shell->mainWindow(); }
    QAction *item(const char *name) { return child<QAction>(shell->statusMenu(), name); }

    // Signs in through the main window's sign-in view, as a user types it.
    void signIn()
    {
        CDLoginViewWidget *login = shell->mainWindow()->loginViewWidget();
        ASSERT_TRUE(login);
        QTest::keyClicks(child<QLineEdit>(login, "domainTextField"), server->domain());
        QTest::keyClicks(child<QLineEdit>(login, "useridTextField"), QStringLiteral("alice"));
        QTest::keyClicks(child<QLineEdit>(login, "passwordTextField"), QStringLiteral("secret"));
        QTest::mouseClick(login->loginButton(), Qt::LeftButton);
        auto *settings = shell->mainWindow()->settingsViewWidget();
        ASSERT_TRUE(TestUtil::waitFor([&] { return settings->isVisible(); }));
    }

    QString home() const { return homeDir.path(); }
    // Whether the tray icon shows the image of that name.
    bool showing(const QString &name)
    {
        return shell->statusItem()->trayIcon()->icon().cacheKey() ==
               shell->statusItem()->image(name).cacheKey();
    }

    QTemporaryDir homeDir;
    QTemporaryDir configDir;
    UiTest::EnvGuard homeEnv{"HOME", homeDir.path()};
    UiTest::EnvGuard configEnv{"XDG_CONFIG_HOME", configDir.path()};
    TestUtil::TempDataHome dataHome;
    TestServer server;
    RecordingOpener opener;
    std::unique_ptr<AppDelegate> app;
    std::unique_ptr<DesktopShell> shell;
};

} // namespace

TEST_F(Shell, SignInThroughTheWindowFillsTheSettingsViewAndTheMenu)
{
    launch();
    // Nothing stored: the window comes up with the sign-in view, and only the sign-in is on offer.
    ASSERT_TRUE(QTest::qWaitForWindowExposed(window()));
    auto *settings = shell->mainWindow()->settingsViewWidget();
    EXPECT_FALSE(settings->isVisible());
    ASSERT_TRUE(shell->mainWindow()->loginViewWidget());
    EXPECT_TRUE(shell->mainWindow()->loginViewWidget()->isVisible());
    EXPECT_TRUE(shell->mainWindow()->loginViewWidget()->loginButton()->isDefault());
    EXPECT_EQ(item("loginMenuItem")->text(), tr("login"));
    EXPECT_FALSE(item("syncStartMenuItem")->isEnabled());
    EXPECT_FALSE(item("checkUpdateMenuItem")->isEnabled());
    EXPECT_FALSE(item("logoutMenuItem")->isVisible());
    EXPECT_TRUE(showing(QStringLiteral("statusBarIcon.png")));

    ASSERT_NO_FATAL_FAILURE(signIn());
    EXPECT_FALSE(shell->mainWindow()->loginViewWidget());
    EXPECT_EQ(child<QLineEdit>(settings, "pcNameTextField")->text(), QSysInfo::machineHostName());
    EXPECT_EQ(child<QLineEdit>(settings, "pathTextField")->text(), home() + QStringLiteral("/CloudFolder"));
    EXPECT_EQ(child<QLabel>(settings, "idLabel")->text(), QStringLiteral("alice (%1)").arg(server->domain()));
    EXPECT_EQ(child<QLabel>(settings, "idTitleLabel")->text(), tr("id"));
    EXPECT_EQ(child<QLabel>(settings, "statusTextField")->text(), tr("stop_sync"));
    EXPECT_TRUE(child<QPushButton>(settings, "logoutButton")->isVisible());
    EXPECT_TRUE(settings->saveButton()->isDefault());
    auto *onoff = child<ImageButton>(settings, "onoffButton");
    EXPECT_EQ(onoff->text(), tr("on"));
    // A desktop without a link to the folder: the shortcut can be added.
    EXPECT_TRUE(child<QPushButton>(settings, "addShortcut")->isEnabled());

    EXPECT_EQ(item("loginMenuItem")->text(), tr("logout"));
    EXPECT_TRUE(item("syncStartMenuItem")->isEnabled());
    EXPECT_FALSE(item("syncStopMenuItem")->isEnabled());
    EXPECT_TRUE(item("openSyncFolderMenuItem")->isEnabled());
    EXPECT_TRUE(item("checkUpdateMenuItem")->isEnabled());
    EXPECT_TRUE(item("logoutMenuItem")->isVisible());
    EXPECT_EQ(item("logoutMenuItem")->text(), tr("logout"));
    item("openSyncFolderMenuItem")->trigger();
    ASSERT_EQ(opener.opened.size(), 1);
    EXPECT_EQ(opener.opened[0], QUrl::fromLocalFile(home() + QStringLiteral("/CloudFolder")));

    // Reset puts back what is stored; typing alone stores nothing.
    auto *pcName = child<QLineEdit>(settings, "pcNameTextField");
    pcName->clear();
    QTest::keyClicks(pcName, QStringLiteral("studio"));
    QTest::mouseClick(child<QPushButton>(settings, "cancelButton"), Qt::LeftButton);
    EXPECT_EQ(pcName->text(), QSysInfo::machineHostName());

    // The update check from the menu, against a server with a newer client: the offer appears on
    // the window, and declining it ends the offer.
    QStringList parts = CheckUpdate::shortVersionString().split(u'.');
    parts.last() = QString::number(parts.last().toInt() + 1);
    ASSERT_TRUE(server->setUpdate(parts.join(u'.'), CheckUpdate::bundleVersion(), "package"));
    item("checkUpdateMenuItem")->trigger();
    QMessageBox *offer = nullptr;
    ASSERT_TRUE(TestUtil::waitFor([&] { return (offer = UiTest::visibleTopLevel<QMessageBox>()); }));
    EXPECT_EQ(offer->text(), CheckUpdate::alertTitle());
    ASSERT_TRUE(shell->checkUpdate()->isShowingUpdate());
    offer->reject();
    EXPECT_FALSE(shell->checkUpdate()->isShowingUpdate());

    // A store error is presented in a panel over the window.
    app->presentError(
        FvError(AppDelegate::errorDomain(), 9999,
                {{QStringLiteral("NSLocalizedDescription"), QStringLiteral("Failed to initialize the store")},
                 {QStringLiteral("NSLocalizedFailureReason"),
                  QStringLiteral("There was an error building up the data file.")}}));
    auto *panel = child<QMessageBox>(window(), "errorPanel");
    ASSERT_TRUE(panel);
    EXPECT_TRUE(QTest::qWaitForWindowExposed(panel));
    EXPECT_EQ(panel->text(), QStringLiteral("Failed to initialize the store"));
    EXPECT_EQ(panel->informativeText(), QStringLiteral("There was an error building up the data file."));
    panel->accept();

    // Log out from the menu: the sign-in view is back, and the checker went with the account.
    item("logoutMenuItem")->trigger();
    ASSERT_TRUE(TestUtil::waitFor([&] { return shell->mainWindow()->loginViewWidget() != nullptr; }));
    EXPECT_FALSE(settings->isVisible());
    EXPECT_FALSE(shell->checkUpdate());
    EXPECT_EQ(item("loginMenuItem")->text(), tr("login"));
    EXPECT_FALSE(item("logoutMenuItem")->isVisible());
    EXPECT_FALSE(item("openSyncFolderMenuItem")->isEnabled());
}

TEST_F(Shell, OnOffSwitchesTheEngineTheMenuAndTheTrayIcon)
{
    launch();
    ASSERT_NO_FATAL_FAILURE(signIn());
    auto *settings = shell->mainWindow()->settingsViewWidget();
    auto *onoff = child<ImageButton>(settings, "onoffButton");
    QTest::mouseClick(onoff, Qt::LeftButton);
    ASSERT_TRUE(app->isRunning());
    EXPECT_TRUE(app->processWindowController());
    EXPECT_EQ(onoff->text(), tr("off"));
    EXPECT_EQ(child<QLabel>(settings, "statusTextField")->text(), tr("in_sync"));
    EXPECT_FALSE(item("syncStartMenuItem")->isEnabled());
    EXPECT_TRUE(item("syncStopMenuItem")->isEnabled());
    // Saved on the way: the settings are locked while sync runs.
    EXPECT_FALSE(child<QLineEdit>(settings, "pcNameTextField")->isEnabled());
    EXPECT_FALSE(settings->saveButton()->isEnabled());
    EXPECT_TRUE(shell->statusItem()->trayIcon()->toolTip().contains(tr("in_sync")));

    // Work under way animates the tray icon through the frames.
    app->startStatusBarAnimation();
    QStringList frames;
    const auto frameShown = [&] {
        for (int frame = 1; frame <= 10; ++frame) {
            const QString name = AppDelegate::animationFrameName(frame);
            if (showing(name) && !frames.contains(name))
                frames << name;
        }
        return frames.size() >= 3;
    };
    ASSERT_TRUE(TestUtil::waitFor(frameShown));

    // Off from the menu: the engine goes, the menu and the button offer to start, the icon rests.
    item("syncStopMenuItem")->trigger();
    EXPECT_FALSE(app->isRunning());
    EXPECT_FALSE(app->processWindowController());
    EXPECT_EQ(onoff->text(), tr("on"));
    EXPECT_TRUE(item("syncStartMenuItem")->isEnabled());
    EXPECT_FALSE(item("syncStopMenuItem")->isEnabled());
    EXPECT_TRUE(settings->saveButton()->isEnabled());
    ASSERT_TRUE(TestUtil::waitFor([&] { return showing(QStringLiteral("statusBarIcon.png")); }));
    EXPECT_FALSE(app->isStatusBarAnimating());

    // And on again from the menu.
    item("syncStartMenuItem")->trigger();
    EXPECT_TRUE(app->isRunning());
    EXPECT_EQ(onoff->text(), tr("off"));
}

TEST_F(Shell, PreferencesPanelWritesTheAutostartEntryAndTheNotificationChoice)
{
    launch();
    // The launch registered the login item; the first opening of the panel registers it again.
    const QString entry = AppDelegate::loginItemPath();
    ASSERT_TRUE(entry.startsWith(configDir.path())) << qPrintable(entry);
    ASSERT_TRUE(QFile::remove(entry));
    PreferencesPanelWidget *panel = shell->preferencesPanel();
    EXPECT_FALSE(panel->isVisible());
    item("preferencesMenuItem")->trigger();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(panel));
    EXPECT_EQ(panel->windowTitle(), tr("preferences_title"));
    ASSERT_TRUE(QFileInfo::exists(entry));
    const QByteArray written = TestUtil::readFile(entry);
    EXPECT_TRUE(written.startsWith("[Desktop Entry]\n"));
    EXPECT_TRUE(written.contains(
        QByteArray(QByteArray("\nExec=") + QFile::encodeName(QCoreApplication::applicationFilePath()))));
    EXPECT_EQ(app->getConfigValueByKey(QStringLiteral("kKeyStartup")), QVariant(true));

    auto *startWithSystem = child<QCheckBox>(panel, "startWithSystem");
    auto *autoStart = child<QCheckBox>(panel, "autoStartCheckBox");
    EXPECT_EQ(startWithSystem->text(), tr("automatic_run"));
    EXPECT_EQ(autoStart->text(), tr("auto_start"));
    EXPECT_TRUE(startWithSystem->isChecked());
    EXPECT_TRUE(autoStart->isChecked());

    QTest::mouseClick(startWithSystem, Qt::LeftButton);
    EXPECT_FALSE(QFileInfo::exists(entry));
    EXPECT_EQ(app->getConfigValueByKey(QStringLiteral("kKeyStartup")), QVariant(false));
    QTest::mouseClick(startWithSystem, Qt::LeftButton);
    EXPECT_TRUE(QFileInfo::exists(entry));
    EXPECT_EQ(app->getConfigValueByKey(QStringLiteral("kKeyStartup")), QVariant(true));

    QTest::mouseClick(autoStart, Qt::LeftButton);
    EXPECT_EQ(app->getConfigValueByKey(QStringLiteral("kKeyAutoStart")), QVariant(false));

    // The toggle offers what a click does: "off" while notifications are on.
    auto *notification = child<ImageButton>(panel, "notificationCheckBox");
    EXPECT_EQ(notification->text(), tr("off"));
    QTest::mouseClick(notification, Qt::LeftButton);
    EXPECT_EQ(app->getConfigValueByKey(QStringLiteral("kKeyNotification")), QVariant(false));
    EXPECT_EQ(notification->text(), tr("on"));
    QTest::mouseClick(notification, Qt::LeftButton);
    EXPECT_EQ(app->getConfigValueByKey(QStringLiteral("kKeyNotification")), QVariant(true));

    // A second opening leaves the choices alone.
    panel->close();
    item("preferencesMenuItem")->trigger();
    EXPECT_TRUE(startWithSystem->isChecked());
    EXPECT_FALSE(autoStart->isChecked());
}

TEST_F(Shell, DirectoryChooserCanMakeAFolderAndFillsOnlyThePathField)
{
    launch();
    ASSERT_NO_FATAL_FAILURE(signIn());
    auto *settings = shell->mainWindow()->settingsViewWidget();
    QTest::mouseClick(child<QPushButton>(settings, "searchButton"), Qt::LeftButton);
    auto *chooser = child<QFileDialog>(window(), "directoryChooser");
    ASSERT_TRUE(chooser);
    ASSERT_TRUE(QTest::qWaitForWindowExposed(chooser));
    EXPECT_EQ(chooser->fileMode(), QFileDialog::Directory);
    EXPECT_FALSE(chooser->testOption(QFileDialog::ReadOnly));

    // The chooser's own new-folder button makes a folder where it looks.
    chooser->setDirectory(home());
    auto *newFolder = chooser->findChild<QAbstractButton *>(QStringLiteral("newFolderButton"));
    ASSERT_TRUE(newFolder);
    ASSERT_TRUE(newFolder->isEnabled());
    newFolder->click();
    const auto folders = [&] { return QDir(home()).entryList(QDir::Dirs | QDir::NoDotAndDotDot); };
    ASSERT_TRUE(TestUtil::waitFor([&] { return !folders().isEmpty(); })) << "no folder made";

    const QString chosen = home() + u'/' + folders().constFirst();
    chooser->selectFile(chosen);
    QMetaObject::invokeMethod(chooser, "accept");
    EXPECT_EQ(child<QLineEdit>(settings, "pathTextField")->text(), chosen);
    // Nothing is saved before Save.
    EXPECT_EQ(app->getConfigValueByKey(QStringLiteral("kKeyPath")).toString(),
              home() + QStringLiteral("/CloudFolder"));
    QTest::mouseClick(settings->saveButton(), Qt::LeftButton);
    EXPECT_EQ(app->getConfigValueByKey(QStringLiteral("kKeyPath")).toString(), chosen);
}

TEST_F(Shell, EveryCaptionFollowsALocaleChange)
{
    launch();
    app->showPreferences();
    const auto captions = [&] {
        QStringList all;
        // Every titled item but the account panel's, whose texts are the server's.
        for (QAction *action : shell->statusMenu()->findChildren<QAction *>())
            if (!action->text().isEmpty() && action->objectName() != QStringLiteral("accountInfomationMenu"))
                all << action->text();
        all << shell->preferencesPanel()->windowTitle()
            << child<QLabel>(shell->preferencesPanel(), "notificationLabel")->text()
            << child<QLabel>(shell->mainWindow(), "pcNameLabel")->text()
            << child<QLabel>(shell->logWindow(), "fromServerLabel")->text()
            << shell->logWindow()->windowTitle()
            << child<QLabel>(shell->mainWindow()->loginViewWidget(), "passwordLabel")->text();
        return all;
    };
    const QStringList english = captions();
    EXPECT_TRUE(english.contains(tr("quit")));
    EXPECT_TRUE(english.contains(tr("notification")));

    QLocale::setDefault(QLocale(QLocale::German));
    QEvent change(QEvent::LocaleChange);
    QCoreApplication::sendEvent(QCoreApplication::instance(), &change);
    const QStringList german = captions();
    ASSERT_EQ(german.size(), english.size());
    for (qsizetype i = 0; i < german.size(); ++i)
        EXPECT_NE(german[i], english[i]) << qPrintable(english[i]) << " kept its English caption";
    EXPECT_TRUE(german.contains(QStringLiteral("Beenden")));
    EXPECT_TRUE(german.contains(QStringLiteral("Benachrichtigungen")));

    QLocale::setDefault(QLocale(QLocale::English));
    QCoreApplication::sendEvent(QCoreApplication::instance(), &change);
    EXPECT_EQ(captions(), english);
}

TEST_F(Shell, NotificationsReachTheDesktopOnlyWhileAllowed)
{
    if (!QDBusConnection::sessionBus().isConnected())
        GTEST_SKIP() << "no D-Bus session bus; run the tests under dbus-run-session";
    BusStandIns::Notifications service;
    ASSERT_TRUE(service.start());
    launch();
    app->postNotificationWithTitle(QStringLiteral("Upload complete"), QStringLiteral("a.txt"));
    ASSERT_TRUE(TestUtil::waitFor([&] { return service.summaries.size() == 1; }));
    app->notificationCheckBox_change();
    app->postNotificationWithTitle(QStringLiteral("Deleted"), QStringLiteral("b.txt"));
    app->notificationCheckBox_change();
    app->postNotificationWithTitle(QStringLiteral("Created"), QStringLiteral("c"));
    ASSERT_TRUE(TestUtil::waitFor([&] { return service.summaries.size() == 2; }));
    EXPECT_EQ(service.summaries, QStringList({QStringLiteral("Upload complete"), QStringLiteral("Created")}));
}
