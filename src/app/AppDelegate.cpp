// AppDelegate: construction, the launch sequence, quit, the settings file and the login item.
#include "app/AppDelegate.h"

#include "app/LanguageUtil.h"
#include "app/SettingsFile.h"
#include "catalogue/DatabaseUtils.h"
#include "link/DistributedNotificationCenter.h"
#include "link/LinkNames.h"
#include "util/Log.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QSysInfo>
#include <QThread>
#include <QTimer>

namespace {

const QString kConfigName = QStringLiteral("config.plist");

QString xdgFolder(const char *variable, const QString &fallback)
{
    const QString value = qEnvironmentVariable(variable);
    if (!value.isEmpty() && QDir::isAbsolutePath(value))
        return QDir::cleanPath(value);
    return QDir::homePath() + u'/' + fallback;
}

// A value for the Exec key of a desktop entry: quoted when it holds anything special.
QString execValue(const QString &program)
{
    static const QString special = QStringLiteral(" \t\n\"'\\><~|&;$*?#()`");
    if (std::none_of(program.cbegin(), program.cend(), [](QChar c) { return special.contains(c); }))
        return program;
    QString quoted;
    for (const QChar c : program) {
        if (c == u'"' || c == u'`' || c == u'$' || c == u'\\')
            quoted += u'\\';
        quoted += c;
    }
    // The desktop-entry reader unescapes backslashes once more.
    quoted.replace(u'\\', QStringLiteral("\\\\"));
    return u'"' + quoted + u'"';
}

} // namespace

AppDelegate::AppDelegate(QObject *parent) : QObject(parent)
{
    // Signed out until a sign-in succeeds: no settings view, no sync items, "login" in the menu.
    m_settingView.setHidden(true);
    m_logoutButton.setHidden(true);
    m_logoutMenuItem.setHidden(true);
    m_logoutTrayMenuItem.setHidden(true);
    m_syncStartMenuItem.setEnabled(false);
    m_syncStopMenuItem.setEnabled(false);
    m_openSyncFolderMenuItem.setEnabled(false);
    m_checkUpdateMenuItem.setEnabled(false);
    m_addShortcut.setEnabled(false);
    m_preferencesPanel.setHidden(true);
    setOnLook(&m_onoffButton);
    setOffLook(&m_notificationCheckBox);
}

AppDelegate::~AppDelegate()
{
    endProcessWindowController();
    m_loginView.reset();
    m_accountView.reset();
    if (AppServices::shared() == this)
        AppServices::setShared(nullptr);
}

void AppDelegate::applicationDidFinishLaunching(bool signInWithStoredCredentials)
{
    AppServices::setShared(this);
    m_terminated = false;
    DistributedNotificationCenter::defaultCenter()->addObserver(
        this, [this](const QString &name, const QString &object) { readDemon(name, object); },
        LinkNames::kTestNotification);
    m_checkUpdateMenuItem.setEnabled(false);
    QThread::currentThread()->setObjectName(QStringLiteral("Application thread"));
    // Loads the string table; the catalogue (below the app layer) reaches it through its localizer.
    LanguageUtil::getStringByKey(QString());
    DatabaseUtils::setLocalizer(&LanguageUtil::getStringByKey);
    setTileForComponent();
    if (QCoreApplication *app = QCoreApplication::instance()) {
        app->installEventFilter(this);
        connect(app, &QCoreApplication::aboutToQuit, this, &AppDelegate::applicationWillTerminate,
                Qt::UniqueConnection);
    }
    changeIconWithImageName(idleImageName());
    loadConfig();
    // Replaced at every launch: a name the user typed lasts until the next start.
    setConfigValue(QSysInfo::machineHostName(), QStringLiteral("kKeyPCName"));
    emit logWindowNeeded();
    const QVariant autoStart = getConfigValueByKey(QStringLiteral("kKeyAutoStart"));
    if (autoStart.isValid() && !autoStart.toBool()) {
        setLoginItemEnabled(false);
    } else {
        setConfigValue(true, QStringLiteral("kKeyAutoStart"));
        setLoginItemEnabled(true);
    }
    makeLoginView();
    if (signInWithStoredCredentials && getConfigValueByKey(QStringLiteral("kKeyUseID")).isValid() &&
        getConfigValueByKey(QStringLiteral("kKeyPassword")).isValid())
        m_loginView->login();
    if (!m_accountView)
        m_accountView = AccountView::instance();
}

void AppDelegate::applicationWillTerminate()
{
    if (m_terminated)
        return;
    m_terminated = true;
    endProcessWindowController();
    DistributedNotificationCenter::defaultCenter()->postNotificationName(LinkNames::kDemonStopListener);
}

bool AppDelegate::applicationShouldHandleReopen(bool hasVisibleWindows)
{
    if (!hasVisibleWindows)
        showMainWindow();
    return true;
}

void AppDelegate::readDemon(const QString &, const QString &) {}

bool AppDelegate::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == QCoreApplication::instance() && event->type() == QEvent::LocaleChange) {
        LanguageUtil::readLanguage();
        setTileForComponent();
        emit languageChanged();
    }
    return QObject::eventFilter(watched, event);
}

bool AppDelegate::makePrivateFolder(const QString &path)
{
    if (!QDir().mkpath(path))
        return false;
    return QFile::setPermissions(path,
                                 QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
}

// --- Settings ---

QString AppDelegate::applicationFilesDirectory()
{
    return xdgFolder("XDG_DATA_HOME", QStringLiteral(".local/share")) + u'/' + bundleIdentifier();
}

QString AppDelegate::configPath()
{
    return applicationFilesDirectory() + u'/' + kConfigName;
}

void AppDelegate::loadConfig()
{
    const QString path = configPath();
    QVariantMap loaded;
    QString problem;
    if (QFileInfo::exists(path) && SettingsFile::read(path, &loaded, &problem)) {
        QMutexLocker lock(&m_configLock);
        m_config = loaded;
        return;
    }
    if (QFileInfo::exists(path)) {
        // Keep what could not be read, so a hand-edited file is not lost.
        const QString broken = path + QStringLiteral(".broken");
        QFile::remove(broken);
        const bool kept = QFile::copy(path, broken);
        FV_LOG(QStringLiteral("Cannot read %1 (%2); starting with fresh settings%3")
                   .arg(path, problem,
                        kept ? QStringLiteral(", the old file is kept as ") + broken : QString()));
    } else {
        FV_LOG(QStringLiteral("No settings file at %1; starting with fresh settings").arg(path));
    }
    {
        QMutexLocker lock(&m_configLock);
        m_config = QVariantMap{{QStringLiteral("kKeyNotification"), true}};
    }
    saveConfig();
}

QVariant AppDelegate::getConfigValueByKey(const QString &key) const
{
    QMutexLocker lock(&m_configLock);
    return m_config.value(key);
}

void AppDelegate::setConfigValue(const QVariant &value, const QString &key)
{
    {
        QMutexLocker lock(&m_configLock);
        if (!value.isValid() || value.isNull())
            m_config.remove(key);
        else
            m_config.insert(key, value);
    }
    saveConfig();
}

void AppDelegate::saveConfig()
{
    const QVariantMap snapshot = config();
    const QString folder = applicationFilesDirectory();
    if (!QFileInfo(folder).isDir() && !makePrivateFolder(folder)) {
        FV_LOG(QStringLiteral("Cannot create the folder %1; settings are not saved").arg(folder));
        return;
    }
    QString problem;
    if (!SettingsFile::write(configPath(), snapshot, &problem))
        FV_LOG(QStringLiteral("Cannot write %1: %2").arg(configPath(), problem));
}

void AppDelegate::clearAccountInfomation()
{
    {
        QMutexLocker lock(&m_configLock);
        m_config.remove(QStringLiteral("kKeyUseID"));
        m_config.remove(QStringLiteral("kKeyPassword"));
        m_config.remove(QStringLiteral("kKeySESSTION"));
    }
    saveConfig();
}

QVariantMap AppDelegate::config() const
{
    QMutexLocker lock(&m_configLock);
    return m_config;
}

// --- Login item ---

QString AppDelegate::loginItemPath()
{
    return xdgFolder("XDG_CONFIG_HOME", QStringLiteral(".config")) + QStringLiteral("/autostart/") +
           bundleIdentifier() + QStringLiteral(".desktop");
}

bool AppDelegate::setLoginItemEnabled(bool enabled)
{
    const QString path = loginItemPath();
    if (!enabled) {
        if (QFileInfo::exists(path) && !QFile::remove(path)) {
            FV_LOG(QStringLiteral("Cannot remove the login item %1").arg(path));
            return false;
        }
        return true;
    }
    const QString program =
        QCoreApplication::instance() ? QCoreApplication::applicationFilePath() : QStringLiteral("ferrovane");
    const QString entry = QStringLiteral("[Desktop Entry]\n"
                                         "Type=Application\n"
                                         "Name=Ferrovane\n"
                                         "Comment=Keeps your Ferrovane folder in sync\n"
                                         "Exec=%1\n"
                                         "Terminal=false\n"
                                         "X-GNOME-Autostart-enabled=true\n")
                              .arg(execValue(program));
    QDir().mkpath(QFileInfo(path).absolutePath());
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(entry.toUtf8()) < 0 || !file.commit()) {
        FV_LOG(QStringLiteral("Cannot write the login item %1: %2").arg(path, file.errorString()));
        return false;
    }
    return true;
}

bool AppDelegate::startAtLogin()
{
    return QFileInfo::exists(loginItemPath());
}

void AppDelegate::setStartAtLogin(bool enabled)
{
    setLoginItemEnabled(enabled);
}
