// build/bin/ferrovane as a process: the tray application on a virtual X server registering its
// tray item with a stand-in StatusNotifierWatcher on the test bus and set up by its options; the
// choice between widgets and --headless; the headless client answering update offers.
#include "BusStandIns.h"
#include "UiTestSupport.h"
#include "app/CheckUpdate.h"
#include "app/SettingsFile.h"
#include "common/TestServer.h"
#include "common/TestUtil.h"

#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusReply>
#include <QDBusVariant>
#include <QDir>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <csignal>
#include <gtest/gtest.h>
#include <unistd.h>

using UiTest::tr;

namespace {

// One item of a menu exported over com.canonical.dbusmenu.
struct MenuItem
{
    QString label;
    bool enabled = true;
    bool visible = true;
    QList<MenuItem> children;

    const MenuItem *find(const QString &title) const
    {
        for (const MenuItem &child : children)
            if (child.label == title)
                return &child;
        return nullptr;
    }
};

MenuItem readMenuItem(const QDBusArgument &argument)
{
    MenuItem item;
    int id = 0;
    QVariantMap properties;
    argument.beginStructure();
    argument >> id >> properties;
    argument.beginArray();
    while (!argument.atEnd()) {
        QDBusVariant child;
        argument >> child;
        item.children << readMenuItem(child.variant().value<QDBusArgument>());
    }
    argument.endArray();
    argument.endStructure();
    item.label = properties.value(QStringLiteral("label")).toString();
    item.enabled = properties.value(QStringLiteral("enabled"), true).toBool();
    item.visible = properties.value(QStringLiteral("visible"), true).toBool();
    return item;
}

QString newerVersion()
{
    QStringList parts = CheckUpdate::shortVersionString().split(u'.');
    parts.last() = QString::number(parts.last().toInt() + 1);
    return parts.join(u'.');
}

class ClientProcess : public ::testing::Test
{
protected:
    void SetUp() override
    {
        UiTest::useLanguage(QLocale::English);
        ASSERT_TRUE(server.ok()) << qPrintable(server.error());
        ASSERT_TRUE(server->addUser(QStringLiteral("alice"), QStringLiteral("secret")));
        ASSERT_TRUE(QFileInfo::exists(program())) << qPrintable(program());
    }
    void TearDown() override
    {
        // Everything the test started goes, the virtual X server included.
        if (process.state() != QProcess::NotRunning) {
            ::kill(-pid_t(process.processId()), SIGKILL);
            process.waitForFinished(5000);
        }
    }

    static QString program() { return QCoreApplication::applicationDirPath() + QStringLiteral("/ferrovane"); }

    // A home of its own, English, the test server trusted, and no display unless one is given.
    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), home.path());
        env.insert(QStringLiteral("XDG_DATA_HOME"), home.filePath(QStringLiteral("data")));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
        env.insert(QStringLiteral("FERROVANE_CA_FILE"), TestServer::certificatePath());
        env.insert(QStringLiteral("LC_ALL"), QStringLiteral("en_US.UTF-8"));
        for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
            env.remove(QString::fromLatin1(name));
        return env;
    }

    QStringList signIn()
    {
        return {QStringLiteral("--domain"), server->domain(), QStringLiteral("--user"),
                QStringLiteral("alice"), QStringLiteral("--password-stdin")};
    }

    void start(const QString &executable, const QStringList &arguments, const QProcessEnvironment &env,
               const QByteArray &input = {})
    {
        process.setProcessEnvironment(env);
        QObject::connect(&process, &QProcess::readyReadStandardOutput, &process, [this] {
            pending += process.readAllStandardOutput();
            qsizetype end;
            while ((end = pending.indexOf('\n')) >= 0) {
                lines << QString::fromUtf8(pending.left(end));
                pending.remove(0, end + 1);
            }
        });
        // A process group of its own, so that a failed test can end all of it.
        process.setChildProcessModifier([] { ::setsid(); });
        process.start(executable, arguments);
        ASSERT_TRUE(process.waitForStarted(10000));
        process.write(input);
        process.closeWriteChannel();
    }

    // The exit code once the process ended (bounded), or -1.
    int exitCode(int timeoutMs = 30000)
    {
        if (!TestUtil::waitFor([&] { return process.state() == QProcess::NotRunning; }, timeoutMs))
            return -1;
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

    QTemporaryDir home;
    TestServer server;
    QProcess process;
    QByteArray pending;
    QStringList lines;
};

} // namespace

TEST_F(ClientProcess, TrayItemRegistersWithTheWatcherAndOffersTheStatusMenu)
{
    if (!QDBusConnection::sessionBus().isConnected())
        GTEST_SKIP() << "no D-Bus session bus; run the tests under dbus-run-session";
    const QString xvfbRun = QStandardPaths::findExecutable(QStringLiteral("xvfb-run"));
    if (xvfbRun.isEmpty())
        GTEST_SKIP() << "xvfb-run is not installed (Debian package xvfb)";
    BusStandIns::StatusNotifierWatcher watcher;
    ASSERT_TRUE(watcher.start());

    // The tray application on a display of its own, set up by its options: signed in, with a
    // folder of the test's. (Sync stays off: the engine would start the watcher daemon on the bus
    // other test programs share.)
    const QString folder = home.filePath(QStringLiteral("Synced"));
    QProcessEnvironment env = environment();
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    ASSERT_NO_FATAL_FAILURE(start(xvfbRun,
                                  QStringList{QStringLiteral("-a"), QStringLiteral("-s"),
                                              QStringLiteral("-screen 0 800x600x24 -nolisten tcp"), program()}
                                      << signIn() << QStringLiteral("--folder") << folder,
                                  env, "secret\n"));
    ASSERT_TRUE(TestUtil::waitFor([&] { return !watcher.registered.isEmpty(); }, 60000))
        << qPrintable(QString::fromUtf8(process.readAllStandardError()));
    // The item is named by its bus name (unique or well-known), with its object at the usual path.
    const QString item = watcher.registered.constFirst();
    const QDBusReply<uint> pid = watcher.bus().interface()->servicePid(item);
    ASSERT_TRUE(pid.isValid()) << qPrintable(item);

    // Read with plain Properties.Get calls: a QDBusInterface proxy would introspect the item and
    // make Qt D-Bus register a synthesized metatype for each signature it has no type for (the
    // icon pixmaps' and the tool tip's), which it keeps for the life of the process and never frees.
    const auto itemProperty = [&](const QString &name) {
        QDBusMessage call = QDBusMessage::createMethodCall(item, QStringLiteral("/StatusNotifierItem"),
                                                           QStringLiteral("org.freedesktop.DBus.Properties"),
                                                           QStringLiteral("Get"));
        call << QStringLiteral("org.kde.StatusNotifierItem") << name;
        const QDBusMessage reply = watcher.bus().call(call, QDBus::Block, 10000);
        EXPECT_EQ(reply.type(), QDBusMessage::ReplyMessage)
            << qPrintable(name) << ": " << qPrintable(reply.errorMessage());
        return reply.arguments().isEmpty() ? QVariant()
                                           : reply.arguments().at(0).value<QDBusVariant>().variant();
    };
    EXPECT_EQ(itemProperty(QStringLiteral("Status")).toString(), QStringLiteral("Active"));
    const QString menuPath = itemProperty(QStringLiteral("Menu")).value<QDBusObjectPath>().path();
    ASSERT_FALSE(menuPath.isEmpty());

    // The options' set-up ran: signed in, the folder saved.
    const QString config = home.filePath(QStringLiteral("data/com.velmora.Ferrovane/config.plist"));
    QVariantMap settings;
    ASSERT_TRUE(TestUtil::waitFor([&] {
        return SettingsFile::read(config, &settings) &&
               settings.value(QStringLiteral("kKeyPath")).toString() == folder;
    })) << qPrintable(config);
    EXPECT_EQ(settings.value(QStringLiteral("kKeyUseID")).toString(), QStringLiteral("alice"));

    // The menu as the desktop draws it: every item titled from the string table, enabled as
    // signed in with sync off says.
    const auto layout = [&] {
        QDBusMessage call = QDBusMessage::createMethodCall(
            item, menuPath, QStringLiteral("com.canonical.dbusmenu"), QStringLiteral("GetLayout"));
        call << 0 << -1 << QStringList();
        const QDBusMessage reply = watcher.bus().call(call, QDBus::Block, 10000);
        EXPECT_EQ(reply.type(), QDBusMessage::ReplyMessage) << qPrintable(reply.errorMessage());
        return reply.arguments().size() == 2 ? readMenuItem(reply.arguments().at(1).value<QDBusArgument>())
                                             : MenuItem{};
    };
    ASSERT_TRUE(TestUtil::waitFor([&] {
        const MenuItem current = layout(); // kept: find() points into it
        const MenuItem *start = current.find(tr("start_menu_item"));
        return start && start->enabled;
    }));
    const MenuItem menu = layout();
    for (const char *key :
         {"logout", "account", "start_menu_item", "stop_menu_item", "open_sync_folder_menu_item", "log",
          "clear_log", "preferences", "check_update", "quit"})
        EXPECT_TRUE(menu.find(tr(key))) << key;
    EXPECT_FALSE(menu.find(tr("stop_menu_item"))->enabled);
    EXPECT_TRUE(menu.find(tr("check_update"))->enabled);
    EXPECT_TRUE(menu.find(tr("quit"))->enabled);

    // SIGTERM ends it cleanly; its item leaves the bus with it.
    ASSERT_EQ(::kill(pid_t(pid.value()), SIGTERM), 0);
    EXPECT_EQ(exitCode(), 0) << qPrintable(QString::fromUtf8(process.readAllStandardError()));
    const QDBusReply<bool> stillThere = watcher.bus().interface()->isServiceRegistered(item);
    EXPECT_FALSE(stillThere.value());
}

TEST_F(ClientProcess, WidgetsNeedADisplayAndHelpNeedsNone)
{
    ASSERT_NO_FATAL_FAILURE(start(program(), {}, environment()));
    EXPECT_EQ(exitCode(), 2);
    EXPECT_TRUE(QString::fromUtf8(process.readAllStandardError()).contains(QStringLiteral("--headless")));

    QProcess help;
    help.setProcessEnvironment(environment());
    help.start(program(), {QStringLiteral("--help")});
    ASSERT_TRUE(help.waitForFinished(30000));
    EXPECT_EQ(help.exitCode(), 0);
    const QString text = QString::fromUtf8(help.readAllStandardOutput());
    for (const char *expected : {"tray", "--headless", "--domain", "--password-stdin", "--folder", "--sync",
                                 "update        version, build"})
        EXPECT_TRUE(text.contains(QString::fromLatin1(expected))) << expected;
}

TEST_F(ClientProcess, HeadlessClientDeclinesEachOfferSoTheNextCheckRuns)
{
    ASSERT_TRUE(server->setUpdate(newerVersion(), CheckUpdate::bundleVersion(), "package"));
    ASSERT_NO_FATAL_FAILURE(
        start(program(), QStringList{QStringLiteral("--headless")} << signIn(), environment(), "secret\n"));
    // The checker asks every 60 seconds through the time scale; a second offer shows the first was
    // answered.
    const auto offers = [&] { return lines.filter(QRegularExpression(QStringLiteral("^update\\t"))).size(); };
    ASSERT_TRUE(TestUtil::waitFor([&] { return offers() >= 2; }, 60000)) << qPrintable(lines.join(u'\n'));
    EXPECT_TRUE(
        lines.contains(QStringLiteral("update\t%1\t%2").arg(newerVersion(), CheckUpdate::bundleVersion())))
        << qPrintable(lines.join(u'\n'));
    process.terminate();
    EXPECT_EQ(exitCode(), 0);
}
