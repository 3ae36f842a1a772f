#pragma once
// A small HTTPS server for what the local server cannot do: present a certificate the client does
// not trust, answer with heads the local server never writes (a verdict under an error status, a
// head followed by a body that never comes or is cut), and record the requests' headers as sent.
// Runs on its own thread; answers each request through a handler; one request per connection
// unless the answer keeps it open.

#include "common/TestServer.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QString>
#include <functional>

class QThread;
class TestHttpsServerWorker;

struct TestRequest
{
    QByteArray method;
    QByteArray target;                    // path and query as sent
    QMap<QByteArray, QByteArray> headers; // names in lower case
    QByteArray body;
    int connection = 0;   // the connection it came on, counted from 1
    int onConnection = 0; // its place among that connection's requests, from 0
};

struct TestResponse
{
    enum Action {
        Reply,           // status, headers, whole body, close
        CutBody,         // announce body.size() + 1000 bytes, send body, close
        HeadersThenHang, // send head and body, announce 1000 more bytes, never close
        KeepOpen,        // status, headers, whole body, and wait for the next request
        CloseUnanswered, // close without a byte of answer
        Chunked,         // status, headers, the body in two chunks, and wait for the next request
    };
    Action action = Reply;
    int status = 200;
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;
};

class TestHttpsServer
{
public:
    using Handler = std::function<TestResponse(const TestRequest &)>;

    // `trusted` serves the certificate of TestServer (trusted by this process); false serves a
    // second self-signed certificate that the client does not trust.
    explicit TestHttpsServer(Handler handler, bool trusted = true);
    ~TestHttpsServer();
    TestHttpsServer(const TestHttpsServer &) = delete;
    TestHttpsServer &operator=(const TestHttpsServer &) = delete;

    quint16 port() const { return m_port; }
    QString domain() const; // "127.0.0.1:<port>"
    QList<TestRequest> requests() const;

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
