#include "UiTestSupport.h"
#include "app/AccountView.h"
#include "app/CDLoginView.h"
#include "catalogue/DatabaseUtils.h"
#include "catalogue/ManagedObjectContext.h"
#include "catalogue/PersistentStoreCoordinator.h"
#include "common/MemoryServices.h"
#include "common/TestServer.h"
#include "common/TestUtil.h"
#include "ui/AccountViewWidget.h"
#include "ui/BusyIndicator.h"
#include "ui/CDLoginViewWidget.h"

#include <QCheckBox>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <gtest/gtest.h>

using UiTest::tr;

namespace {

// Settings in memory, a real catalogue context, and the sign-in state as the application keeps it.
class FakeServices final : public MemoryServices
{
public:
    bool logined = false;
    void setConfigValue(const QVariant &value, const QString &key) override
    {
        if (value.isNull())
            config.remove(key);
        else
            config.insert(key, value);
    }
    void clearAccountInfomation() override
    {
        for (const char *key : {"kKeySESSTION", "kKeyUseID", "kKeyPassword"})
            config.remove(QString::fromLatin1(key));
    }
    bool isLogined() const override { return logined; }
    void setIsLogined(bool value) override { logined = value; }
};

struct LoginDelegate : CDLoginViewDelegate
{
    int successes = 0;
    void didLoginSuccessful(CDLoginView *) override { ++successes; }
};

class SignInWidgets : public ::testing::Test
{
protected:
    void SetUp() override
    {
        UiTest::useLanguage(QLocale::English);
        ASSERT_TRUE(server.ok()) << qPrintable(server.error());
        ASSERT_TRUE(
            server->addUser(QStringLiteral("alice"), QStringLiteral("secret"), QStringLiteral("alice@corp")));
        services.main = ManagedObjectContext::create(PersistentStoreCoordinator::create(
            storeDir.filePath(QStringLiteral("Tarnwick_alice.storedata"))));
        ASSERT_TRUE(services.main);
        services.config = {{QStringLiteral("kKeyPCName"), QStringLiteral("desk")}};
        AppServices::setShared(&services);
    }
    void TearDown() override
    {
        DatabaseUtils::destroy();
        AppServices::setShared(nullptr);
        UiTest::useLanguage(QLocale::English);
    }

    template <class T> T *child(QWidget &parent, const char *name)
    {
        T *found = parent.findChild<T *>(QString::fromLatin1(name));
        EXPECT_NE(found, nullptr) << name;
        return found;
    }

    QTemporaryDir storeDir;
    TestServer server;
    FakeServices services;
    LoginDelegate delegate;
};

} // namespace

TEST_F(SignInWidgets, TypingAndReturnSignInWithTheLocalServer)
{
    CDLoginView view;
    view.setDelegate(&delegate);
    CDLoginViewWidget widget(&view);
    widget.show();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&widget));
    auto *domain = child<QLineEdit>(widget, "domainTextField");
    auto *user = child<QLineEdit>(widget, "useridTextField");
    auto *password = child<QLineEdit>(widget, "passwordTextField");
    auto *button = child<QPushButton>(widget, "loginButton");
    auto *fail = child<QLabel>(widget, "failTextField");
    auto *progress = child<BusyIndicator>(widget, "progressIndicator");
    ASSERT_TRUE(domain && user && password && button && fail && progress);
    EXPECT_EQ(password->echoMode(), QLineEdit::Password);
    EXPECT_TRUE(button->isDefault());
    EXPECT_FALSE(fail->isVisible());
    EXPECT_FALSE(progress->isVisible());

    // An empty field: its text, and the focus goes to it.
    QTest::mouseClick(button, Qt::LeftButton);
    EXPECT_TRUE(fail->isVisible());
    EXPECT_EQ(fail->text(), tr("domain_error"));
    EXPECT_TRUE(domain->hasFocus());

    QTest::keyClicks(domain, server->domain());
    QTest::keyClicks(user, QStringLiteral("alice"));
    QTest::keyClicks(password, QStringLiteral("wrong"));
    EXPECT_EQ(view.domainTextField()->stringValue(), server->domain());
    EXPECT_EQ(view.passwordTextField()->stringValue(), QStringLiteral("wrong"));
    QTest::keyClick(password, Qt::Key_Return);
    EXPECT_FALSE(button->isEnabled());
    EXPECT_TRUE(progress->isVisible());
    EXPECT_TRUE(progress->isAnimating());
    EXPECT_FALSE(fail->isVisible());
    ASSERT_TRUE(TestUtil::waitFor([&] { return button->isEnabled(); }));
    EXPECT_EQ(fail->text(), tr("login_error"));
    EXPECT_TRUE(fail->isVisible());
    EXPECT_FALSE(progress->isVisible());

    password->clear();
    QTest::keyClicks(password, QStringLiteral("secret"));
    QTest::mouseClick(button, Qt::LeftButton);
    ASSERT_TRUE(TestUtil::waitFor([&] { return delegate.successes == 1; }));
    EXPECT_EQ(services.config.value(QStringLiteral("kKeyUseID")).toString(), QStringLiteral("alice"));
    EXPECT_EQ(services.config.value(QStringLiteral("kKeyDomain")).toString(), server->domain());
    EXPECT_FALSE(fail->isVisible());

    // Stored credentials fill a new view's fields and tick the check box.
    std::unique_ptr<CDLoginView> again = CDLoginView::getInstanceInFrame();
    CDLoginViewWidget second(again.get());
    EXPECT_EQ(child<QLineEdit>(second, "useridTextField")->text(), QStringLiteral("alice"));
    EXPECT_TRUE(child<QCheckBox>(second, "saveInfomation")->isChecked());
}

TEST_F(SignInWidgets, CaptionsFollowTheLanguage)
{
    CDLoginView view;
    CDLoginViewWidget widget(&view);
    const auto captions = [&] {
        return QStringList{child<QLabel>(widget, "domainLabel")->text(),
                           child<QLabel>(widget, "userIDLabel")->text(),
                           child<QLabel>(widget, "passwordLabel")->text(),
                           child<QCheckBox>(widget, "saveInfomation")->text(),
                           child<QPushButton>(widget, "loginButton")->text()};
    };
    const QStringList english = {tr("domain"), tr("id"), tr("password"), tr("save_info"), tr("login")};
    EXPECT_EQ(captions(), english);
    UiTest::useLanguage(QLocale::German);
    view.setTitleForComponent();
    const QStringList german = captions();
    EXPECT_EQ(german.value(3), QStringLiteral("Angemeldet bleiben"));
    EXPECT_EQ(german.value(4), QStringLiteral("Anmelden"));
    EXPECT_NE(german, english);
}

TEST_F(SignInWidgets, AccountPanelShowsTheQuotaEachTimeItIsShown)
{
    const QString session = server.signIn(QStringLiteral("alice"), QStringLiteral("secret"));
    ASSERT_FALSE(session.isEmpty());
    ASSERT_TRUE(server->setQuota(QStringLiteral("alice"), 64LL << 20));
    services.config.insert(QStringLiteral("kKeyDomain"), server->domain());
    services.config.insert(QStringLiteral("kKeySESSTION"), session);
    services.config.insert(QStringLiteral("kKeyUseIDMail"), QStringLiteral("alice@corp"));
    services.logined = true;

    AccountView view;
    AccountViewWidget widget(&view);
    auto *account = child<QLabel>(widget, "accountTextField");
    auto *quota = child<QLabel>(widget, "quotaTextField");
    auto *caption = child<QLabel>(widget, "quotaLabel");
    auto *level = child<QProgressBar>(widget, "progressIndicator");
    ASSERT_TRUE(account && quota && caption && level);

    QSignalSpy loaded(&view, &AccountView::loadingFinished);
    widget.show(); // being shown asks for the quota
    ASSERT_TRUE(TestUtil::waitFor([&] { return loaded.size() == 1; }));
    ASSERT_TRUE(TestUtil::waitFor([&] { return !quota->text().isEmpty(); }));
    EXPECT_EQ(account->text(), QStringLiteral("alice@corp"));
    EXPECT_EQ(caption->text(), tr("quota"));
    EXPECT_EQ(quota->text(), AccountView::quotaText(tr("used_total"), 0, double(64 << 20)));
    EXPECT_EQ(level->value(), level->minimum());

    ASSERT_FALSE(server->putFile(QStringLiteral("alice"), QStringLiteral("big.bin"), QByteArray(3 << 20, 'x'))
                     .isEmpty());
    widget.hide();
    widget.show();
    ASSERT_TRUE(TestUtil::waitFor([&] { return loaded.size() == 2; }));
    ASSERT_TRUE(TestUtil::waitFor([&] { return level->value() > level->minimum(); }));
    EXPECT_EQ(quota->text(), AccountView::quotaText(tr("used_total"), 3 << 20, double(64 << 20)));
}

TEST_F(SignInWidgets, AccountCaptionFollowsTheLanguage)
{
    AccountView view;
    AccountViewWidget widget(&view);
    view.setTitleForComponent();
    EXPECT_EQ(child<QLabel>(widget, "quotaLabel")->text(), tr("quota"));
    UiTest::useLanguage(QLocale::German);
    view.setTitleForComponent();
    EXPECT_EQ(child<QLabel>(widget, "quotaLabel")->text(), QStringLiteral("Speicherplatz"));
}
