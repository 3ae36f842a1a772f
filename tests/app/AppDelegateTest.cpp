#include "app/AppDelegate.h"

#include "app/LanguageUtil.h"
#include "app/SettingsFile.h"
#include "catalogue/DatabaseUtils.h"
#include "common/TestUtil.h"
#include "link/DistributedNotificationCenter.h"
#include "link/LinkNames.h"
#include "util/Log.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QMutex>
#include <QSignalSpy>
#include <QSysInfo>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>

namespace {

QStringList g_lines;
QMutex g_linesLock;
void captureLine(const QString &line)
{
    QMutexLocker lock(&g_linesLock);
    g_lines.append(line);
}

unsigned modeOf(const QString &path)
{
    struct stat st
    {
    };
    return ::stat(QFile::encodeName(path).constData(), &st) == 0 ? (st.st_mode & 0777) : 0;
}

// Temporary XDG data and config folders, and captured diagnostic lines.
class AppCore : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_oldConfig = qgetenv("XDG_CONFIG_HOME");
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(configHome.path()));
        {
            QMutexLocker lock(&g_linesLock);
            g_lines.clear();
        }
        Log::setSink(&captureLine);
    }
    void TearDown() override
    {
        Log::setSink(nullptr);
        qputenv("XDG_CONFIG_HOME", m_oldConfig);
    }
    static bool logged(const QString &text)
    {
        QMutexLocker lock(&g_linesLock);
        return !g_lines.filter(text).isEmpty();
    }
    static QVariantMap fileContents()
    {
        QVariantMap map;
        EXPECT_TRUE(SettingsFile::read(AppDelegate::configPath(), &map));
        return map;
    }

    TestUtil::TempDataHome dataHome;
    QTemporaryDir configHome;
    QByteArray m_oldConfig;
};

} // namespace

TEST_F(AppCore, FirstLaunchWritesDefaultsAndTheLoginItem)
{
    {
        AppDelegate app;
        app.applicationDidFinishLaunching();
    }
    const QString folder = dataHome.path() + QStringLiteral("/com.velmora.Ferrovane");
    EXPECT_EQ(AppDelegate::applicationFilesDirectory(), folder);
    EXPECT_EQ(modeOf(folder), 0700u);
    EXPECT_EQ(modeOf(folder + QStringLiteral("/config.plist")), 0600u);
    const QVariantMap written = fileContents();
    EXPECT_EQ(written.value(QStringLiteral("kKeyNotification")), QVariant(true));
    EXPECT_EQ(written.value(QStringLiteral("kKeyAutoStart")), QVariant(true));
    EXPECT_EQ(written.value(QStringLiteral("kKeyPCName")), QVariant(QSysInfo::machineHostName()));
    const QString entry = configHome.path() + QStringLiteral("/autostart/com.velmora.Ferrovane.desktop");
    EXPECT_EQ(AppDelegate::loginItemPath(), entry);
    const QByteArray desktop = TestUtil::readFile(entry);
    EXPECT_TRUE(desktop.startsWith("[Desktop Entry]\n"));
    EXPECT_TRUE(desktop.contains("\nExec="));
    // The catalogue's texts (activity-log work names) come from the string table once launched.
    EXPECT_EQ(DatabaseUtils::localizedString(QStringLiteral("work_add")),
              LanguageUtil::getStringByKey(QStringLiteral("work_add")));
    EXPECT_NE(DatabaseUtils::localizedString(QStringLiteral("work_add")), QStringLiteral("work_add"));

    // The user renames the computer and switches automatic start off: the name lasts until the next
    // launch, the login item goes.
    {
        AppDelegate app;
        app.loadConfig();
        app.setConfigValue(QStringLiteral("my desk"), QStringLiteral("kKeyPCName"));
        app.setConfigValue(false, QStringLiteral("kKeyAutoStart"));
        EXPECT_EQ(fileContents().value(QStringLiteral("kKeyPCName")), QVariant(QStringLiteral("my desk")));
        app.applicationDidFinishLaunching();
    }
    EXPECT_EQ(fileContents().value(QStringLiteral("kKeyPCName")), QVariant(QSysInfo::machineHostName()));
    EXPECT_EQ(fileContents().value(QStringLiteral("kKeyAutoStart")), QVariant(false));
    EXPECT_FALSE(QFileInfo::exists(entry));
}

TEST_F(AppCore, UnreadableSettingsAreReplacedAndKeptAside)
{
    const QString path = AppDelegate::configPath();
    const QByteArray good =
        SettingsFile::serialize({{QStringLiteral("kKeyUseID"), QStringLiteral("bob")},
                                 {QStringLiteral("kKeyDomain"), QStringLiteral("d.example")}});
    const QList<QByteArray> unreadable = {
        QByteArray("\x01\x02garbage\xff", 11), good.left(good.size() / 2),
        SettingsFile::serialize({}).replace("<dict/>", "<array><string>x</string></array>"), QByteArray()};
    for (const QByteArray &bytes : unreadable) {
        ASSERT_TRUE(TestUtil::writeFile(path, bytes));
        AppDelegate app;
        app.loadConfig();
        EXPECT_EQ(app.config(), (QVariantMap{{QStringLiteral("kKeyNotification"), true}}))
            << bytes.constData();
        EXPECT_EQ(fileContents(), app.config());
        EXPECT_EQ(TestUtil::readFile(path + QStringLiteral(".broken")), bytes);
        EXPECT_TRUE(logged(QStringLiteral("Cannot read ")));
    }

    // Missing: a fresh file, nothing kept aside.
    QFile::remove(path);
    QFile::remove(path + QStringLiteral(".broken"));
    AppDelegate app;
    app.loadConfig();
    EXPECT_EQ(fileContents(), (QVariantMap{{QStringLiteral("kKeyNotification"), true}}));
    EXPECT_FALSE(QFileInfo::exists(path + QStringLiteral(".broken")));

    // A readable file is taken as it is.
    ASSERT_TRUE(TestUtil::writeFile(path, good));
    app.loadConfig();
    EXPECT_EQ(app.getConfigValueByKey(QStringLiteral("kKeyUseID")), QVariant(QStringLiteral("bob")));
    EXPECT_FALSE(app.getConfigValueByKey(QStringLiteral("kKeyNotification")).isValid());
}

TEST_F(AppCore, ValuesRoundTripThroughTheSettingsFile)
{
    const QVariantMap values{
        {QStringLiteral("text"), QStringLiteral("Grüße <&> \"quoted\"")},
        {QStringLiteral("empty"), QStringLiteral("")},
        {QStringLiteral("yes"), true},
        {QStringLiteral("no"), false},
        {QStringLiteral("count"), qlonglong(1) << 40},
        {QStringLiteral("negative"), qlonglong(-5)},
        {QStringLiteral("ratio"), 0.25},
        {QStringLiteral("when"), QDateTime(QDate(2024, 2, 29), QTime(13, 14, 15), Qt::UTC)},
        {QStringLiteral("list"), QVariantList{QStringLiteral("a"), qlonglong(2), QVariantList{true}}},
        {QStringLiteral("nested"), QVariantMap{{QStringLiteral("k"), QStringLiteral("v")}}},
        {QStringLiteral("bytes"), QByteArray("\x00\x01\x02", 3)},
    };
    {
        AppDelegate app;
        app.loadConfig();
        for (auto it = values.cbegin(); it != values.cend(); ++it)
            app.setConfigValue(it.value(), it.key());
        app.setConfigValue(QStringLiteral("gone"), QStringLiteral("removed"));
        app.setConfigValue(QVariant(), QStringLiteral("removed"));
    }
    AppDelegate reread;
    reread.loadConfig();
    QVariantMap expected = values;
    expected.insert(QStringLiteral("kKeyNotification"), true);
    for (auto it = expected.cbegin(); it != expected.cend(); ++it)
        EXPECT_EQ(reread.config().value(it.key()), it.value()) << qPrintable(it.key());
    EXPECT_EQ(reread.config().keys(), expected.keys());

    for (const char *key : {"kKeyUseID", "kKeyPassword", "kKeySESSTION", "kKeyDomain"})
        reread.setConfigValue(QStringLiteral("x"), QString::fromLatin1(key));
    reread.clearAccountInfomation();
    const QVariantMap after = fileContents();
    EXPECT_FALSE(after.contains(QStringLiteral("kKeyUseID")));
    EXPECT_FALSE(after.contains(QStringLiteral("kKeyPassword")));
    EXPECT_FALSE(after.contains(QStringLiteral("kKeySESSTION")));
    EXPECT_TRUE(after.contains(QStringLiteral("kKeyDomain")));
}

TEST_F(AppCore, StoreStackFollowsSignInAndKeepsTheFirstUsersStore)
{
    AppDelegate app;
    app.loadConfig();
    app.setConfigValue(QStringLiteral("bob"), QStringLiteral("kKeyUseID"));
    QSignalSpy errors(&app, &AppDelegate::errorPresented);

    EXPECT_EQ(app.managedObjectContext(), nullptr); // signed out: absent, and no error
    app.setIsLogined(true);
    auto main = app.managedObjectContext();
    ASSERT_TRUE(main);
    EXPECT_EQ(app.managedObjectContext(), main);
    const QString store =
        AppDelegate::applicationFilesDirectory() + QStringLiteral("/Tarnwick_bob.storedata");
    EXPECT_EQ(app.persistentStoreCoordinator()->path(), store);
    EXPECT_EQ(modeOf(store), 0600u);

    main->insertNewObject<Infomation>()->setAccount(QStringLiteral("bob"));
    app.saveData();
    EXPECT_FALSE(main->hasChanges());

    // A worker thread gets its own context and sees what the main context saved.
    int seen = -1;
    std::shared_ptr<ManagedObjectContext> workerContext;
    std::thread worker([&] {
        workerContext = app.getManagedObjectContextByThread();
        seen = int(workerContext->fetch<Infomation>().size());
        workerContext.reset();
    });
    worker.join();
    EXPECT_EQ(seen, 1);
    EXPECT_NE(app.getManagedObjectContextByThread(), app.getManagedObjectContextByThread());

    // Another user signing in within this run keeps the first store.
    app.setConfigValue(QStringLiteral("carol"), QStringLiteral("kKeyUseID"));
    EXPECT_EQ(app.persistentStoreCoordinator()->path(), store);
    EXPECT_TRUE(errors.isEmpty());
}

TEST_F(AppCore, UnusableFolderOrStoreIsPresentedAndLeavesTheStoreAbsent)
{
    const QString folder = AppDelegate::applicationFilesDirectory();
    {
        // The folder's name is taken by a plain file.
        ASSERT_TRUE(TestUtil::writeFile(folder, "not a folder"));
        AppDelegate app;
        app.loadConfig(); // cannot write, must not crash
        app.setIsLogined(true);
        QSignalSpy errors(&app, &AppDelegate::errorPresented);
        EXPECT_EQ(app.managedObjectContext(), nullptr);
        ASSERT_EQ(errors.size(), 2);
        const FvError folderError = errors[0][0].value<FvError>();
        EXPECT_EQ(folderError.domain, QStringLiteral("YOUR_ERROR_DOMAIN"));
        EXPECT_EQ(folderError.code, 101);
        EXPECT_EQ(
            folderError.localizedDescription(),
            QStringLiteral("Expected a folder to store application data, found a file (%1).").arg(folder));
        const FvError storeError = errors[1][0].value<FvError>();
        EXPECT_EQ(storeError.code, 9999);
        EXPECT_EQ(storeError.localizedDescription(), QStringLiteral("Failed to initialize the store"));
        EXPECT_EQ(storeError.userInfo.value(QStringLiteral("NSLocalizedFailureReason")).toString(),
                  QStringLiteral("There was an error building up the data file."));
        EXPECT_EQ(app.getManagedObjectContextByThread(), nullptr);
        EXPECT_EQ(errors.last()[0].value<FvError>().code, 9999);
        EXPECT_TRUE(logged(QStringLiteral("found a file")));
        QFile::remove(folder);
    }
    {
        // A damaged store file stays as it is.
        AppDelegate app;
        app.loadConfig();
        app.setConfigValue(QStringLiteral("bob"), QStringLiteral("kKeyUseID"));
        const QString store = folder + QStringLiteral("/Tarnwick_bob.storedata");
        const QByteArray damaged(5000, 'x');
        ASSERT_TRUE(TestUtil::writeFile(store, damaged));
        app.setIsLogined(true);
        QSignalSpy errors(&app, &AppDelegate::errorPresented);
        EXPECT_EQ(app.managedObjectContext(), nullptr);
        ASSERT_EQ(errors.size(), 2);
        EXPECT_EQ(errors[0][0].value<FvError>().code, PersistentStoreCoordinator::NotAStore);
        EXPECT_EQ(errors[1][0].value<FvError>().code, 9999);
        EXPECT_EQ(TestUtil::readFile(store), damaged);
        app.saveData(); // no context: nothing to do, no crash
    }
}

TEST_F(AppCore, LocaleChangeRelabelsAndQuitStopsTheWatcher)
{
    const QLocale before;
    QLocale::setDefault(QLocale(QLocale::English));
    AppDelegate app;
    app.applicationDidFinishLaunching();
    QSignalSpy relabel(&app, &AppDelegate::languageChanged);
    EXPECT_EQ(LanguageUtil::getStringByKey(QStringLiteral("logout")), QStringLiteral("Log out"));

    // The string table follows the locale as soon as the application is told it changed.
    QLocale::setDefault(QLocale(QLocale::German));
    QEvent change(QEvent::LocaleChange);
    QCoreApplication::sendEvent(QCoreApplication::instance(), &change);
    EXPECT_EQ(LanguageUtil::getStringByKey(QStringLiteral("logout")), QStringLiteral("Abmelden"));
    EXPECT_EQ(relabel.count(), 1);
    QLocale::setDefault(QLocale(QLocale::English));
    QCoreApplication::sendEvent(QCoreApplication::instance(), &change);
    EXPECT_EQ(LanguageUtil::getStringByKey(QStringLiteral("logout")), QStringLiteral("Log out"));
    QLocale::setDefault(before);

    // Quitting tells the watcher daemon to stop, with no object.
    DistributedNotificationCenter daemonSide;
    ASSERT_TRUE(daemonSide.isConnected());
    QObject observer;
    QStringList seen;
    daemonSide.addObserver(
        &observer, [&](const QString &name, const QString &object) { seen.append(name + u'|' + object); },
        LinkNames::kDemonStopListener);
    app.applicationWillTerminate();
    EXPECT_TRUE(TestUtil::waitFor([&] { return !seen.isEmpty(); }));
    EXPECT_EQ(seen, QStringList{QStringLiteral("com.velmora.FerrovaneDemon_stopListener|")});
}
