#pragma once
// The application's spine: settings ("config.plist"), the application-files folder, the catalogue's
// store stack (coordinator, main context, per-thread contexts), and the whole sign-in and sync flow:
// launch, sign-in, switching sync on and off (it owns the sync engine while sync runs), the sync
// folder, sign-out, forced re-sign-in and quit. Implements AppServices for the lower layers.
//
// It holds no widgets. Every control of the main window, the settings view, the status menu, the
// dock menu and the preferences panel is a ViewControl here (a menu item is enabled while it has its
// action); what is not a control (bring a window to the front, open a folder, the status icon's
// image) is announced by a signal. The widget shell and the headless client show this state and
// forward clicks to the actions below.
//
// Source files by concern: AppDelegate.cpp (launch, quit, settings, login item),
// AppDelegateStore.cpp (store stack), AppDelegateFlow.cpp (sign-in, sync switch, folder, sign-out),
// AppDelegateStatusMenu.cpp (labels, menus, preferences, status icon, notifications).
//
// Threading: lives on the main thread ("Application thread"); every action and control belongs to
// it. The settings may be read and written from any thread (guarded). managedObjectContext() is the
// main thread's; any other thread takes its own from getManagedObjectContextByThread(). saveData()
// waits for the main thread when called elsewhere. postNotificationWithTitle(), the status-icon
// animation requests and relogin() may be called from any thread: they are queued to the main one.

#include "app/AccountView.h"
#include "app/CDLoginView.h"
#include "app/ViewControl.h"
#include "catalogue/ManagedObjectContext.h"
#include "catalogue/PersistentStoreCoordinator.h"
#include "sync/ProcessWindowController.h"
#include "util/AppServices.h"
#include "util/FvError.h"

#include <QMutex>
#include <QObject>
#include <QVariantMap>
#include <memory>

class QTimer;

class AppDelegate final : public QObject, public AppServices, public CDLoginViewDelegate
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(AppDelegate)

public:
    static QString bundleIdentifier() { return QStringLiteral("com.velmora.Ferrovane"); }
    static QString errorDomain() { return QStringLiteral("YOUR_ERROR_DOMAIN"); }
    // Status icon images.
    static QString idleImageName() { return QStringLiteral("statusBarIcon.png"); }
    // "sync_16_%02d.png" for frames 1 to 10; the idle image for 0.
    static QString animationFrameName(int frame);

    explicit AppDelegate(QObject *parent = nullptr);
    // Ends a running engine (disconnect) before it goes.
    ~AppDelegate() override;

    // --- Launch and quit ---
    // The launch sequence: becomes the process's services, observes the daemon's test notification,
    // names the main thread, loads the string table and labels every control (again at every locale
    // change), shows the idle status image, loadConfig, writes the host name into "kKeyPCName",
    // asks for the log window (logWindowNeeded), registers or unregisters the login item from
    // "kKeyAutoStart", makes the sign-in view and, when the settings hold a user id and a password
    // and `signInWithStoredCredentials` is true, signs in at once through it; then makes the account
    // view. Also arranges for applicationWillTerminate() to run when the event loop ends.
    void applicationDidFinishLaunching(bool signInWithStoredCredentials = true);
    // Quit: a running engine is disconnected and dropped, and the watcher daemon is told to stop
    // ("com.velmora.FerrovaneDemon_stopListener", no object). Safe to call more than once.
    void applicationWillTerminate();
    // Termination is always allowed at once.
    bool applicationShouldTerminate() const { return true; }
    // A re-open request (dock or launcher): brings the main window up when none is visible.
    bool applicationShouldHandleReopen(bool hasVisibleWindows);
    // Handler of the daemon's test notification: does nothing.
    void readDemon(const QString &name, const QString &object);

    // --- Settings ---
    // Reads "config.plist". A missing or unreadable file is replaced by a fresh one holding only
    // "kKeyNotification" = true; an unreadable one is first kept beside it as "config.plist.broken".
    void loadConfig();
    QVariant getConfigValueByKey(const QString &key) const override;
    void setConfigValue(const QVariant &value, const QString &key) override;
    void saveConfig() override;
    // Removes "kKeyUseID", "kKeyPassword" and "kKeySESSTION" and writes the file.
    void clearAccountInfomation() override;
    QVariantMap config() const;

    // $XDG_DATA_HOME (default ~/.local/share) joined with the bundle identifier.
    static QString applicationFilesDirectory();
    static QString configPath();
    // $XDG_CONFIG_HOME (default ~/.config)/autostart/<bundle identifier>.desktop
    static QString loginItemPath();
    // Writes or removes the autostart entry; false when it could not be done.
    static bool setLoginItemEnabled(bool enabled);
    // The login item: whether the autostart entry is there; setting it writes or removes it.
    static bool startAtLogin();
    void setStartAtLogin(bool enabled);

    // --- State flags ---
    bool isLogined() const override { return m_isLogined; }
    void setIsLogined(bool logined) override { m_isLogined = logined; }
    bool isRunning() const { return m_isRunning; }
    void setIsRunning(bool running) { m_isRunning = running; }
    bool isRetry() const { return m_isRetry; }
    void setIsRetry(bool retry) { m_isRetry = retry; }
    // Kept for its place in the settings logic; never true on this platform.
    bool is10_8() const { return false; }

    // --- Owned objects ---
    // The sync engine; exists only while sync runs.
    ProcessWindowController *processWindowController() const { return m_processWindowController.get(); }
    // The sign-in view; exists only while signed out.
    CDLoginView *loginView() const { return m_loginView.get(); }
    // The account panel shown in the account menu; made at launch.
    AccountView *accountView() const { return m_accountView.get(); }

    // --- Store stack ---
    // Built on first use and kept until sign-out (the store file is named after "kKeyUseID" at that
    // moment). Null, with the error presented, when the folder or the store cannot be used; the next
    // call tries again.
    std::shared_ptr<PersistentStoreCoordinator> persistentStoreCoordinator();
    // The main thread's context; null before sign-in, and null (error 9999 presented) without a store.
    std::shared_ptr<ManagedObjectContext> managedObjectContext() override;
    // A new context for the calling thread on every call; null (error 9999 presented) without a store.
    std::shared_ptr<ManagedObjectContext> getManagedObjectContextByThread() override;
    // Saves the main context; a failure is presented.
    void saveData() override;
    void deleteManagedObject(const ManagedObjectPtr &object);
    // A diagnostic line, and errorPresented for whoever shows errors to the user.
    void presentError(const FvError &error);

    // --- The sign-in and sync flow ---
    // The sign-in view's success: drops the view, fills the settings view (PC name, account, sync
    // folder from the account's Infomation record or ~/CloudFolder with automatic sync off), and
    // switches sync on when "kKeyAutoSync" is true.
    void didLoginSuccessful(CDLoginView *view) override;
    // The on/off switch (also the start and stop menu items): inverts isRunning; on saves the
    // settings and creates the engine, off disconnects and drops it. Either way "kKeyAutoSync"
    // becomes true: once the switch was used, sync starts after every later sign-in; only sign-out
    // sets it back to false. Does not switch on while signed out or once quitting.
    void onoffAction();
    // The off branch of the switch, whatever the state; leaves "kKeyAutoSync" alone.
    void stopSync();
    // The settings view's save: the PC name, then the sync folder from the path field (a changed
    // folder makes the next start a full first synchronisation).
    void saveAction();
    void saveActionMainThread();
    // Enables the add-shortcut button when the desktop has nothing under the folder's name, or a
    // link to another place; leaves it alone when something else is there.
    void checkShortcut(const QString &folder);
    // Links the sync folder into the desktop folder ("/bin/ln -s", not waited for) and disables
    // the button.
    void addShortcutAction();
    // Sign-out: sync off, credentials and session cleared, automatic sync off, sign-in view back.
    void logout();
    // Forced re-sign-in (the engine's session was refused): as sign-out but the credentials are
    // kept, then the sign-in view signs in again with them.
    void relogin() override;
    // The desktop folder the shortcut goes into (the user's XDG desktop folder).
    static QString desktopFolder();

    // --- Menu, button and window actions ---
    void pressedSyncStart();
    void pressedSyncStop();
    void pressedOpenSyncFolder();
    void checkUpdate();
    void logViewMenuItem_touch();
    void clearLogMenuItem_touch();
    void loginMenuItem_touch();
    void showMainWindow();
    void showPreferences();
    // The search button: asks for a directory chooser; didChooseSaveDir() takes its answer into the
    // path field (nothing is saved until the save button).
    void choiceSaveDir();
    void didChooseSaveDir(const QString &path);
    void notificationCheckBox_change();
    // The check boxes' actions read the state the widget gave their controls.
    void autoStartCheckBox_valueChange();
    void startWithSystem_valueChange();
    // The main window became the key window.
    void windowDidBecomeMain();

    // --- Labels and looks ---
    // Labels every control from the string table.
    void setTileForComponent();
    // true: the search button, PC-name field, save button and start-with-system check box disabled
    // and the account menu item enabled; false the other way round.
    void disableComponent(bool disable);
    // The notification button offers what a click does: the "off" look while notifications are on.
    void changeNotificationButton(bool enabled);

    // --- Status icon ---
    QString statusBarImageName() const { return m_statusBarImageName; }
    void changeIconWithImageName(const QString &name);
    // Starts the 0.1-second frame timer (and shows a frame at once) unless it runs.
    void startStatusBarAnimation() override;
    // One tick: the next frame while sync runs, else the animation stops.
    void startStatusBarAnimationThread();
    // Stops the timer and shows the idle image.
    void stopStatusBarAnimation() override;
    bool isStatusBarAnimating() const;
    // The frame the next tick shows (1 to 10); kept across stops.
    int statusBarFrame() const { return m_statusBarFrame; }

    // --- Notifications ---
    // Nothing when "kKeyNotification" is false; otherwise handed to the main thread (not waited for),
    // which announces it with notificationPosted.
    void postNotificationWithTitle(const QString &title, const QString &message) override;
    void postNotificationOnMainThreadWithInfo(const QString &title, const QString &message);
    bool notificationsEnabled() const;

    // --- Controls ---
    // Settings view and main window.
    ViewControl *settingView() { return &m_settingView; }
    ViewControl *pcNameLabel() { return &m_pcNameLabel; }
    ViewControl *pcNameTextField() { return &m_pcNameTextField; }
    ViewControl *folderLabel() { return &m_folderLabel; }
    ViewControl *pathTextField() { return &m_pathTextField; }
    ViewControl *searchButton() { return &m_searchButton; }
    ViewControl *executeLabel() { return &m_executeLabel; }
    ViewControl *syncLabel() { return &m_syncLabel; }
    ViewControl *onoffButton() { return &m_onoffButton; }
    ViewControl *statusTextField() { return &m_statusTextField; }
    ViewControl *saveButton() { return &m_saveButton; }
    ViewControl *cancelButton() { return &m_cancelButton; }
    ViewControl *shortcut() { return &m_shortcut; }
    ViewControl *addShortcut() { return &m_addShortcut; }
    ViewControl *idTitleLabel() { return &m_idTitleLabel; }
    ViewControl *idLabel() { return &m_idLabel; }
    ViewControl *logoutButton() { return &m_logoutButton; }
    ViewControl *startWithSystem() { return &m_startWithSystem; }
    // Status menu and dock menu.
    ViewControl *loginMenuItem() { return &m_loginMenuItem; }
    ViewControl *logoutMenuItem() { return &m_logoutMenuItem; }
    ViewControl *logoutTrayMenuItem() { return &m_logoutTrayMenuItem; }
    ViewControl *accountMenu() { return &m_accountMenu; }
    ViewControl *accountInfomationMenu() { return &m_accountInfomationMenu; }
    ViewControl *logMenuItem() { return &m_logMenuItem; }
    ViewControl *clearLogMenuItem() { return &m_clearLogMenuItem; }
    ViewControl *preferencesMenuItem() { return &m_preferencesMenuItem; }
    ViewControl *syncStartMenuItem() { return &m_syncStartMenuItem; }
    ViewControl *syncStopMenuItem() { return &m_syncStopMenuItem; }
    ViewControl *openSyncFolderMenuItem() { return &m_openSyncFolderMenuItem; }
    ViewControl *checkUpdateMenuItem() { return &m_checkUpdateMenuItem; }
    ViewControl *quitMenuItem() { return &m_quitMenuItem; }
    // Preferences panel.
    ViewControl *preferencesPanel() { return &m_preferencesPanel; }
    ViewControl *autoStartCheckBox() { return &m_autoStartCheckBox; }
    ViewControl *notificationCheckBox() { return &m_notificationCheckBox; }
    // The window's default button (the sign-in view's login button or the save button).
    ViewControl *defaultButton() const { return m_defaultButton; }

signals:
    // The string table was reloaded for a new locale and every control relabelled.
    void languageChanged();
    void errorPresented(const FvError &error);
    // A notification the user allowed, on the main thread.
    void notificationPosted(const QString &title, const QString &message);
    void statusBarImageChanged(const QString &name);
    // The sign-in view was made (shown in the main window) or dropped (null).
    void loginViewChanged(CDLoginView *view);
    // A sign-in attempt failed; `message` is what the sign-in view shows.
    void signInFailed(CDLoginView::Failure failure, const QString &message);
    // Signed in and the settings view filled; sent before sync is switched on automatically.
    void signedIn();
    // Signed out (sign-out or forced re-sign-in).
    void signedOut();
    // The engine was made (sync on) or dropped (null).
    void processWindowControllerChanged(ProcessWindowController *controller);
    void defaultButtonChanged(ViewControl *button);
    // Window requests.
    void mainWindowRequested();
    void preferencesRequested();
    void logWindowRequested();
    void chooseDirectoryRequested(const QString &currentPath);
    void openFolderRequested(const QString &path);
    // Hooks for the parts built beside this class: the log window is made at launch; the update
    // checker at sign-in with the account's domain; the check-update item runs it; the clear-log
    // item tells the log window.
    void logWindowNeeded();
    void updateCheckerNeeded(const QString &domain);
    void checkUpdateRequested();
    void clearLogRequested();

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    // Creates the folder (and its parents) with mode 0700.
    static bool makePrivateFolder(const QString &path);
    FvError storeError() const;
    // Lets go of the store stack (main context and coordinator): the next sign-in opens the store
    // named after its own user id.
    void closeStore();
    void makeLoginView();
    void dropLoginView();
    void setDefaultButton(ViewControl *button);
    // The button looks of the on/off and notification buttons: "on" offers to switch on.
    static void setOnLook(ViewControl *button);
    static void setOffLook(ViewControl *button);
    void switchOn();
    void switchOff();
    void endProcessWindowController();
    // Stops the catalogue's executor timer, if any, and destroys the catalogue's shared instance.
    static void stopCatalogueTimer();
    // The control changes shared by sign-out and forced re-sign-in.
    void showSignedOut();

    mutable QMutex m_configLock;
    QVariantMap m_config;

    QMutex m_storeLock;
    std::shared_ptr<PersistentStoreCoordinator> m_persistentStoreCoordinator;
    std::shared_ptr<ManagedObjectContext> m_managedObjectContext;

    bool m_isLogined = false;
    bool m_isRunning = false;
    bool m_isRetry = false;
    bool m_terminated = false;

    std::unique_ptr<ProcessWindowController> m_processWindowController;
    std::unique_ptr<CDLoginView> m_loginView;
    std::unique_ptr<AccountView> m_accountView;

    QTimer *m_statusBarAnimationTimer = nullptr; // child of this while it exists
    int m_statusBarFrame = 1;
    QString m_statusBarImageName;

    ViewControl m_settingView;
    ViewControl m_pcNameLabel;
    ViewControl m_pcNameTextField;
    ViewControl m_folderLabel;
    ViewControl m_pathTextField;
    ViewControl m_searchButton;
    ViewControl m_executeLabel;
    ViewControl m_syncLabel;
    ViewControl m_onoffButton;
    ViewControl m_statusTextField;
    ViewControl m_saveButton;
    ViewControl m_cancelButton;
    ViewControl m_shortcut;
    ViewControl m_addShortcut;
    ViewControl m_idTitleLabel;
    ViewControl m_idLabel;
    ViewControl m_logoutButton;
    ViewControl m_startWithSystem;
    ViewControl m_loginMenuItem;
    ViewControl m_logoutMenuItem;
    ViewControl m_logoutTrayMenuItem;
    ViewControl m_accountMenu;
    ViewControl m_accountInfomationMenu;
    ViewControl m_logMenuItem;
    ViewControl m_clearLogMenuItem;
    ViewControl m_preferencesMenuItem;
    ViewControl m_syncStartMenuItem;
    ViewControl m_syncStopMenuItem;
    ViewControl m_openSyncFolderMenuItem;
    ViewControl m_checkUpdateMenuItem;
    ViewControl m_quitMenuItem;
    ViewControl m_preferencesPanel;
    ViewControl m_autoStartCheckBox;
    ViewControl m_notificationCheckBox;
    ViewControl *m_defaultButton = nullptr;
};
