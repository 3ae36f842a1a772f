#pragma once
// `ferrovane --headless`: the client with no widgets, for servers, scripts and tests. It drives the
// same AppDelegate flow a user drives through the windows (sign-in through the sign-in view, the
// settings view's save for --folder, the on/off switch for --sync) and prints every activity-log
// entry and every user-visible message to stdout, one line each (format in usageNotes()).
//
// A refused sign-in, an unreachable server, an untrusted certificate, an unusable sync folder or
// store ends the program with its own exit code; SIGINT and SIGTERM end it cleanly (engine
// disconnected, watcher daemon told to stop) with 0. --once syncs once and ends.
//
// Threading: main thread only. Owns the AppDelegate it drives.

#include "app/AppDelegate.h"
#include "app/CheckUpdate.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <memory>

class LogObject;
class QCommandLineParser;
class QSocketNotifier;
class QTimer;

class HeadlessClient final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(HeadlessClient)
public:
    enum ExitCode {
        Success = 0,              // --once in step, or stopped by SIGINT/SIGTERM
        UsageError = 2,           // bad options, or nothing to sign in with
        SignInRefused = 3,        // the server refused the user id or password
        ServerUnreachable = 4,    // no usable answer from the server
        UntrustedCertificate = 5, // the server's certificate is not trusted
        FolderUnusable = 6,       // the sync folder cannot be created, read or written
        StoreUnusable = 7,        // the settings folder or the catalogue store cannot be used
        NotInStep = 8,            // --once: the two sides differ after the pass
    };

    struct Options
    {
        QString domain;
        QString user;
        QString password;
        bool hasPassword = false;
        QString folder;
        QString pcName; // empty: the host name
        bool sync = false;
        bool once = false;
    };

    // The output line format and the exit codes, for --help and the README.
    static QString usageNotes();
    // One output line: the fields joined by tabs, with "\\", tab, line feed and carriage return in a
    // field written as "\\\\", "\\t", "\\n" and "\\r".
    static QString formatLine(const QStringList &fields);
    static QStringList logEntryFields(const LogObject &entry, bool fromServer);
    // Why `path` cannot be a sync folder (it is made when missing), or an empty string.
    static QString folderProblem(const QString &path);

    explicit HeadlessClient(const Options &options, QObject *parent = nullptr);
    ~HeadlessClient() override;

    // Runs the client in the application's event loop; returns the exit code.
    int exec();

private:
    void start();
    void connectDelegate();
    void signInFailed(CDLoginView::Failure failure, const QString &message);
    void diagnoseNoAnswer();
    void signedIn();
    void afterSignIn();
    void watchEngine(ProcessWindowController *controller);
    void engineStateChanged(ProcessWindowController::State state);
    void passCompleted();
    void checkInStep();
    // --once: a message that says the server stopped answering ends the run, not in step.
    void checkOnceMessage(const QString &text);
    // --once: asks the server's root whether it can still be reached (a blocked upload or a command
    // resent until it is answered would otherwise wait for ever).
    void probeServer();
    void logNotification(const QString &name, const QVariant &object, const QVariantMap &userInfo);
    void print(const QStringList &fields);
    void fail(ExitCode code, const QString &reason, const QString &message);
    // Ends the client: sync stopped, the daemon told (and the message seen back on the bus), then
    // the event loop left with `code`.
    void finish(int code);
    void installSignalHandlers();

    Options m_options;
    std::unique_ptr<AppDelegate> m_delegate;
    // The update check of the signed-in account: an offer is printed and declined at once, so the
    // next check can run.
    std::unique_ptr<CheckUpdate> m_checkUpdate;
    QPointer<ProcessWindowController> m_engine;
    QSocketNotifier *m_signalNotifier = nullptr;
    bool m_signedInOnce = false;
    bool m_finishing = false;
    bool m_passSeen = false;
    QTimer *m_probeTimer = nullptr; // --once only
    bool m_probing = false;
};
