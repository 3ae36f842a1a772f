#pragma once
// Test support for the catalogue operations and the task executor: application services backed
// by a real store in a temporary folder, a local server with a signed-in account, a sync worker
// thread, and whole-tree snapshots of the server, the sync folder and the catalogue.

#include "catalogue/DatabaseUtils.h"
#include "catalogue/ManagedObjectContext.h"
#include "catalogue/PersistentStoreCoordinator.h"
#include "common/TestServer.h"
#include "common/TestUtil.h"
#include "server/FerrovaneServer.h"
#include "util/AppServices.h"
#include "util/LogObject.h"

#include <QHash>
#include <QMap>
#include <QMutex>
#include <QStringList>
#include <QTemporaryDir>
#include <QThread>
#include <QVariantMap>
#include <atomic>
#include <functional>
#include <memory>

// Settings in memory; contexts from a real store, one per thread.
class FakeServices final : public AppServices
{
public:
    explicit FakeServices(std::shared_ptr<PersistentStoreCoordinator> coordinator);
    ~FakeServices() override;

    QVariant getConfigValueByKey(const QString &key) const override;
    void setConfigValue(const QVariant &value, const QString &key) override;
    void saveConfig() override {}
    void clearAccountInfomation() override {}
    bool isLogined() const override { return true; }
    void setIsLogined(bool) override {}
    std::shared_ptr<ManagedObjectContext> managedObjectContext() override;
    std::shared_ptr<ManagedObjectContext> getManagedObjectContextByThread() override;
    void saveData() override;
    void postNotificationWithTitle(const QString &title, const QString &message) override;
    void startStatusBarAnimation() override { ++animationStarts; }
    void stopStatusBarAnimation() override { ++animationStops; }
    void relogin() override {}

    // Drops the calling thread's context (call on that thread before it ends).
    void releaseThreadContext();
    QStringList notifications() const;

    std::atomic<int> animationStarts{0};
    std::atomic<int> animationStops{0};

private:
    mutable QMutex m_lock;
    QVariantMap m_config;
    std::shared_ptr<PersistentStoreCoordinator> m_coordinator;
    std::shared_ptr<ManagedObjectContext> m_main;
    QHash<QThread *, std::shared_ptr<ManagedObjectContext>> m_threadContexts;
    QStringList m_notifications;
};

// Collects activity-log notifications ("kKeyLogNotification") posted from any thread.
class ActivityLog
{
public:
    ActivityLog();
    ~ActivityLog();
    struct Entry
    {
        bool fromServer = false;
        LogObject log; // when the entry is a LogObject
        QString text;  // when it is a plain line
    };
    QList<Entry> entries() const;
    QList<LogObject> logObjects() const;
    QStringList texts() const;

private:
    std::unique_ptr<QObject> m_receiver;
    mutable QMutex m_lock;
    QList<Entry> m_entries;
};

// A local server with one account ("bob"), signed in: session, zone and sync-root key.
class ServerHarness
{
public:
    ServerHarness();
    ~ServerHarness();
    bool ok() const { return m_ok; }
    FerrovaneServer &server() { return m_server.server(); }
    QString session;
    QString timezone;
    QString rootKey;
    static QString user() { return QStringLiteral("bob"); }

private:
    TestServer m_server;
    bool m_ok = false;
};

// One entry of a whole-tree snapshot, keyed by path relative to the sync folder.
struct TreeItem
{
    bool folder = false;
    QString md5; // empty for folders
    QString key; // empty for the local tree
    bool operator==(const TreeItem &other) const = default;
};
using Tree = QMap<QString, TreeItem>;
std::ostream &operator<<(std::ostream &out, const Tree &tree);

Tree serverTree(FerrovaneServer &server, const QString &user, bool withKeys = true);
Tree localTree(const QString &root);
Tree catalogueTree(ManagedObjectContext &context, const QString &root, bool withKeys = true);

// A worker thread ("Main thread") with its own catalogue context, set as the executor's.
class SyncWorker
{
public:
    explicit SyncWorker(FakeServices &services);
    ~SyncWorker();
    // Runs `job` on the worker while this thread spins its event loop; false on time-out.
    bool run(const std::function<void()> &job, int timeoutMs = 30000);
    // Posts `job` without waiting.
    void post(const std::function<void()> &job);
    QThread *thread() const { return m_thread; }
    std::shared_ptr<ManagedObjectContext> context() const { return m_context; }

private:
    FakeServices &m_services;
    QThread *m_thread = nullptr;
    QObject *m_receiver = nullptr;
    std::shared_ptr<ManagedObjectContext> m_context;
};

// Sets a file's or folder's modification date (seconds since the epoch).
bool setMTime(const QString &path, const QDateTime &date);
