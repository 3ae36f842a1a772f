// The application's sign-in and sync flow against the in-process server: what AppDelegate shows
// (controls, menu items, looks) and keeps (settings, the account record) at each step.
#include "app/AppDelegate.h"
#include "app/LanguageUtil.h"
#include "catalogue/DatabaseUtils.h"
#include "common/TestServer.h"
#include "common/TestUtil.h"
#include "link/DistributedNotificationCenter.h"
#include "link/LinkNames.h"
#include "protocol/UploadFile.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QMap>
#include <QSignalSpy>
#include <QSysInfo>
#include <gtest/gtest.h>
#include <thread>

namespace {

QString tr(const char *key)
{
    return LanguageUtil::getStringByKey(QString::fromLatin1(key));
}

// Sets an environment variable for the scope, restoring the old value after.
class EnvGuard
{
public:
    EnvGuard(const char *name, const QString &value) : m_name(name), m_had(qEnvironmentVariableIsSet(name))
    {
        m_old = qgetenv(name);
        qputenv(name, QFile::encodeName(value));
    }
    ~EnvGuard()
    {
        if (m_had)
            qputenv(m_name, m_old);
        else
            qunsetenv(m_name);
    }
    Q_DISABLE_COPY_MOVE(EnvGuard)

private:
    const char *m_name;
    bool m_had;
    QByteArray m_old;
};

// A private home, data and config folder; the server with one account.
class AppFlow : public ::testing::Test
{
protected:
    void SetUp() override
    {
        QLocale::setDefault(QLocale(QLocale::English));
        ASSERT_TRUE(server.ok()) << qPrintable(server.error());
        ASSERT_TRUE(
            server->addUser(QStringLiteral("alice"), QStringLiteral("secret"), QStringLiteral("alice@corp")));
    }
    void TearDown() override { DatabaseUtils::destroy(); }

    QString home() const { return homeDir.path(); }
    QString cloudFolder() const { return home() + QStringLiteral("/CloudFolder"); }

    // Launch, then sign in through the sign-in view as a user would.
    void launchAndSignIn(AppDelegate &app, const QString &password = QStringLiteral("secret"))
    {
        app.applicationDidFinishLaunching();
        ASSERT_TRUE(app.loginView());
        QSignalSpy signedIn(&app, &AppDelegate::signedIn);
        CDLoginView *view = app.loginView();
        view->domainTextField()->setStringValue(server->domain());
        view->useridTextField()->setStringValue(QStringLiteral("alice"));
        view->passwordTextField()->setStringValue(password);
        view->login();
        ASSERT_TRUE(TestUtil::waitFor([&] { return signedIn.count() == 1; }));
    }

    InfomationPtr infomation(AppDelegate &app)
    {
        return DatabaseUtils::instance()->getInfomationWithManagedObjectContext(app.managedObjectContext());
    }

    QTemporaryDir homeDir;
    QTemporaryDir configDir;
    EnvGuard homeEnv{"HOME", homeDir.path()};
    EnvGuard configEnv{"XDG_CONFIG_HOME", configDir.path()};
    TestUtil::TempDataHome dataHome;
    TestServer server;
};

} // namespace

TEST_F(AppFlow, SignInFillsTheSettingsAndTheNextLaunchSignsInAutomatically)
{
    {
        AppDelegate app;
        // Signed out at launch: only the sign-in view, no sync item live.
        app.applicationDidFinishLaunching();
        EXPECT_TRUE(app.settingView()->isHidden());
        EXPECT_TRUE(app.logoutMenuItem()->isHidden());
        EXPECT_FALSE(app.syncStartMenuItem()->isEnabled());
        EXPECT_FALSE(app.checkUpdateMenuItem()->isEnabled());
        EXPECT_EQ(app.loginMenuItem()->stringValue(), tr("login"));
        EXPECT_EQ(app.defaultButton(), app.loginView()->loginButton());
        EXPECT_EQ(app.statusBarImageName(), QStringLiteral("statusBarIcon.png"));
        EXPECT_TRUE(app.accountView());
        EXPECT_TRUE(server->requestLog().isEmpty()); // nothing stored: no automatic sign-in

        QSignalSpy domains(&app, &AppDelegate::updateCheckerNeeded);
        QSignalSpy views(&app, &AppDelegate::loginViewChanged);
        CDLoginView *view = app.loginView();
        QSignalSpy signedIn(&app, &AppDelegate::signedIn);
        view->domainTextField()->setStringValue(server->domain());
        view->useridTextField()->setStringValue(QStringLiteral("alice"));
        view->passwordTextField()->setStringValue(QStringLiteral("secret"));
        view->login();
        ASSERT_TRUE(TestUtil::waitFor([&] { return signedIn.count() == 1; }));

        EXPECT_TRUE(app.isLogined());
        EXPECT_FALSE(app.loginView());
        ASSERT_EQ(views.count(), 1);
        EXPECT_EQ(views[0][0].value<CDLoginView *>(), nullptr);
        EXPECT_EQ(app.pcNameTextField()->stringValue(), QSysInfo::machineHostName());
        EXPECT_EQ(app.idLabel()->stringValue(), QStringLiteral("alice (%1)").arg(server->domain()));
        // No folder recorded for the account yet: CloudFolder in the home folder, sync off.
        EXPECT_EQ(app.pathTextField()->stringValue(), cloudFolder());
        EXPECT_EQ(app.getConfigValueByKey(QStringLiteral("kKeyPath")).toString(), cloudFolder());
        EXPECT_EQ(app.getConfigValueByKey(QStringLiteral("kKeyAutoSync")), QVariant(false));
        EXPECT_FALSE(app.isRunning());
        EXPECT_FALSE(app.processWindowController());
        EXPECT_FALSE(app.settingView()->isHidden());
        EXPECT_FALSE(app.logoutButton()->isHidden());
        EXPECT_FALSE(app.logoutMenuItem()->isHidden());
        EXPECT_FALSE(app.logoutTrayMenuItem()->isHidden());
        EXPECT_EQ(app.loginMenuItem()->stringValue(), tr("logout"));
        EXPECT_EQ(app.defaultButton(), app.saveButton());
        EXPECT_TRUE(app.checkUpdateMenuItem()->isEnabled());
        EXPECT_TRUE(app.openSyncFolderMenuItem()->isEnabled());
        EXPECT_TRUE(app.syncStartMenuItem()->isEnabled());
        EXPECT_FALSE(app.syncStopMenuItem()->isEnabled());
        EXPECT_EQ(app.onoffButton()->imageName(), QStringLiteral("btn_on"));
        EXPECT_EQ(domains.count(), 1);
        EXPECT_EQ(domains[0][0].toString(), server->domain());
        // Notifications on by default: the button offers to switch them off.
        EXPECT_EQ(app.notificationCheckBox()->imageName(), QStringLiteral("btn_off"));
        EXPECT_EQ(app.notificationCheckBox()->stringValue(), tr("off"));

        // The desktop has nothing under the folder's name: the shortcut can be added.
        EXPECT_TRUE(app.addShortcut()->isEnabled());
        QSignalSpy opened(&app, &AppDelegate::openFolderRequested);
        app.pressedOpenSyncFolder();
        ASSERT_EQ(opened.count(), 1);
        EXPECT_EQ(opened[0][0].toString(), cloudFolder());
    }

    // The next launch signs in with the stored credentials, without a click.
    server->clearRequestLog();
    AppDelegate app;
    QSignalSpy signedIn(&app, &AppDelegate::signedIn);
    app.applicationDidFinishLaunching();
    ASSERT_TRUE(TestUtil::waitFor([&] { return signedIn.count() == 1; }));
    EXPECT_EQ(server->requestedCommands(), QStringList{QStringLiteral("LOGIN")});
    EXPECT_TRUE(app.isLogined());
    EXPECT_EQ(app.pathTextField()->stringValue(), cloudFolder());

    // A launch told not to sign in by itself leaves the stored credentials in the view.
    AppDelegate later;
    later.applicationDidFinishLaunching(false);
    TestUtil::waitFor([] { return false; }, 50);
    ASSERT_TRUE(later.loginView());
    EXPECT_FALSE(later.loginView()->isSending());
    EXPECT_EQ(later.loginView()->useridTextField()->stringValue(), QStringLiteral("alice"));
}

TEST_F(AppFlow, SyncSwitchTogglesEngineLooksAndMenusAndKeepsAutoSyncOn)
{
    AppDelegate app;
    ASSERT_NO_FATAL_FAILURE(launchAndSignIn(app));
    QSignalSpy engines(&app, &AppDelegate::processWindowControllerChanged);

    app.onoffAction();
    ASSERT_TRUE(app.isRunning());
    ASSERT_TRUE(app.processWindowController());
    EXPECT_EQ(engines.count(), 1);
    EXPECT_EQ(app.onoffButton()->imageName(), QStringLiteral("btn_off"));
    EXPECT_EQ(app.onoffButton()->alternateImageName(), QStringLiteral("btn_off_press"));
    EXPECT_EQ(app.onoffButton()->textColor(), QStringLiteral("white"));
    EXPECT_EQ(app.onoffButton()->stringValue(), tr("off"));
    EXPECT_EQ(app.statusTextField()->stringValue(), tr("in_sync"));
    EXPECT_TRUE(app.syncStopMenuItem()->isEnabled());
    EXPECT_FALSE(app.syncStartMenuItem()->isEnabled());
    EXPECT_EQ(app.getConfigValueByKey(QStringLiteral("kKeyAutoSync")), QVariant(true));
    // Switching on saved the settings: the folder is the account's now, for a full first sync,
    // and the settings controls are locked while sync runs.
    InfomationPtr record = infomation(app);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->path(), cloudFolder());
    EXPECT_EQ(record->firstSync(), std::optional<bool>(false));
    EXPECT_FALSE(app.saveButton()->isEnabled());
    EXPECT_FALSE(app.searchButton()->isEnabled());
    EXPECT_FALSE(app.pcNameTextField()->isEnabled());
    EXPECT_FALSE(app.startWithSystem()->isEnabled());
    EXPECT_TRUE(app.accountMenu()->isEnabled());

    // Off through the stop item: the engine is told to stop before it goes.
    QSignalSpy stopped(app.processWindowController(), &ProcessWindowController::stateChanged);
    app.pressedSyncStart(); // not live while sync runs
    EXPECT_TRUE(app.isRunning());
    app.pressedSyncStop();
    EXPECT_FALSE(app.isRunning());
    EXPECT_FALSE(app.processWindowController());
    ASSERT_EQ(stopped.count(), 1);
    EXPECT_EQ(stopped[0][0].value<ProcessWindowController::State>(), ProcessWindowController::State::Stopped);
    ASSERT_EQ(engines.count(), 2);
    EXPECT_EQ(engines[1][0].value<ProcessWindowController *>(), nullptr);
    EXPECT_EQ(app.onoffButton()->imageName(), QStringLiteral("btn_on"));
    EXPECT_EQ(app.onoffButton()->alternateImageName(), QStringLiteral("btn_on_press"));
    EXPECT_EQ(app.onoffButton()->textColor(), QStringLiteral("black"));
    EXPECT_EQ(app.statusTextField()->stringValue(), tr("stop_sync"));
    EXPECT_TRUE(app.syncStartMenuItem()->isEnabled());
    EXPECT_FALSE(app.syncStopMenuItem()->isEnabled());
    EXPECT_TRUE(app.saveButton()->isEnabled());
    EXPECT_FALSE(app.accountMenu()->isEnabled());
    // Switched off by hand, sync still comes on by itself after the next sign-in.
    EXPECT_EQ(app.getConfigValueByKey(QStringLiteral("kKeyAutoSync")), QVariant(true));

    // Relabelled for another language, the controls keep the captions of their state.
    QLocale::setDefault(QLocale(QLocale::German));
    QEvent change(QEvent::LocaleChange);
    QCoreApplication::sendEvent(QCoreApplication::instance(), &change);
    EXPECT_EQ(app.logoutButton()->stringValue(), QStringLiteral("Abmelden"));
    EXPECT_EQ(app.statusTextField()->stringValue(), tr("stop_sync"));
    EXPECT_EQ(app.loginMenuItem()->stringValue(), tr("logout"));
    QLocale::setDefault(QLocale(QLocale::English));
    QCoreApplication::sendEvent(QCoreApplication::instance(), &change);

    // stopSync while on ends the engine but leaves "kKeyAutoSync" alone.
    app.onoffAction();
    ASSERT_TRUE(app.processWindowController());
    app.setConfigValue(false, QStringLiteral("kKeyAutoSync"));
    app.stopSync();
    EXPECT_FALSE(app.processWindowController());
    EXPECT_FALSE(app.isRunning());
    EXPECT_EQ(app.getConfigValueByKey(QStringLiteral("kKeyAutoSync")), QVariant(false));
}

TEST_F(AppFlow, SavingAnotherFolderMakesTheNextStartAFullSync)
{
    AppDelegate app;
    ASSERT_NO_FATAL_FAILURE(launchAndSignIn(app));
    app.saveAction();
    InfomationPtr record = infomation(app);
    ASSERT_TRUE(record);
    ASSERT_EQ(record->path(), cloudFolder());
    // As after a completed first sync.
    record->setFirstSync(true);
    app.saveData();

    app.pcNameTextField()->setStringValue(QStringLiteral("my desk"));
    app.saveAction(); // same folder
    EXPECT_EQ(infomation(app)->firstSync(), std::optional<bool>(true));
    EXPECT_EQ(app.getConfigValueByKey(QStringLiteral("kKeyPCName")), QVariant(QStringLiteral("my desk")));

    const QString other = home() + QStringLiteral("/Elsewhere");
    app.didChooseSaveDir(other);
    EXPECT_EQ(app.getConfigValueByKey(QStringLiteral("kKeyPath")).toString(), cloudFolder()); // not yet saved
    app.saveAction();
    // Read back through a fresh context: it is stored, not only in memory.
    auto reader = app.getManagedObjectContextByThread();
    ASSERT_TRUE(reader);
    const InfomationPtr stored = DatabaseUtils::instance()->getInfomationWithManagedObjectContext(reader);
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->path(), other);
    EXPECT_EQ(stored->firstSync(), std::optional<bool>(false));
    EXPECT_EQ(app.getConfigValueByKey(QStringLiteral("kKeyPath")).toString(), other);

    // The next sign-in restores the saved folder.
    app.logout();
    QSignalSpy signedIn(&app, &AppDelegate::signedIn);
    CDLoginView *view = app.loginView();
    ASSERT_TRUE(view);
    view->domainTextField()->setStringValue(server->domain());
    view->useridTextField()->setStringValue(QStringLiteral("alice"));
    view->passwordTextField()->setStringValue(QStringLiteral("secret"));
    view->login();
    ASSERT_TRUE(TestUtil::waitFor([&] { return signedIn.count() == 1; }));
    EXPECT_EQ(app.pathTextField()->stringValue(), other);
}

TEST_F(AppFlow, ReloginKeepsTheCredentialsAndLogoutClearsThem)
{
    AppDelegate app;
    ASSERT_NO_FATAL_FAILURE(launchAndSignIn(app));
    app.onoffAction();
    ASSERT_TRUE(app.processWindowController());
    const QString session = app.getConfigValueByKey(QStringLiteral("kKeySESSTION")).toString();

    // Forced re-sign-in, asked from the engine's thread: signed out, then in again by itself, and
    // sync comes back on.
    QSignalSpy signedIn(&app, &AppDelegate::signedIn);
    QSignalSpy signedOut(&app, &AppDelegate::signedOut);
    std::thread([&] { app.relogin(); }).join();
    ASSERT_TRUE(TestUtil::waitFor([&] { return signedOut.count() == 1; }));
    EXPECT_TRUE(app.isRetry());
    ASSERT_TRUE(TestUtil::waitFor([&] { return signedIn.count() == 1; }));
    EXPECT_EQ(app.getConfigValueByKey(QStringLiteral("kKeyUseID")), QVariant(QStringLiteral("alice")));
    EXPECT_NE(app.getConfigValueByKey(QStringLiteral("kKeySESSTION")).toString(), session);
    EXPECT_TRUE(app.isRunning());
    EXPECT_TRUE(app.processWindowController());
    EXPECT_EQ(server->requestedCommands().count(QStringLiteral("LOGIN")), 2);

    // Sign-out: engine gone, credentials and automatic sync cleared, the sign-in view back, empty.
    app.startStatusBarAnimation();
    app.logout();
    EXPECT_FALSE(app.processWindowController());
    EXPECT_FALSE(app.isRunning());
    EXPECT_FALSE(app.isLogined());
    const QVariantMap config = app.config();
    EXPECT_FALSE(config.contains(QStringLiteral("kKeyUseID")));
    EXPECT_FALSE(config.contains(QStringLiteral("kKeyPassword")));
    EXPECT_FALSE(config.contains(QStringLiteral("kKeySESSTION")));
    EXPECT_EQ(config.value(QStringLiteral("kKeyAutoSync")), QVariant(false));
    ASSERT_TRUE(app.loginView());
    EXPECT_TRUE(app.loginView()->useridTextField()->stringValue().isEmpty());
    EXPECT_EQ(app.defaultButton(), app.loginView()->loginButton());
    EXPECT_EQ(app.loginMenuItem()->stringValue(), tr("login"));
    EXPECT_TRUE(app.settingView()->isHidden());
    EXPECT_TRUE(app.logoutButton()->isHidden());
    EXPECT_TRUE(app.logoutMenuItem()->isHidden());
    EXPECT_TRUE(app.logoutTrayMenuItem()->isHidden());
    EXPECT_FALSE(app.accountMenu()->isEnabled());
    for (ViewControl *item : {app.syncStartMenuItem(), app.syncStopMenuItem(), app.openSyncFolderMenuItem(),
                              app.checkUpdateMenuItem()})
        EXPECT_FALSE(item->isEnabled());
    EXPECT_FALSE(app.isStatusBarAnimating());
    EXPECT_EQ(app.statusBarImageName(), QStringLiteral("statusBarIcon.png"));
    // Signed out, the switch does nothing.
    app.onoffAction();
    EXPECT_FALSE(app.processWindowController());

    // A refused sign-in is reported with the view's text.
    QSignalSpy failed(&app, &AppDelegate::signInFailed);
    CDLoginView *view = app.loginView();
    view->domainTextField()->setStringValue(server->domain());
    view->useridTextField()->setStringValue(QStringLiteral("alice"));
    view->passwordTextField()->setStringValue(QStringLiteral("wrong"));
    view->login();
    ASSERT_TRUE(TestUtil::waitFor([&] { return failed.count() == 1; }));
    EXPECT_EQ(failed[0][0].value<CDLoginView::Failure>(), CDLoginView::Failure::Refused);
    EXPECT_EQ(failed[0][1].toString(), tr("login_error"));
}

TEST_F(AppFlow, NotificationsAreShownOnlyWhenSwitchedOn)
{
    AppDelegate app;
    app.applicationDidFinishLaunching(false);
    QSignalSpy shown(&app, &AppDelegate::notificationPosted);

    // From a worker thread: shown on the main thread, later.
    std::thread([&] {
        app.postNotificationWithTitle(QStringLiteral("Upload complete"), QStringLiteral("a.txt"));
    }).join();
    EXPECT_EQ(shown.count(), 0);
    ASSERT_TRUE(TestUtil::waitFor([&] { return shown.count() == 1; }));
    EXPECT_EQ(shown[0][0].toString(), QStringLiteral("Upload complete"));
    EXPECT_EQ(shown[0][1].toString(), QStringLiteral("a.txt"));

    // The preferences' button switches them off: nothing of any kind is shown.
    app.notificationCheckBox_change();
    EXPECT_EQ(app.getConfigValueByKey(QStringLiteral("kKeyNotification")), QVariant(false));
    EXPECT_EQ(app.notificationCheckBox()->imageName(), QStringLiteral("btn_on"));
    app.postNotificationWithTitle(QStringLiteral("t"), QStringLiteral("m"));
    std::thread([&] { app.postNotificationWithTitle(QStringLiteral("t"), QStringLiteral("m")); }).join();
    TestUtil::waitFor([] { return false; }, 100);
    EXPECT_EQ(shown.count(), 1);

    app.notificationCheckBox_change();
    app.postNotificationWithTitle(QStringLiteral("t"), QStringLiteral("m"));
    EXPECT_TRUE(TestUtil::waitFor([&] { return shown.count() == 2; }));
}

TEST_F(AppFlow, StatusIconCyclesTenFramesAndResumesWhereItStopped)
{
    AppDelegate app;
    QStringList shown;
    QObject::connect(&app, &AppDelegate::statusBarImageChanged, &app,
                     [&](const QString &name) { shown.append(name); });
    const auto frame = [](int n) { return QStringLiteral("sync_16_%1.png").arg(n, 2, 10, QLatin1Char('0')); };

    app.setIsRunning(true);
    app.startStatusBarAnimation();
    EXPECT_EQ(shown, QStringList{frame(1)}); // the first frame at once
    app.startStatusBarAnimation();           // already running: no second timer
    ASSERT_TRUE(TestUtil::waitFor([&] { return shown.size() >= 13; }));
    app.stopStatusBarAnimation();
    QStringList expected;
    for (int n = 1; n <= 10; ++n)
        expected << frame(n);
    expected << frame(1) << frame(2) << frame(3);
    EXPECT_EQ(shown.mid(0, 13), expected);
    EXPECT_EQ(shown.last(), QStringLiteral("statusBarIcon.png"));
    EXPECT_EQ(app.statusBarImageName(), QStringLiteral("statusBarIcon.png"));

    // The next start goes on from the frame after the last one shown.
    const QString lastFrame = shown.at(shown.size() - 2);
    const int next = lastFrame.mid(8, 2).toInt() % 10 + 1;
    shown.clear();
    app.startStatusBarAnimation();
    ASSERT_FALSE(shown.isEmpty());
    EXPECT_EQ(shown.first(), frame(next));

    // Sync stopped: the next tick puts the idle icon back and ends the animation.
    app.setIsRunning(false);
    ASSERT_TRUE(TestUtil::waitFor([&] { return !app.isStatusBarAnimating(); }));
    EXPECT_EQ(app.statusBarImageName(), QStringLiteral("statusBarIcon.png"));
}

TEST_F(AppFlow, ShortcutButtonFollowsWhatTheDesktopHolds)
{
    const QString desktop = home() + QStringLiteral("/Schreibtisch");
    ASSERT_TRUE(TestUtil::writeFile(configDir.path() + QStringLiteral("/user-dirs.dirs"),
                                    QStringLiteral("XDG_DESKTOP_DIR=\"%1\"\n").arg(desktop).toUtf8()));
    ASSERT_EQ(AppDelegate::desktopFolder(), desktop);
    const QString folder = home() + QStringLiteral("/Sync Folder");
    const QString link = desktop + QStringLiteral("/Sync Folder");
    ASSERT_TRUE(QDir().mkpath(folder));

    AppDelegate app;
    app.loadConfig();
    app.setConfigValue(folder, QStringLiteral("kKeyPath"));
    ViewControl *button = app.addShortcut();

    // Nothing there (no desktop folder at all): the button offers the link; the link is made.
    button->setEnabled(false);
    app.checkShortcut(folder);
    EXPECT_TRUE(button->isEnabled());
    app.addShortcutAction();
    EXPECT_FALSE(button->isEnabled());
    ASSERT_TRUE(TestUtil::waitFor([&] { return QFileInfo(link).isSymLink(); }));
    EXPECT_EQ(QFileInfo(link).symLinkTarget(), folder);
    app.checkShortcut(folder + u'/');
    EXPECT_FALSE(button->isEnabled());

    // A link under that name to another place: offered again.
    ASSERT_TRUE(QFile::remove(link));
    ASSERT_TRUE(QFile::link(home(), link));
    app.checkShortcut(folder);
    EXPECT_TRUE(button->isEnabled());

    // Something of the user's under that name: the button is left as it is.
    ASSERT_TRUE(QFile::remove(link));
    ASSERT_TRUE(QDir().mkpath(link));
    for (const bool state : {false, true}) {
        button->setEnabled(state);
        app.checkShortcut(folder);
        EXPECT_EQ(button->isEnabled(), state);
    }
}

TEST_F(AppFlow, PreferencesRegisterTheLoginItemTheFirstTime)
{
    AppDelegate app;
    app.loadConfig();
    app.setConfigValue(false, QStringLiteral("kKeyAutoStart"));
    ASSERT_FALSE(AppDelegate::startAtLogin());
    QSignalSpy shown(&app, &AppDelegate::preferencesRequested);

    app.showPreferences();
    EXPECT_TRUE(AppDelegate::startAtLogin());
    EXPECT_EQ(app.getConfigValueByKey(QStringLiteral("kKeyStartup")), QVariant(true));
    EXPECT_TRUE(app.startWithSystem()->isChecked());
    EXPECT_FALSE(app.autoStartCheckBox()->isChecked());
    EXPECT_FALSE(app.preferencesPanel()->isHidden());
    EXPECT_EQ(shown.count(), 1);

    app.startWithSystem()->setChecked(false);
    app.startWithSystem_valueChange();
    EXPECT_FALSE(AppDelegate::startAtLogin());
    EXPECT_EQ(app.getConfigValueByKey(QStringLiteral("kKeyStartup")), QVariant(false));
    app.showPreferences(); // no longer the first time: stays off
    EXPECT_FALSE(AppDelegate::startAtLogin());
    EXPECT_FALSE(app.startWithSystem()->isChecked());

    app.autoStartCheckBox()->setChecked(true);
    app.autoStartCheckBox_valueChange();
    AppDelegate reread;
    reread.loadConfig();
    EXPECT_EQ(reread.getConfigValueByKey(QStringLiteral("kKeyAutoStart")), QVariant(true));
}

namespace {

// path -> MD5 ("" for a folder), relative to `root`.
using Listing = QMap<QString, QString>;

Listing localListing(const QString &root)
{
    Listing listing;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        listing.insert(path.mid(root.size() + 1),
                       it.fileInfo().isDir() ? QString() : UploadFile::getMD5OfFileAtPath(path));
    }
    return listing;
}

Listing serverListing(FerrovaneServer &server, const QString &user)
{
    Listing listing;
    for (const TreeEntry &entry : server.tree(user))
        listing.insert(entry.path, entry.folder ? QString() : entry.md5);
    return listing;
}

// The catalogue of `user` on this computer, read from its store file.
Listing storeListing(const QString &user, const QString &root, int *tasks = nullptr)
{
    Listing listing;
    const auto coordinator = PersistentStoreCoordinator::create(
        AppDelegate::applicationFilesDirectory() + QStringLiteral("/Tarnwick_%1.storedata").arg(user));
    const auto context = coordinator ? ManagedObjectContext::create(coordinator) : nullptr;
    if (!context)
        return listing;
    for (const DirectoryPtr &row : context->fetch<Directory>())
        listing.insert(row->path().mid(root.size() + 1), QString());
    for (const FilePtr &row : context->fetch<File>())
        listing.insert(row->path().mid(root.size() + 1), row->md5());
    if (tasks)
        *tasks = int(context->fetch<Task>().size());
    return listing;
}

// Every catalogued item is on disk as catalogued (what was cut short is simply not there yet).
bool catalogueHoldsOnlyWhatIsOnDisk(const QString &user, const QString &root)
{
    const Listing local = localListing(root);
    const Listing known = storeListing(user, root);
    for (auto it = known.cbegin(); it != known.cend(); ++it) {
        if (!local.contains(it.key()) || (!it.value().isEmpty() && local.value(it.key()) != it.value()))
            return false;
    }
    return true;
}

} // namespace

TEST_F(AppFlow, SwitchingOffAndSigningOutMidSyncAndAnotherUserLeaveEachStoreConsistent)
{
    ASSERT_TRUE(server->addUser(QStringLiteral("bob"), QStringLiteral("pw")));
    for (int i = 0; i < 24; ++i)
        ASSERT_FALSE(server
                         ->putFile(QStringLiteral("alice"), QStringLiteral("many/f%1.txt").arg(i),
                                   QByteArray::number(i).repeated(50))
                         .isEmpty());
    ASSERT_FALSE(server->putFile(QStringLiteral("bob"), QStringLiteral("bob.txt"), "bob's").isEmpty());
    AppDelegate app;
    ASSERT_NO_FATAL_FAILURE(launchAndSignIn(app));
    const auto inStep = [&](const QString &user, const QString &root) {
        int tasks = -1;
        const Listing known = storeListing(user, root, &tasks);
        const Listing onServer = serverListing(server.server(), user);
        return tasks == 0 && localListing(root) == onServer && known == onServer;
    };
    const auto downloaded = [&] { return localListing(cloudFolder()).size(); };

    // Off in the middle of the first sync (downloads slowed down), then on again.
    server->delayReplies(QStringLiteral("DOWNLOAD"), 100, 1000);
    app.onoffAction();
    ASSERT_TRUE(TestUtil::waitFor([&] { return downloaded() >= 6; }));
    app.onoffAction();
    ASSERT_FALSE(app.processWindowController());
    EXPECT_LT(downloaded(), 25);
    EXPECT_TRUE(catalogueHoldsOnlyWhatIsOnDisk(QStringLiteral("alice"), cloudFolder()));
    app.onoffAction();
    ASSERT_TRUE(TestUtil::waitFor([&] { return inStep(QStringLiteral("alice"), cloudFolder()); }, 60000));

    // Signed out in the middle of a work-list pass: nothing of alice's is asked for afterwards.
    for (int i = 0; i < 12; ++i)
        ASSERT_FALSE(server->putFile(QStringLiteral("alice"), QStringLiteral("later/g%1.txt").arg(i), "later")
                         .isEmpty());
    ASSERT_TRUE(
        TestUtil::waitFor([&] { return QFileInfo::exists(cloudFolder() + QStringLiteral("/later")); }));
    const QString aliceSession = app.getConfigValueByKey(QStringLiteral("kKeySESSTION")).toString();
    app.logout();
    EXPECT_FALSE(app.processWindowController());
    const qsizetype requestsThen = server->requestLog().size();
    EXPECT_TRUE(catalogueHoldsOnlyWhatIsOnDisk(QStringLiteral("alice"), cloudFolder()));
    const Listing aliceKnown = storeListing(QStringLiteral("alice"), cloudFolder());
    server->clearFaults();

    // Bob on the same computer, with a folder of his own.
    QSignalSpy signedIn(&app, &AppDelegate::signedIn);
    CDLoginView *view = app.loginView();
    ASSERT_TRUE(view);
    view->domainTextField()->setStringValue(server->domain());
    view->useridTextField()->setStringValue(QStringLiteral("bob"));
    view->passwordTextField()->setStringValue(QStringLiteral("pw"));
    view->login();
    ASSERT_TRUE(TestUtil::waitFor([&] { return signedIn.count() == 1; }));
    const QString bobFolder = home() + QStringLiteral("/Bob");
    app.didChooseSaveDir(bobFolder);
    app.saveAction();
    app.onoffAction();
    ASSERT_TRUE(TestUtil::waitFor([&] { return inStep(QStringLiteral("bob"), bobFolder); }, 60000))
        << qPrintable(QStringList(localListing(bobFolder).keys()).join(u' ')) << " | "
        << qPrintable(QStringList(storeListing(QStringLiteral("bob"), bobFolder).keys()).join(u' ')) << " | "
        << qPrintable(QStringList(serverListing(server.server(), QStringLiteral("bob")).keys()).join(u' '));
    app.onoffAction();

    EXPECT_EQ(storeListing(QStringLiteral("alice"), cloudFolder()), aliceKnown);
    EXPECT_FALSE(serverListing(server.server(), QStringLiteral("bob")).contains(QStringLiteral("many")));
    const QList<RequestLogEntry> requests = server->requestLog();
    for (qsizetype i = requestsThen; i < requests.size(); ++i)
        EXPECT_FALSE(requests[i].body.contains(aliceSession.toUtf8()) ||
                     requests[i].target.contains(aliceSession))
            << qPrintable(requests[i].command);
}
