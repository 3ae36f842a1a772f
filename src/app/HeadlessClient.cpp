#include "app/HeadlessClient.h"

#include "RestLibrary/NetworkAccess.h"
#include "app/StopSignals.h"
#include "catalogue/DatabaseUtils.h"
#include "catalogue/ManagedObjectContext.h"
#include "link/DistributedNotificationCenter.h"
#include "link/LinkNames.h"
#include "util/Log.h"
#include "util/LogObject.h"
#include "util/NotificationCenter.h"
#include "util/Pace.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSslError>
#include <QTemporaryFile>
#include <QTimer>
#include <csignal>
#include <cstdio>
#include <unistd.h>

namespace {

// Real time: how often --once looks whether the engine has gone quiet after its pass. Only the
// last moments of the run poll, and what they wait for (the listener's last jobs) takes a few
// milliseconds: a coarser poll would add its own length to every run.
constexpr int kQuietPollMs = 5;
// Real time: how long the end waits to see its stop notification come back from the bus.
constexpr int kStopEchoMs = 2000;
// A sign-in again after the server could not be reached during a forced re-sign-in (scaled).
constexpr int kRetrySignInMs = 60000;
// --once: how often the server is asked whether it can still be reached (scaled).
constexpr int kProbeMs = 10000;

QString stateName(ProcessWindowController::State state)
{
    switch (state) {
    case ProcessWindowController::State::Starting:
        return QStringLiteral("starting");
    case ProcessWindowController::State::Idle:
        return QStringLiteral("idle");
    case ProcessWindowController::State::Syncing:
        return QStringLiteral("syncing");
    case ProcessWindowController::State::Stalled:
        return QStringLiteral("stalled");
    case ProcessWindowController::State::Relogin:
        return QStringLiteral("relogin");
    case ProcessWindowController::State::Stopped:
        return QStringLiteral("stopped");
    }
    return QStringLiteral("unknown");
}

} // namespace

QString HeadlessClient::usageNotes()
{
    return QStringLiteral(
        "Signing in:\n"
        "  With --domain, --user and --password-stdin the client signs in as the sign-in view\n"
        "  would (the password is the first line of standard input). Without them it signs in\n"
        "  with the credentials stored by the last successful sign-in, as at launch.\n"
        "  --folder sets the sync folder as the settings view's Save would (a changed folder is\n"
        "  mirrored in full again). --sync switches sync on; once it has been switched, sync\n"
        "  comes on by itself after every sign-in until a sign-out. --once syncs once and exits.\n"
        "  --pc-name sets the name this computer's changes are filed under on the server, as the\n"
        "  settings' computer name would (two clients on one host need two names).\n"
        "\n"
        "Output with --headless: one line per event on stdout, fields separated by a tab; a\n"
        "backslash, tab, line feed or carriage return inside a field is written \\\\, \\t, \\n or\n"
        "\\r. First field:\n"
        "  log           from (server|local), work (string-table key, e.g. work_add),\n"
        "                result (ok|failed), kind (file|folder), size in bytes (- for folders),\n"
        "                name, path, time, description\n"
        "  message       text: a line of the activity log (the engine's progress messages)\n"
        "  notification  title, message: a desktop notification\n"
        "  update        version, build: a newer client is on offer (declined; offered again at\n"
        "                the next check)\n"
        "  status        word, details: signing-in, signed-in, folder, sync-on, sync-off, engine\n"
        "                (starting|idle|syncing|stalled|relogin|stopped), pass, in-step,\n"
        "                signed-out, stopping\n"
        "  error         reason, text: usage, refused, unreachable, certificate, folder, store,\n"
        "                not-in-step, or presented (an error shown to the user)\n"
        "Diagnostics go to syslog; --verbose mirrors them to stderr.\n"
        "\n"
        "Exit codes:\n"
        "  0  --once finished with both sides in step, or stopped by SIGINT/SIGTERM\n"
        "  2  bad options, or no credentials given or stored\n"
        "  3  sign-in refused (user id or password)\n"
        "  4  server unreachable, or no usable answer from it\n"
        "  5  the server's certificate is not trusted (see FERROVANE_CA_FILE)\n"
        "  6  the sync folder cannot be created, read or written\n"
        "  7  the settings folder or the catalogue store cannot be used\n"
        "  8  --once: the two sides are not in step after the pass\n"
        "\n"
        "Environment: FERROVANE_CA_FILE (extra trusted CA certificates, PEM), XDG_DATA_HOME\n"
        "(settings and catalogue), XDG_CONFIG_HOME (login item), FERROVANE_TIME_SCALE.\n");
}

QString HeadlessClient::formatLine(const QStringList &fields)
{
    QStringList escaped;
    escaped.reserve(fields.size());
    for (const QString &field : fields) {
        QString out;
        out.reserve(field.size());
        for (const QChar c : field) {
            switch (c.unicode()) {
            case '\\':
                out += QStringLiteral("\\\\");
                break;
            case '\t':
                out += QStringLiteral("\\t");
                break;
            case '\n':
                out += QStringLiteral("\\n");
                break;
            case '\r':
                out += QStringLiteral("\\r");
                break;
            default:
                out += c;
            }
        }
        escaped.append(out);
    }
    return escaped.join(u'\t');
}

QStringList HeadlessClient::logEntryFields(const LogObject &entry, bool fromServer)
{
    const bool folder = entry.isFolder();
    return {QStringLiteral("log"),
            fromServer ? QStringLiteral("server") : QStringLiteral("local"),
            entry.work(),
            entry.isSuccess() ? QStringLiteral("ok") : QStringLiteral("failed"),
            folder ? QStringLiteral("folder") : QStringLiteral("file"),
            folder || entry.size() < 0 ? QStringLiteral("-") : QString::number(entry.size()),
            entry.name(),
            entry.path(),
            entry.time(),
            entry.description()};
}

QString HeadlessClient::folderProblem(const QString &path)
{
    if (path.isEmpty() || !QDir::isAbsolutePath(path))
        return QStringLiteral("the sync folder must be an absolute path: %1").arg(path);
    const QFileInfo info(path);
    if (info.exists() && !info.isDir())
        return QStringLiteral("the sync folder %1 exists and is not a folder").arg(path);
    if (!info.exists() && !QDir().mkpath(path))
        return QStringLiteral("the sync folder %1 cannot be created").arg(path);
    const QFileInfo made(path);
    if (!made.isReadable() || !made.isWritable() || !made.isExecutable())
        return QStringLiteral("the sync folder %1 cannot be read and written").arg(path);
    // Permission bits do not tell everything (read-only mounts, ACLs): try it.
    QTemporaryFile probe(path + QStringLiteral("/.ferrovane-probe-XXXXXX"));
    if (!probe.open())
        return QStringLiteral("the sync folder %1 cannot be written: %2").arg(path, probe.errorString());
    return {};
}

HeadlessClient::HeadlessClient(const Options &options, QObject *parent)
    : QObject(parent), m_options(options), m_delegate(std::make_unique<AppDelegate>())
{
    if (m_options.once)
        m_options.sync = true;
    if (!m_options.folder.isEmpty())
        m_options.folder = QDir::cleanPath(QDir(QDir::currentPath()).absoluteFilePath(m_options.folder));
}

HeadlessClient::~HeadlessClient()
{
    if (m_delegate) {
        m_delegate->applicationWillTerminate();
        // Nothing it announces while it goes may reach this half-destroyed object.
        QObject::disconnect(m_delegate.get(), nullptr, this, nullptr);
        m_delegate.reset();
    }
    // How much of the run was the engine's own pacing rather than work (the engine has gone, so
    // no pause is still under way).
    const Pace::Spent paced = Pace::spent();
    FV_LOG(QStringLiteral("Paced: %1 pauses, %2 s with one under way")
               .arg(paced.pauses)
               .arg(double(paced.pausedNs) / 1e9, 0, 'f', 3));
}

int HeadlessClient::exec()
{
    installSignalHandlers();
    QTimer::singleShot(0, this, &HeadlessClient::start);
    return QCoreApplication::exec();
}

void HeadlessClient::installSignalHandlers()
{
    auto *stop = new StopSignals(this);
    connect(stop, &StopSignals::stopRequested, this, [this](int signal) {
        if (m_finishing)
            return;
        print({QStringLiteral("status"), QStringLiteral("stopping"), StopSignals::name(signal)});
        finish(Success);
    });
    // A reader of our output that goes first (a pipe closed by Ctrl-C) must not cut the clean stop.
    ::signal(SIGPIPE, SIG_IGN);
}

void HeadlessClient::print(const QStringList &fields)
{
    const QByteArray line = formatLine(fields).toUtf8() + '\n';
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fflush(stdout);
}

void HeadlessClient::fail(ExitCode code, const QString &reason, const QString &message)
{
    print({QStringLiteral("error"), reason, message});
    finish(code);
}

void HeadlessClient::finish(int code)
{
    if (m_finishing)
        return;
    m_finishing = true;
    // Ends sync at once (nothing starts afterwards) and tells the daemon to stop. The message is
    // sent without waiting: seeing it come back from the bus means the bus has passed it on before
    // this process goes.
    DistributedNotificationCenter *center = DistributedNotificationCenter::defaultCenter();
    auto leave = [code] { QCoreApplication::exit(code); };
    if (center->isConnected()) {
        connect(center, &DistributedNotificationCenter::notificationPosted, this,
                [leave](const QString &name) {
                    if (name == LinkNames::kDemonStopListener)
                        leave();
                });
        QTimer::singleShot(kStopEchoMs, this, leave);
    } else {
        QTimer::singleShot(0, this, leave);
    }
    m_delegate->applicationWillTerminate();
}

// --- Start and sign-in ---

void HeadlessClient::connectDelegate()
{
    AppDelegate *app = m_delegate.get();
    connect(app, &AppDelegate::signInFailed, this, &HeadlessClient::signInFailed);
    connect(app, &AppDelegate::signedIn, this, &HeadlessClient::signedIn);
    connect(app, &AppDelegate::signedOut, this, [this] {
        print({QStringLiteral("status"), QStringLiteral("signed-out")});
    });
    connect(app, &AppDelegate::processWindowControllerChanged, this, &HeadlessClient::watchEngine);
    connect(app, &AppDelegate::notificationPosted, this,
            [this](const QString &title, const QString &message) {
                print({QStringLiteral("notification"), title, message});
            });
    connect(app, &AppDelegate::updateCheckerNeeded, this, [this](const QString &domain) {
        m_checkUpdate = std::make_unique<CheckUpdate>();
        m_checkUpdate->setDomain(domain);
        connect(m_checkUpdate.get(), &CheckUpdate::newVersionOffered, this,
                [this](const QString &version, const QString &build) {
                    print({QStringLiteral("update"), version, build});
                    m_checkUpdate->alertDidEnd(CheckUpdate::AlternateReturn);
                });
    });
    connect(app, &AppDelegate::errorPresented, this, [this](const FvError &error) {
        QString text = error.localizedDescription();
        const QString reason = error.userInfo.value(QStringLiteral("NSLocalizedFailureReason")).toString();
        if (!reason.isEmpty())
            text += QStringLiteral(" (") + reason + u')';
        print({QStringLiteral("error"), QStringLiteral("presented"),
               QStringLiteral("%1 %2: %3").arg(error.domain).arg(error.code).arg(text)});
    });
    connect(NotificationCenter::defaultCenter(), &NotificationCenter::posted, this,
            &HeadlessClient::logNotification);
}

void HeadlessClient::start()
{
    connectDelegate();
    if (!m_options.folder.isEmpty()) {
        const QString problem = folderProblem(m_options.folder);
        if (!problem.isEmpty())
            return fail(FolderUnusable, QStringLiteral("folder"), problem);
    }
    const bool explicitCredentials = !m_options.user.isEmpty();
    m_delegate->applicationDidFinishLaunching(!explicitCredentials);
    if (m_finishing)
        return;
    if (!m_options.pcName.isEmpty()) {
        // As the settings' computer name: the name the server files this computer's changes under
        // (a launch puts the host name there first).
        m_delegate->pcNameTextField()->setStringValue(m_options.pcName);
        m_delegate->setConfigValue(m_options.pcName, QStringLiteral("kKeyPCName"));
        DatabaseUtils::instance()->setMacName(m_options.pcName);
    }
    CDLoginView *view = m_delegate->loginView();
    if (explicitCredentials && view) {
        view->domainTextField()->setStringValue(m_options.domain);
        view->useridTextField()->setStringValue(m_options.user);
        view->passwordTextField()->setStringValue(m_options.password);
        print({QStringLiteral("status"), QStringLiteral("signing-in"),
               QStringLiteral("%1@%2").arg(m_options.user, m_options.domain)});
        view->login();
        return;
    }
    if (view && view->isSending()) {
        print({QStringLiteral("status"), QStringLiteral("signing-in"),
               QStringLiteral("%1@%2").arg(
                   m_delegate->getConfigValueByKey(QStringLiteral("kKeyUseID")).toString(),
                   m_delegate->getConfigValueByKey(QStringLiteral("kKeyDomain")).toString())});
        return;
    }
    if (!m_delegate->isLogined())
        fail(UsageError, QStringLiteral("usage"),
             QStringLiteral("no stored credentials: sign in with --domain, --user and --password-stdin"));
}

void HeadlessClient::signInFailed(CDLoginView::Failure failure, const QString &message)
{
    switch (failure) {
    case CDLoginView::Failure::Incomplete:
        return fail(
            UsageError, QStringLiteral("usage"),
            QStringLiteral("cannot sign in: %1 (give --domain, --user and --password-stdin)").arg(message));
    case CDLoginView::Failure::Refused:
        return fail(SignInRefused, QStringLiteral("refused"), message);
    case CDLoginView::Failure::NoAnswer:
        return diagnoseNoAnswer();
    }
}

// The sign-in got no usable answer: ask the server's root once more to tell an untrusted
// certificate from a server that cannot be reached or does not answer the command.
void HeadlessClient::diagnoseNoAnswer()
{
    const QString host = m_delegate->getConfigValueByKey(QStringLiteral("host")).toString();
    QNetworkReply *reply = NetworkAccess::mainManager()->get(NetworkAccess::request(QUrl(host)));
    auto sslProblems = std::make_shared<QStringList>();
    connect(reply, &QNetworkReply::sslErrors, this, [sslProblems](const QList<QSslError> &errors) {
        for (const QSslError &error : errors)
            sslProblems->append(error.errorString());
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply, sslProblems, host] {
        reply->deleteLater();
        ExitCode code = ServerUnreachable;
        QString reason = QStringLiteral("unreachable");
        QString detail;
        if (!sslProblems->isEmpty() || reply->error() == QNetworkReply::SslHandshakeFailedError) {
            code = UntrustedCertificate;
            reason = QStringLiteral("certificate");
            detail = QStringLiteral("the certificate of %1 is not trusted: %2")
                         .arg(host, sslProblems->isEmpty() ? reply->errorString()
                                                           : sslProblems->join(QStringLiteral("; ")));
        } else if (NetworkAccess::isTransportFailure(reply)) {
            detail = QStringLiteral("cannot reach %1: %2").arg(host, reply->errorString());
        } else {
            detail = QStringLiteral("%1 gave no usable answer to the sign-in").arg(host);
        }
        // A forced re-sign-in may meet a server that is restarting: try again later.
        if (m_signedInOnce && code == ServerUnreachable) {
            print({QStringLiteral("error"), reason, detail});
            QTimer::singleShot(Pace::ms(kRetrySignInMs), this, [this] {
                if (CDLoginView *view = m_delegate->loginView())
                    view->login();
            });
            return;
        }
        fail(code, reason, detail);
    });
}

void HeadlessClient::signedIn()
{
    m_signedInOnce = true;
    print({QStringLiteral("status"), QStringLiteral("signed-in"),
           m_delegate->getConfigValueByKey(QStringLiteral("kKeyUseID")).toString(),
           m_delegate->getConfigValueByKey(QStringLiteral("kKeyDomain")).toString()});
    if (!m_delegate->managedObjectContext())
        return fail(StoreUnusable, QStringLiteral("store"),
                    QStringLiteral("the catalogue store in %1 cannot be used")
                        .arg(AppDelegate::applicationFilesDirectory()));
    // Called before sync comes on by itself, so a new folder is in place before the engine starts.
    if (!m_options.folder.isEmpty() && m_options.folder != m_delegate->pathTextField()->stringValue()) {
        m_delegate->pathTextField()->setStringValue(m_options.folder);
        m_delegate->saveAction();
    }
    const QString folder = m_delegate->pathTextField()->stringValue();
    print({QStringLiteral("status"), QStringLiteral("folder"), folder});
    const bool willSync =
        m_options.sync || m_delegate->getConfigValueByKey(QStringLiteral("kKeyAutoSync")).toBool();
    if (willSync) {
        const QString problem = folderProblem(folder);
        if (!problem.isEmpty())
            return fail(FolderUnusable, QStringLiteral("folder"), problem);
    }
    QTimer::singleShot(0, this, &HeadlessClient::afterSignIn);
}

void HeadlessClient::afterSignIn()
{
    if (m_finishing || !m_delegate->isLogined())
        return;
    if (m_options.sync && !m_delegate->isRunning())
        m_delegate->onoffAction();
}

// --- The engine ---

void HeadlessClient::watchEngine(ProcessWindowController *controller)
{
    if (!controller) {
        print({QStringLiteral("status"), QStringLiteral("sync-off")});
        m_engine = nullptr;
        return;
    }
    m_engine = controller;
    m_passSeen = false;
    if (m_options.once && !m_probeTimer) {
        m_probeTimer = new QTimer(this);
        m_probeTimer->setInterval(Pace::ms(kProbeMs));
        connect(m_probeTimer, &QTimer::timeout, this, &HeadlessClient::probeServer);
        m_probeTimer->start();
    }
    print({QStringLiteral("status"), QStringLiteral("sync-on"), m_delegate->pathTextField()->stringValue()});
    connect(controller, &ProcessWindowController::stateChanged, this, &HeadlessClient::engineStateChanged);
    connect(controller, &ProcessWindowController::passCompleted, this, &HeadlessClient::passCompleted);
}

void HeadlessClient::engineStateChanged(ProcessWindowController::State state)
{
    print({QStringLiteral("status"), QStringLiteral("engine"), stateName(state)});
    // What follows may end the engine, which must not happen inside its own signal: later.
    if (m_options.once && state == ProcessWindowController::State::Stalled)
        QTimer::singleShot(0, this, [this] {
            fail(ServerUnreachable, QStringLiteral("unreachable"),
                 QStringLiteral("the first synchronisation could not reach the server"));
        });
}

void HeadlessClient::passCompleted()
{
    print({QStringLiteral("status"), QStringLiteral("pass")});
    if (!m_options.once || m_passSeen)
        return;
    m_passSeen = true;
    QTimer::singleShot(0, this, &HeadlessClient::checkInStep);
}

// After the first pass: wait for the engine to go quiet (downloads, listener jobs, the task run),
// then the catalogue must hold no pending local change.
void HeadlessClient::checkInStep()
{
    if (m_finishing)
        return;
    if (m_engine && !m_engine->isQuiet()) {
        QTimer::singleShot(kQuietPollMs, this, &HeadlessClient::checkInStep);
        return;
    }
    const std::shared_ptr<ManagedObjectContext> context = m_delegate->managedObjectContext();
    if (!context)
        return fail(StoreUnusable, QStringLiteral("store"),
                    QStringLiteral("the catalogue store cannot be used"));
    FvError error;
    const int pending =
        context->countForFetchRequest(FetchRequest::fetchRequestWithEntityName(Task::entityName()), &error);
    if (pending < 0 || !error.isNull())
        return fail(StoreUnusable, QStringLiteral("store"),
                    QStringLiteral("cannot read the pending changes: %1").arg(error.toString()));
    if (pending > 0)
        return fail(NotInStep, QStringLiteral("not-in-step"),
                    QStringLiteral("%1 local change(s) not sent to the server").arg(pending));
    if (m_engine && m_engine->serverChangesWaiting())
        return fail(NotInStep, QStringLiteral("not-in-step"),
                    QStringLiteral("server changes could not be fetched (see the messages above)"));
    print({QStringLiteral("status"), QStringLiteral("in-step"), m_delegate->pathTextField()->stringValue()});
    finish(Success);
}

void HeadlessClient::checkOnceMessage(const QString &text)
{
    if (!m_options.once || m_finishing)
        return;
    // A pass without an answer, or a folder of the first sync that cannot be listed: the engine
    // would try again and again; a single run ends here.
    if (text != QLatin1String("No internet connection") &&
        text != DatabaseUtils::localizedString(QStringLiteral("check_internet")))
        return;
    QTimer::singleShot(0, this, [this] {
        fail(ServerUnreachable, QStringLiteral("unreachable"),
             QStringLiteral("the server stopped answering before both sides were in step"));
    });
}

void HeadlessClient::probeServer()
{
    if (m_finishing || m_probing)
        return;
    m_probing = true;
    const QString host = m_delegate->getConfigValueByKey(QStringLiteral("host")).toString();
    QNetworkReply *reply = NetworkAccess::mainManager()->get(NetworkAccess::request(QUrl(host)));
    connect(reply, &QNetworkReply::finished, this, [this, reply, host] {
        reply->deleteLater();
        m_probing = false;
        if (m_finishing || !NetworkAccess::isTransportFailure(reply))
            return;
        fail(
            ServerUnreachable, QStringLiteral("unreachable"),
            QStringLiteral("the server stopped answering before both sides were in step: cannot reach %1: %2")
                .arg(host, reply->errorString()));
    });
}

// --- The activity log ---

void HeadlessClient::logNotification(const QString &name, const QVariant &object, const QVariantMap &userInfo)
{
    if (name != QLatin1String("kKeyLogNotification"))
        return;
    const QVariant entry = userInfo.value(QStringLiteral("log"));
    if (entry.metaType() == QMetaType::fromType<LogObject>()) {
        print(logEntryFields(entry.value<LogObject>(), object.toBool()));
    } else if (entry.metaType() == QMetaType::fromType<QString>()) {
        print({QStringLiteral("message"), entry.toString()});
    } else if (object.metaType() == QMetaType::fromType<QString>()) {
        // The engine's progress messages travel as the notification's object.
        print({QStringLiteral("message"), object.toString()});
        checkOnceMessage(object.toString());
    }
}
