// ferrovane_screenshots DIR: runs the real widget shell against an in-process server on the display
// it is given (scripts/screenshots provides a virtual X server, a window manager and a tray) and
// writes a PNG of every window, the tray icon and the open tray menu into DIR, as the user would see
// them in the language of the locale. Private settings and home folder; nothing of the user's is
// touched. Exit code 0 when every picture was taken.
#include "app/AppDelegate.h"
#include "app/CheckUpdate.h"
#include "app/LanguageUtil.h"
#include "common/TestServer.h"
#include "common/TestUtil.h"
#include "ui/CDLoginViewWidget.h"
#include "ui/DesktopShell.h"
#include "ui/ImageButton.h"
#include "ui/LogWindowWidget.h"
#include "ui/MainWindowWidget.h"
#include "ui/PreferencesPanelWidget.h"
#include "ui/SettingsViewWidget.h"
#include "ui/StatusItem.h"
#include "ui/StatusMenu.h"
#include "util/LogObject.h"
#include "util/NotificationCenter.h"

#include <QApplication>
#include <QDateTime>
#include <QDir>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QScreen>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <cstdio>

namespace {

QString text(const char *key)
{
    return LanguageUtil::getStringByKey(QString::fromLatin1(key));
}

class Shooter
{
public:
    explicit Shooter(const QString &folder) : m_folder(folder) {}

    int failures() const { return m_failures; }

    // Lets the window system and the widgets settle, then grabs `area` of the screen.
    void area(const QRect &area, const QString &name, int zoom = 1)
    {
        QTest::qWait(400);
        QScreen *screen = QGuiApplication::primaryScreen();
        QPixmap picture = screen->grabWindow(0, area.x(), area.y(), area.width(), area.height());
        if (zoom > 1)
            picture = picture.scaled(picture.size() * zoom, Qt::IgnoreAspectRatio, Qt::FastTransformation);
        const QString path = m_folder + u'/' + name + QStringLiteral(".png");
        if (picture.isNull() || !picture.save(path)) {
            std::fprintf(stderr, "screenshots: cannot take %s\n", qPrintable(name));
            ++m_failures;
            return;
        }
        std::printf("%s\n", qPrintable(path));
    }

    // A window with its frame, once it is on screen.
    void window(QWidget *window, const QString &name)
    {
        if (!window || !QTest::qWaitForWindowExposed(window, 10000)) {
            std::fprintf(stderr, "screenshots: %s is not on screen\n", qPrintable(name));
            ++m_failures;
            return;
        }
        QTest::qWait(300); // the frame arrives after the window
        area(window->frameGeometry(), name);
    }

    void fail(const QString &what)
    {
        std::fprintf(stderr, "screenshots: %s\n", qPrintable(what));
        ++m_failures;
    }

private:
    QString m_folder;
    int m_failures = 0;
};

template <class T> T *find(QObject *parent, const char *name)
{
    return parent ? parent->findChild<T *>(QString::fromLatin1(name)) : nullptr;
}

template <class T> T *visibleTopLevel()
{
    for (QWidget *widget : QApplication::topLevelWidgets())
        if (auto *found = qobject_cast<T *>(widget); found && found->isVisible())
            return found;
    return nullptr;
}

// What the sync engine reports while it works, posted from a worker as it does.
void postActivity()
{
    const QString now = QDateTime::currentDateTime().toString(QStringLiteral("yyyy/MM/dd HH:mm:ss"));
    struct Entry
    {
        bool fromServer;
        const char *name, *work;
        qint64 size;
        const char *path;
        bool folder;
        const char *description;
        bool success;
    } entries[] = {
        {true, "Reports", "work_add", -1, "/Documents/Reports", true, "", true},
        {true, "summary.txt", "work_add", 1023, "/Documents/Reports/summary.txt", false, "", true},
        {true, "beach-1.raw", "work_add", 1048576, "/Photos/Été 2024/beach-1.raw", false, "", true},
        {true, "Grüße aus Köln.txt", "work_rename", 2345, "/Documents/Grüße aus Köln.txt", false, "", true},
        {false, "archive.bin", "work_add", 1073741825, "/Projects/archive.bin", false, "", true},
        {false, "notes.md", "work_move", 18432, "/Projects/ferrovane/notes.md", false, "", true},
        {false, "old draft.txt", "work_delete", 512, "/Documents/old draft.txt", false,
         "The server refused the change; it is tried again at the next pass.", false},
    };
    std::unique_ptr<QThread> worker(QThread::create([&] {
        for (const Entry &entry : entries) {
            const LogObject log = LogObject::createLogObjectWithName(
                QString::fromUtf8(entry.name), QString::fromLatin1(entry.work), entry.size,
                QString::fromUtf8(entry.path), entry.folder, now, QString::fromUtf8(entry.description),
                entry.success);
            NotificationCenter::defaultCenter()->postNotificationName(
                QStringLiteral("kKeyLogNotification"), entry.fromServer,
                {{QStringLiteral("log"), QVariant::fromValue(log)}});
        }
    }));
    worker->start();
    worker->wait();
}

QString newerVersion()
{
    QStringList parts = CheckUpdate::shortVersionString().split(u'.');
    parts.last() = QString::number(parts.last().toInt() + 1);
    return parts.join(u'.');
}

} // namespace

int main(int argc, char **argv)
{
    // A home of its own before anything reads the environment.
    QTemporaryDir home;
    qputenv("HOME", QFile::encodeName(home.path()));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.filePath(QStringLiteral("config"))));
    qputenv("XDG_DATA_HOME", QFile::encodeName(home.filePath(QStringLiteral("data"))));
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    if (argc != 2) {
        std::fprintf(stderr, "usage: ferrovane_screenshots DIR\n");
        return 2;
    }
    const QString folder = QDir(QString::fromLocal8Bit(argv[1])).absolutePath();
    QDir().mkpath(folder);
    Shooter shoot(folder);

    TestServer server;
    if (!server.ok() || !server->addUser(QStringLiteral("alice"), QStringLiteral("secret"),
                                         QStringLiteral("alice@example.com"))) {
        std::fprintf(stderr, "screenshots: the local server did not start: %s\n", qPrintable(server.error()));
        return 1;
    }
    server->setQuota(QStringLiteral("alice"), 8LL << 20);
    server->putFile(QStringLiteral("alice"), QStringLiteral("Projects/archive.bin"),
                    QByteArray(3 << 20, 'x'));
    server->setUpdate(newerVersion(), CheckUpdate::bundleVersion(), QByteArray(256 << 10, 'p'));

    AppDelegate app;
    DesktopShell shell(&app);
    app.applicationDidFinishLaunching();
    shell.didFinishLaunching();
    MainWindowWidget *window = shell.mainWindow();
    StatusMenu *menu = shell.statusMenu();
    QSystemTrayIcon *tray = shell.statusItem()->trayIcon();

    // --- Signed out ---
    shoot.window(window, QStringLiteral("main-window-sign-in"));
    if (QSystemTrayIcon::isSystemTrayAvailable() &&
        TestUtil::waitFor([&] { return tray->geometry().isValid(); }))
        shoot.area(tray->geometry().adjusted(-8, -4, 8, 4), QStringLiteral("tray-icon"), 4);
    else
        shoot.fail(QStringLiteral("no tray to show the icon in"));

    CDLoginViewWidget *login = window->loginViewWidget();
    if (!login)
        return 1;
    QTest::keyClicks(find<QLineEdit>(login, "domainTextField"), server->domain());
    QTest::keyClicks(find<QLineEdit>(login, "useridTextField"), QStringLiteral("alice"));
    QTest::keyClicks(find<QLineEdit>(login, "passwordTextField"), QStringLiteral("wrong"));
    login->loginButton()->click();
    auto *failText = find<QLabel>(login, "failTextField");
    if (!TestUtil::waitFor([&] { return failText->isVisible(); }))
        shoot.fail(QStringLiteral("the refused sign-in showed nothing"));
    shoot.window(window, QStringLiteral("main-window-sign-in-failed"));

    // --- Signed in ---
    auto *password = find<QLineEdit>(login, "passwordTextField");
    password->clear();
    QTest::keyClicks(password, QStringLiteral("secret"));
    login->loginButton()->click();
    SettingsViewWidget *settings = window->settingsViewWidget();
    if (!TestUtil::waitFor([&] { return settings->isVisible(); })) {
        shoot.fail(QStringLiteral("the sign-in did not succeed"));
        return 1;
    }
    shoot.window(window, QStringLiteral("main-window-settings"));

    find<QPushButton>(settings, "searchButton")->click();
    shoot.window(find<QFileDialog>(window, "directoryChooser"), QStringLiteral("directory-chooser"));
    if (auto *chooser = find<QFileDialog>(window, "directoryChooser"))
        chooser->reject();

    find<ImageButton>(settings, "onoffButton")->click();
    app.startStatusBarAnimation();
    shoot.window(window, QStringLiteral("main-window-syncing"));
    if (QSystemTrayIcon::isSystemTrayAvailable())
        shoot.area(tray->geometry().adjusted(-8, -4, 8, 4), QStringLiteral("tray-icon-syncing"), 4);

    // --- The tray menu, then with the account panel open ---
    const QRect icon = tray->geometry();
    const QPoint at = icon.isValid() ? icon.bottomLeft() + QPoint(0, 2) : QPoint(600, 40);
    // A late activation of the main window may close the first popup: open it until it stays.
    for (int attempt = 0; attempt < 3 && !menu->isVisible(); ++attempt) {
        menu->popup(at);
        if (QTest::qWaitForWindowExposed(menu, 5000))
            QTest::qWait(600);
    }
    if (!menu->isVisible())
        shoot.fail(QStringLiteral("the tray menu did not open"));
    shoot.area(menu->geometry(), QStringLiteral("tray-menu"));
    if (QAction *account = find<QAction>(menu, "accountMenuItem")) {
        menu->setActiveAction(account);
        QTest::keyClick(menu, Qt::Key_Right);
        QMenu *panel = find<QMenu>(menu, "accountMenu");
        if (!panel || !TestUtil::waitFor([&] { return panel->isVisible(); }, 5000)) {
            shoot.fail(QStringLiteral("the account panel did not open"));
        } else {
            // Until the quota has come.
            TestUtil::waitFor([&] { return !app.accountView()->isLoading(); }, 5000);
            shoot.area(menu->geometry().united(panel->geometry()), QStringLiteral("tray-menu-account"));
        }
    }
    menu->hide();

    // --- The other windows ---
    find<QAction>(menu, "preferencesMenuItem")->trigger();
    shoot.window(shell.preferencesPanel(), QStringLiteral("preferences"));
    shell.preferencesPanel()->close();

    postActivity();
    find<QAction>(menu, "logMenuItem")->trigger();
    shoot.window(shell.logWindow(), QStringLiteral("activity-log"));
    shell.logWindow()->close();

    find<QAction>(menu, "checkUpdateMenuItem")->trigger();
    QMessageBox *offer = nullptr;
    if (!TestUtil::waitFor([&] { return (offer = visibleTopLevel<QMessageBox>()) != nullptr; })) {
        shoot.fail(QStringLiteral("no update offer"));
    } else {
        shoot.window(offer, QStringLiteral("update-offer"));
        for (QAbstractButton *button : offer->buttons())
            if (button->text() == text("update"))
                button->click();
        QWidget *download = nullptr;
        const auto downloadWindow = [&] {
            for (QWidget *widget : QApplication::topLevelWidgets())
                if (widget->isVisible() && widget->inherits("DownloadUpdateWindowWidget"))
                    download = widget;
            return download != nullptr;
        };
        if (!TestUtil::waitFor(downloadWindow))
            shoot.fail(QStringLiteral("no download window"));
        else if (!TestUtil::waitFor(
                     [&] { return find<QPushButton>(download, "installButton")->isVisible(); }))
            shoot.fail(QStringLiteral("the download did not complete"));
        shoot.window(download, QStringLiteral("update-download"));
    }

    app.applicationWillTerminate();
    return shoot.failures() == 0 ? 0 : 1;
}
