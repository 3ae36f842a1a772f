#pragma once
// The widget shell around an AppDelegate: the main window, the preferences panel, the tray icon
// with the status menu, the activity log window, the update offer and download windows, desktop
// notifications, the directory chooser and the error panel. It answers the delegate's requests
// (bring a window up, choose a directory, open a folder, make the log window or the update
// checker) and relabels what the delegate does not label on a locale change, Qt's own dialogs
// included. It installs the
// desktop's URL opener for as long as it lives.
//
// Make it before the delegate's applicationDidFinishLaunching (the launch asks for the log window
// and shows the sign-in view), and call didFinishLaunching after it.
//
// Threading: main thread (a QApplication must exist). Owns every widget and the log window and
// update check logic it made; does not own the AppDelegate, which must outlive it.

#include "ui/DesktopUrlOpener.h"

#include <QObject>
#include <QPointer>
#include <QTranslator>
#include <memory>

class AppDelegate;
class CheckUpdate;
class DesktopNotifier;
struct FvError;
class LogWindowController;
class LogWindowWidget;
class MainWindowWidget;
class PreferencesPanelWidget;
class QFileDialog;
class StatusItem;
class StatusMenu;
class UpdateOfferUi;

class DesktopShell final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(DesktopShell)
public:
    explicit DesktopShell(AppDelegate *app, QObject *parent = nullptr);
    ~DesktopShell() override;

    // After the delegate's launch: the account panel goes into the status menu, and the main
    // window comes up unless a sign-in with stored credentials is under way (then it comes up
    // only when no tray has appeared a few seconds later).
    void didFinishLaunching();

    MainWindowWidget *mainWindow() const { return m_mainWindow.get(); }
    PreferencesPanelWidget *preferencesPanel() const { return m_preferencesPanel.get(); }
    StatusMenu *statusMenu() const { return m_statusMenu.get(); }
    StatusItem *statusItem() const { return m_statusItem.get(); }
    LogWindowController *logView() const { return m_logView.get(); }
    LogWindowWidget *logWindow() const { return m_logWindow.get(); }
    CheckUpdate *checkUpdate() const { return m_checkUpdate.get(); }

private:
    void makeLogWindow();
    void makeUpdateChecker(const QString &domain);
    void chooseDirectory(const QString &currentPath);
    void openFolder(const QString &path);
    void presentError(const FvError &error);
    void relabel();
    // Qt's own texts (the directory chooser, standard buttons) in the locale's language.
    void loadQtTranslation();
    // Closing the main window hides it while the tray icon is there to bring it back; without a
    // tray, closing it ends the program.
    void mainWindowClosed();

    QPointer<AppDelegate> m_app;
    DesktopUrlOpener m_urlOpener;
    std::unique_ptr<MainWindowWidget> m_mainWindow;
    std::unique_ptr<PreferencesPanelWidget> m_preferencesPanel;
    std::unique_ptr<StatusMenu> m_statusMenu;
    std::unique_ptr<StatusItem> m_statusItem;
    std::unique_ptr<LogWindowController> m_logView;
    std::unique_ptr<LogWindowWidget> m_logWindow;
    std::unique_ptr<CheckUpdate> m_checkUpdate;
    std::unique_ptr<UpdateOfferUi> m_updateOffer;
    std::unique_ptr<DesktopNotifier> m_notifier;
    QPointer<QFileDialog> m_directoryChooser;
    QTranslator m_qtTranslation;
};
