#include "server/FerrovaneServer.h"

#include "server/SelfSignedCertificate.h"
#include "server/ServerBackend.h"
#include "server/ServerWorker.h"
#include "util/Log.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslSocket>
#include <QThread>

namespace {

bool loadTls(const QString &certFile, const QString &keyFile, QSslConfiguration *tls, QString *error)
{
    const QList<QSslCertificate> chain = QSslCertificate::fromPath(certFile, QSsl::Pem);
    QFile keyIn(keyFile);
    if (chain.isEmpty() || chain.first().isNull()) {
        *error = QStringLiteral("Cannot read the certificate %1").arg(certFile);
        return false;
    }
    if (!keyIn.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("Cannot read the key %1").arg(keyFile);
        return false;
    }
    const QByteArray pem = keyIn.readAll();
    QSslKey key;
    for (const QSsl::KeyAlgorithm algorithm : {QSsl::Ec, QSsl::Rsa, QSsl::Dsa}) {
        key = QSslKey(pem, algorithm, QSsl::Pem, QSsl::PrivateKey);
        if (!key.isNull())
            break;
    }
    if (key.isNull()) {
        *error = QStringLiteral("Cannot use the key %1").arg(keyFile);
        return false;
    }
    *tls = QSslConfiguration::defaultConfiguration();
    tls->setLocalCertificateChain(chain);
    tls->setPrivateKey(key);
    tls->setPeerVerifyMode(QSslSocket::VerifyNone);
    tls->setProtocol(QSsl::TlsV1_2OrLater);
    return true;
}

Fault makeFault(Fault::Kind kind, const QString &command, int count)
{
    Fault fault;
    fault.kind = kind;
    fault.command = command;
    fault.count = count;
    return fault;
}

} // namespace

FerrovaneServer::FerrovaneServer(ServerConfig config, QObject *parent)
    : QObject(parent), m_config(std::move(config))
{}

FerrovaneServer::~FerrovaneServer()
{
    stop();
}

bool FerrovaneServer::start(QString *error)
{
    QString problem;
    auto failed = [&](const QString &message) {
        FV_LOG(message);
        if (error)
            *error = message;
        m_backend.reset();
        return false;
    };
    if (m_thread)
        return true;
    int offset = 0;
    if (!ServerClock::parseZone(m_config.timezone, &offset))
        return failed(
            QStringLiteral("Invalid time zone \"%1\": expected +hhmm or -hhmm").arg(m_config.timezone));
    if (m_config.dataDir.isEmpty())
        return failed(QStringLiteral("No data folder given"));
    if (!QSslSocket::supportsSsl())
        return failed(QStringLiteral("TLS is not available"));

    m_backend = std::make_unique<ServerBackend>(m_config.dataDir, offset);
    if (!m_backend->open(&problem))
        return failed(problem);

    QString certFile = m_config.certFile;
    QString keyFile = m_config.keyFile;
    if (certFile.isEmpty() != keyFile.isEmpty())
        return failed(QStringLiteral("A certificate needs its key and a key its certificate"));
    if (certFile.isEmpty()) {
        certFile = m_backend->dataDir() + QStringLiteral("/cert.pem");
        keyFile = m_backend->dataDir() + QStringLiteral("/key.pem");
        if (!QFileInfo::exists(certFile) || !QFileInfo::exists(keyFile)) {
            if (!SelfSignedCertificate::generate(certFile, keyFile, &problem))
                return failed(problem);
        }
    }
    QSslConfiguration tls;
    if (!loadTls(certFile, keyFile, &tls, &problem))
        return failed(problem);
    m_certFile = QFileInfo(certFile).absoluteFilePath();

    m_thread = new QThread;
    m_thread->setObjectName(QStringLiteral("FerrovaneServer"));
    m_worker = new ServerWorker(*m_backend, tls);
    m_worker->moveToThread(m_thread);
    m_thread->start();
    bool listening = false;
    QMetaObject::invokeMethod(
        m_worker,
        [&] {
            listening = m_worker->listen(m_config.address, m_config.port, m_config.adminPort, &problem);
            m_port = m_worker->port();
            m_adminPort = m_worker->adminPort();
        },
        Qt::BlockingQueuedConnection);
    if (!listening) {
        stop();
        return failed(problem);
    }
    return true;
}

void FerrovaneServer::stop()
{
    if (!m_thread)
        return;
    ServerWorker *worker = m_worker;
    // The worker and its sockets belong to the server thread and are destroyed there.
    QMetaObject::invokeMethod(
        worker, [worker] { delete worker; }, Qt::BlockingQueuedConnection);
    m_worker = nullptr;
    m_thread->quit();
    m_thread->wait();
    delete m_thread;
    m_thread = nullptr;
    m_port = 0;
    m_adminPort = 0;
}

bool FerrovaneServer::isRunning() const
{
    return m_thread != nullptr;
}
quint16 FerrovaneServer::port() const
{
    return m_port;
}
quint16 FerrovaneServer::adminPort() const
{
    return m_adminPort;
}

QString FerrovaneServer::domain() const
{
    QHostAddress host = m_config.address;
    if (host == QHostAddress::Any || host == QHostAddress::AnyIPv4 || host == QHostAddress::LocalHost)
        return QStringLiteral("127.0.0.1:%1").arg(m_port);
    if (host == QHostAddress::AnyIPv6 || host == QHostAddress::LocalHostIPv6)
        return QStringLiteral("[::1]:%1").arg(m_port);
    if (host.protocol() == QAbstractSocket::IPv6Protocol)
        return QStringLiteral("[%1]:%2").arg(host.toString()).arg(m_port);
    return QStringLiteral("%1:%2").arg(host.toString()).arg(m_port);
}

QString FerrovaneServer::url() const
{
    return QStringLiteral("https://") + domain() + u'/';
}
QString FerrovaneServer::adminUrl() const
{
    return QStringLiteral("http://127.0.0.1:%1/").arg(m_adminPort);
}
QString FerrovaneServer::certificatePath() const
{
    return m_certFile;
}
QString FerrovaneServer::timezone() const
{
    return m_backend ? m_backend->clock.zoneText() : m_config.timezone;
}
QString FerrovaneServer::serverTime() const
{
    return m_backend ? m_backend->clock.now() : QString();
}

bool FerrovaneServer::addUser(const QString &id, const QString &password, const QString &mailId)
{
    return m_backend && m_backend->store.addUser(id, password, mailId);
}

int FerrovaneServer::expireSessions(const QString &user)
{
    return m_backend ? m_backend->store.expireSessions(user) : 0;
}

bool FerrovaneServer::setQuota(const QString &user, qint64 totalBytes)
{
    return m_backend && m_backend->store.setQuota(user, totalBytes);
}

QString FerrovaneServer::makeFolder(const QString &user, const QString &path, const QString &pcName)
{
    qint64 key = 0;
    if (!m_backend || m_backend->store.makeFolder(user, path, pcName, &key) != ResultCode::Done)
        return {};
    return QString::number(key);
}

QString FerrovaneServer::putFile(const QString &user, const QString &path, const QByteArray &contents,
                                 const QString &time, const QString &pcName)
{
    qint64 key = 0;
    if (!m_backend || m_backend->store.putFile(user, path, contents, time, pcName, &key) != ResultCode::Done)
        return {};
    return QString::number(key);
}

bool FerrovaneServer::renameItem(const QString &user, const QString &path, const QString &newName,
                                 const QString &pcName)
{
    return m_backend && m_backend->store.renamePath(user, path, newName, pcName) == ResultCode::Done;
}

bool FerrovaneServer::moveItem(const QString &user, const QString &path, const QString &destFolder,
                               const QString &pcName)
{
    return m_backend && m_backend->store.movePath(user, path, destFolder, pcName) == ResultCode::Done;
}

bool FerrovaneServer::deleteItem(const QString &user, const QString &path, const QString &pcName)
{
    return m_backend && m_backend->store.removePath(user, path, pcName) == ResultCode::Done;
}

QList<TreeEntry> FerrovaneServer::tree(const QString &user, bool includePending) const
{
    return m_backend ? m_backend->store.tree(user, includePending) : QList<TreeEntry>();
}

QByteArray FerrovaneServer::fileContents(const QString &user, const QString &path) const
{
    if (!m_backend)
        return {};
    for (const TreeEntry &entry : m_backend->store.tree(user, false)) {
        if (entry.path != path || entry.folder)
            continue;
        const auto it = m_backend->store.item(user, entry.key.toLongLong());
        QFile file(it ? m_backend->store.contentPath(*it) : QString());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    return {};
}

QList<RequestLogEntry> FerrovaneServer::requestLog() const
{
    return m_backend ? m_backend->log.entries() : QList<RequestLogEntry>();
}

QStringList FerrovaneServer::requestedCommands() const
{
    QStringList names;
    for (const RequestLogEntry &entry : requestLog())
        names << entry.command;
    return names;
}

void FerrovaneServer::clearRequestLog()
{
    if (m_backend)
        m_backend->log.clear();
}

void FerrovaneServer::addFault(const Fault &fault)
{
    if (m_backend)
        m_backend->faults.add(fault);
}

void FerrovaneServer::dropReplies(const QString &command, int count)
{
    addFault(makeFault(Fault::Kind::Drop, command, count));
}

void FerrovaneServer::cutReplies(const QString &command, int count)
{
    addFault(makeFault(Fault::Kind::CutReply, command, count));
}

void FerrovaneServer::dropRepliesAfterProcessing(const QString &command, int count)
{
    addFault(makeFault(Fault::Kind::DropAfterProcessing, command, count));
}

void FerrovaneServer::failWithStatus(const QString &command, int status, int count)
{
    Fault fault = makeFault(Fault::Kind::HttpStatus, command, count);
    fault.status = status;
    addFault(fault);
}

void FerrovaneServer::replyWithBody(const QString &command, const QByteArray &body, int count)
{
    Fault fault = makeFault(Fault::Kind::Body, command, count);
    fault.body = body;
    addFault(fault);
}

void FerrovaneServer::delayReplies(const QString &command, int milliseconds, int count)
{
    Fault fault = makeFault(Fault::Kind::Delay, command, count);
    fault.delayMs = milliseconds;
    addFault(fault);
}

void FerrovaneServer::refuseUploads(int count, const QString &result)
{
    Fault fault = makeFault(Fault::Kind::RefuseUpload, QStringLiteral("UPLOAD"), count);
    fault.result = result;
    addFault(fault);
}

void FerrovaneServer::cutDownloads(qint64 afterBytes, int count)
{
    Fault fault = makeFault(Fault::Kind::CutDownload, QStringLiteral("DOWNLOAD"), count);
    fault.bytes = afterBytes;
    addFault(fault);
}

void FerrovaneServer::clearFaults()
{
    if (m_backend)
        m_backend->faults.clear();
}

int FerrovaneServer::pendingFaults() const
{
    return m_backend ? m_backend->faults.pending() : 0;
}

bool FerrovaneServer::setUpdate(const QString &version, const QString &build, const QByteArray &package)
{
    return m_backend && m_backend->setUpdate(version, build, package);
}
