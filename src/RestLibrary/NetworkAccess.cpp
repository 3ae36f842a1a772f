#include "RestLibrary/NetworkAccess.h"

#include "util/Log.h"

#include <QCoreApplication>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QThread>
#include <mutex>

namespace {
// The platform default for an idle request; deliberately not shortened by the time scale.
constexpr int kInactivityTimeoutMs = 60 * 1000;

QPointer<QNetworkAccessManager> g_mainManager;

// The system's authorities. Qt's own list reads every file of the certificate folder, where each
// authority has two names (its own and its hash), so it parses each one twice: about 0.2 s at
// every start. The distribution's bundle holds the same set once.
QList<QSslCertificate> systemAuthorities()
{
    static const QString bundle = QStringLiteral("/etc/ssl/certs/ca-certificates.crt");
    if (QFile::exists(bundle)) {
        const QList<QSslCertificate> read = QSslCertificate::fromPath(bundle, QSsl::Pem);
        if (!read.isEmpty())
            return read;
    }
    return QSslConfiguration::systemCaCertificates();
}

// Runs while the application object is still whole. The manager's connection thread closes its
// cached TLS connections as it ends; once the application object is gone that close looks the TLS
// backend up again and warns ("QObject::connect(QObject, Unknown): invalid nullptr parameter").
void deleteMainManager()
{
    delete g_mainManager.data();
}
} // namespace

namespace NetworkAccess {

void installTrust()
{
    static std::once_flag once;
    std::call_once(once, [] {
        const QString path = qEnvironmentVariable("FERROVANE_CA_FILE");
        if (path.isEmpty())
            return;
        const QList<QSslCertificate> extra = QSslCertificate::fromPath(path, QSsl::Pem);
        if (extra.isEmpty()) {
            FV_LOG(QStringLiteral("No certificate could be read from FERROVANE_CA_FILE: %1").arg(path));
            return;
        }
        // Adding to the set switches off the lazy loading of the system's authorities, so take
        // them explicitly and keep them.
        QSslConfiguration config = QSslConfiguration::defaultConfiguration();
        config.setCaCertificates(systemAuthorities() + extra);
        QSslConfiguration::setDefaultConfiguration(config);
    });
}

QNetworkRequest request(const QUrl &url)
{
    installTrust();
    QNetworkRequest req(url);
    req.setTransferTimeout(kInactivityTimeoutMs);
    req.setAttribute(QNetworkRequest::Http2AllowedAttribute, false);
    req.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    return req;
}

bool isMainThread()
{
    QCoreApplication *app = QCoreApplication::instance();
    return app && QThread::currentThread() == app->thread();
}

QNetworkAccessManager *mainManager()
{
    Q_ASSERT(isMainThread());
    if (!g_mainManager) {
        g_mainManager = new QNetworkAccessManager(QCoreApplication::instance());
        qAddPostRoutine(deleteMainManager);
    }
    return g_mainManager;
}

void runOnMainThread(const std::function<void()> &job)
{
    if (isMainThread() || !QCoreApplication::instance()) {
        job();
        return;
    }
    QMetaObject::invokeMethod(QCoreApplication::instance(), job, Qt::BlockingQueuedConnection);
}

void postToMainThread(const std::function<void()> &job)
{
    if (QCoreApplication *app = QCoreApplication::instance())
        QMetaObject::invokeMethod(app, job, Qt::QueuedConnection);
}

bool isTransportFailure(const QNetworkReply *reply)
{
    const QNetworkReply::NetworkError code = reply->error();
    if (code == QNetworkReply::NoError)
        return false;
    // Content (2xx), protocol-operation (3xx) and server (4xx) error codes are what the manager
    // reports for an HTTP status of 400 and above: the server did answer, with a body.
    const bool httpStatusError =
        (code >= QNetworkReply::ContentAccessDenied && code <= QNetworkReply::UnknownContentError) ||
        code == QNetworkReply::ProtocolInvalidOperationError ||
        (code >= QNetworkReply::InternalServerError && code <= QNetworkReply::UnknownServerError);
    const bool answered = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid();
    return !(httpStatusError && answered);
}

FvError errorFromReply(const QNetworkReply *reply)
{
    return FvError(QStringLiteral("RestClient"), int(reply->error()),
                   {{QStringLiteral("NSLocalizedDescription"), reply->errorString()}});
}

} // namespace NetworkAccess
