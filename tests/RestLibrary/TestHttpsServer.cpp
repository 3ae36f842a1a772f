#include "TestHttpsServer.h"

#include "server/SelfSignedCertificate.h"

#include <QFile>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslServer>
#include <QSslSocket>
#include <QTemporaryDir>
#include <QThread>
#include <memory>

namespace {
struct CertFiles
{
    QString cert;
    QString key;
};

CertFiles untrustedCertFiles()
{
    static QTemporaryDir dir;
    static const CertFiles files = [] {
        const QString cert = dir.filePath(QStringLiteral("untrusted-cert.pem"));
        const QString key = dir.filePath(QStringLiteral("untrusted-key.pem"));
        QString error;
        if (!SelfSignedCertificate::generate(cert, key, &error))
            return CertFiles{};
        return CertFiles{cert, key};
    }();
    return files;
}

QByteArray reasonFor(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 404:
        return "Not Found";
    case 500:
        return "Internal Server Error";
    default:
        return "Status";
    }
}
} // namespace

// Lives on the server thread; one connection at a time is enough for these tests but several work.
class TestHttpsServerWorker final : public QObject
{
public:
    explicit TestHttpsServerWorker(TestHttpsServer *owner) : m_owner(owner) {}

    quint16 listen(bool trusted)
    {
        const CertFiles files =
            trusted ? CertFiles{TestServer::certificatePath(), TestServer::keyPath()} : untrustedCertFiles();
        QSslConfiguration config = QSslConfiguration::defaultConfiguration();
        QFile certFile(files.cert), keyFile(files.key);
        if (!certFile.open(QIODevice::ReadOnly) || !keyFile.open(QIODevice::ReadOnly))
            return 0;
        config.setLocalCertificate(QSslCertificate(&certFile, QSsl::Pem));
        config.setPrivateKey(QSslKey(&keyFile, QSsl::Ec, QSsl::Pem));
        config.setPeerVerifyMode(QSslSocket::VerifyNone);
        m_server = new QSslServer(this);
        m_server->setSslConfiguration(config);
        connect(m_server, &QSslServer::pendingConnectionAvailable, this, &TestHttpsServerWorker::accept);
        if (!m_server->listen(QHostAddress::LocalHost, 0))
            return 0;
        return m_server->serverPort();
    }

private:
    struct Connection
    {
        QByteArray buffer;
        TestRequest request;
        qint64 expected = -1; // body bytes still to come; -1 while reading the head
        bool answered = false;
        int id = 0;
        int served = 0;
    };

    void accept()
    {
        while (QTcpSocket *socket = m_server->nextPendingConnection()) {
            auto state = std::make_shared<Connection>();
            state->id = ++m_connections;
            connect(socket, &QTcpSocket::readyRead, this, [this, socket, state] { read(socket, *state); });
            connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            read(socket, *state);
        }
    }

    void read(QTcpSocket *socket, Connection &c)
    {
        if (c.answered) {
            socket->readAll();
            return;
        }
        c.buffer += socket->readAll();
        if (c.expected < 0) {
            const qsizetype end = c.buffer.indexOf("\r\n\r\n");
            if (end < 0)
                return;
            const QList<QByteArray> lines = c.buffer.left(end).split('\n');
            const QList<QByteArray> first = lines.value(0).trimmed().split(' ');
            c.request.method = first.value(0);
            c.request.target = first.value(1);
            for (qsizetype i = 1; i < lines.size(); ++i) {
                const QByteArray line = lines.at(i).trimmed();
                const qsizetype colon = line.indexOf(':');
                if (colon <= 0)
                    continue;
                const QByteArray name = line.left(colon).trimmed();
                c.request.headers.insert(name.toLower(), line.mid(colon + 1).trimmed());
            }
            c.expected = c.request.headers.value("content-length", "0").toLongLong();
            c.buffer.remove(0, end + 4);
        }
        if (c.buffer.size() < c.expected)
            return;
        c.request.body = c.buffer.left(c.expected);
        c.request.connection = c.id;
        c.request.onConnection = c.served++;
        c.answered = true;
        m_owner->record(c.request);
        const TestResponse response = m_owner->answer(c.request);
        respond(socket, response);
        if (response.action == TestResponse::KeepOpen || response.action == TestResponse::Chunked) {
            c.buffer.remove(0, c.expected);
            c.request = {};
            c.expected = -1;
            c.answered = false;
            if (!c.buffer.isEmpty())
                read(socket, c);
        }
    }

    void respond(QTcpSocket *socket, const TestResponse &r)
    {
        if (r.action == TestResponse::CloseUnanswered) {
            socket->abort();
            return;
        }
        QByteArray head = "HTTP/1.1 " + QByteArray::number(r.status) + ' ' + reasonFor(r.status) + "\r\n";
        for (const auto &[name, value] : r.headers)
            head += name + ": " + value + "\r\n";
        if (r.action == TestResponse::Chunked) {
            const qsizetype half = r.body.size() / 2;
            head += "Transfer-Encoding: chunked\r\n\r\n";
            for (const QByteArray &piece : {r.body.left(half), r.body.mid(half)})
                head += QByteArray::number(piece.size(), 16) + ";ext=1\r\n" + piece + "\r\n";
            socket->write(head + "0\r\nTrailer: x\r\n\r\n");
            return;
        }
        qint64 announced = r.body.size();
        if (r.action == TestResponse::CutBody || r.action == TestResponse::HeadersThenHang)
            announced += 1000;
        head += "Content-Length: " + QByteArray::number(announced) + "\r\n";
        if (r.action != TestResponse::KeepOpen)
            head += "Connection: close\r\n";
        head += "\r\n";
        socket->write(head);
        socket->write(r.body);
        if (r.action == TestResponse::KeepOpen)
            return;
        if (r.action == TestResponse::HeadersThenHang)
            return;
        if (r.action == TestResponse::CutBody) {
            socket->flush();
            socket->waitForBytesWritten(2000);
            socket->abort();
            return;
        }
        socket->disconnectFromHost();
    }

    TestHttpsServer *m_owner;
    QSslServer *m_server = nullptr;
    int m_connections = 0;
};

TestHttpsServer::TestHttpsServer(Handler handler, bool trusted)
    : m_handler(std::move(handler)), m_trusted(trusted)
{
    m_thread = new QThread;
    m_thread->setObjectName(QStringLiteral("test https server"));
    m_worker = new TestHttpsServerWorker(this);
    m_worker->moveToThread(m_thread);
    m_thread->start();
    QMetaObject::invokeMethod(
        m_worker, [this] { m_port = m_worker->listen(m_trusted); }, Qt::BlockingQueuedConnection);
}

TestHttpsServer::~TestHttpsServer()
{
    QMetaObject::invokeMethod(
        m_worker, [this] { delete m_worker; }, Qt::BlockingQueuedConnection);
    m_thread->quit();
    m_thread->wait();
    delete m_thread;
}

QString TestHttpsServer::domain() const
{
    return QStringLiteral("127.0.0.1:%1").arg(m_port);
}

QList<TestRequest> TestHttpsServer::requests() const
{
    QMutexLocker lock(&m_mutex);
    return m_requests;
}

void TestHttpsServer::record(const TestRequest &request)
{
    QMutexLocker lock(&m_mutex);
    m_requests.append(request);
}

TestResponse TestHttpsServer::answer(const TestRequest &request)
{
    Handler handler;
    {
        QMutexLocker lock(&m_mutex);
        handler = m_handler;
    }
    return handler ? handler(request) : TestResponse{};
}
