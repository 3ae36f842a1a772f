#include "app/AppDelegate.h"
#include "app/CheckUpdate.h"
#include "app/DownloadUpdateWindowController.h"
#include "app/LanguageUtil.h"
#include "app/UrlOpener.h"
#include "common/TestServer.h"
#include "common/TestUtil.h"
#include "util/Pace.h"

#include <QDeadlineTimer>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <gtest/gtest.h>

namespace {

QString tr(const char *key)
{
    return LanguageUtil::getStringByKey(QString::fromLatin1(key));
}

struct RecordingOpener : UrlOpener
{
    QList<QUrl> opened;
    bool openURL(const QUrl &url) override
    {
        opened << url;
        return true;
    }
};

// The running version with its last number raised or lowered, dotted like the server writes it.
QString versionWithLast(int delta)
{
    QStringList parts = CheckUpdate::shortVersionString().split(u'.');
    parts.last() = QString::number(parts.last().toInt() + delta);
    return parts.join(u'.');
}

class UpdateCheck : public ::testing::Test
{
protected:
    void SetUp() override
    {
        QLocale::setDefault(QLocale::c());
        LanguageUtil::readLanguage();
        ASSERT_TRUE(server.ok()) << qPrintable(server.error());
        UrlOpener::setShared(&opener);
        // The checker's own timer stays out of the way unless a test asks for it.
        scale = Pace::scale();
        Pace::setScale(1);
    }
    void TearDown() override
    {
        UrlOpener::setShared(nullptr);
        Pace::setScale(scale);
    }

    int requests(const QString &command) { return int(server->requestedCommands().count(command)); }

    // Runs one check and waits for its outcome; true when it made an offer.
    bool checkOnce(CheckUpdate &checker)
    {
        QSignalSpy offered(&checker, &CheckUpdate::newVersionOffered);
        QSignalSpy finished(&checker, &CheckUpdate::checkFinished);
        checker.checkUpdate();
        EXPECT_TRUE(TestUtil::waitFor([&] { return !offered.isEmpty() || !finished.isEmpty(); }));
        return !offered.isEmpty();
    }

    TestUtil::TempDataHome dataHome;
    TestServer server;
    RecordingOpener opener;
    double scale = 1;
};

} // namespace

TEST(UpdateVersionRule, DotlessIntegersThenBuilds)
{
    struct Case
    {
        const char *local, *localBuild, *server, *serverBuild;
        bool newer;
    } cases[] = {
        {"1.2.9", "5", "1.2.10", "1", true}, // 1210 > 129
        {"1.2.9", "5", "1.3", "99", false},  // 13 < 129, whatever the build
        {"1.2.3", "5", "1.2.3", "6", true},  // equal versions: the build decides
        {"1.2.3", "5", "1.2.3", "5", false},
        {"1.2.3", "5", "1.2.3", "4", false},
        {"1.2.3", "5", "12.3", "1", false},    // same digits, same number
        {"0.1.0", "1", "garbage", "9", false}, // no digits count as 0
        {"", "", "0.0.1", "", true},
        {"1.2", "5", "1.2-beta", "6", true},            // leading digits only: 12 = 12, then 6 > 5
        {"1.2", "5", " 1.2", "6", true},                // blanks before the digits are skipped
        {"99999999999999999999", "1", "1", "1", false}, // saturates rather than wrapping
    };
    for (const Case &c : cases) {
        EXPECT_EQ(CheckUpdate::isNewVersion(QString::fromLatin1(c.local), QString::fromLatin1(c.localBuild),
                                            QString::fromLatin1(c.server),
                                            QString::fromLatin1(c.serverBuild)),
                  c.newer)
            << c.local << "/" << c.localBuild << " against " << c.server << "/" << c.serverBuild;
    }
    EXPECT_EQ(CheckUpdate::integerValue(QStringLiteral("-12x")), -12);
    EXPECT_EQ(CheckUpdate::descriptionURL(QStringLiteral("h:1")),
              QStringLiteral("https://h:1/winapp/h:1/palmoor/tessaline/tessaline.xml"));
    EXPECT_EQ(CheckUpdate::packageURL(QStringLiteral("h:1")),
              QStringLiteral("https://h:1/winapp/h:1/palmoor/tessaline/ferrovaneupdate.pkg"));
}

TEST_F(UpdateCheck, NewerVersionIsOfferedDownloadedAndHandedToTheInstaller)
{
    QByteArray package(3 * 1024 * 1024, Qt::Uninitialized);
    QRandomGenerator(7).fillRange(reinterpret_cast<quint32 *>(package.data()), package.size() / 4);
    ASSERT_TRUE(server->setUpdate(versionWithLast(+1), QStringLiteral("77"), package));

    CheckUpdate checker;
    checker.setDomain(server->domain());
    QSignalSpy offered(&checker, &CheckUpdate::newVersionOffered);
    checker.checkUpdate();
    ASSERT_TRUE(TestUtil::waitFor([&] { return !offered.isEmpty(); }));
    EXPECT_EQ(offered.first().value(0).toString(), versionWithLast(+1));
    EXPECT_EQ(offered.first().value(1).toString(), QStringLiteral("77"));
    EXPECT_TRUE(checker.isShowingUpdate());
    EXPECT_EQ(CheckUpdate::alertTitle(), QStringLiteral("Ferrovane ") + tr("have_new_version"));
    EXPECT_EQ(CheckUpdate::alertInformativeText(QStringLiteral("1.2"), QStringLiteral("7")),
              tr("new_version") + QStringLiteral(" 1.2 build 7"));

    // While the offer is open, checks (the timer's or the menu's) return at once without asking.
    checker.checkUpdateOnThread();
    EXPECT_EQ(requests(QStringLiteral("UPDATE")), 1);
    checker.alertDidEnd(CheckUpdate::DefaultReturn);
    EXPECT_FALSE(checker.isShowingUpdate());
    DownloadUpdateWindowController *window = checker.downloadWindow();
    ASSERT_NE(window, nullptr);
    EXPECT_FALSE(window->window()->isHidden());
    QList<double> levels;
    QObject::connect(window->downloadLeveIndicator(), &ViewControl::changed, window,
                     [&] { levels << window->downloadLeveIndicator()->doubleValue(); });
    QSignalSpy finished(window, &DownloadUpdateWindowController::downloadFinished);
    EXPECT_TRUE(window->installButton()->isHidden());
    EXPECT_EQ(window->downloadLabel()->stringValue(), tr("downloading_update"));
    ASSERT_TRUE(TestUtil::waitFor([&] { return !finished.isEmpty(); }, 30000));
    EXPECT_TRUE(checkOnce(checker)); // still newer: offered again
    EXPECT_EQ(requests(QStringLiteral("UPDATE")), 2);
    checker.alertDidEnd(CheckUpdate::AlternateReturn);
    EXPECT_EQ(checker.downloadWindow(), window); // declining keeps the last window

    EXPECT_EQ(window->downloadLabel()->stringValue(), tr("download_complete"));
    EXPECT_FALSE(window->installButton()->isHidden());
    ASSERT_FALSE(levels.isEmpty());
    EXPECT_EQ(levels.last(), 100.0);
    EXPECT_TRUE(std::is_sorted(levels.cbegin(), levels.cend()));
    EXPECT_EQ(window->dataLength(), package.size());
    const QString path = DownloadUpdateWindowController::packagePath();
    EXPECT_EQ(path, dataHome.path() + QStringLiteral("/com.velmora.Ferrovane/Update/update.pkg"));
    EXPECT_EQ(window->fileUpdateURL(), QUrl::fromLocalFile(path));
    EXPECT_TRUE(TestUtil::readFile(path) == package);
    // Written whole under its name: no temporary file is left beside it.
    EXPECT_EQ(QDir(QFileInfo(path).path()).entryList(QDir::Files), QStringList{QStringLiteral("update.pkg")});

    window->update();
    EXPECT_EQ(opener.opened, QList<QUrl>{QUrl::fromLocalFile(path)});
}

TEST_F(UpdateCheck, OlderOrEqualVersionsAreNotOfferedUnlessTheBuildIsHigher)
{
    CheckUpdate checker;
    checker.setDomain(server->domain());
    const QString build = CheckUpdate::bundleVersion();

    ASSERT_TRUE(server->setUpdate(versionWithLast(-1), QStringLiteral("999999")));
    EXPECT_FALSE(checkOnce(checker));
    EXPECT_FALSE(checker.isShowingUpdate());
    ASSERT_TRUE(server->setUpdate(CheckUpdate::shortVersionString(), build));
    EXPECT_FALSE(checkOnce(checker));
    ASSERT_TRUE(server->setUpdate(CheckUpdate::shortVersionString(), QString::number(build.toInt() + 1)));
    EXPECT_TRUE(checkOnce(checker));
    checker.alertDidEnd(CheckUpdate::AlternateReturn);
    EXPECT_EQ(checker.downloadWindow(), nullptr);
    EXPECT_FALSE(checker.isShowingUpdate());

    // A description that cannot be had or read ends the check quietly and lets the next one run.
    server->failWithStatus(QStringLiteral("UPDATE"), 500);
    EXPECT_FALSE(checkOnce(checker));
    server->replyWithBody(QStringLiteral("UPDATE"), "-3");
    EXPECT_FALSE(checkOnce(checker));
    EXPECT_TRUE(checkOnce(checker));
}

TEST_F(UpdateCheck, MissingPackageLeavesTheInstallButtonHidden)
{
    ASSERT_TRUE(server->setUpdate(versionWithLast(+1), QStringLiteral("1"))); // no package: 404
    CheckUpdate checker;
    checker.setDomain(server->domain());
    ASSERT_TRUE(checkOnce(checker));
    checker.alertDidEnd(CheckUpdate::DefaultReturn);
    DownloadUpdateWindowController *window = checker.downloadWindow();
    ASSERT_NE(window, nullptr);
    QSignalSpy finished(window, &DownloadUpdateWindowController::downloadFinished);
    ASSERT_TRUE(TestUtil::waitFor([&] { return !finished.isEmpty(); }));
    EXPECT_EQ(window->downloadLabel()->stringValue(), tr("file_not_found"));
    EXPECT_TRUE(window->installButton()->isHidden());
    EXPECT_FALSE(QFileInfo::exists(DownloadUpdateWindowController::packagePath()));
    window->update(); // nothing to install
    EXPECT_TRUE(opener.opened.isEmpty());

    // A broken transfer is a download error, with nothing to install either.
    ASSERT_TRUE(server->setUpdate(versionWithLast(+1), QStringLiteral("1"), QByteArray(512 * 1024, 'p')));
    server->failWithStatus(QStringLiteral("PACKAGE"), 500);
    window->downloadFileUpdateWithURL(QUrl(CheckUpdate::packageURL(server->domain())));
    ASSERT_TRUE(TestUtil::waitFor([&] { return finished.size() == 2; }));
    EXPECT_EQ(window->downloadLabel()->stringValue(), tr("download_error"));
    EXPECT_TRUE(window->installButton()->isHidden());
    EXPECT_FALSE(QFileInfo::exists(DownloadUpdateWindowController::packagePath()));
}

TEST_F(UpdateCheck, TimerChecksOnItsOwnAndAHangingServerDoesNotHoldUpTheEnd)
{
    ASSERT_TRUE(server->setUpdate(versionWithLast(+1), QStringLiteral("1")));
    Pace::setScale(0.01);
    {
        CheckUpdate checker;
        checker.setDomain(server->domain());
        QSignalSpy offered(&checker, &CheckUpdate::newVersionOffered);
        // Nobody asks: the minute (scaled) passes and the timer checks.
        ASSERT_TRUE(TestUtil::waitFor([&] { return !offered.isEmpty(); }));
    }
    server->delayReplies(QStringLiteral("UPDATE"), 120000);
    QDeadlineTimer deadline(60000);
    {
        CheckUpdate checker;
        checker.setDomain(server->domain());
        checker.checkUpdate();
        ASSERT_TRUE(TestUtil::waitFor([&] { return requests(QStringLiteral("UPDATE")) == 2; }));
    }
    EXPECT_FALSE(deadline.hasExpired());
}
