#include "server/HttpListener.h"

#include "server/HttpConnection.h"
#include "util/Log.h"

#include <QSslSocket>

HttpListener::HttpListener(HttpHandler *handler, std::optional<QSslConfiguration> tls, QObject *parent)
    : QTcpServer(parent), m_handler(handler), m_tls(std::move(tls))
{}

void HttpListener::incomingConnection(qintptr descriptor)
{
    QTcpSocket *socket = nullptr;
    if (m_tls) {
        auto *ssl = new QSslSocket;
        ssl->setSslConfiguration(*m_tls);
        socket = ssl;
    } else {
        socket = new QTcpSocket;
    }
    if (!socket->setSocketDescriptor(descriptor)) {
        FV_LOG(QStringLiteral("Cannot take the connection: %1").arg(socket->errorString()));
        delete socket;
        return;
    }
    new HttpConnection(socket, m_handler, this);
    if (auto *ssl = qobject_cast<QSslSocket *>(socket))
        ssl->startServerEncryption();
}
