#pragma once
// One HTTP/1.1 connection of the server (TLS or plain): parses requests (keep-alive, pipelining,
// Content-Length and chunked bodies, "Expect: 100-continue"), hands each to an HttpHandler and
// writes its answer. Request bodies go to memory, to a file (streamed, constant memory) or nowhere,
// as the handler chooses once the head has arrived. File answers are streamed in chunks paced by
// what the socket has written, so a download of any size holds only a few chunks in memory.
//
// Lives on the server's worker thread; owns its socket and deletes itself when the socket closes.

#include <QByteArray>
#include <QCryptographicHash>
#include <QFile>
#include <QList>
#include <QObject>
#include <QPair>
#include <QString>
#include <QTimer>
#include <QUrlQuery>
#include <any>
#include <memory>
#include <optional>

class QTcpSocket;
class QSslSocket;
class HttpConnection;

struct HttpRequest
{
    QByteArray method;
    QByteArray target; // as sent: path and query
    QString path;      // percent-decoded path before "?"
    QUrlQuery query;
    bool http11 = true;
    QList<QPair<QByteArray, QByteArray>> headers; // names in lower case
    QByteArray header(const QByteArray &lowerCaseName) const;

    QByteArray body;     // memory sink
    QString bodyFile;    // file sink: set by the handler; removed after the answer unless moved away
    qint64 bodySize = 0; // bytes received, whatever the sink
    QString bodyMd5;     // file sink: MD5 of the body as 32 lower-case hex digits
    std::any context;    // the handler's own data for this request
};

class HttpHandler
{
public:
    enum class BodySink { Memory, File, Discard };
    virtual ~HttpHandler() = default;
    // The head arrived. Answering or dropping here ends the connection after the answer.
    virtual BodySink headersReceived(HttpConnection *connection, HttpRequest &request) = 0;
    // The whole request arrived; the handler answers now or later (respond, respondFile, drop).
    virtual void requestReceived(HttpConnection *connection, HttpRequest &request) = 0;
};

class HttpConnection final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(HttpConnection)

public:
    using Headers = QList<QPair<QByteArray, QByteArray>>;
    static constexpr qsizetype kMaxHeaderBytes = 64 * 1024;
    static constexpr int kMaxHeaderCount = 200;
    static constexpr qint64 kMaxMemoryBody = 16 * 1024 * 1024;
    static constexpr int kIdleTimeoutMs = 120 * 1000;

    // Takes ownership of `socket` (already connected; a QSslSocket already told to encrypt).
    HttpConnection(QTcpSocket *socket, HttpHandler *handler, QObject *parent);
    ~HttpConnection() override;

    void respond(int status, const Headers &headers, const QByteArray &body, bool close = false);
    // Streams `length` bytes of the file from `offset`. With `cutAfter` >= 0 the connection is closed
    // after that many body bytes although the head announced `length`.
    void respondFile(int status, const Headers &headers, const QString &path, qint64 offset, qint64 length,
                     qint64 cutAfter = -1);
    // Closes at once without answering.
    void drop();
    // Writes the head of an answer whose body never comes, then closes: a reply broken on the way.
    void breakOff();
    bool isClosed() const { return m_state == State::Closed; }

    static QByteArray reasonPhrase(int status);

private:
    enum class State {
        ReadHead,
        ReadBody,
        ReadChunkSize,
        ReadChunkData,
        ReadChunkEnd,
        ReadTrailers,
        Processing,
        Responding,
        Closing,
        Closed
    };

    void onReadyRead();
    void onBytesWritten();
    void onDisconnected();
    void processInput();
    bool pull();
    // The next CRLF-ended line, taken off the buffer (reading more as needed). Nullopt when it has
    // not all come yet, or when it grew too long (the request has then failed).
    std::optional<QByteArray> takeLine();
    bool parseHead(const QByteArray &head);
    void beginBody();
    bool consumeBody(const QByteArray &data);
    void completeRequest();
    void fail(int status);
    void writeHead(int status, const Headers &headers, qint64 length, bool close);
    void pumpFile();
    void finishResponse();
    void resetRequest();
    qint64 pendingBytes() const;
    bool isReading() const;

    QTcpSocket *m_socket;
    QSslSocket *m_ssl;
    HttpHandler *m_handler;
    State m_state = State::ReadHead;
    QByteArray m_buffer;
    std::unique_ptr<HttpRequest> m_request;
    HttpHandler::BodySink m_sink = HttpHandler::BodySink::Discard;
    bool m_chunked = false;
    qint64 m_remaining = 0;
    bool m_keepAlive = true;
    bool m_closeAfter = false;
    bool m_bodyDone = false;
    QFile m_bodyOut;
    QCryptographicHash m_md5{QCryptographicHash::Md5};
    QFile m_fileOut;
    qint64 m_fileRemaining = 0;
    qint64 m_cutRemaining = -1;
    QTimer m_idle;
};
