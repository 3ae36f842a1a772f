// AppDelegate: what the user sees of it besides the flow: control labels, button looks, the menu
// and window actions, the preferences, the status icon's animation and notifications.
#include "app/AppDelegate.h"
#include "app/LanguageUtil.h"
#include "util/Pace.h"

#include <QThread>
#include <QTimer>

namespace {
QString text(const char *key)
{
    return LanguageUtil::getStringByKey(QString::fromLatin1(key));
}

constexpr int kAnimationFrames = 10;
constexpr int kAnimationIntervalMs = 100;
} // namespace

// --- Labels and looks ---

void AppDelegate::setTileForComponent()
{
    const struct
    {
        ViewControl *control;
        const char *key;
    } labels[] = {
        {&m_logoutMenuItem, "logout"},
        {&m_logoutButton, "logout"},
        {&m_logoutTrayMenuItem, "logout"},
        {&m_idTitleLabel, "id"},
        {&m_logMenuItem, "log"},
        {&m_clearLogMenuItem, "clear_log"},
        {&m_preferencesMenuItem, "preferences"},
        {&m_pcNameLabel, "pc_name"},
        {&m_folderLabel, "folder_location"},
        {&m_executeLabel, "execute"},
        {&m_quitMenuItem, "quit"},
        {&m_accountMenu, "account"},
        {&m_startWithSystem, "automatic_run"},
        {&m_saveButton, "save"},
        {&m_cancelButton, "reset"},
        {&m_searchButton, "search"},
        {&m_syncLabel, "synchronization"},
        {&m_addShortcut, "add"},
        {&m_shortcut, "desktop_shortcut"},
        {&m_syncStartMenuItem, "start_menu_item"},
        {&m_syncStopMenuItem, "stop_menu_item"},
        {&m_openSyncFolderMenuItem, "open_sync_folder_menu_item"},
        {&m_checkUpdateMenuItem, "check_update"},
        {&m_autoStartCheckBox, "auto_start"},
        {&m_preferencesPanel, "preferences_title"},
    };
    for (const auto &label : labels)
        label.control->setStringValue(text(label.key));
    // The controls whose caption follows the state are labelled for the state they are in.
    m_onoffButton.setStringValue(text(m_isRunning ? "off" : "on"));
    m_statusTextField.setStringValue(text(m_isRunning ? "in_sync" : "stop_sync"));
    m_loginMenuItem.setStringValue(text(m_isLogined ? "logout" : "login"));
    m_notificationCheckBox.setStringValue(text(notificationsEnabled() ? "off" : "on"));
    if (m_loginView)
        m_loginView->setTitleForComponent();
}

void AppDelegate::setOnLook(ViewControl *button)
{
    button->setLook(QStringLiteral("btn_on"), QStringLiteral("btn_on_press"), QStringLiteral("black"));
}

void AppDelegate::setOffLook(ViewControl *button)
{
    button->setLook(QStringLiteral("btn_off"), QStringLiteral("btn_off_press"), QStringLiteral("white"));
}

void AppDelegate::disableComponent(bool disable)
{
    m_searchButton.setEnabled(!disable);
    m_pcNameTextField.setEnabled(!disable);
    m_saveButton.setEnabled(!disable);
    m_startWithSystem.setEnabled(!disable);
    m_accountMenu.setEnabled(disable);
}

void AppDelegate::changeNotificationButton(bool enabled)
{
    if (enabled) {
        setOffLook(&m_notificationCheckBox);
        m_notificationCheckBox.setStringValue(text("off"));
    } else {
        setOnLook(&m_notificationCheckBox);
        m_notificationCheckBox.setStringValue(text("on"));
    }
}

// --- Menu, button and window actions ---

void AppDelegate::pressedSyncStart()
{
    if (m_syncStartMenuItem.isEnabled())
        onoffAction();
}

void AppDelegate::pressedSyncStop()
{
    if (m_syncStopMenuItem.isEnabled())
        onoffAction();
}

void AppDelegate::pressedOpenSyncFolder()
{
    emit openFolderRequested(m_pathTextField.stringValue());
}

void AppDelegate::checkUpdate()
{
    if (m_checkUpdateMenuItem.isEnabled())
        emit checkUpdateRequested();
}

void AppDelegate::logViewMenuItem_touch()
{
    emit logWindowRequested();
}

void AppDelegate::clearLogMenuItem_touch()
{
    emit clearLogRequested();
}

void AppDelegate::loginMenuItem_touch()
{
    showMainWindow();
}

void AppDelegate::showMainWindow()
{
    emit mainWindowRequested();
}

void AppDelegate::windowDidBecomeMain()
{
    if (m_isLogined)
        checkShortcut(m_pathTextField.stringValue());
}

void AppDelegate::choiceSaveDir()
{
    emit chooseDirectoryRequested(m_pathTextField.stringValue());
}

void AppDelegate::didChooseSaveDir(const QString &path)
{
    if (!path.isEmpty())
        m_pathTextField.setStringValue(path);
}

// --- Preferences ---

void AppDelegate::showPreferences()
{
    if (!getConfigValueByKey(QStringLiteral("kKeyStartup")).isValid()) {
        // The first opening registers the login item.
        setStartAtLogin(true);
        setConfigValue(true, QStringLiteral("kKeyStartup"));
    }
    m_startWithSystem.setChecked(getConfigValueByKey(QStringLiteral("kKeyStartup")).toBool());
    m_autoStartCheckBox.setChecked(getConfigValueByKey(QStringLiteral("kKeyAutoStart")).toBool());
    m_preferencesPanel.setHidden(false);
    emit preferencesRequested();
}

void AppDelegate::notificationCheckBox_change()
{
    const bool enabled = !notificationsEnabled();
    setConfigValue(enabled, QStringLiteral("kKeyNotification"));
    changeNotificationButton(enabled);
}

void AppDelegate::autoStartCheckBox_valueChange()
{
    setConfigValue(m_autoStartCheckBox.isChecked(), QStringLiteral("kKeyAutoStart"));
}

void AppDelegate::startWithSystem_valueChange()
{
    const bool enabled = m_startWithSystem.isChecked();
    setStartAtLogin(enabled);
    setConfigValue(enabled, QStringLiteral("kKeyStartup"));
}

// --- Status icon ---

QString AppDelegate::animationFrameName(int frame)
{
    if (frame == 0)
        return idleImageName();
    return QStringLiteral("sync_16_%1.png").arg(frame, 2, 10, QLatin1Char('0'));
}

void AppDelegate::changeIconWithImageName(const QString &name)
{
    // The images themselves (and their cache) belong to the widget that shows them.
    if (std::exchange(m_statusBarImageName, name) != name)
        emit statusBarImageChanged(name);
}

bool AppDelegate::isStatusBarAnimating() const
{
    return m_statusBarAnimationTimer != nullptr;
}

void AppDelegate::startStatusBarAnimation()
{
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(this, &AppDelegate::startStatusBarAnimation, Qt::QueuedConnection);
        return;
    }
    if (m_statusBarAnimationTimer)
        return;
    m_statusBarAnimationTimer = new QTimer(this);
    m_statusBarAnimationTimer->setInterval(Pace::ms(kAnimationIntervalMs));
    connect(m_statusBarAnimationTimer, &QTimer::timeout, this, &AppDelegate::startStatusBarAnimationThread);
    m_statusBarAnimationTimer->start();
    startStatusBarAnimationThread();
}

void AppDelegate::startStatusBarAnimationThread()
{
    if (!m_isRunning) {
        stopStatusBarAnimation();
        return;
    }
    changeIconWithImageName(animationFrameName(m_statusBarFrame));
    // Ten frames a second; the count survives a stop, so the next start resumes where this one ended.
    if (++m_statusBarFrame > kAnimationFrames)
        m_statusBarFrame = 1;
}

void AppDelegate::stopStatusBarAnimation()
{
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(this, &AppDelegate::stopStatusBarAnimation, Qt::QueuedConnection);
        return;
    }
    if (m_statusBarAnimationTimer) {
        m_statusBarAnimationTimer->stop();
        m_statusBarAnimationTimer->deleteLater();
        m_statusBarAnimationTimer = nullptr;
    }
    changeIconWithImageName(idleImageName());
}

// --- Notifications ---

bool AppDelegate::notificationsEnabled() const
{
    const QVariant value = getConfigValueByKey(QStringLiteral("kKeyNotification"));
    return !value.isValid() || value.toBool();
}

void AppDelegate::postNotificationWithTitle(const QString &title, const QString &message)
{
    if (!notificationsEnabled())
        return;
    QMetaObject::invokeMethod(
        this, [this, title, message] { postNotificationOnMainThreadWithInfo(title, message); },
        Qt::QueuedConnection);
}

void AppDelegate::postNotificationOnMainThreadWithInfo(const QString &title, const QString &message)
{
    emit notificationPosted(title, message);
}
