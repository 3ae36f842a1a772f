// AppDelegate: the sign-in and sync flow (sign-in success, the sync switch, the sync folder and its
// desktop shortcut, sign-out and forced re-sign-in).
#include "app/AppDelegate.h"
#include "app/LanguageUtil.h"
#include "catalogue/DatabaseUtils.h"
#include "util/Log.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QSysInfo>
#include <QThread>

namespace {
QString text(const char *key)
{
    return LanguageUtil::getStringByKey(QString::fromLatin1(key));
}
} // namespace

// --- The sign-in view ---

void AppDelegate::makeLoginView()
{
    if (m_loginView)
        return;
    m_loginView = CDLoginView::getInstanceInFrame();
    m_loginView->setDelegate(this);
    CDLoginView *view = m_loginView.get();
    connect(view, &CDLoginView::loginFailed, this, [this, view](CDLoginView::Failure failure) {
        emit signInFailed(failure, view->failTextField()->stringValue());
    });
    setDefaultButton(view->loginButton());
    emit loginViewChanged(view);
}

void AppDelegate::dropLoginView()
{
    if (!m_loginView)
        return;
    // The view may be calling us (its success callback): let it return before it goes.
    CDLoginView *view = m_loginView.release();
    view->setDelegate(nullptr);
    view->deleteLater();
    emit loginViewChanged(nullptr);
}

void AppDelegate::setDefaultButton(ViewControl *button)
{
    if (std::exchange(m_defaultButton, button) != button)
        emit defaultButtonChanged(button);
}

void AppDelegate::didLoginSuccessful(CDLoginView *)
{
    m_isRunning = false;
    m_checkUpdateMenuItem.setEnabled(true);

    dropLoginView();
    m_logoutMenuItem.setHidden(false);
    m_logoutTrayMenuItem.setHidden(false);

    const QVariant pcName = getConfigValueByKey(QStringLiteral("kKeyPCName"));
    m_pcNameTextField.setStringValue(pcName.isValid() ? pcName.toString() : QSysInfo::machineHostName());
    const QString domain = getConfigValueByKey(QStringLiteral("kKeyDomain")).toString();
    m_idLabel.setStringValue(getConfigValueByKey(QStringLiteral("kKeyUseID")).toString() +
                             QStringLiteral(" (%1)").arg(domain));

    // The main context is built here, on the main thread, if the sign-in view did not build it.
    const InfomationPtr infomation =
        DatabaseUtils::instance()->getInfomationWithManagedObjectContext(managedObjectContext());
    QString folder = infomation ? infomation->path() : QString();
    if (folder.isEmpty()) {
        folder = QDir::homePath() + QStringLiteral("/CloudFolder");
        setConfigValue(false, QStringLiteral("kKeyAutoSync"));
    }

    setConfigValue(folder, QStringLiteral("kKeyPath"));
    checkShortcut(folder);
    m_pathTextField.setStringValue(folder);
    m_settingView.setHidden(false);
    m_logoutButton.setHidden(false);
    m_loginMenuItem.setStringValue(text("logout"));
    m_isLogined = true;
    setDefaultButton(&m_saveButton);

    emit updateCheckerNeeded(domain);

    m_autoStartCheckBox.setChecked(getConfigValueByKey(QStringLiteral("kKeyAutoStart")).toBool());
    changeNotificationButton(notificationsEnabled());

    emit signedIn();
    if (getConfigValueByKey(QStringLiteral("kKeyAutoSync")).toBool())
        onoffAction();
    // Signed in with sync off, the start item is live (the switch keeps it so from here on).
    m_syncStartMenuItem.setEnabled(!m_isRunning);
    m_syncStopMenuItem.setEnabled(m_isRunning);
    m_openSyncFolderMenuItem.setEnabled(true);
}

// --- The sync switch ---

void AppDelegate::onoffAction()
{
    if (!m_isRunning && (!m_isLogined || m_terminated)) {
        FV_LOG(m_terminated ? QStringLiteral("Quitting: sync stays off")
                            : QStringLiteral("Not signed in: sync stays off"));
        return;
    }
    m_isRunning = !m_isRunning;
    if (m_isRunning)
        switchOn();
    else
        switchOff();
    // Once the switch was used, sync starts after every later sign-in; only sign-out clears it.
    setConfigValue(true, QStringLiteral("kKeyAutoSync"));
}

void AppDelegate::stopSync()
{
    m_isRunning = false;
    switchOff();
}

void AppDelegate::switchOn()
{
    setOffLook(&m_onoffButton);
    m_onoffButton.setStringValue(text("off"));
    saveAction();
    m_processWindowController = std::make_unique<ProcessWindowController>(this);
    emit processWindowControllerChanged(m_processWindowController.get());
    m_statusTextField.setStringValue(text("in_sync"));
    m_syncStopMenuItem.setEnabled(true);
    m_syncStartMenuItem.setEnabled(false);
}

void AppDelegate::switchOff()
{
    setOnLook(&m_onoffButton);
    m_onoffButton.setStringValue(text("on"));
    endProcessWindowController();
    stopCatalogueTimer();
    m_statusTextField.setStringValue(text("stop_sync"));
    m_syncStopMenuItem.setEnabled(false);
    m_syncStartMenuItem.setEnabled(true);
    disableComponent(false);
}

void AppDelegate::endProcessWindowController()
{
    if (!m_processWindowController)
        return;
    m_processWindowController->disconnect();
    // Dropped after the announcement, so that observers can let go of it first.
    std::unique_ptr<ProcessWindowController> ended = std::move(m_processWindowController);
    emit processWindowControllerChanged(nullptr);
    ended.reset();
}

void AppDelegate::stopCatalogueTimer()
{
    const std::shared_ptr<DatabaseUtils> catalogue = DatabaseUtils::instance();
    if (!catalogue->timer())
        return;
    catalogue->setTimer(nullptr);
    DatabaseUtils::destroy();
}

// --- The settings view ---

void AppDelegate::saveAction()
{
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(this, &AppDelegate::saveActionMainThread, Qt::QueuedConnection);
        return;
    }
    saveActionMainThread();
}

void AppDelegate::saveActionMainThread()
{
    setConfigValue(m_pcNameTextField.stringValue(), QStringLiteral("kKeyPCName"));
    disableComponent(true);

    const QString folder = m_pathTextField.stringValue();
    const InfomationPtr infomation =
        DatabaseUtils::instance()->getInfomationWithManagedObjectContext(managedObjectContext());
    if (!infomation) {
        FV_LOG(QStringLiteral("No account record: the sync folder %1 is not stored").arg(folder));
        return;
    }
    if (infomation->path() != folder) {
        // Another folder: the next start mirrors the whole tree again.
        infomation->setPath(folder);
        infomation->setFirstSync(false);
        saveData();
    }
    setConfigValue(infomation->path(), QStringLiteral("kKeyPath"));
    checkShortcut(folder);
}

QString AppDelegate::desktopFolder()
{
    return QStandardPaths::writableLocation(QStandardPaths::DesktopLocation);
}

void AppDelegate::checkShortcut(const QString &folder)
{
    const QString name = QFileInfo(QDir::cleanPath(folder)).fileName();
    if (name.isEmpty())
        return;
    const QFileInfo candidate(desktopFolder() + u'/' + name);
    if (candidate.isSymLink()) {
        m_addShortcut.setEnabled(candidate.symLinkTarget() != QDir::cleanPath(folder));
    } else if (!candidate.exists()) {
        m_addShortcut.setEnabled(true);
    }
    // Anything else under that name is the user's: the button stays as it is.
}

void AppDelegate::addShortcutAction()
{
    const QString desktop = desktopFolder();
    // Without the folder, "ln" would make the link itself under the desktop folder's name.
    if (!QDir().mkpath(desktop))
        FV_LOG(QStringLiteral("Cannot create the desktop folder %1").arg(desktop));
    else
        QProcess::startDetached(
            QStringLiteral("/bin/ln"),
            {QStringLiteral("-s"), getConfigValueByKey(QStringLiteral("kKeyPath")).toString(), desktop});
    m_addShortcut.setEnabled(false);
}

// --- Sign-out and forced re-sign-in ---

void AppDelegate::showSignedOut()
{
    m_saveButton.setEnabled(true);
    m_logoutButton.setHidden(true);
    m_settingView.setHidden(true);
    m_accountMenu.setEnabled(false);
    // Signed out, no sync item is live (stopSync offered the start item again).
    m_checkUpdateMenuItem.setEnabled(false);
    m_syncStartMenuItem.setEnabled(false);
    m_syncStopMenuItem.setEnabled(false);
    m_openSyncFolderMenuItem.setEnabled(false);
    makeLoginView();
    m_loginMenuItem.setStringValue(text("login"));
    m_isLogined = false;
}

void AppDelegate::logout()
{
    setConfigValue(false, QStringLiteral("kKeyAutoSync"));
    endProcessWindowController();
    stopCatalogueTimer();
    m_checkUpdateMenuItem.setEnabled(false);
    m_syncStartMenuItem.setEnabled(false);
    m_syncStopMenuItem.setEnabled(false);
    m_openSyncFolderMenuItem.setEnabled(false);
    m_logoutMenuItem.setHidden(true);
    m_logoutTrayMenuItem.setHidden(true);
    stopSync();
    clearAccountInfomation();
    stopStatusBarAnimation();
    DatabaseUtils::destroy();
    // The store is the signed-out user's: whoever signs in next gets their own (else a second user
    // would be catalogued in the first one's store).
    closeStore();
    showSignedOut();
    m_isRunning = false;
    emit signedOut();
}

void AppDelegate::relogin()
{
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(this, &AppDelegate::relogin, Qt::QueuedConnection);
        return;
    }
    // A request that arrives after a sign-out (queued by an engine that has ended since) is stale.
    if (!m_isLogined) {
        FV_LOG(QStringLiteral("Not signed in: no sign-in again"));
        return;
    }
    m_isRetry = true;
    m_logoutMenuItem.setHidden(true);
    m_logoutTrayMenuItem.setHidden(true);
    stopSync();
    stopStatusBarAnimation();
    DatabaseUtils::destroy();
    showSignedOut();
    emit signedOut();
    // The credentials were kept: the new view holds them and signs in with them.
    m_loginView->login();
}
