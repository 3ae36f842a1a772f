#pragma once
// `ferrovane` with widgets: the tray application. Owns the AppDelegate and its DesktopShell, runs
// the launch, and takes the same scripted set-up as the headless client: with --domain, --user and
// --password-stdin it signs in through the sign-in view (the user sees it happen), --folder sets
// the sync folder as the settings view's Save would, --sync switches sync on. Without them it
// signs in with the stored credentials, or waits for the user. Failures are shown in the windows,
// not turned into exit codes. SIGINT and SIGTERM end it cleanly (engine disconnected, watcher
// daemon told to stop).
//
// Threading: main thread; needs a QApplication.

#include "app/HeadlessClient.h"

#include <QObject>
#include <memory>

class AppDelegate;
class DesktopShell;
class QSocketNotifier;

class TrayClient final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(TrayClient)
public:
    explicit TrayClient(const HeadlessClient::Options &options, QObject *parent = nullptr);
    ~TrayClient() override;

    // Runs the application's event loop until the user quits or a signal ends it.
    int exec();

private:
    void start();
    void signedIn();
    void installSignalHandlers();

    HeadlessClient::Options m_options;
    std::unique_ptr<AppDelegate> m_delegate;
    std::unique_ptr<DesktopShell> m_shell;
    QSocketNotifier *m_signalNotifier = nullptr;
    bool m_setUpDone = false;
};
