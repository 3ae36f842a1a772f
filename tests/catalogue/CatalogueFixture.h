#pragma once
// Fixtures: a store, fake services and a sync folder (CatalogueFixture); plus a signed-in local
// server wired into the settings (ServerCatalogueFixture).

#include "CatalogueTestSupport.h"
#include "StoreFixture.h"

#include <QDir>

class CatalogueFixture : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(storeDir.isValid() && syncDir.isValid());
        FvError error;
        coordinator = PersistentStoreCoordinator::create(
            storeDir.filePath(QStringLiteral("Tarnwick_bob.storedata")), &error);
        ASSERT_TRUE(coordinator) << qPrintable(error.toString());
        services = std::make_unique<FakeServices>(coordinator);
        AppServices::setShared(services.get());
        root = QDir(syncDir.path()).canonicalPath() + QStringLiteral("/CloudFolder");
        ASSERT_TRUE(QDir().mkpath(root));
        services->setConfigValue(QStringLiteral("bob"), QStringLiteral("kKeyUseID"));
        services->setConfigValue(QStringLiteral("desk"), QStringLiteral("kKeyPCName"));
        services->setConfigValue(root, QStringLiteral("kKeyPath"));
        context = services->managedObjectContext();
        account = context->insertNewObject<Infomation>();
        account->setAccount(QStringLiteral("bob"));
        account->setPath(root);
        account->setTimezone(QStringLiteral("+0900"));
        account->setCloudFolderKey(QStringLiteral("1"));
        ASSERT_TRUE(context->save());
        db = DatabaseUtils::instance();
        db->setPath(root);
    }

    void TearDown() override
    {
        db.reset();
        DatabaseUtils::destroy();
        AppServices::setShared(nullptr);
    }

    static QStringList record(const QString &name, const QString &size, const QString &md5,
                              const QString &key, const QString &pkey, const QString &path)
    {
        return {name, size, md5, key, pkey, path};
    }

    QString at(const QString &relative) const { return root + u'/' + relative; }

    TestUtil::TempDataHome dataHome;
    QTemporaryDir storeDir;
    QTemporaryDir syncDir;
    std::shared_ptr<PersistentStoreCoordinator> coordinator;
    std::unique_ptr<FakeServices> services;
    std::shared_ptr<ManagedObjectContext> context;
    InfomationPtr account;
    std::shared_ptr<DatabaseUtils> db;
    QString root;
};

class ServerCatalogueFixture : public CatalogueFixture
{
protected:
    void SetUp() override
    {
        CatalogueFixture::SetUp();
        harness = std::make_unique<ServerHarness>();
        ASSERT_TRUE(harness->ok());
        services->setConfigValue(harness->server().domain(), QStringLiteral("kKeyDomain"));
        services->setConfigValue(harness->session, QStringLiteral("kKeySESSTION"));
        account->setTimezone(harness->timezone);
        account->setCloudFolderKey(harness->rootKey);
        account->setSession(harness->session);
        ASSERT_TRUE(context->save());
    }

    void TearDown() override
    {
        CatalogueFixture::TearDown();
        harness.reset();
    }

    FerrovaneServer &server() { return harness->server(); }
    std::unique_ptr<ServerHarness> harness;
};
