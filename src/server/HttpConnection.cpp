#include "server/HttpConnection.h"

#include "util/Log.h"

#include <QSslSocket>
#include <QTcpSocket>
#include <QUrl>

namespace {
constexpr qint64 kReadChunk = 256 * 1024;
constexpr qint64 kWriteChunk = 64 * 1024;
constexpr qint64 kHighWater = 256 * 1024;
constexpr qsizetype kMaxLine = 4096;

bool isToken(const QByteArray &text)
{
    if (text.isEmpty())
        return false;
    for (const char c : text) {
        if (c <= ' ' || c >= 127 || QByteArrayView("()<>@,;:\\\"/[]?={}").contains(c))
            return false;
    }
    return true;
}
} // namespace

QByteArray HttpRequest::header(const QByteArray &lowerCaseName) const
{
    for (const auto &pair : headers) {
        if (pair.first == lowerCaseName)
            return pair.second;
    }
    return {};
}

HttpConnection::HttpConnection(QTcpSocket *socket, HttpHandler *handler, QObject *parent)
    : QObject(parent), m_socket(socket), m_ssl(qobject_cast<QSslSocket *>(socket)), m_handler(handler)
{
    m_socket->setParent(this);
    // Bounds what the socket buffers while a request is being handled or a body is being written.
    m_socket->setReadBufferSize(kReadChunk * 4);
    connect(m_socket, &QTcpSocket::readyRead, this, &HttpConnection::onReadyRead);
    connect(m_socket, &QTcpSocket::bytesWritten, this, &HttpConnection::onBytesWritten);
    connect(m_socket, &QTcpSocket::disconnected, this, &HttpConnection::onDisconnected);
    connect(m_socket, &QTcpSocket::errorOccurred, this, [this](QAbstractSocket::SocketError) {
        if (m_socket->state() == QAbstractSocket::UnconnectedState)
            onDisconnected();
    });
    if (m_ssl) {
        connect(m_ssl, &QSslSocket::encryptedBytesWritten, this, &HttpConnection::onBytesWritten);
        connect(m_ssl, &QSslSocket::sslErrors, this, [this](const QList<QSslError> &errors) {
            for (const QSslError &error : errors)
                FV_LOG(QStringLiteral("TLS error: %1").arg(error.errorString()));
        });
    }
    m_idle.setSingleShot(true);
    m_idle.setInterval(kIdleTimeoutMs);
    // A silent peer is let go, except while a request is with the handler.
    connect(&m_idle, &QTimer::timeout, this, [this] {
        if (m_state != State::Processing)
            drop();
    });
    m_idle.start();
}

HttpConnection::~HttpConnection()
{
    resetRequest();
}

bool HttpConnection::isReading() const
{
    return m_state == State::ReadHead || m_state == State::ReadBody || m_state == State::ReadChunkSize ||
           m_state == State::ReadChunkData || m_state == State::ReadChunkEnd ||
           m_state == State::ReadTrailers;
}

void HttpConnection::onReadyRead()
{
    if (isReading()) {
        m_idle.start();
        processInput();
    }
}

bool HttpConnection::pull()
{
    if (m_socket->bytesAvailable() <= 0)
        return false;
    const QByteArray data = m_socket->read(kReadChunk);
    if (data.isEmpty())
        return false;
    m_buffer.append(data);
    return true;
}

std::optional<QByteArray> HttpConnection::takeLine()
{
    for (;;) {
        const qsizetype end = m_buffer.indexOf("\r\n");
        if (end >= 0) {
            QByteArray line = m_buffer.left(end);
            m_buffer.remove(0, end + 2);
            return line;
        }
        if (m_buffer.size() > kMaxLine) {
            fail(400);
            return std::nullopt;
        }
        if (!pull())
            return std::nullopt;
    }
}

void HttpConnection::processInput()
{
    while (isReading()) {
        switch (m_state) {
        case State::ReadHead: {
            // Blank lines before a request line are tolerated.
            while (m_buffer.startsWith("\r\n"))
                m_buffer.remove(0, 2);
            const qsizetype end = m_buffer.indexOf("\r\n\r\n");
            if (end < 0 || end > kMaxHeaderBytes) {
                if (m_buffer.size() > kMaxHeaderBytes || end > kMaxHeaderBytes)
                    return fail(431);
                if (!pull())
                    return;
                continue;
            }
            const QByteArray head = m_buffer.left(end);
            m_buffer.remove(0, end + 4);
            if (!parseHead(head))
                return fail(400);
            beginBody();
            continue;
        }
        case State::ReadBody:
        case State::ReadChunkData: {
            if (m_remaining > 0 && m_buffer.isEmpty() && !pull())
                return;
            const qint64 take = std::min<qint64>(m_remaining, m_buffer.size());
            if (take > 0) {
                const bool ok = consumeBody(m_buffer.left(take));
                m_buffer.remove(0, take);
                m_remaining -= take;
                if (!ok)
                    return;
            }
            if (m_remaining == 0) {
                if (m_state == State::ReadBody)
                    completeRequest();
                else
                    m_state = State::ReadChunkEnd;
            }
            continue;
        }
        case State::ReadChunkSize: {
            const std::optional<QByteArray> taken = takeLine();
            if (!taken)
                return;
            QByteArray line = *taken;
            const qsizetype semicolon = line.indexOf(';');
            if (semicolon >= 0)
                line.truncate(semicolon);
            line = line.trimmed();
            bool ok = false;
            const qint64 size = line.size() <= 15 ? line.toLongLong(&ok, 16) : -1;
            if (!ok || size < 0)
                return fail(400);
            if (size == 0) {
                m_state = State::ReadTrailers;
            } else {
                m_remaining = size;
                m_state = State::ReadChunkData;
            }
            continue;
        }
        case State::ReadChunkEnd:
            if (m_buffer.size() < 2) {
                if (!pull())
                    return;
                continue;
            }
            if (!m_buffer.startsWith("\r\n"))
                return fail(400);
            m_buffer.remove(0, 2);
            m_state = State::ReadChunkSize;
            continue;
        case State::ReadTrailers: {
            const std::optional<QByteArray> line = takeLine();
            if (!line)
                return;
            if (line->isEmpty())
                completeRequest();
            continue;
        }
        default:
            return;
        }
    }
}

bool HttpConnection::parseHead(const QByteArray &head)
{
    const QList<QByteArray> lines = head.split('\n');
    auto request = std::make_unique<HttpRequest>();
    const QList<QByteArray> first = lines.value(0).trimmed().split(' ');
    if (first.size() != 3 || !isToken(first[0]))
        return false;
    request->method = first[0];
    request->target = first[1];
    if (first[2] == "HTTP/1.1")
        request->http11 = true;
    else if (first[2] == "HTTP/1.0")
        request->http11 = false;
    else
        return false;
    QByteArray target = request->target;
    if (target.startsWith("http://") || target.startsWith("https://")) {
        const qsizetype slash = target.indexOf('/', target.indexOf("//") + 2);
        target = slash >= 0 ? target.mid(slash) : QByteArray("/");
    }
    if (!target.startsWith('/'))
        return false;
    const qsizetype question = target.indexOf('?');
    request->path = QUrl::fromPercentEncoding(question >= 0 ? target.left(question) : target);
    if (question >= 0)
        request->query.setQuery(QString::fromUtf8(target.mid(question + 1)));
    if (lines.size() - 1 > kMaxHeaderCount)
        return false;
    for (qsizetype i = 1; i < lines.size(); ++i) {
        QByteArray line = lines[i];
        if (line.endsWith('\r'))
            line.chop(1);
        if (line.isEmpty())
            continue;
        if (line.startsWith(' ') || line.startsWith('\t'))
            return false; // folded header lines are not accepted
        const qsizetype colon = line.indexOf(':');
        if (colon <= 0 || !isToken(line.left(colon)))
            return false;
        request->headers.append({line.left(colon).toLower(), line.mid(colon + 1).trimmed()});
    }
    const QByteArray connection = request->header("connection").toLower();
    m_keepAlive = request->http11 ? !connection.contains("close") : connection.contains("keep-alive");
    m_closeAfter = false;
    m_bodyDone = false;
    m_request = std::move(request);
    return true;
}

void HttpConnection::beginBody()
{
    HttpRequest &request = *m_request;
    m_chunked = request.header("transfer-encoding").toLower().contains("chunked");
    qint64 length = 0;
    if (!m_chunked) {
        const QByteArray value = request.header("content-length");
        if (!value.isEmpty()) {
            bool ok = false;
            length = value.toLongLong(&ok);
            if (!ok || length < 0)
                return fail(400);
        }
    }
    m_state = State::Processing;
    m_sink = m_handler->headersReceived(this, request);
    if (m_state != State::Processing)
        return; // answered or dropped already
    if (m_sink == HttpHandler::BodySink::Memory && length > kMaxMemoryBody)
        return fail(413);
    if (m_sink == HttpHandler::BodySink::File) {
        m_md5.reset();
        m_bodyOut.setFileName(request.bodyFile);
        if (request.bodyFile.isEmpty() || !m_bodyOut.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            FV_LOG(QStringLiteral("Cannot write request body to %1").arg(request.bodyFile));
            return fail(500);
        }
    }
    if (request.http11 && request.header("expect").toLower() == "100-continue")
        m_socket->write("HTTP/1.1 100 Continue\r\n\r\n");
    if (m_chunked) {
        m_state = State::ReadChunkSize;
    } else if (length > 0) {
        m_remaining = length;
        m_state = State::ReadBody;
    } else {
        completeRequest();
    }
}

bool HttpConnection::consumeBody(const QByteArray &data)
{
    m_request->bodySize += data.size();
    switch (m_sink) {
    case HttpHandler::BodySink::Memory:
        if (m_request->body.size() + data.size() > kMaxMemoryBody) {
            fail(413);
            return false;
        }
        m_request->body.append(data);
        break;
    case HttpHandler::BodySink::File:
        if (m_bodyOut.write(data) != data.size()) {
            FV_LOG(QStringLiteral("Writing request body failed: %1").arg(m_bodyOut.errorString()));
            fail(500);
            return false;
        }
        m_md5.addData(data);
        break;
    case HttpHandler::BodySink::Discard:
        break;
    }
    return true;
}

void HttpConnection::completeRequest()
{
    if (m_sink == HttpHandler::BodySink::File) {
        m_bodyOut.close();
        m_request->bodyMd5 = QString::fromLatin1(m_md5.result().toHex());
    }
    m_bodyDone = true;
    m_state = State::Processing;
    m_idle.stop();
    m_handler->requestReceived(this, *m_request);
}

void HttpConnection::fail(int status)
{
    const QByteArray text = reasonPhrase(status) + '\n';
    m_state = State::Processing;
    respond(status, {{"Content-Type", "text/plain"}}, text, true);
}

QByteArray HttpConnection::reasonPhrase(int status)
{
    switch (status) {
    case 100:
        return "Continue";
    case 200:
        return "OK";
    case 206:
        return "Partial Content";
    case 400:
        return "Bad Request";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 413:
        return "Payload Too Large";
    case 416:
        return "Range Not Satisfiable";
    case 431:
        return "Request Header Fields Too Large";
    case 500:
        return "Internal Server Error";
    case 502:
        return "Bad Gateway";
    case 503:
        return "Service Unavailable";
    default:
        return "Status";
    }
}

void HttpConnection::writeHead(int status, const Headers &headers, qint64 length, bool close)
{
    QByteArray head = "HTTP/1.1 " + QByteArray::number(status) + ' ' + reasonPhrase(status) + "\r\n";
    for (const auto &pair : headers)
        head += pair.first + ": " + pair.second + "\r\n";
    head += "Content-Length: " + QByteArray::number(length) + "\r\n";
    head += close ? "Connection: close\r\n\r\n" : "Connection: keep-alive\r\n\r\n";
    m_socket->write(head);
}

void HttpConnection::respond(int status, const Headers &headers, const QByteArray &body, bool close)
{
    if (m_state != State::Processing)
        return; // closed meanwhile, or answered already
    // Answering before the body was read ends the connection: the unread rest cannot be skipped.
    m_closeAfter = close || !m_keepAlive || !m_bodyDone;
    if (m_bodyOut.isOpen())
        m_bodyOut.close();
    writeHead(status, headers, body.size(), m_closeAfter);
    m_socket->write(body);
    finishResponse();
}

void HttpConnection::respondFile(int status, const Headers &headers, const QString &path, qint64 offset,
                                 qint64 length, qint64 cutAfter)
{
    if (m_state != State::Processing)
        return;
    m_fileOut.setFileName(path);
    if (!m_fileOut.open(QIODevice::ReadOnly) || !m_fileOut.seek(offset)) {
        FV_LOG(QStringLiteral("Cannot read %1: %2").arg(path, m_fileOut.errorString()));
        m_fileOut.close();
        respond(500, {{"Content-Type", "text/plain"}}, "Cannot read the file\n", true);
        return;
    }
    m_closeAfter = !m_keepAlive || !m_bodyDone || cutAfter >= 0;
    writeHead(status, headers, length, m_closeAfter);
    m_idle.start();
    m_fileRemaining = length;
    m_cutRemaining = cutAfter;
    m_state = State::Responding;
    pumpFile();
}

qint64 HttpConnection::pendingBytes() const
{
    return m_socket->bytesToWrite() + (m_ssl ? m_ssl->encryptedBytesToWrite() : 0);
}

void HttpConnection::onBytesWritten()
{
    if (m_state == State::Responding) {
        m_idle.start();
        pumpFile();
    }
}

void HttpConnection::pumpFile()
{
    while (m_state == State::Responding && m_fileRemaining > 0 && m_cutRemaining != 0 &&
           pendingBytes() < kHighWater) {
        qint64 chunk = std::min(kWriteChunk, m_fileRemaining);
        if (m_cutRemaining > 0)
            chunk = std::min(chunk, m_cutRemaining);
        const QByteArray data = m_fileOut.read(chunk);
        if (data.isEmpty()) {
            // The file shrank under us: the announced length cannot be kept.
            FV_LOG(QStringLiteral("File ended early: %1").arg(m_fileOut.fileName()));
            m_fileOut.close();
            drop();
            return;
        }
        m_socket->write(data);
        m_fileRemaining -= data.size();
        if (m_cutRemaining > 0)
            m_cutRemaining -= data.size();
    }
    if (m_state != State::Responding)
        return;
    if (m_cutRemaining == 0 || m_fileRemaining == 0) {
        m_fileOut.close();
        m_closeAfter = m_closeAfter || m_cutRemaining == 0;
        finishResponse();
    }
}

void HttpConnection::finishResponse()
{
    resetRequest();
    if (m_closeAfter) {
        m_state = State::Closing;
        m_idle.start();
        m_socket->disconnectFromHost(); // writes what is pending first
        return;
    }
    m_state = State::ReadHead;
    m_idle.start();
    // The next pipelined request may already be buffered; read it from the event loop, not from
    // inside the handler that answered.
    QTimer::singleShot(0, this, &HttpConnection::processInput);
}

void HttpConnection::resetRequest()
{
    if (m_bodyOut.isOpen())
        m_bodyOut.close();
    if (m_request && !m_request->bodyFile.isEmpty())
        QFile::remove(m_request->bodyFile);
    m_request.reset();
}

void HttpConnection::drop()
{
    if (m_state == State::Closed)
        return;
    m_state = State::Closed;
    m_idle.stop();
    m_fileOut.close();
    resetRequest();
    m_socket->abort();
    deleteLater();
}

void HttpConnection::breakOff()
{
    if (m_state != State::Processing)
        return;
    resetRequest();
    m_state = State::Closing;
    m_idle.start();
    // A complete head promising a body that never comes: clients take this as a broken answer and,
    // having received something, do not send the request again on their own.
    m_socket->write("HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 64\r\n"
                    "Connection: close\r\n\r\n");
    m_socket->disconnectFromHost();
}

void HttpConnection::onDisconnected()
{
    if (m_state == State::Closed)
        return;
    m_state = State::Closed;
    m_idle.stop();
    m_fileOut.close();
    resetRequest(); // a body cut off mid-way is thrown away
    deleteLater();
}
