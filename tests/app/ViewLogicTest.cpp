#include "app/AccountView.h"
#include "app/CDLoginView.h"
#include "app/LanguageUtil.h"
#include "catalogue/DatabaseUtils.h"
#include "catalogue/ManagedObjectContext.h"
#include "catalogue/PersistentStoreCoordinator.h"
#include "common/MemoryServices.h"
#include "common/TestServer.h"
#include "common/TestUtil.h"
#include "server/FerrovaneServer.h"
#include "util/AppServices.h"
#include "util/Codecs.h"
#include "util/Log.h"

#include <QSignalSpy>
#include <QStringList>
#include <QTemporaryDir>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>

namespace {

// Settings in memory and a real catalogue context, as the application gives them; sign-in state
// and account clearing as the application keeps them.
class FakeServices final : public MemoryServices
{
public:
    bool logined = false;
    int cleared = 0;

    void setConfigValue(const QVariant &value, const QString &key) override
    {
        if (value.isNull())
            config.remove(key);
        else
            config.insert(key, value);
    }
    void clearAccountInfomation() override
    {
        ++cleared;
        for (const char *key : {"kKeySESSTION", "kKeyDomain", "kKeyUseID", "kKeyPassword", "kKeyUseIDMail",
                                "kKeyStartup", "kKeyAutoStart"})
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

QStringList g_logLines;
std::mutex g_logLock;
void captureLine(const QString &line)
{
    std::lock_guard lock(g_logLock);
    g_logLines << line;
}

QString tr(const char *key)
{
    return LanguageUtil::getStringByKey(QString::fromLatin1(key));
}

class ViewLogic : public ::testing::Test
{
protected:
    void SetUp() override
    {
        QLocale::setDefault(QLocale::c());
        ASSERT_TRUE(server.ok()) << qPrintable(server.error());
        ASSERT_TRUE(server->addUser(QStringLiteral("alice"), QStringLiteral("p<&\"w'>"),
                                    QStringLiteral("alice@corp")));

        services.main = ManagedObjectContext::create(PersistentStoreCoordinator::create(
            storeDir.filePath(QStringLiteral("Tarnwick_alice.storedata"))));
        ASSERT_TRUE(services.main);
        services.config = {{QStringLiteral("kKeyPCName"), QStringLiteral("desk <1>")},
                           {QStringLiteral("kKeyStartup"), true},
                           {QStringLiteral("kKeyAutoStart"), false},
                           {QStringLiteral("kKeyUseIDMail"), QStringLiteral("old@mail")}};
        AppServices::setShared(&services);
    }
    void TearDown() override
    {
        DatabaseUtils::destroy();
        AppServices::setShared(nullptr);
    }

    // Fills the fields, presses the button and waits for the view to settle.
    void signIn(CDLoginView &view, const QString &domain, const QString &id, const QString &password)
    {
        view.domainTextField()->setStringValue(domain);
        view.useridTextField()->setStringValue(id);
        view.passwordTextField()->setStringValue(password);
        const int before = delegate.successes;
        view.login();
        // Success leaves the button disabled (the application replaces the view); failure enables it.
        ASSERT_TRUE(TestUtil::waitFor([&] {
            return delegate.successes > before || (!view.isSending() && view.loginButton()->isEnabled());
        }));
    }

    QTemporaryDir storeDir;
    TestServer server;
    FakeServices services;
    LoginDelegate delegate;
};

} // namespace

TEST_F(ViewLogic, SuccessfulSignInStoresSettingsAndTheAccountRecord)
{
    CDLoginView view;
    view.setDelegate(&delegate);
    view.login(); // empty fields: nothing sent
    EXPECT_EQ(view.failTextField()->stringValue(), tr("domain_error"));

    view.domainTextField()->setStringValue(server->domain());
    view.useridTextField()->setStringValue(QStringLiteral("alice"));
    view.passwordTextField()->setStringValue(QStringLiteral("p<&\"w'>"));
    view.login();
    EXPECT_FALSE(view.loginButton()->isEnabled());
    EXPECT_FALSE(view.progressIndicator()->isHidden());
    EXPECT_TRUE(view.failTextField()->isHidden());
    ASSERT_TRUE(TestUtil::waitFor([&] { return delegate.successes == 1; }));

    const QVariantMap &config = services.config;
    EXPECT_EQ(config.value(QStringLiteral("host")).toString(),
              QStringLiteral("https://%1/").arg(server->domain()));
    EXPECT_FALSE(config.value(QStringLiteral("kKeySESSTION")).toString().isEmpty());
    EXPECT_NE(config.value(QStringLiteral("kKeySESSTION")).toString(), QStringLiteral("-1"));
    EXPECT_EQ(config.value(QStringLiteral("kKeyDomain")).toString(), server->domain());
    EXPECT_EQ(config.value(QStringLiteral("kKeyUseID")).toString(), QStringLiteral("alice"));
    EXPECT_EQ(config.value(QStringLiteral("kKeyPassword")).toString(), QStringLiteral("p<&\"w'>"));
    EXPECT_EQ(config.value(QStringLiteral("kKeyUseIDMail")).toString(), QStringLiteral("alice@corp"));
    // Start-up preferences survive the clearing of the account.
    EXPECT_EQ(services.cleared, 1);
    EXPECT_EQ(config.value(QStringLiteral("kKeyStartup")), QVariant(true));
    EXPECT_EQ(config.value(QStringLiteral("kKeyAutoStart")), QVariant(false));
    EXPECT_TRUE(services.logined);

    // The record is saved: a fresh context on the same store sees it.
    auto reader = ManagedObjectContext::create(services.main->persistentStoreCoordinator());
    ASSERT_TRUE(reader);
    const InfomationPtr record = reader->fetchFirst<Infomation>(
        Predicate::equalTo(QStringLiteral("account"), QStringLiteral("alice")));
    ASSERT_TRUE(record);
    EXPECT_EQ(record->session(), config.value(QStringLiteral("kKeySESSTION")).toString());
    EXPECT_EQ(record->domain(), server->domain());
    EXPECT_EQ(record->password(), QStringLiteral("p<&\"w'>"));
    EXPECT_EQ(record->timezone(), QStringLiteral("+0900"));
    EXPECT_EQ(record->autoLogin(), std::optional<bool>(true));

    // What went out: the typed values escaped for XML, the MAC as it is, the version.
    const QList<RequestLogEntry> log = server->requestLog();
    ASSERT_FALSE(log.isEmpty());
    const QByteArray body = log.last().body;
    const QString escaped = gtm_stringBySanitizingAndEscapingForXML(QStringLiteral("p<&\"w'>"));
    EXPECT_FALSE(escaped.contains(QLatin1Char('<')) || escaped.contains(QLatin1Char('"')));
    EXPECT_TRUE(body.startsWith((QStringLiteral("<XML><LOGIN ID=\"alice\" PASSWORD=\"") + escaped +
                                 QStringLiteral("\" ENCODE=\"raw\" PCNAME = \"desk &lt;1&gt;\" MAC=\""))
                                    .toUtf8()))
        << body.constData();
    EXPECT_TRUE(body.endsWith("\" VER=\"20130128\"></LOGIN></XML>")) << body.constData();

    // A later view finds the stored credentials.
    std::unique_ptr<CDLoginView> again = CDLoginView::getInstanceInFrame();
    EXPECT_EQ(again->domainTextField()->stringValue(), server->domain());
    EXPECT_EQ(again->useridTextField()->stringValue(), QStringLiteral("alice"));
    EXPECT_TRUE(again->saveInfomation()->isChecked());
}

TEST_F(ViewLogic, RefusalAndMissingAnswerShowTheirTextsAndStoreNothing)
{
    const QVariantMap before = services.config;
    CDLoginView view;
    view.setDelegate(&delegate);

    signIn(view, server->domain(), QStringLiteral("alice"), QStringLiteral("wrong"));
    EXPECT_EQ(view.failTextField()->stringValue(), tr("login_error"));
    EXPECT_FALSE(view.failTextField()->isHidden());
    EXPECT_TRUE(view.progressIndicator()->isHidden());
    QVariantMap expected = before;
    expected.insert(QStringLiteral("host"), QStringLiteral("https://%1/").arg(server->domain()));
    EXPECT_EQ(services.config, expected);

    const QString noAnswer = QStringLiteral("%1 / %2").arg(tr("check_internet"), tr("domain_error"));
    // Nobody there, a dropped reply, an HTTP error: all count as no answer.
    signIn(view, QStringLiteral("127.0.0.1:1"), QStringLiteral("alice"), QStringLiteral("p<&\"w'>"));
    EXPECT_EQ(view.failTextField()->stringValue(), noAnswer);
    view.failTextField()->setStringValue({});
    // The network layer itself resends a request up to three times when the connection closes
    // before any answer: only a drop that persists reaches the view.
    server->dropReplies(QStringLiteral("LOGIN"), 4);
    signIn(view, server->domain(), QStringLiteral("alice"), QStringLiteral("p<&\"w'>"));
    EXPECT_EQ(view.failTextField()->stringValue(), noAnswer);
    view.failTextField()->setStringValue({});
    server->failWithStatus(QStringLiteral("LOGIN"), 500);
    signIn(view, server->domain(), QStringLiteral("alice"), QStringLiteral("p<&\"w'>"));
    EXPECT_EQ(view.failTextField()->stringValue(), noAnswer);
    EXPECT_TRUE(view.loginButton()->isEnabled());

    EXPECT_EQ(delegate.successes, 0);
    EXPECT_FALSE(services.logined);
    EXPECT_FALSE(services.config.contains(QStringLiteral("kKeySESSTION")));
}

TEST_F(ViewLogic, InputCheckTakesFieldsInOrderAndKeepsBlanksAroundValues)
{
    CDLoginView view;
    QSignalSpy domainFocus(view.domainTextField(), &ViewControl::focusRequested);
    QSignalSpy userFocus(view.useridTextField(), &ViewControl::focusRequested);
    QSignalSpy passwordFocus(view.passwordTextField(), &ViewControl::focusRequested);

    view.domainTextField()->setStringValue(QStringLiteral("   "));
    EXPECT_FALSE(view.checkInput());
    EXPECT_EQ(view.failTextField()->stringValue(), tr("domain_error"));
    EXPECT_EQ(domainFocus.count(), 1);

    view.domainTextField()->setStringValue(server->domain());
    view.useridTextField()->setStringValue(QStringLiteral(" "));
    EXPECT_FALSE(view.checkInput());
    EXPECT_EQ(view.failTextField()->stringValue(), tr("user_error"));
    EXPECT_EQ(userFocus.count(), 1);

    view.useridTextField()->setStringValue(QStringLiteral(" alice "));
    EXPECT_FALSE(view.checkInput());
    EXPECT_EQ(view.failTextField()->stringValue(), tr("password_error"));
    EXPECT_EQ(passwordFocus.count(), 1);
    EXPECT_TRUE(server->requestLog().isEmpty());

    // Blanks around a value travel as typed (and so do not match the account).
    signIn(view, server->domain(), QStringLiteral(" alice "), QStringLiteral("x"));
    ASSERT_EQ(server->requestLog().size(), 1);
    EXPECT_TRUE(server->requestLog().last().body.startsWith("<XML><LOGIN ID=\" alice \""));
}

TEST_F(ViewLogic, AccountPanelShowsTheQuota)
{
    AccountView panel;
    QSignalSpy finished(&panel, &AccountView::loadingFinished);

    // Not signed in.
    panel.viewDidMoveToWindow();
    ASSERT_TRUE(TestUtil::waitFor([&] { return finished.count() == 1; }));
    TestUtil::waitFor([&] { return !panel.accountTextField()->stringValue().isEmpty(); }, 2000);
    EXPECT_EQ(panel.accountTextField()->stringValue(), tr("please_login"));
    EXPECT_EQ(panel.quotaTextField()->stringValue(), QStringLiteral("%1 0MB/0MB").arg(tr("used_total")));
    EXPECT_EQ(panel.quotaLabel()->stringValue(), tr("quota"));

    // Signed in: 1 MiB used of 4 MiB.
    CDLoginView view;
    view.setDelegate(&delegate);
    signIn(view, server->domain(), QStringLiteral("alice"), QStringLiteral("p<&\"w'>"));
    ASSERT_EQ(delegate.successes, 1);
    ASSERT_TRUE(server->setQuota(QStringLiteral("alice"), 4 * 1048576LL));
    ASSERT_FALSE(server->putFile(QStringLiteral("alice"), QStringLiteral("big.bin"), QByteArray(1048576, 'x'))
                     .isEmpty());
    panel.viewDidMoveToWindow();
    panel.viewDidMoveToWindow(); // while loading: no second request
    ASSERT_TRUE(TestUtil::waitFor([&] { return finished.count() == 2; }));
    const QString shown = QStringLiteral("%1 1MB/4MB").arg(tr("used_total"));
    ASSERT_TRUE(TestUtil::waitFor([&] { return panel.quotaTextField()->stringValue() == shown; }, 2000))
        << qPrintable(panel.quotaTextField()->stringValue());
    EXPECT_EQ(panel.accountTextField()->stringValue(), QStringLiteral("alice@corp"));
    EXPECT_DOUBLE_EQ(panel.progressIndicator()->doubleValue(), 2.5);
    EXPECT_FALSE(panel.loadingProgressIndicator()->isAnimating());
    EXPECT_EQ(server->requestedCommands().count(QStringLiteral("QUOTA")), 1);

    // A failed request keeps what the panel showed and logs the failure's reason.
    server->dropReplies(QStringLiteral("QUOTA"), 4);
    g_logLines.clear();
    Log::setSink(captureLine);
    panel.viewDidMoveToWindow();
    ASSERT_TRUE(TestUtil::waitFor([&] { return finished.count() == 3; }));
    Log::setSink(nullptr);
    QCoreApplication::processEvents();
    EXPECT_EQ(panel.quotaTextField()->stringValue(), shown);
    EXPECT_FALSE(panel.isLoading());
    EXPECT_EQ(std::count_if(g_logLines.cbegin(), g_logLines.cend(),
                            [](const QString &line) {
                                return line.endsWith(
                                    QLatin1String("]Load infomation error: Maybe internet connect lost"));
                            }),
              1)
        << qPrintable(g_logLines.join(u'\n'));
}

TEST(AccountPanel, ShownAgainWhileTheLastLoadingThreadEndsStillLoads)
{
    AccountView panel; // nobody signed in: each load ends at once
    std::atomic<int> ends = 0;
    QObject::connect(
        &panel, &AccountView::loadingFinished, &panel,
        [&] {
            // The first loading thread lingers past its work until the panel is shown again.
            if (ends++ > 0)
                return;
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
            while (!panel.isLoading() && std::chrono::steady_clock::now() < deadline)
                std::this_thread::yield();
        },
        Qt::DirectConnection);
    panel.viewDidMoveToWindow();
    ASSERT_TRUE(TestUtil::waitFor([&] { return ends.load() == 1; }));
    panel.viewDidMoveToWindow();
    EXPECT_TRUE(TestUtil::waitFor([&] { return ends.load() == 2; }));
    EXPECT_TRUE(TestUtil::waitFor([&] { return !panel.isLoading(); }));
}

TEST(AccountQuota, UnitFollowsTotalAloneWithTwoFractionDigits)
{
    QLocale::setDefault(QLocale::c());
    const QString c = QStringLiteral("Used:");
    EXPECT_EQ(AccountView::quotaText(c, 0, 1073741824.0), QStringLiteral("Used: 0GB/1GB"));
    EXPECT_EQ(AccountView::quotaText(c, 1048576.0, 1073741823.0), QStringLiteral("Used: 1MB/1024MB"));
    // A small USED under a large TOTAL is still in GB.
    EXPECT_EQ(AccountView::quotaText(c, 5 * 1048576.0, 10 * 1073741824.0), QStringLiteral("Used: 0GB/10GB"));
    EXPECT_EQ(AccountView::quotaText(c, 1610612736.0, 3 * 1073741824.0 + 1073741824.0 / 3),
              QStringLiteral("Used: 1.5GB/3.33GB"));
    EXPECT_EQ(AccountView::quotaText(c, 0, 0), QStringLiteral("Used: 0MB/0MB"));
    EXPECT_EQ(AccountView::formatNumber(12345.678), QStringLiteral("12345.68"));
    EXPECT_DOUBLE_EQ(AccountView::quotaLevel(1, 4), 2.5);
    EXPECT_TRUE(std::isnan(AccountView::quotaLevel(0, 0))); // nothing guards TOTAL 0
}
