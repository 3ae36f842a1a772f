#include "ServerTestClient.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QJsonDocument>
#include <QNetworkRequest>
#include <QSslSocket>
#include <QTimer>

QByteArray HttpReply::header(const QByteArray &name) const
{
    for (const auto &pair : headers) {
        if (pair.first.compare(name, Qt::CaseInsensitive) == 0)
            return pair.second;
    }
    return {};
}

TestClient::TestClient(const FerrovaneServer &server)
    : m_base(server.url()), m_adminBase(server.adminUrl()), m_port(server.port())
{
    m_tls = QSslConfiguration::defaultConfiguration();
    m_tls.addCaCertificates(server.certificatePath());
}

HttpReply TestClient::wait(QNetworkReply *reply)
{
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(30000, &loop, &QEventLoop::quit);
    if (!reply->isFinished())
        loop.exec();
    HttpReply result;
    result.finished = reply->isFinished();
    if (!result.finished)
        reply->abort();
    result.error = reply->error();
    result.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    result.body = reply->readAll();
    result.headers = reply->rawHeaderPairs();
    reply->deleteLater();
    return result;
}

HttpReply TestClient::send(const QByteArray &method, const QString &relative, const QByteArray &body,
                           const QList<QPair<QByteArray, QByteArray>> &headers)
{
    QNetworkRequest request(QUrl(m_base + relative));
    request.setSslConfiguration(m_tls);
    for (const auto &pair : headers)
        request.setRawHeader(pair.first, pair.second);
    return wait(m_network.sendCustomRequest(request, method, body));
}

HttpReply TestClient::command(const QString &xml)
{
    return send("POST", QStringLiteral("cgi-bin/cloudXml.cgi"), xml.toUtf8());
}

std::optional<XmlElement> TestClient::element(const QString &xml)
{
    return XmlMessage::parseCommand(command(xml).body, nullptr);
}

QString TestClient::login(const QString &user, const QString &password, const QString &pcName)
{
    const auto reply =
        element(QStringLiteral("<XML><LOGIN ID=\"%1\" PASSWORD=\"%2\" ENCODE=\"raw\" PCNAME = \"%3\" "
                               "MAC=\"00:11:22:33:44:55\" VER=\"20130128\"></LOGIN></XML>")
                    .arg(user, password, pcName));
    return reply ? reply->attribute(QStringLiteral("RESULT")) : QString();
}

HttpReply TestClient::admin(const QByteArray &method, const QString &path, const QJsonObject &body)
{
    QNetworkRequest request(QUrl(m_adminBase + path));
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    const QByteArray bytes = method == "GET" ? QByteArray() : QJsonDocument(body).toJson();
    return wait(m_network.sendCustomRequest(request, method, bytes));
}

QByteArray TestClient::raw(const QByteArray &bytes, int timeoutMs)
{
    QSslSocket socket;
    socket.setSslConfiguration(m_tls);
    socket.connectToHostEncrypted(QStringLiteral("127.0.0.1"), m_port);
    if (!socket.waitForEncrypted(timeoutMs))
        return QByteArrayLiteral("<no TLS connection: ") + socket.errorString().toUtf8() + '>';
    socket.write(bytes);
    QByteArray received;
    QElapsedTimer timer;
    timer.start();
    while (socket.state() == QAbstractSocket::ConnectedState && timer.elapsed() < timeoutMs) {
        socket.waitForReadyRead(100);
        received += socket.readAll();
    }
    received += socket.readAll();
    return received;
}

void ServerTest::SetUp()
{
    ASSERT_TRUE(m_dir.isValid());
    startServer();
    ASSERT_TRUE(server->addUser(QStringLiteral("alice"), QStringLiteral("secret"),
                                QStringLiteral("alice@example.com")));
}

void ServerTest::TearDown()
{
    client.reset();
    server.reset();
}

void ServerTest::startServer()
{
    ServerConfig config;
    config.dataDir = dataDir();
    server = std::make_unique<FerrovaneServer>(config);
    QString error;
    ASSERT_TRUE(server->start(&error)) << error.toStdString();
    client = std::make_unique<TestClient>(*server);
}

void ServerTest::restartServer()
{
    client.reset();
    server->stop();
    server.reset();
    startServer();
}

QString ServerTest::putFolder(const QString &session, const QString &pc, const QString &name,
                              const QString &path)
{
    return QStringLiteral(
               "<XML><PUT SESSION =\"%1\"  PCNAME=\"%2\" ><DIR NAME=\"%3\" TIME=\"20240101000000\" "
               "KIND=\"SYNC\">%4</DIR></PUT></XML>")
        .arg(session, pc, name, path);
}

QString ServerTest::putFile(const QString &session, const QString &pc, const QString &name, qint64 size,
                            const QString &path)
{
    return QStringLiteral("<XML><PUT SESSION =\"%1\"  PCNAME=\"%2\" ><FILE NAME=\"%3\" SIZE=\"%4\" MD5=\"\" "
                          "TIME=\"20240101000000\" KIND=\"SYNC\">%5</FILE></PUT></XML>")
        .arg(session, pc, name)
        .arg(size)
        .arg(path);
}

QString ServerTest::workList(const QString &session, const QString &id, const QString &pc)
{
    return QStringLiteral("<XML><WORKLIST SESSION =\"%1\" ID=\"%2\" PCNAME = \"%3\"></WORKLIST></XML>")
        .arg(session, id, pc);
}

QString ServerTest::storeFile(const QString &session, const QString &pc, const QString &path,
                              const QByteArray &contents, const QString &time)
{
    const QString name = path.section(u'/', -1);
    const auto put = client->element(putFile(session, pc, name, contents.size(), path));
    if (!put || put->children.size() != 1 || put->children[0].text != u"1") {
        ADD_FAILURE() << "PUT refused for " << path.toStdString();
        return {};
    }
    const QString key = put->children[0].attribute(QStringLiteral("KEY"));
    const HttpReply upload =
        client->send("POST", QStringLiteral("?do=upload&session=%1&key=%2").arg(session, key), contents,
                     {{"Content-Type", "application/stream"}, {"velmora_filetime", time.toLatin1()}});
    EXPECT_EQ(upload.header("Velmora-result"), "0") << path.toStdString();
    return key;
}
