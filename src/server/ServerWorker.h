#pragma once
// The server's request router on its worker thread: owns the HTTPS listener (commands, transfers,
// update check) and the plain-HTTP admin listener on loopback, classifies each request, applies
// injected faults, and answers from the backend. Created, used and destroyed on the worker thread.

#include "server/FaultPlan.h"
#include "server/HttpConnection.h"

#include <QHostAddress>
#include <QObject>
#include <QSslConfiguration>
#include <memory>

class AdminApi;
class HttpListener;
class ServerBackend;

class ServerWorker final : public QObject, public HttpHandler
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ServerWorker)

public:
    ServerWorker(ServerBackend &backend, QSslConfiguration tls);
    ~ServerWorker() override;

    bool listen(const QHostAddress &address, quint16 port, quint16 adminPort, QString *error);
    quint16 port() const;
    quint16 adminPort() const;

    BodySink headersReceived(HttpConnection *connection, HttpRequest &request) override;
    void requestReceived(HttpConnection *connection, HttpRequest &request) override;

private:
    struct Context;
    // How the answer of a request that is carried out is lost, if it is.
    enum class ReplyLoss {
        None,
        AfterHead, // the answer breaks off after its head: clients do not send the request again
        Silent,    // the connection closes before any byte: a client's network stack may re-send
    };
    void handle(HttpConnection *connection, HttpRequest &request, const Context &context, ReplyLoss loss);
    void handleUpload(HttpConnection *connection, HttpRequest &request, const Context &context,
                      ReplyLoss loss);
    static void loseReply(HttpConnection *connection, ReplyLoss loss);
    void handleDownload(HttpConnection *connection, HttpRequest &request, const Context &context,
                        qint64 cutAfter);
    bool applyFault(HttpConnection *connection, HttpRequest &request, const Context &context);

    ServerBackend &m_backend;
    QSslConfiguration m_tls;
    HttpListener *m_listener = nullptr;
    HttpListener *m_adminListener = nullptr;
    std::unique_ptr<AdminApi> m_admin;
};
