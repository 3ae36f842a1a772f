#include "ServerTestClient.h"
#include "common/TestUtil.h"
#include "server/HttpConnection.h"

#include <QDir>

namespace {
const QString kPc = QStringLiteral("pc-one");

QByteArray statusLine(const QByteArray &response)
{
    return response.left(response.indexOf("\r\n"));
}
} // namespace

TEST_F(ServerTest, BadRequestsGetErrorsAndNothingIsLost)
{
    const QString session = client->login(QStringLiteral("alice"), QStringLiteral("secret"), kPc);
    const QString key = storeFile(session, kPc, QStringLiteral("/safe.txt"), "safe");

    // Command documents that cannot be carried out.
    for (const char *body : {"<XML><LIST SESSION=\"", "not xml at all", "<OTHER><LIST/></OTHER>",
                             "<XML></XML>", "<XML><FROB SESSION=\"x\"/></XML>", ""}) {
        const HttpReply reply = client->command(QString::fromLatin1(body));
        EXPECT_EQ(reply.status, 400) << body;
    }
    EXPECT_EQ(client->send("GET", QStringLiteral("cgi-bin/cloudXml.cgi")).status, 405);
    EXPECT_EQ(client->send("GET", QStringLiteral("elsewhere")).status, 404);
    EXPECT_EQ(client->send("GET", QStringLiteral("?do=erase")).status, 400);

    // Malformed HTTP.
    EXPECT_EQ(statusLine(client->raw("BROKEN\r\n\r\n")), "HTTP/1.1 400 Bad Request");
    EXPECT_EQ(statusLine(client->raw("GET / HTTP/2.0\r\n\r\n")), "HTTP/1.1 400 Bad Request");
    EXPECT_EQ(statusLine(client->raw("POST / HTTP/1.1\r\nContent-Length: -4\r\n\r\n")),
              "HTTP/1.1 400 Bad Request");
    EXPECT_EQ(
        statusLine(client->raw("POST /?do=upload HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n")),
        "HTTP/1.1 400 Bad Request");
    const QByteArray huge =
        "GET / HTTP/1.1\r\nX-Big: " + QByteArray(HttpConnection::kMaxHeaderBytes + 10, 'a') + "\r\n\r\n";
    EXPECT_EQ(statusLine(client->raw(huge)), "HTTP/1.1 431 Request Header Fields Too Large");
    const QByteArray tooLong = "POST /cgi-bin/cloudXml.cgi HTTP/1.1\r\nContent-Length: " +
                               QByteArray::number(HttpConnection::kMaxMemoryBody + 1) + "\r\n\r\n";
    EXPECT_EQ(statusLine(client->raw(tooLong)), "HTTP/1.1 413 Payload Too Large");

    // An upload cut off before its announced length is thrown away.
    const QByteArray truncated = "POST /?do=upload&session=" + session.toLatin1() + "&key=" + key.toLatin1() +
                                 " HTTP/1.1\r\nContent-Length: 100000\r\n\r\npartial";
    EXPECT_TRUE(client->raw(truncated, 300).isEmpty());
    EXPECT_TRUE(TestUtil::waitFor(
        [&] { return QDir(dataDir() + QStringLiteral("/tmp")).entryList(QDir::Files).isEmpty(); }));

    EXPECT_EQ(server->fileContents(QStringLiteral("alice"), QStringLiteral("safe.txt")), "safe");
    EXPECT_EQ(client->login(QStringLiteral("alice"), QStringLiteral("secret"), kPc).size(), 32);
}

TEST_F(ServerTest, ChunkedBodiesKeepAliveAndPipelining)
{
    const QString session = client->login(QStringLiteral("alice"), QStringLiteral("secret"), kPc);
    const auto put =
        client->element(putFile(session, kPc, QStringLiteral("c.txt"), 11, QStringLiteral("/c.txt")));
    const QString key = put->children[0].attribute(QStringLiteral("KEY"));

    // A chunked upload (extensions and a trailer included) followed, on the same connection, by a
    // chunked command: both answered in order, then the connection closes as asked.
    const QByteArray login = "<XML><SERVERTIME SESSION =\"" + session.toLatin1() + "\"></SERVERTIME></XML>";
    const QByteArray requests =
        "POST /?do=upload&session=" + session.toLatin1() + "&key=" + key.toLatin1() +
        " HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\nvelmora_filetime: 20200101000000\r\n\r\n"
        "5;ext=1\r\nhello\r\n6\r\n world\r\n0\r\nX-Trailer: t\r\n\r\n"
        "POST /cgi-bin/cloudXml.cgi HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\nConnection: "
        "close\r\n\r\n" +
        QByteArray::number(login.size(), 16) + "\r\n" + login + "\r\n0\r\n\r\n";
    const QByteArray responses = client->raw(requests);
    const qsizetype first = responses.indexOf("HTTP/1.1 200 OK");
    const qsizetype second = responses.indexOf("HTTP/1.1 200 OK", first + 1);
    ASSERT_GE(first, 0);
    ASSERT_GT(second, first);
    EXPECT_TRUE(responses.mid(first, second - first).contains("Velmora-result: 0"));
    EXPECT_TRUE(responses.mid(second).contains("<SERVERTIME ID=\""));
    EXPECT_TRUE(responses.mid(second).contains("Connection: close"));

    const auto tree = server->tree(QStringLiteral("alice"));
    ASSERT_EQ(tree.size(), 1);
    EXPECT_EQ(server->fileContents(QStringLiteral("alice"), QStringLiteral("c.txt")), "hello world");
    EXPECT_EQ(tree[0].time, u"20200101000000");

    // "Expect: 100-continue" gets its interim answer before the body is sent.
    const QByteArray expect =
        "POST /cgi-bin/cloudXml.cgi HTTP/1.1\r\nContent-Length: " + QByteArray::number(login.size()) +
        "\r\nExpect: 100-continue\r\nConnection: close\r\n\r\n" + login;
    const QByteArray answer = client->raw(expect);
    EXPECT_TRUE(answer.startsWith("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK"))
        << answer.left(80).toStdString();
}
