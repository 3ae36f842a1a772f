#include "ui/DesktopShell.h"

#include "app/AppDelegate.h"
#include "app/CheckUpdate.h"
#include "app/DesktopNotifier.h"
#include "app/LogWindowController.h"
#include "ui/LogWindowWidget.h"
#include "ui/MainWindowWidget.h"
#include "ui/PreferencesPanelWidget.h"
#include "ui/StatusItem.h"
#include "ui/StatusMenu.h"
#include "ui/UpdateOfferUi.h"
#include "util/Log.h"

#include <QApplication>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QLibraryInfo>
#include <QMessageBox>
#include <QTimer>
#include <QUrl>

namespace {
// How long a tray may take to appear after the program started with the session.
constexpr int kTrayGraceMs = 5000;
} // namespace

DesktopShell::DesktopShell(AppDelegate *app, QObject *parent)
    : QObject(parent), m_app(app), m_mainWindow(std::make_unique<MainWindowWidget>(app)),
      m_preferencesPanel(std::make_unique<PreferencesPanelWidget>(app)),
      m_statusMenu(std::make_unique<StatusMenu>(app)),
      m_statusItem(std::make_unique<StatusItem>(app, m_statusMenu.get())),
      m_notifier(std::make_unique<DesktopNotifier>())
{
    UrlOpener::setShared(&m_urlOpener);
    QIcon icon;
    icon.addFile(QStringLiteral(":/images/statusBarIcon.png"));
    icon.addFile(QStringLiteral(":/images/statusBarIcon@2x.png"));
    QApplication::setWindowIcon(icon);
    loadQtTranslation();

    connect(app, &AppDelegate::logWindowNeeded, this, &DesktopShell::makeLogWindow);
    connect(app, &AppDelegate::logWindowRequested, this, [this] {
        if (m_logView)
            m_logView->showWindow();
    });
    connect(app, &AppDelegate::clearLogRequested, this, [this] {
        if (m_logView)
            m_logView->clear();
    });
    connect(app, &AppDelegate::updateCheckerNeeded, this, &DesktopShell::makeUpdateChecker);
    connect(app, &AppDelegate::checkUpdateRequested, this, [this] {
        if (m_checkUpdate)
            m_checkUpdate->checkUpdate();
    });
    // No account, no update check: a new sign-in makes a new checker for its server.
    connect(app, &AppDelegate::signedOut, this, [this] {
        m_updateOffer.reset();
        m_checkUpdate.reset();
    });
    connect(app, &AppDelegate::notificationPosted, m_notifier.get(), &DesktopNotifier::notify);
    connect(app, &AppDelegate::mainWindowRequested, m_mainWindow.get(), &MainWindowWidget::bringToFront);
    connect(app, &AppDelegate::preferencesRequested, m_preferencesPanel.get(), [this] {
        m_preferencesPanel->show();
        m_preferencesPanel->raise();
        m_preferencesPanel->activateWindow();
    });
    connect(app, &AppDelegate::chooseDirectoryRequested, this, &DesktopShell::chooseDirectory);
    connect(app, &AppDelegate::openFolderRequested, this, &DesktopShell::openFolder);
    connect(app, &AppDelegate::errorPresented, this, &DesktopShell::presentError);
    connect(app, &AppDelegate::languageChanged, this, &DesktopShell::relabel);
    // A sign-in that fails on its own (stored credentials at launch, a forced re-sign-in) needs
    // the window the user answers it in.
    connect(app, &AppDelegate::signInFailed, m_mainWindow.get(), &MainWindowWidget::bringToFront);
    connect(m_statusItem.get(), &StatusItem::reopenRequested, this, [this] {
        if (!m_app)
            return;
        if (m_mainWindow->isVisible())
            m_mainWindow->bringToFront();
        else
            m_app->applicationShouldHandleReopen(false);
    });
    connect(m_mainWindow.get(), &MainWindowWidget::closed, this, &DesktopShell::mainWindowClosed);
}

DesktopShell::~DesktopShell()
{
    if (m_directoryChooser)
        delete m_directoryChooser.data();
    m_updateOffer.reset();
    m_checkUpdate.reset();
    m_statusItem.reset();
    QCoreApplication::removeTranslator(&m_qtTranslation);
    m_logWindow.reset();
    m_logView.reset();
    UrlOpener::setShared(nullptr);
}

void DesktopShell::didFinishLaunching()
{
    if (!m_app)
        return;
    m_statusMenu->setAccountView(m_app->accountView());
    const bool signingIn = m_app->loginView() && m_app->loginView()->isSending();
    if (!m_app->isLogined() && !signingIn) {
        m_mainWindow->bringToFront();
        return;
    }
    // Without a tray the window is all the user has of the program. Started with the session, the
    // program may be up before the panel's tray: give it a moment (real time, not scaled).
    QTimer::singleShot(kTrayGraceMs, this, [this] {
        if (!QSystemTrayIcon::isSystemTrayAvailable()) {
            FV_LOG(QStringLiteral("No tray: the main window stays up"));
            m_mainWindow->bringToFront();
        }
    });
}

void DesktopShell::makeLogWindow()
{
    if (m_logView)
        return;
    m_logView = std::make_unique<LogWindowController>();
    m_logWindow = std::make_unique<LogWindowWidget>(m_logView.get());
}

void DesktopShell::makeUpdateChecker(const QString &domain)
{
    m_updateOffer.reset();
    m_checkUpdate = std::make_unique<CheckUpdate>();
    m_checkUpdate->setDomain(domain);
    m_updateOffer = std::make_unique<UpdateOfferUi>(m_checkUpdate.get(), m_mainWindow.get());
}

void DesktopShell::chooseDirectory(const QString &currentPath)
{
    if (m_directoryChooser) {
        m_directoryChooser->raise();
        m_directoryChooser->activateWindow();
        return;
    }
    auto *chooser = new QFileDialog(m_mainWindow.get());
    chooser->setAttribute(Qt::WA_DeleteOnClose);
    chooser->setObjectName(QStringLiteral("directoryChooser"));
    chooser->setWindowTitle(m_app ? m_app->folderLabel()->stringValue() : QString());
    // A folder, existing or made here with the chooser's new-folder button.
    chooser->setFileMode(QFileDialog::Directory);
    chooser->setOption(QFileDialog::ShowDirsOnly);
    chooser->setOption(QFileDialog::ReadOnly, false);
    chooser->setAcceptMode(QFileDialog::AcceptOpen);
    // The folder itself may not exist yet: start from the nearest folder that does.
    QString start = currentPath.isEmpty() ? QDir::homePath() : QDir::cleanPath(currentPath);
    while (!QFileInfo(start).isDir() && QFileInfo(start).dir().path() != start)
        start = QFileInfo(start).dir().path();
    chooser->setDirectory(start);
    connect(chooser, &QFileDialog::fileSelected, this, [this](const QString &path) {
        if (m_app)
            m_app->didChooseSaveDir(QDir::cleanPath(path));
    });
    m_directoryChooser = chooser;
    chooser->open();
}

void DesktopShell::openFolder(const QString &path)
{
    if (path.isEmpty())
        return;
    UrlOpener::shared()->openURL(QUrl::fromLocalFile(path));
}

void DesktopShell::presentError(const FvError &error)
{
    auto *panel =
        new QMessageBox(QMessageBox::Critical, QStringLiteral("Ferrovane"), error.localizedDescription(),
                        QMessageBox::Ok, m_mainWindow->isVisible() ? m_mainWindow.get() : nullptr);
    panel->setAttribute(Qt::WA_DeleteOnClose);
    panel->setObjectName(QStringLiteral("errorPanel"));
    const QString reason = error.userInfo.value(QStringLiteral("NSLocalizedFailureReason")).toString();
    if (!reason.isEmpty())
        panel->setInformativeText(reason);
    panel->open();
}

void DesktopShell::loadQtTranslation()
{
    QCoreApplication::removeTranslator(&m_qtTranslation);
    // English needs none; a language without Qt's catalogue keeps Qt's English.
    if (QLocale().language() == QLocale::English || QLocale().language() == QLocale::C)
        return;
    if (m_qtTranslation.load(QLocale(), QStringLiteral("qtbase"), QStringLiteral("_"),
                             QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
        QCoreApplication::installTranslator(&m_qtTranslation);
    else
        FV_LOG(QStringLiteral("No Qt translation for %1").arg(QLocale().name()));
}

void DesktopShell::relabel()
{
    loadQtTranslation();
    // The delegate relabelled its own controls and the sign-in view; these are the rest.
    if (m_logView)
        m_logView->setTitleForComponent();
    if (m_app && m_app->accountView())
        m_app->accountView()->setTitleForComponent();
    if (m_checkUpdate && m_checkUpdate->downloadWindow())
        m_checkUpdate->downloadWindow()->setTitleForComponent();
    m_preferencesPanel->setTitleForComponent();
}

void DesktopShell::mainWindowClosed()
{
    if (!QSystemTrayIcon::isSystemTrayAvailable()) {
        FV_LOG(QStringLiteral("No tray to come back from: closing the main window quits"));
        QCoreApplication::quit();
    }
}
