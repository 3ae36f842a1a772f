#pragma once
// A small HTTPS server for transport tests: runs on its own thread, answers each request through a
// handler and can misbehave on purpose (drop, cut, hang). One request per connection.

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QString>
#include <functional>
#include <memory>

class QThread;
class TestHttpsServerWorker;

struct TestRequest
{
    QByteArray method;
    QByteArray target;                    // path and query as sent
    QMap<QByteArray, QByteArray> headers; // names in lower case
    QByteArray body;
    QList<QByteArray> headerOrder; // names as sent, in order
};

struct TestResponse
{
    enum Action {
        Reply,           // status, headers, whole body, close
        Drop,            // close without a byte
        CutBody,         // announce body.size() + 1000 bytes, send body, close
        HeadersThenHang, // send head and body, announce 1000 more bytes, never close
        Hang,            // never answer
    };
    Action action = Reply;
    int status = 200;
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;
    bool sendContentLength = true;
};

class TestHttpsServer
{
public:
    using Handler = std::function<TestResponse(const TestRequest &)>;

    // A certificate for 127.0.0.1 / localhost made once per process; also points FERROVANE_CA_FILE at
    // it (the client reads that once, so every test of a process shares it). Empty on failure.
    static QString certificatePath();
    static QString keyPath();

    // `trusted` false serves a second self-signed certificate that the client does not trust.
    explicit TestHttpsServer(Handler handler, bool trusted = true);
    ~TestHttpsServer();
    TestHttpsServer(const TestHttpsServer &) = delete;
    TestHttpsServer &operator=(const TestHttpsServer &) = delete;

    quint16 port() const { return m_port; }
    QString domain() const; // "127.0.0.1:<port>"
    QList<TestRequest> requests() const;
    void setHandler(Handler handler);

private:
    friend class TestHttpsServerWorker;
    void record(const TestRequest &request);
    TestResponse answer(const TestRequest &request);

    mutable QMutex m_mutex;
    Handler m_handler;
    QList<TestRequest> m_requests;
    QThread *m_thread = nullptr;
    TestHttpsServerWorker *m_worker = nullptr;
    quint16 m_port = 0;
    bool m_trusted = true;
};

// Runs `job` on a fresh thread while this (main) thread spins its event loop; false if it did not
// end within `timeoutMs` (the thread is then left to finish on its own).
bool runOffMainThread(const std::function<void()> &job, int timeoutMs = 30000);
