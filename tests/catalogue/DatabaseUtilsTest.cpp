#include "catalogue/DatabaseUtils.h"

#include "StoreFixture.h"
#include "catalogue/CataloguePaths.h"
#include "common/MemoryServices.h"
#include "util/AppServices.h"
#include "util/NotificationCenter.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

namespace {

class DatabaseUtilsTest : public StoreFixture
{
protected:
    void SetUp() override
    {
        StoreFixture::SetUp();
        services.main = context;
        services.config = {{QStringLiteral("kKeyPCName"), QStringLiteral("desk")},
                           {QStringLiteral("kKeyUseID"), QStringLiteral("bob")}};
        AppServices::setShared(&services);
    }
    void TearDown() override
    {
        DatabaseUtils::destroy();
        AppServices::setShared(nullptr);
    }
    MemoryServices services;
};

} // namespace

TEST_F(DatabaseUtilsTest, SingleInstanceLivesUntilDestroyedAndReleased)
{
    auto first = DatabaseUtils::instance();
    EXPECT_EQ(first, DatabaseUtils::instance());
    EXPECT_TRUE(first->isAlive());
    EXPECT_EQ(first->macName(), QStringLiteral("desk"));
    EXPECT_EQ(first->appDelegate(), &services);

    DatabaseUtils::destroy();
    EXPECT_FALSE(first->isAlive()); // a worker still holding it sees the mark
    services.config.insert(QStringLiteral("kKeyPCName"), QStringLiteral("laptop"));
    auto second = DatabaseUtils::instance();
    EXPECT_NE(second, first);
    EXPECT_TRUE(second->isAlive());
    EXPECT_EQ(second->macName(), QStringLiteral("laptop"));
}

TEST_F(DatabaseUtilsTest, AccountRecordIsTheConfiguredUsersOne)
{
    EXPECT_EQ(DatabaseUtils::instance()->getInfomation(), nullptr);
    for (const char *account : {"alice", "bob"}) {
        auto info = context->insertNewObject<Infomation>();
        info->setAccount(QString::fromLatin1(account));
    }
    auto bob = DatabaseUtils::instance()->getInfomation();
    ASSERT_TRUE(bob);
    EXPECT_EQ(bob->account(), QStringLiteral("bob"));
    EXPECT_EQ(DatabaseUtils::instance()->getInfomationWithManagedObjectContext(nullptr), nullptr);

    services.main = nullptr; // signed out: no main context
    EXPECT_EQ(DatabaseUtils::instance()->getInfomation(), nullptr);
}

TEST_F(DatabaseUtilsTest, FailedAccountSaveGoesToTheActivityLog)
{
    QStringList posted;
    QObject receiver;
    QObject::connect(NotificationCenter::defaultCenter(), &NotificationCenter::posted, &receiver,
                     [&](const QString &name, const QVariant &, const QVariantMap &info) {
                         if (name == u"kKeyLogNotification")
                             posted.append(info.value(QStringLiteral("log")).toString());
                     });
    context->insertNewObject<Infomation>()->setAccount(QStringLiteral("bob"));
    DatabaseUtils::instance()->updateInfomation();
    EXPECT_FALSE(context->hasChanges());
    EXPECT_TRUE(posted.isEmpty());

    sql(QStringLiteral(
        "CREATE TRIGGER refuse BEFORE UPDATE ON Infomation BEGIN SELECT RAISE(ABORT, 'no'); END"));
    DatabaseUtils::instance()->getInfomation()->setSession(QStringLiteral("s1"));
    DatabaseUtils::instance()->updateInfomation();
    ASSERT_EQ(posted.size(), 1);
    EXPECT_TRUE(posted.first().startsWith(QStringLiteral("Cannot save infomation: ")));
    EXPECT_EQ(DatabaseUtils::instance()->getInfomation()->session(), QStringLiteral("s1")); // kept in memory
}

TEST(CataloguePathsTest, ServerNamesFindTheSpellingUsedOnDisk)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString root = dir.path() + QStringLiteral("/Sync");
    const QString decomposedFolder = QStringLiteral("Mu\u0308ller");
    ASSERT_TRUE(QDir().mkpath(root + u'/' + decomposedFolder + QStringLiteral("/plain")));
    QFile file(root + u'/' + decomposedFolder + QStringLiteral("/Cafe\u0301.txt"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.close();

    const QString composedFolder = decomposedFolder.normalized(QString::NormalizationForm_C);
    // Each component takes the spelling found on disk; what is not there keeps the server's.
    EXPECT_EQ(
        CataloguePaths::localSpelling(root + u'/' + composedFolder + QStringLiteral("/Caf\u00e9.txt"), root),
        root + u'/' + decomposedFolder + QStringLiteral("/Cafe\u0301.txt"));
    EXPECT_EQ(
        CataloguePaths::localSpelling(root + u'/' + composedFolder + QStringLiteral("/plain/n\u00e9w"), root),
        root + u'/' + decomposedFolder + QStringLiteral("/plain/n\u00e9w"));
    EXPECT_EQ(CataloguePaths::localSpelling(root + QStringLiteral("/\u00c9t\u00e9/x"), root),
              root + QStringLiteral("/\u00c9t\u00e9/x"));
    EXPECT_EQ(CataloguePaths::localSpelling(QStringLiteral("/elsewhere/M\u00fcller"), root),
              QStringLiteral("/elsewhere/M\u00fcller"));
    EXPECT_EQ(CataloguePaths::nameAsSpelled(QStringLiteral("Caf\u00e9.txt"),
                                            root + QStringLiteral("/Cafe\u0301.txt")),
              QStringLiteral("Cafe\u0301.txt"));
    EXPECT_EQ(
        CataloguePaths::nameAsSpelled(QStringLiteral("other"), root + QStringLiteral("/Cafe\u0301.txt")),
        QStringLiteral("other"));
}
