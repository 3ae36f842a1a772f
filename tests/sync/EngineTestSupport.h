#pragma once
// Test support for the sync engine: application services over a real store (a fresh context for
// every thread that asks, as the application gives them), a signed-in local server with the account
// record and settings wired in, a running ProcessWindowController, and whole-state checks
// (server tree with MD5s == sync folder == catalogue).

#include "CatalogueTestSupport.h"
#include "common/FileTestSupport.h"
#include "sync/ProcessWindowController.h"
#include "util/AppServices.h"

#include <QMutex>
#include <QObject>
#include <QStringList>
#include <QTemporaryDir>
#include <atomic>
#include <gtest/gtest.h>
#include <memory>

class EngineServices final : public AppServices
{
public:
    explicit EngineServices(std::shared_ptr<PersistentStoreCoordinator> coordinator);

    QVariant getConfigValueByKey(const QString &key) const override;
    void setConfigValue(const QVariant &value, const QString &key) override;
    void saveConfig() override {}
    void clearAccountInfomation() override {}
    bool isLogined() const override { return true; }
    void setIsLogined(bool) override {}
    std::shared_ptr<ManagedObjectContext> managedObjectContext() override { return m_main; }
    std::shared_ptr<ManagedObjectContext> getManagedObjectContextByThread() override;
    void saveData() override;
    void postNotificationWithTitle(const QString &title, const QString &message) override;
    void startStatusBarAnimation() override { ++animationStarts; }
    void stopStatusBarAnimation() override { ++animationStops; }
    void relogin() override { ++relogins; }

    std::atomic<int> animationStarts{0};
    std::atomic<int> animationStops{0};
    std::atomic<int> relogins{0};

private:
    mutable QMutex m_lock;
    QVariantMap m_config;
    std::shared_ptr<PersistentStoreCoordinator> m_coordinator;
    std::shared_ptr<ManagedObjectContext> m_main;
};

// Every activity-log line and every diagnostic line of the process, from any thread.
class EngineLog
{
public:
    EngineLog();
    ~EngineLog();
    // The engine's user-visible lines ("No internet connection", ...), oldest first.
    QStringList activity() const;
    int count(const QString &line) const { return int(activity().count(line)); }
    // Diagnostic lines that contain `text`.
    QStringList diagnostics(const QString &text) const;
    void clear();

private:
    std::unique_ptr<QObject> m_receiver;
};

class EngineFixture : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    // init: the engine starts at once.
    void start();
    // disconnect and drop.
    void stop();
    // Waits until `count` more work-list passes have ended since the call to markPasses().
    void markPasses() { m_passMark = passes.load(); }
    bool waitForPasses(int count, int timeoutMs = 60000);
    // Nothing queued or running, after at least one pass.
    bool waitQuiet(int timeoutMs = 60000);
    // Waits until server, sync folder and catalogue agree (the engine quiet, after a pass).
    bool waitInStep(int timeoutMs = 60000);
    // Asserts the three trees are equal.
    void expectInStep();

    Tree server(bool keys = false);
    Tree local();
    Tree catalogue(bool keys = false);
    QString at(const QString &relative) const { return root + u'/' + relative; }
    // A server time string as a date (the server's zone).
    QDateTime serverDate(const QString &time) const;
    InfomationPtr account();
    // Commands the server received since the last clearRequestLog(), in order.
    QStringList commands() { return harness->server().requestedCommands(); }
    FerrovaneServer &srv() { return harness->server(); }
    QString user() const { return ServerHarness::user(); }

    TestUtil::TempDataHome dataHome;
    QTemporaryDir storeDir;
    QTemporaryDir syncDir;
    QString root;
    std::shared_ptr<PersistentStoreCoordinator> coordinator;
    std::unique_ptr<EngineServices> services;
    std::unique_ptr<ServerHarness> harness;
    std::unique_ptr<ProcessWindowController> engine;
    EngineLog log;
    std::atomic<int> passes{0};
    QList<ProcessWindowController::State> states;

private:
    int m_passMark = 0;
};
