#include "protocol/UploadConnection.h"

#include "RestLibrary/NetworkAccess.h"
#include "protocol/TransferState.h"
#include "util/Log.h"

#include <QCoreApplication>
#include <QPointer>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QUrl>
#include <cstring>

namespace {
// The body moves in small pieces: every buffer on the way (ours, the socket's plain and encrypted
// buffers, the TLS library's) then stays small enough to be reused from the heap. Large pieces
// are given back to the system when freed and faulted in again for the next one, which costs
// several times the encryption itself.
constexpr qint64 kChunk = 64 * 1024;            // one read from the file, one write to the socket
constexpr qint64 kWriteAhead = 256 * 1024;      // encrypted bytes allowed to wait in the socket
constexpr qsizetype kMaxAnswerHead = 64 * 1024; // a longer head is not an answer of ours
constexpr int kInactivityTimeoutMs = 60 * 1000; // not scaled, like every request's
constexpr int kKeepIdleMs = 30 * 1000;          // a parked connection older than this is closed

// The one encrypted connection kept open between uploads (main thread only). A sync sends files
// one after another; a new TLS handshake for each, with the trust store rebuilt every time, cost
// more than a small file's upload itself.
class ParkedConnection final : public QObject
{
public:
    static ParkedConnection &instance()
    {
        static QPointer<ParkedConnection> parked;
        if (!parked)
            parked = new ParkedConnection(QCoreApplication::instance());
        return *parked;
    }

    void park(QSslSocket *socket, const QByteArray &peer)
    {
        drop();
        m_socket = socket;
        m_peer = peer;
        socket->setParent(this);
        // Closed by the server while parked: forget it.
        connect(socket, &QSslSocket::disconnected, this, &ParkedConnection::drop);
        connect(socket, &QSslSocket::errorOccurred, this, &ParkedConnection::drop);
        connect(socket, &QSslSocket::readyRead, this, &ParkedConnection::drop); // nothing is due
        m_expiry.start();
    }

    // The parked connection to `peer`, still open and quiet, handed over to `owner`; else null.
    QSslSocket *take(const QByteArray &peer, QObject *owner)
    {
        QSslSocket *socket = m_socket;
        if (!socket || m_peer != peer || socket->state() != QAbstractSocket::ConnectedState ||
            !socket->isEncrypted() || socket->bytesAvailable() > 0) {
            drop();
            return nullptr;
        }
        m_expiry.stop();
        socket->disconnect(this);
        socket->setParent(owner);
        m_socket = nullptr;
        return socket;
    }

    void drop()
    {
        m_expiry.stop();
        if (QSslSocket *socket = m_socket) {
            m_socket = nullptr;
            socket->disconnect(this);
            socket->abort();
            socket->deleteLater();
        }
    }

private:
    explicit ParkedConnection(QObject *parent) : QObject(parent)
    {
        m_expiry.setSingleShot(true);
        m_expiry.setInterval(kKeepIdleMs);
        connect(&m_expiry, &QTimer::timeout, this, &ParkedConnection::drop);
    }

    QPointer<QSslSocket> m_socket;
    QByteArray m_peer;
    QTimer m_expiry;
};

QByteArray headerValue(const QList<QByteArray> &lines, const QByteArray &name)
{
    for (const QByteArray &line : lines) {
        const qsizetype colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).trimmed().compare(name, Qt::CaseInsensitive) == 0)
            return line.mid(colon + 1).trimmed();
    }
    return {};
}
} // namespace

UploadConnection::UploadConnection(std::shared_ptr<TransferState> state) : m_state(std::move(state))
{
    m_idle.setSingleShot(true);
    m_idle.setInterval(kInactivityTimeoutMs);
    connect(&m_idle, &QTimer::timeout, this, [this] { fail(QStringLiteral("time-out")); });
}

UploadConnection::~UploadConnection()
{
    close();
}

void UploadConnection::start(const QString &path, const QString &url, const QString &time)
{
    m_inputStream.setFileName(path);
    if (!m_inputStream.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        FV_LOG(QStringLiteral("Fail: cannot read %1: %2").arg(path, m_inputStream.errorString()));
        m_state->set(TransferState::Fail);
        return;
    }
    const QUrl target(url);
    if (!target.isValid() || target.scheme() != QLatin1String("https") || target.host().isEmpty()) {
        FV_LOG(QStringLiteral("Fail: not an https URL: %1").arg(url));
        m_state->set(TransferState::Fail);
        return;
    }
    m_total = m_inputStream.size();

    QByteArray resource = target.path(QUrl::FullyEncoded).toUtf8();
    if (resource.isEmpty())
        resource = "/";
    if (target.hasQuery())
        resource += '?' + target.query(QUrl::FullyEncoded).toUtf8();
    QByteArray host = target.host(QUrl::FullyEncoded).toUtf8();
    if (host.contains(':'))
        host = '[' + host + ']';
    if (target.port() > 0)
        host += ':' + QByteArray::number(target.port());
    m_head = "POST " + resource + " HTTP/1.1\r\nHost: " + host +
             "\r\nContent-Type: application/stream\r\nvelmora_filetime: " + time.toUtf8() +
             "\r\nContent-Length: " + QByteArray::number(m_total) + "\r\n\r\n";
    m_host = target.host();
    m_port = quint16(target.port(443));
    m_peer = m_host.toUtf8() + ':' + QByteArray::number(m_port);

    m_idle.start();
    if (QSslSocket *parked =
            QCoreApplication::instance() ? ParkedConnection::instance().take(m_peer, this) : nullptr) {
        m_reused = true;
        attach(parked);
        sendHead();
    } else {
        connectFresh();
    }
}

void UploadConnection::connectFresh()
{
    NetworkAccess::installTrust();
    m_reused = false;
    auto *socket = new QSslSocket(this);
    socket->setSslConfiguration(QSslConfiguration::defaultConfiguration());
    socket->setReadBufferSize(kMaxAnswerHead);
    attach(socket);
    socket->connectToHostEncrypted(m_host, m_port);
}

void UploadConnection::attach(QSslSocket *socket)
{
    m_socket = socket;
    connect(m_socket, &QSslSocket::encrypted, this, &UploadConnection::sendHead);
    // Refill as soon as the last piece is encrypted, and as the encrypted bytes drain.
    connect(m_socket, &QSslSocket::bytesWritten, this, &UploadConnection::pump);
    connect(m_socket, &QSslSocket::encryptedBytesWritten, this, &UploadConnection::pump);
    connect(m_socket, &QSslSocket::readyRead, this, &UploadConnection::readAnswer);
    connect(m_socket, &QSslSocket::disconnected, this, &UploadConnection::connectionEnded);
    connect(m_socket, &QSslSocket::errorOccurred, this, [this](QAbstractSocket::SocketError) {
        if (m_socket->error() == QAbstractSocket::RemoteHostClosedError)
            connectionEnded();
        else if (!retryFresh())
            fail(m_socket->errorString());
    });
}

bool UploadConnection::retryFresh()
{
    // A kept connection the server closed before it answered a byte: the request never reached
    // it, so it goes again on a new connection, once.
    if (!m_reused || m_responded || !m_answer.isEmpty() || m_closed)
        return false;
    FV_LOG(QStringLiteral("Kept connection closed by the server; sending again on a new one"));
    QSslSocket *old = m_socket;
    old->disconnect(this);
    old->abort();
    old->deleteLater();
    m_socket = nullptr;
    if (!m_inputStream.seek(0)) {
        fail(QStringLiteral("cannot read %1 again").arg(m_inputStream.fileName()));
        return true;
    }
    m_sent = 0;
    m_headSent = false;
    connectFresh();
    return true;
}

void UploadConnection::sendHead()
{
    // The head and the body's first piece leave in one write, and nothing waits for the answer to
    // an earlier segment: a small file's upload is then one round trip.
    m_socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    pump();
}

void UploadConnection::pump()
{
    m_idle.start();
    if (m_closed || !m_socket || !m_socket->isEncrypted())
        return;
    if (m_chunk.isEmpty())
        m_chunk.resize(kChunk + m_head.size());
    // Keep the socket fed without letting the file pile up in its buffers: at most one piece waits
    // to be encrypted (the socket encrypts all it holds at once), a few to be sent.
    while ((!m_headSent || m_sent < m_total) && m_socket->bytesToWrite() < kChunk &&
           m_socket->encryptedBytesToWrite() < kWriteAhead) {
        qint64 used = 0;
        if (!m_headSent) {
            std::memcpy(m_chunk.data(), m_head.constData(), size_t(m_head.size()));
            used = m_head.size();
        }
        const qint64 want = qMin(kChunk, m_total - m_sent);
        if (want > 0) {
            const qint64 got = m_inputStream.read(m_chunk.data() + used, want);
            if (got <= 0) {
                // The file shrank or became unreadable while being sent.
                fail(QStringLiteral("cannot read %1 at byte %2").arg(m_inputStream.fileName()).arg(m_sent));
                return;
            }
            used += got;
            m_sent += got;
        }
        m_headSent = true;
        m_socket->write(m_chunk.constData(), used);
    }
}

void UploadConnection::readAnswer()
{
    m_idle.start();
    const QByteArray bytes = m_socket->readAll();
    if (m_responded) {
        if (!bytes.isEmpty()) {
            FV_LOG(QStringLiteral("receive data: %1").arg(QString::fromUtf8(bytes)));
            takeBody(bytes.size());
        }
        return;
    }
    m_answer += bytes;
    for (;;) {
        const qsizetype end = m_answer.indexOf("\r\n\r\n");
        if (end < 0) {
            if (m_answer.size() > kMaxAnswerHead)
                fail(QStringLiteral("answer head too long"));
            return;
        }
        const QList<QByteArray> lines = m_answer.left(end).split('\n');
        const QByteArray rest = m_answer.mid(end + 4);
        const QList<QByteArray> status = lines.value(0).trimmed().split(' ');
        if (status.value(1).startsWith('1')) { // interim answer: the real one follows
            m_answer = rest;
            continue;
        }
        m_responded = true;
        QStringList fields;
        for (qsizetype i = 1; i < lines.size(); ++i)
            fields << QString::fromUtf8(lines.at(i).trimmed());
        FV_LOG(fields.join(QLatin1String(", ")));
        // The verdict comes with the headers, before any body of the answer.
        if (headerValue(lines.mid(1), "Velmora-result") == "0")
            m_state->set(TransferState::Done);
        else
            m_state->set(TransferState::Fail);
        m_answer.clear();
        // The connection can carry the next upload once this answer's body is read, if the
        // server keeps it and says how long the body is.
        bool sized = false;
        m_bodyLeft = headerValue(lines.mid(1), "Content-Length").toLongLong(&sized);
        m_keepable = sized && m_bodyLeft >= 0 && status.value(0) == "HTTP/1.1" &&
                     !headerValue(lines.mid(1), "Connection").toLower().contains("close");
        if (!sized)
            m_bodyLeft = -1;
        if (!rest.isEmpty())
            FV_LOG(QStringLiteral("receive data: %1").arg(QString::fromUtf8(rest)));
        takeBody(rest.size());
        return;
    }
}

void UploadConnection::takeBody(qint64 bytes)
{
    if (m_bodyLeft < 0)
        return;
    m_bodyLeft = qMax<qint64>(0, m_bodyLeft - bytes);
    if (m_bodyLeft > 0 || m_closed)
        return;
    FV_LOG(QStringLiteral("Finish!"));
    m_closed = true;
    m_complete = true;
    m_idle.stop();
}

void UploadConnection::connectionEnded()
{
    if (m_closed)
        return;
    if (m_socket && m_socket->bytesAvailable() > 0)
        readAnswer();
    if (m_closed)
        return;
    if (!m_responded) {
        if (!retryFresh())
            fail(QStringLiteral("connection closed before an answer"));
        return;
    }
    FV_LOG(QStringLiteral("Finish!"));
    m_closed = true;
    m_keepable = false;
    m_idle.stop();
}

void UploadConnection::fail(const QString &why)
{
    if (m_closed)
        return;
    FV_LOG(QStringLiteral("Fail: %1").arg(why));
    m_state->set(TransferState::Fail);
    cancel();
}

void UploadConnection::cancel()
{
    m_closed = true;
    m_idle.stop();
    if (m_socket) {
        m_socket->disconnect(this);
        m_socket->abort();
    }
}

void UploadConnection::close()
{
    if (m_complete && m_keepable && m_socket && QCoreApplication::instance()) {
        QSslSocket *socket = m_socket;
        m_socket = nullptr;
        socket->disconnect(this);
        ParkedConnection::instance().park(socket, m_peer);
    }
    cancel();
    m_inputStream.close();
}
