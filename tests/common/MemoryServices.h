#pragma once
// Application services for tests and benchmarks that need only settings and one main context:
// settings live in a map, everything else does nothing.

#include "util/AppServices.h"

#include <QVariantMap>
#include <memory>

class MemoryServices : public AppServices
{
public:
    QVariantMap config;
    std::shared_ptr<ManagedObjectContext> main;

    QVariant getConfigValueByKey(const QString &key) const override { return config.value(key); }
    void setConfigValue(const QVariant &value, const QString &key) override { config.insert(key, value); }
    void saveConfig() override {}
    void clearAccountInfomation() override {}
    bool isLogined() const override { return true; }
    void setIsLogined(bool) override {}
    std::shared_ptr<ManagedObjectContext> managedObjectContext() override { return main; }
    std::shared_ptr<ManagedObjectContext> getManagedObjectContextByThread() override { return nullptr; }
    void saveData() override {}
    void postNotificationWithTitle(const QString &, const QString &) override {}
    void startStatusBarAnimation() override {}
    void stopStatusBarAnimation() override {}
    void relogin() override {}
};
