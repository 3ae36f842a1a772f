#pragma once
// Accepts connections for one port of the server and gives each to an HttpConnection; with a TLS
// configuration the connection is encrypted first. Lives on the server's worker thread.

#include <QSslConfiguration>
#include <QTcpServer>
#include <optional>

class HttpHandler;

class HttpListener final : public QTcpServer
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(HttpListener)

public:
    HttpListener(HttpHandler *handler, std::optional<QSslConfiguration> tls, QObject *parent = nullptr);

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    HttpHandler *m_handler;
    std::optional<QSslConfiguration> m_tls;
};
