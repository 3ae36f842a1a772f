#include "ui/TrayClient.h"

#include "app/AppDelegate.h"
#include "ui/DesktopShell.h"
#include "ui/MainWindowWidget.h"
#include "util/Log.h"

#include <QApplication>
#include <QDir>
#include <QMessageBox>
#include <QSocketNotifier>
#include <QTimer>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

int g_signalPipe[2] = {-1, -1};

void onSignal(int signal)
{
    const char byte = char(signal);
    [[maybe_unused]] const auto written = ::write(g_signalPipe[1], &byte, 1);
}

} // namespace

TrayClient::TrayClient(const HeadlessClient::Options &options, QObject *parent)
    : QObject(parent), m_options(options)
{
    if (!m_options.folder.isEmpty())
        m_options.folder = QDir::cleanPath(QDir(QDir::currentPath()).absoluteFilePath(m_options.folder));
    m_delegate = std::make_unique<AppDelegate>();
    // Before the launch: it asks for the log window and shows the sign-in view.
    m_shell = std::make_unique<DesktopShell>(m_delegate.get());
}

TrayClient::~TrayClient()
{
    m_delegate->applicationWillTerminate();
    m_shell.reset();
    m_delegate.reset();
    if (g_signalPipe[0] >= 0) {
        ::signal(SIGINT, SIG_DFL);
        ::signal(SIGTERM, SIG_DFL);
    }
}

int TrayClient::exec()
{
    // The program lives in the tray: closing its last window does not end it.
    QApplication::setQuitOnLastWindowClosed(false);
    installSignalHandlers();
    QTimer::singleShot(0, this, &TrayClient::start);
    return QApplication::exec();
}

void TrayClient::installSignalHandlers()
{
    if (g_signalPipe[0] < 0 && ::pipe2(g_signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        FV_LOG(QStringLiteral("Cannot make the signal pipe; SIGINT and SIGTERM end the program at once"));
        return;
    }
    m_signalNotifier = new QSocketNotifier(g_signalPipe[0], QSocketNotifier::Read, this);
    connect(m_signalNotifier, &QSocketNotifier::activated, this, [] {
        char signal = 0;
        while (::read(g_signalPipe[0], &signal, 1) == 1) {
        }
        FV_LOG(QStringLiteral("Stopping on %1")
                   .arg(signal == SIGINT ? QStringLiteral("SIGINT") : QStringLiteral("SIGTERM")));
        QCoreApplication::quit();
    });
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

void TrayClient::start()
{
    connect(m_delegate.get(), &AppDelegate::signedIn, this, &TrayClient::signedIn);
    const bool explicitCredentials = !m_options.user.isEmpty();
    m_delegate->applicationDidFinishLaunching(!explicitCredentials);
    m_shell->didFinishLaunching();
    CDLoginView *view = m_delegate->loginView();
    if (explicitCredentials && view) {
        view->domainTextField()->setStringValue(m_options.domain);
        view->useridTextField()->setStringValue(m_options.user);
        view->passwordTextField()->setStringValue(m_options.password);
        view->login();
    }
}

// The scripted set-up applies to the first sign-in only; later ones are the user's.
void TrayClient::signedIn()
{
    if (std::exchange(m_setUpDone, true))
        return;
    // Before sync comes on by itself, so a new folder is in place before the engine starts.
    if (!m_options.folder.isEmpty() && m_options.folder != m_delegate->pathTextField()->stringValue()) {
        const QString problem = HeadlessClient::folderProblem(m_options.folder);
        if (!problem.isEmpty()) {
            FV_LOG(problem);
            auto *panel = new QMessageBox(QMessageBox::Warning, QStringLiteral("Ferrovane"), problem,
                                          QMessageBox::Ok, m_shell->mainWindow());
            panel->setAttribute(Qt::WA_DeleteOnClose);
            panel->open();
            return;
        }
        m_delegate->pathTextField()->setStringValue(m_options.folder);
        m_delegate->saveAction();
    }
    if (!m_options.sync)
        return;
    // After the sign-in's own work (its automatic switch included) is done.
    QTimer::singleShot(0, this, [this] {
        if (m_delegate->isLogined() && !m_delegate->isRunning())
            m_delegate->onoffAction();
    });
}
