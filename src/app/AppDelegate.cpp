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

bool makePrivateFolder(const QString &path)
{
    if (!QDir().mkpath(path))
        return false;
    return QFile::setPermissions(path,
                                 QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
}

} // namespace

AppDelegate::AppDelegate(QObject *parent) : QObject(parent) {}

AppDelegate::~AppDelegate()
{
    if (AppServices::shared() == this)
        AppServices::setShared(nullptr);
}

void AppDelegate::applicationDidFinishLaunching()
{
    QThread::currentThread()->setObjectName(QStringLiteral("Application thread"));
    // Loads the string table; the catalogue (below the app layer) reaches it through its localizer.
    LanguageUtil::getStringByKey(QString());
    DatabaseUtils::setLocalizer(&LanguageUtil::getStringByKey);
    if (QCoreApplication *app = QCoreApplication::instance()) {
        app->installEventFilter(this);
        connect(app, &QCoreApplication::aboutToQuit, this, &AppDelegate::applicationWillTerminate);
    }
    loadConfig();
    // Replaced at every launch: a name the user typed lasts until the next start.
    setConfigValue(QSysInfo::machineHostName(), QStringLiteral("kKeyPCName"));
    const QVariant autoStart = getConfigValueByKey(QStringLiteral("kKeyAutoStart"));
    if (autoStart.isValid() && !autoStart.toBool()) {
        setLoginItemEnabled(false);
    } else {
        setConfigValue(true, QStringLiteral("kKeyAutoStart"));
        setLoginItemEnabled(true);
    }
}

void AppDelegate::applicationWillTerminate()
{
    DistributedNotificationCenter::defaultCenter()->postNotificationName(LinkNames::kDemonStopListener);
}

bool AppDelegate::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == QCoreApplication::instance() && event->type() == QEvent::LocaleChange) {
        LanguageUtil::readLanguage();
        emit languageChanged();
    }
    return QObject::eventFilter(watched, event);
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

// --- Store stack ---

FvError AppDelegate::storeError() const
{
    return FvError(
        errorDomain(), 9999,
        {{QStringLiteral("NSLocalizedDescription"), QStringLiteral("Failed to initialize the store")},
         {QStringLiteral("NSLocalizedFailureReason"),
          QStringLiteral("There was an error building up the data file.")}});
}

std::shared_ptr<PersistentStoreCoordinator> AppDelegate::persistentStoreCoordinator()
{
    FvError failure;
    {
        QMutexLocker lock(&m_storeLock);
        if (m_persistentStoreCoordinator)
            return m_persistentStoreCoordinator;
        const QString folder = applicationFilesDirectory();
        const QFileInfo info(folder);
        if (info.exists() && !info.isDir()) {
            failure =
                FvError(errorDomain(), 101,
                        {{QStringLiteral("NSLocalizedDescription"),
                          QStringLiteral("Expected a folder to store application data, found a file (%1).")
                              .arg(folder)}});
        } else if (!info.exists() && !makePrivateFolder(folder)) {
            failure = FvError(errorDomain(), 102,
                              {{QStringLiteral("NSLocalizedDescription"),
                                QStringLiteral("Could not create the folder to store application data (%1).")
                                    .arg(folder)}});
        } else {
            // The user id becomes part of a file name: keep it inside the folder.
            QString user = getConfigValueByKey(QStringLiteral("kKeyUseID")).toString();
            user.replace(u'/', u'_').replace(QChar(0), u'_');
            const QString path = folder + QStringLiteral("/Tarnwick_") + user + QStringLiteral(".storedata");
            m_persistentStoreCoordinator = PersistentStoreCoordinator::create(path, &failure);
            if (m_persistentStoreCoordinator)
                return m_persistentStoreCoordinator;
        }
    }
    // Presented outside the lock: whoever shows it may come back for a context.
    presentError(failure);
    return nullptr;
}

std::shared_ptr<ManagedObjectContext> AppDelegate::managedObjectContext()
{
    if (!m_isLogined)
        return nullptr;
    if (m_managedObjectContext)
        return m_managedObjectContext;
    if (QThread::currentThread() != thread())
        FV_LOG(QStringLiteral("The main context is being built off the main thread"));
    const std::shared_ptr<PersistentStoreCoordinator> coordinator = persistentStoreCoordinator();
    if (!coordinator) {
        presentError(storeError());
        return nullptr;
    }
    FvError failure;
    m_managedObjectContext = ManagedObjectContext::create(coordinator, &failure);
    if (!m_managedObjectContext)
        presentError(failure);
    return m_managedObjectContext;
}

std::shared_ptr<ManagedObjectContext> AppDelegate::getManagedObjectContextByThread()
{
    const std::shared_ptr<PersistentStoreCoordinator> coordinator = persistentStoreCoordinator();
    if (!coordinator) {
        presentError(storeError());
        return nullptr;
    }
    FvError failure;
    std::shared_ptr<ManagedObjectContext> context = ManagedObjectContext::create(coordinator, &failure);
    if (!context)
        presentError(failure);
    return context;
}

void AppDelegate::saveData()
{
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(this, &AppDelegate::saveData, Qt::BlockingQueuedConnection);
        return;
    }
    const std::shared_ptr<ManagedObjectContext> context = m_managedObjectContext;
    if (!context || !context->hasChanges())
        return;
    FvError failure;
    if (!context->save(&failure))
        presentError(failure);
}

void AppDelegate::deleteManagedObject(const ManagedObjectPtr &object)
{
    if (m_managedObjectContext)
        m_managedObjectContext->deleteObject(object);
}

void AppDelegate::presentError(const FvError &error)
{
    QString text = error.toString();
    const QString reason = error.userInfo.value(QStringLiteral("NSLocalizedFailureReason")).toString();
    if (!reason.isEmpty())
        text += QStringLiteral(" (") + reason + u')';
    FV_LOG(text);
    emit errorPresented(error);
}

// --- Services announced to the shell ---

void AppDelegate::postNotificationWithTitle(const QString &title, const QString &message)
{
    emit notificationPosted(title, message);
}

void AppDelegate::startStatusBarAnimation()
{
    emit statusBarAnimationChanged(true);
}
void AppDelegate::stopStatusBarAnimation()
{
    emit statusBarAnimationChanged(false);
}

void AppDelegate::relogin()
{
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(this, &AppDelegate::relogin, Qt::QueuedConnection);
        return;
    }
    m_isRetry = true;
    emit reloginRequested();
}
