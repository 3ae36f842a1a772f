#pragma once
// Test side of the local server: an in-process server on ephemeral ports with a temporary data
// folder, and a small HTTPS client that trusts its certificate and waits (bounded) for answers.

#include "server/FerrovaneServer.h"
#include "server/XmlMessage.h"

#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSslConfiguration>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <memory>
#include <optional>

struct HttpReply
{
    bool finished = false;
    int status = 0;
    QNetworkReply::NetworkError error = QNetworkReply::NoError;
    QByteArray body;
    QList<QNetworkReply::RawHeaderPair> headers;
    QByteArray header(const QByteArray &name) const;
};

class TestClient
{
public:
    explicit TestClient(const FerrovaneServer &server);

    // `relative` is appended to "https://127.0.0.1:<port>/".
    HttpReply send(const QByteArray &method, const QString &relative, const QByteArray &body = {},
                   const QList<QPair<QByteArray, QByteArray>> &headers = {});
    HttpReply command(const QString &xml);
    // The element inside the reply's root; nothing when the reply is not a command document.
    std::optional<XmlElement> element(const QString &xml);
    QString login(const QString &user, const QString &password, const QString &pcName);
    HttpReply admin(const QByteArray &method, const QString &path, const QJsonObject &body = {});

    // Raw TLS exchange: writes `bytes`, reads until the server closes or `timeoutMs` passes.
    QByteArray raw(const QByteArray &bytes, int timeoutMs = 10000);

private:
    HttpReply wait(QNetworkReply *reply);

    QNetworkAccessManager m_network;
    QSslConfiguration m_tls;
    QString m_base;
    QString m_adminBase;
    quint16 m_port;
};

class ServerTest : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;
    void startServer();
    void restartServer();
    QString dataDir() const { return m_dir.path() + QStringLiteral("/data"); }

    // Command bodies in the client's own templates.
    static QString putFolder(const QString &session, const QString &pc, const QString &name,
                             const QString &path);
    static QString putFile(const QString &session, const QString &pc, const QString &name, qint64 size,
                           const QString &path);
    static QString workList(const QString &session, const QString &id, const QString &pc);
    // PUT the file, upload `contents`, expect success; returns the key.
    QString storeFile(const QString &session, const QString &pc, const QString &path,
                      const QByteArray &contents, const QString &time = QStringLiteral("20240102030405"));

    QTemporaryDir m_dir;
    std::unique_ptr<FerrovaneServer> server;
    std::unique_ptr<TestClient> client;
};
