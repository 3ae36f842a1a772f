#include "RestLibrary/DirectHttp.h"

#include "RestLibrary/NetworkAccess.h"
#include "util/Log.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QNetworkReply>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QThread>
#include <memory>

namespace {

constexpr int kInactivityTimeoutMs = 60 * 1000; // not scaled, like every request's
constexpr int kKeepIdleMs = 30 * 1000;          // a kept connection quiet longer is not trusted
constexpr qsizetype kMaxHeadBytes = 64 * 1024;  // a longer head is not an answer of ours
constexpr qint64 kPieceBytes = 64 * 1024;
constexpr qint64 kWriteAhead = 256 * 1024; // bytes of a streamed body allowed to wait in the socket

// The connection a thread keeps between its requests.
struct KeptConnection
{
    std::unique_ptr<QSslSocket> socket;
    QByteArray peer;
    QElapsedTimer quiet;
    bool dropAtThreadEnd = false;

    // Deleted here, on its own thread, while that thread can still unregister the socket.
    void drop()
    {
        if (socket)
            socket->abort();
        socket.reset();
    }
};

thread_local KeptConnection t_kept;

// Only a thread with an event dispatcher that says when it ends keeps a connection; any other drops
// it after each exchange (its end would come after the socket could be deleted cleanly).
bool threadCanKeep()
{
    QThread *thread = QThread::currentThread();
    if (!thread->eventDispatcher())
        return false;
    if (!t_kept.dropAtThreadEnd) {
        t_kept.dropAtThreadEnd = true;
        QObject::connect(
            thread, &QThread::finished, thread, [] { t_kept.drop(); }, Qt::DirectConnection);
    }
    return true;
}

std::unique_ptr<QSslSocket> takeKept(const QByteArray &peer)
{
    if (!t_kept.socket)
        return nullptr;
    std::unique_ptr<QSslSocket> socket = std::move(t_kept.socket);
    const bool samePeer = t_kept.peer == peer;
    const bool fresh = t_kept.quiet.isValid() && !t_kept.quiet.hasExpired(kKeepIdleMs);
    // Anything to read now is either the server's close or bytes nobody asked for.
    if (!samePeer || !fresh || socket->state() != QAbstractSocket::ConnectedState ||
        socket->bytesAvailable() > 0 || socket->waitForReadyRead(0) ||
        socket->state() != QAbstractSocket::ConnectedState) {
        socket->abort();
        return nullptr;
    }
    return socket;
}

void keep(std::unique_ptr<QSslSocket> socket, const QByteArray &peer)
{
    if (!threadCanKeep()) {
        socket->abort();
        return;
    }
    t_kept.drop();
    t_kept.socket = std::move(socket);
    t_kept.peer = peer;
    t_kept.quiet.start();
}

int transportCode(QAbstractSocket::SocketError error)
{
    switch (error) {
    case QAbstractSocket::ConnectionRefusedError:
        return QNetworkReply::ConnectionRefusedError;
    case QAbstractSocket::RemoteHostClosedError:
        return QNetworkReply::RemoteHostClosedError;
    case QAbstractSocket::HostNotFoundError:
        return QNetworkReply::HostNotFoundError;
    case QAbstractSocket::SocketTimeoutError:
        return QNetworkReply::TimeoutError;
    case QAbstractSocket::SslHandshakeFailedError:
    case QAbstractSocket::SslInternalError:
    case QAbstractSocket::SslInvalidUserDataError:
        return QNetworkReply::SslHandshakeFailedError;
    default:
        return QNetworkReply::UnknownNetworkError;
    }
}

int statusCode(int status)
{
    switch (status) {
    case 401:
        return QNetworkReply::AuthenticationRequiredError;
    case 403:
        return QNetworkReply::ContentAccessDenied;
    case 404:
        return QNetworkReply::ContentNotFoundError;
    case 405:
        return QNetworkReply::ContentOperationNotPermittedError;
    case 409:
        return QNetworkReply::ContentConflictError;
    case 410:
        return QNetworkReply::ContentGoneError;
    case 500:
        return QNetworkReply::InternalServerError;
    case 501:
        return QNetworkReply::OperationNotImplementedError;
    case 503:
        return QNetworkReply::ServiceUnavailableError;
    default:
        return status < 500 ? QNetworkReply::UnknownContentError : QNetworkReply::UnknownServerError;
    }
}

FvError makeError(int code, const QString &text)
{
    return FvError(QStringLiteral("RestClient"), code, {{QStringLiteral("NSLocalizedDescription"), text}});
}

// One request and its answer on one connection.
class Exchange
{
public:
    enum class End { Kept, Closed, NothingBack };

    Exchange(QSslSocket *socket, QString url, DirectHttp::BodyReceiver &receiver, DirectHttp::Answer &answer,
             DirectHttp::BodySource *source)
        : m_url(std::move(url)), m_socket(socket), m_receiver(receiver), m_answer(answer), m_source(source)
    {}

    End run(const QByteArray &head, const QByteArray &body, bool headRequest)
    {
        m_socket->write(head);
        if (!body.isEmpty())
            m_socket->write(body);
        if ((m_source && !stream()) || !drain(0) || !readHead())
            return m_brokenEarly ? End::NothingBack : End::Closed;
        if (m_receiver.bodyOptional(m_answer))
            m_optionalBody = true;
        if (headRequest || m_answer.status == 204 || m_answer.status == 304)
            return finish(true);
        bool complete = false;
        const QByteArray length = header("content-length");
        if (header("transfer-encoding").toLower().contains("chunked")) {
            complete = readChunked();
        } else if (!length.isEmpty()) {
            bool ok = false;
            const qint64 size = length.toLongLong(&ok);
            if (ok && size >= 0)
                complete = readBody(size);
            else
                protocolFailure(QStringLiteral("bad Content-Length"));
        } else {
            // No length: the body ends with the connection.
            return readToClose() ? finish(false) : End::Closed;
        }
        if (complete)
            return finish(true);
        if (m_optionalBody) { // the answer stands without its body; the connection does not
            m_answer = m_head;
            finish(false);
        }
        return End::Closed;
    }

private:
    // Waits for bytes to come (reading) or to leave. A cancel of the source is seen within a
    // fraction of a second. False, the failure recorded, when the connection broke, the exchange
    // was cancelled, or nothing moved for the inactivity time-out (a second for an optional body).
    bool wait(bool reading)
    {
        constexpr int kSliceMs = 100;
        const int limit = m_optionalBody ? 1000 : kInactivityTimeoutMs;
        QElapsedTimer quiet;
        quiet.start();
        for (;;) {
            const int slice = m_source ? kSliceMs : limit;
            if (reading ? m_socket->waitForReadyRead(slice) : m_socket->waitForBytesWritten(slice)) {
                m_seenAnswerByte = m_seenAnswerByte || reading;
                return true;
            }
            if (m_socket->state() != QAbstractSocket::ConnectedState) {
                m_brokenEarly = !m_seenAnswerByte;
                const QAbstractSocket::SocketError error = m_socket->error();
                fail(error == QAbstractSocket::SocketTimeoutError ? int(QNetworkReply::RemoteHostClosedError)
                                                                  : transportCode(error),
                     error == QAbstractSocket::SocketTimeoutError ? QStringLiteral("Connection closed")
                                                                  : m_socket->errorString());
                return false;
            }
            if (m_source && m_source->cancelled()) {
                fail(QNetworkReply::OperationCanceledError, QStringLiteral("Operation canceled"));
                return false;
            }
            if (quiet.hasExpired(limit)) {
                fail(QNetworkReply::TimeoutError, QStringLiteral("Socket operation timed out"));
                return false;
            }
        }
    }

    // Sends until no more than `ahead` bytes wait in the socket.
    bool drain(qint64 ahead)
    {
        // What the kernel takes at once needs no wait (a request head, a small piece): one poll
        // less per exchange.
        if (m_socket->bytesToWrite() + m_socket->encryptedBytesToWrite() > ahead)
            m_socket->flush();
        while (m_socket->bytesToWrite() + m_socket->encryptedBytesToWrite() > ahead) {
            if (!wait(false))
                return false;
        }
        return true;
    }

    bool stream()
    {
        // The head and the first piece leave together: a small file's upload is one round trip.
        QByteArray piece(kPieceBytes, Qt::Uninitialized);
        for (qint64 left = m_source->size(); left > 0;) {
            if (m_source->cancelled()) {
                fail(QNetworkReply::OperationCanceledError, QStringLiteral("Operation canceled"));
                return false;
            }
            const qint64 got = m_source->read(piece.data(), qMin(left, kPieceBytes));
            if (got <= 0) {
                fail(QNetworkReply::UnknownContentError, QStringLiteral("the body could not be read"));
                return false;
            }
            m_socket->write(piece.constData(), got);
            left -= got;
            if (!drain(kWriteAhead))
                return false;
        }
        return true;
    }

    void fail(int code, const QString &text)
    {
        m_answer.status = 0;
        m_answer.transportFailure = true;
        m_answer.error = makeError(code, text);
    }

    void protocolFailure(const QString &text) { fail(QNetworkReply::ProtocolFailure, text); }

    bool more() { return wait(true); }

    bool readLine(QByteArray *line)
    {
        while (!m_socket->canReadLine()) {
            if (m_socket->bytesAvailable() > kMaxHeadBytes) {
                protocolFailure(QStringLiteral("answer head too long"));
                return false;
            }
            if (!more())
                return false;
        }
        m_seenAnswerByte = true;
        // Read through a small buffer: asking the device for a line of up to kMaxHeadBytes makes
        // it allocate that much for every line of every answer.
        QByteArray read;
        char piece[512];
        while (read.size() < kMaxHeadBytes) {
            const qint64 got =
                m_socket->readLine(piece, qMin<qint64>(sizeof piece, kMaxHeadBytes - read.size() + 1));
            if (got <= 0)
                break;
            read.append(piece, got);
            if (piece[got - 1] == '\n')
                break;
        }
        *line = read.trimmed();
        return true;
    }

    bool readHead()
    {
        for (;;) {
            QByteArray line;
            if (!readLine(&line))
                return false;
            const QList<QByteArray> parts = line.split(' ');
            bool ok = false;
            const int status = parts.value(1).toInt(&ok);
            if (!line.startsWith("HTTP/1.") || !ok || status < 100 || status > 999) {
                protocolFailure(QStringLiteral("not an HTTP answer"));
                return false;
            }
            m_http10 = line.startsWith("HTTP/1.0");
            m_answer.headers.clear();
            qsizetype headBytes = line.size();
            for (;;) {
                if (!readLine(&line))
                    return false;
                if (line.isEmpty())
                    break;
                headBytes += line.size();
                if (headBytes > kMaxHeadBytes) {
                    protocolFailure(QStringLiteral("answer head too long"));
                    return false;
                }
                const qsizetype colon = line.indexOf(':');
                if (colon > 0)
                    m_answer.headers.append({line.left(colon).trimmed(), line.mid(colon + 1).trimmed()});
            }
            if (status >= 200) { // an interim answer (1xx) is followed by the real one
                m_answer.status = status;
                m_reason = QString::fromUtf8(parts.mid(2).join(' '));
                m_head = m_answer;
                return true;
            }
        }
    }

    QByteArray header(const char *name) const { return DirectHttp::headerValue(m_answer.headers, name); }

    // Moves up to `limit` available bytes into the receiver; false when it refused them.
    bool pass(qint64 limit, qint64 *moved)
    {
        qint64 capacity = limit;
        char *buffer = m_receiver.buffer(&capacity);
        const qint64 got = m_socket->read(buffer, qMin(qMin(capacity, kPieceBytes * 4), limit));
        *moved = qMax<qint64>(got, 0);
        if (got > 0 && !m_receiver.take(got)) {
            fail(QNetworkReply::OperationCanceledError, QStringLiteral("Operation canceled"));
            return false;
        }
        return true;
    }

    bool readBody(qint64 size)
    {
        while (size > 0) {
            if (m_socket->bytesAvailable() <= 0 && !more())
                return false;
            qint64 moved = 0;
            if (!pass(size, &moved))
                return false;
            size -= moved;
        }
        return true;
    }

    bool readChunked()
    {
        for (;;) {
            QByteArray line;
            if (!readLine(&line))
                return false;
            bool ok = false;
            const qsizetype extension = line.indexOf(';');
            const qint64 size = (extension < 0 ? line : line.left(extension)).trimmed().toLongLong(&ok, 16);
            if (!ok || size < 0) {
                protocolFailure(QStringLiteral("bad chunk size"));
                return false;
            }
            if (size == 0)
                break;
            if (!readBody(size) || !readLine(&line))
                return false;
        }
        for (;;) { // trailer fields, up to the empty line
            QByteArray line;
            if (!readLine(&line))
                return false;
            if (line.isEmpty())
                return true;
        }
    }

    bool readToClose()
    {
        for (;;) {
            while (m_socket->bytesAvailable() > 0) {
                qint64 moved = 0;
                if (!pass(m_socket->bytesAvailable(), &moved))
                    return false;
            }
            if (wait(true))
                continue;
            if (m_socket->state() == QAbstractSocket::ConnectedState)
                return false;  // cancelled or timed out
            m_answer = m_head; // closed: the body is complete
            while (m_socket->bytesAvailable() > 0) {
                qint64 moved = 0;
                if (!pass(m_socket->bytesAvailable(), &moved))
                    return false;
            }
            return true;
        }
    }

    End finish(bool canKeep)
    {
        if (m_answer.status >= 400)
            m_answer.error =
                makeError(statusCode(m_answer.status),
                          QStringLiteral("Error transferring %1 - server replied: %2").arg(m_url, m_reason));
        const bool close = header("connection").toLower().contains("close") ||
                           (m_http10 && !header("connection").toLower().contains("keep-alive"));
        return canKeep && !close && m_socket->bytesAvailable() == 0 ? End::Kept : End::Closed;
    }

    const QString m_url;
    QSslSocket *m_socket;
    DirectHttp::BodyReceiver &m_receiver;
    DirectHttp::Answer &m_answer;
    DirectHttp::BodySource *m_source;
    DirectHttp::Answer m_head; // the answer as its head gave it
    QString m_reason;
    bool m_http10 = false;
    bool m_seenAnswerByte = false;
    bool m_brokenEarly = false; // the connection broke before a byte of the answer came
    bool m_optionalBody = false;
};

} // namespace

namespace DirectHttp {

char *BodyReceiver::buffer(qint64 *capacity)
{
    if (m_piece.size() != kPieceBytes)
        m_piece.resize(kPieceBytes);
    *capacity = m_piece.size();
    return m_piece.data();
}

bool BodyReceiver::take(qint64 size)
{
    body.append(m_piece.constData(), size);
    return true;
}

QByteArray headerValue(const QList<QPair<QByteArray, QByteArray>> &headers, const char *name)
{
    for (const auto &[key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    }
    return {};
}

QString headerLine(const QList<QPair<QByteArray, QByteArray>> &headers)
{
    QStringList fields;
    for (const auto &[name, value] : headers)
        fields << QString::fromUtf8(name + ": " + value);
    return fields.join(QLatin1String(", "));
}

bool usable()
{
    return QCoreApplication::instance() && !NetworkAccess::isMainThread();
}

Answer exchange(const RestRequest &request, BodyReceiver &receiver, BodySource *source)
{
    NetworkAccess::installTrust();
    Answer answer;
    const QUrl url = request.request.url();
    const bool tls = url.scheme() == u"https";
    if ((!tls && url.scheme() != u"http") || url.host().isEmpty()) {
        answer.transportFailure = true;
        answer.error = makeError(QNetworkReply::ProtocolUnknownError,
                                 QStringLiteral("Protocol \"%1\" is unknown").arg(url.scheme()));
        return answer;
    }
    const quint16 port = quint16(url.port(tls ? 443 : 80));
    QByteArray host = url.host(QUrl::FullyEncoded).toUtf8();
    if (host.contains(':'))
        host = '[' + host + ']';
    if (url.port() > 0)
        host += ':' + QByteArray::number(url.port());
    QByteArray target = url.path(QUrl::FullyEncoded).toUtf8();
    if (target.isEmpty())
        target = "/";
    if (url.hasQuery())
        target += '?' + url.query(QUrl::FullyEncoded).toUtf8();

    QByteArray head = request.method + ' ' + target + " HTTP/1.1\r\nHost: " + host + "\r\n";
    for (const QByteArray &name : request.request.rawHeaderList())
        head += name + ": " + request.request.rawHeader(name) + "\r\n";
    if (source)
        head += "Content-Length: " + QByteArray::number(source->size()) + "\r\n";
    else if (!request.body.isEmpty() || request.method == "POST" || request.method == "PUT")
        head += "Content-Length: " + QByteArray::number(request.body.size()) + "\r\n";
    head += "Connection: keep-alive\r\n\r\n";

    const QByteArray peer = url.scheme().toUtf8() + "://" + host;
    for (int attempt = 0;; ++attempt) {
        answer = Answer();
        if (attempt > 0 && source && !source->rewind()) {
            answer.transportFailure = true;
            answer.error = makeError(QNetworkReply::UnknownContentError,
                                     QStringLiteral("the body could not be read again"));
            return answer;
        }
        std::unique_ptr<QSslSocket> socket = takeKept(peer);
        const bool reused = socket != nullptr;
        if (!socket) {
            socket = std::make_unique<QSslSocket>();
            socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
            if (tls) {
                socket->setSslConfiguration(QSslConfiguration::defaultConfiguration());
                socket->connectToHostEncrypted(url.host(), port);
            } else {
                socket->connectToHost(url.host(), port);
            }
            const bool up = tls ? socket->waitForEncrypted(kInactivityTimeoutMs)
                                : socket->waitForConnected(kInactivityTimeoutMs);
            if (!up) {
                answer.transportFailure = true;
                answer.error = makeError(transportCode(socket->error()), socket->errorString());
                socket->abort();
                return answer;
            }
        }
        Exchange exchange(socket.get(), url.toString(QUrl::RemoveUserInfo), receiver, answer, source);
        const Exchange::End end = exchange.run(head, request.body, request.method == "HEAD");
        if (end == Exchange::End::Kept) {
            keep(std::move(socket), peer);
            return answer;
        }
        socket->abort();
        // A kept connection the server closed before it answered a byte: the request never
        // reached it, so it goes again on a new connection, once.
        if (end == Exchange::End::NothingBack && reused && attempt == 0) {
            FV_LOG(QStringLiteral("Kept connection closed by the server; sending again on a new one"));
            continue;
        }
        return answer;
    }
}

} // namespace DirectHttp
