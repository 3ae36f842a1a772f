#pragma once
// The application's services that every subsystem may reach: settings, catalogue contexts and save,
// user notifications, the status-icon animation and a forced re-sign-in. Implemented by AppDelegate
// (src/app); lower layers see only this interface. Tests install a fake with setShared().
//
// Threading: the settings and managedObjectContext() belong to the main thread;
// getManagedObjectContextByThread() may be called from any thread and gives a context for that
// thread only. The other calls may come from any thread; implementations marshal to the main thread.

#include <QString>
#include <QVariant>

#include <memory>

class ManagedObjectContext;

class AppServices
{
public:
    virtual ~AppServices() = default;

    // Settings ("config.plist").
    virtual QVariant getConfigValueByKey(const QString &key) const = 0;
    // A null QVariant removes the key. Writes the file.
    virtual void setConfigValue(const QVariant &value, const QString &key) = 0;
    virtual void saveConfig() = 0;
    virtual void clearAccountInfomation() = 0;

    // Sign-in state.
    virtual bool isLogined() const = 0;
    virtual void setIsLogined(bool logined) = 0;

    // Catalogue contexts. Either may be null when the store cannot be built or no user signed in.
    virtual std::shared_ptr<ManagedObjectContext> managedObjectContext() = 0;
    virtual std::shared_ptr<ManagedObjectContext> getManagedObjectContextByThread() = 0;
    virtual void saveData() = 0;

    virtual void postNotificationWithTitle(const QString &title, const QString &message) = 0;
    virtual void startStatusBarAnimation() = 0;
    virtual void stopStatusBarAnimation() = 0;
    virtual void relogin() = 0;

    // The process's services object (not owned). Null until the application installs one.
    static AppServices *shared();
    static void setShared(AppServices *services);
};
