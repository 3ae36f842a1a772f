#pragma once
// The application's spine: settings ("config.plist"), the application-files folder, the catalogue's
// store stack (coordinator, main context, per-thread contexts), the sign-in state flags and the
// launch steps that need no widgets. Implements AppServices for the lower layers.
//
// Threading: lives on the main thread ("Application thread"). The settings may be read and written
// from any thread (guarded). managedObjectContext() is the main thread's; any other thread takes its
// own from getManagedObjectContextByThread(). saveData() waits for the main thread when called
// elsewhere.
//
// What the user should see (store errors, notifications, the status-icon animation, a forced
// re-sign-in) is announced through signals; the widget shell or the headless client shows it.

#include "catalogue/ManagedObjectContext.h"
#include "catalogue/PersistentStoreCoordinator.h"
#include "util/AppServices.h"
#include "util/FvError.h"

#include <QMutex>
#include <QObject>
#include <QVariantMap>
#include <memory>

class AppDelegate final : public QObject, public AppServices
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(AppDelegate)

public:
    static QString bundleIdentifier() { return QStringLiteral("com.velmora.Ferrovane"); }
    static QString errorDomain() { return QStringLiteral("YOUR_ERROR_DOMAIN"); }

    explicit AppDelegate(QObject *parent = nullptr);
    ~AppDelegate() override;

    // The launch steps that need no widgets, in order: name the main thread, load the string table
    // and follow locale changes (each reloads it and emits languageChanged), loadConfig, write the
    // host name into "kKeyPCName", register (or unregister) the login item from "kKeyAutoStart".
    // Also arranges for applicationWillTerminate() to run when the event loop ends.
    void applicationDidFinishLaunching();
    // Quit: tells the watcher daemon to stop listening.
    void applicationWillTerminate();

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

    // --- State flags ---
    bool isLogined() const override { return m_isLogined; }
    void setIsLogined(bool logined) override { m_isLogined = logined; }
    bool isRunning() const { return m_isRunning; }
    void setIsRunning(bool running) { m_isRunning = running; }
    bool isRetry() const { return m_isRetry; }
    void setIsRetry(bool retry) { m_isRetry = retry; }
    // Kept for its place in the settings logic; never true on this platform.
    bool is10_8() const { return false; }

    // --- Store stack ---
    // Built on first use and kept for the process (the store file is named after "kKeyUseID" at that
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

    void postNotificationWithTitle(const QString &title, const QString &message) override;
    void startStatusBarAnimation() override;
    void stopStatusBarAnimation() override;
    void relogin() override;

signals:
    // The string table was reloaded for a new locale: every control is to be labelled again.
    void languageChanged();
    void errorPresented(const FvError &error);
    void notificationPosted(const QString &title, const QString &message);
    void statusBarAnimationChanged(bool running);
    void reloginRequested();

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    FvError storeError() const;

    mutable QMutex m_configLock;
    QVariantMap m_config;

    QMutex m_storeLock;
    std::shared_ptr<PersistentStoreCoordinator> m_persistentStoreCoordinator;
    std::shared_ptr<ManagedObjectContext> m_managedObjectContext;

    bool m_isLogined = false;
    bool m_isRunning = false;
    bool m_isRetry = false;
};
