#include "ServerTestClient.h"

#include <QElapsedTimer>

namespace {
const QString kPc = QStringLiteral("pc-one");
const QString kQuota = QStringLiteral("<XML><QUOTA SESSION=\"%1\" ></QUOTA></XML>");
// The network access manager sends a request again, up to three times, when the connection closes
// before any byte of the answer: one failed call takes four dropped replies.
constexpr int kDropsPerFailedCall = 4;
} // namespace

TEST_F(ServerTest, CommandFaultsHitOnlyTheirCommandAndCount)
{
    const QString session = client->login(QStringLiteral("alice"), QStringLiteral("secret"), kPc);
    const QString quota = kQuota.arg(session);
    const QString serverTime =
        QStringLiteral("<XML><SERVERTIME SESSION =\"%1\"></SERVERTIME></XML>").arg(session);

    server->cutReplies(QStringLiteral("QUOTA"), 2);
    EXPECT_TRUE(client->element(serverTime)); // another command is not hit
    for (int i = 0; i < 2; ++i) {
        const HttpReply cut = client->command(quota);
        EXPECT_TRUE(cut.finished);
        EXPECT_NE(cut.error, QNetworkReply::NoError);
        EXPECT_TRUE(cut.body.isEmpty());
    }
    EXPECT_TRUE(client->element(quota)); // the count is used up
    EXPECT_EQ(server->pendingFaults(), 0);

    server->failWithStatus(QStringLiteral("QUOTA"), 500);
    EXPECT_EQ(client->command(quota).status, 500);
    server->failWithStatus(QStringLiteral("*"), 503);
    EXPECT_EQ(client->command(serverTime).status, 503);

    server->replyWithBody(QStringLiteral("WORKLIST"), "-2");
    const HttpReply minusTwo = client->command(workList(session, QStringLiteral("20240101000000"), kPc));
    EXPECT_EQ(minusTwo.status, 200);
    EXPECT_EQ(minusTwo.body, "-2");

    server->delayReplies(QStringLiteral("QUOTA"), 300);
    QElapsedTimer timer;
    timer.start();
    EXPECT_TRUE(client->element(quota));
    EXPECT_GE(timer.elapsed(), 300);

    server->failWithStatus(QStringLiteral("QUOTA"), 500, 5);
    server->clearFaults();
    EXPECT_TRUE(client->element(quota));
}

TEST_F(ServerTest, DroppedRequestIsNotCarriedOutButLostReplyIs)
{
    const QString session = client->login(QStringLiteral("alice"), QStringLiteral("secret"), kPc);
    server->clearRequestLog();
    server->dropReplies(QStringLiteral("PUT"), kDropsPerFailedCall);
    EXPECT_NE(client->command(putFolder(session, kPc, QStringLiteral("a"), QStringLiteral("/a"))).error,
              QNetworkReply::NoError);
    EXPECT_TRUE(server->tree(QStringLiteral("alice")).isEmpty());
    EXPECT_EQ(server->requestedCommands().count(QStringLiteral("PUT")), kDropsPerFailedCall);

    server->clearRequestLog();
    server->dropRepliesAfterProcessing(QStringLiteral("PUT"));
    EXPECT_NE(client->command(putFolder(session, kPc, QStringLiteral("b"), QStringLiteral("/b"))).error,
              QNetworkReply::NoError);
    ASSERT_EQ(server->tree(QStringLiteral("alice")).size(), 1);
    EXPECT_EQ(server->tree(QStringLiteral("alice"))[0].path, u"b");
    EXPECT_EQ(server->requestedCommands(), QStringList{QStringLiteral("PUT")}); // not re-sent

    // The raw view of a dropped request: the connection closes with nothing written.
    server->dropReplies(QStringLiteral("SERVERTIME"));
    EXPECT_TRUE(client
                    ->raw("POST /cgi-bin/cloudXml.cgi HTTP/1.1\r\nContent-Length: 49\r\n\r\n"
                          "<XML><SERVERTIME SESSION =\"x\"></SERVERTIME></XML>")
                    .isEmpty());
}

TEST_F(ServerTest, TransferFaults)
{
    const QString session = client->login(QStringLiteral("alice"), QStringLiteral("secret"), kPc);
    const QByteArray original(200000, 'o');
    const QString key = storeFile(session, kPc, QStringLiteral("/f.bin"), original);
    const QString uploadUrl = QStringLiteral("?do=upload&session=%1&key=%2").arg(session, key);
    const QString downloadUrl = QStringLiteral("?do=download&session=%1&key=%2").arg(session, key);

    // A refused upload leaves the stored contents as they were.
    server->refuseUploads(1, QStringLiteral("7"));
    HttpReply upload = client->send("POST", uploadUrl, QByteArray(1000, 'n'));
    EXPECT_EQ(upload.status, 200);
    EXPECT_EQ(upload.header("Velmora-result"), "7");
    EXPECT_EQ(server->fileContents(QStringLiteral("alice"), QStringLiteral("f.bin")), original);

    server->dropReplies(QStringLiteral("UPLOAD"), kDropsPerFailedCall);
    upload = client->send("POST", uploadUrl, QByteArray(1000, 'n'));
    EXPECT_NE(upload.error, QNetworkReply::NoError);
    EXPECT_EQ(server->fileContents(QStringLiteral("alice"), QStringLiteral("f.bin")), original);

    server->failWithStatus(QStringLiteral("UPLOAD"), 500);
    upload = client->send("POST", uploadUrl, QByteArray(1000, 'n'));
    EXPECT_EQ(upload.status, 500);
    EXPECT_TRUE(upload.header("Velmora-result").isEmpty());

    // A cut download announces the whole length and ends early.
    server->cutDownloads(5000);
    const HttpReply cut = client->send("GET", downloadUrl);
    EXPECT_NE(cut.error, QNetworkReply::NoError);
    EXPECT_LT(cut.body.size(), original.size());
    EXPECT_TRUE(original.startsWith(cut.body));
    server->cutDownloads(5000);
    const QByteArray rawCut2 = client->raw("GET /" + downloadUrl.toUtf8() + " HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_TRUE(rawCut2.contains("Content-Length: 200000"));
    EXPECT_EQ(rawCut2.size() - rawCut2.indexOf("\r\n\r\n") - 4, 5000);

    server->replyWithBody(QStringLiteral("DOWNLOAD"), "-3");
    EXPECT_EQ(client->send("GET", downloadUrl).body, "-3");
    server->dropRepliesAfterProcessing(QStringLiteral("UPLOAD"));
    EXPECT_NE(client->send("POST", uploadUrl, "landed").error, QNetworkReply::NoError);
    EXPECT_EQ(server->fileContents(QStringLiteral("alice"), QStringLiteral("f.bin")), "landed");
    EXPECT_EQ(client->send("GET", downloadUrl).body, "landed");
}

TEST_F(ServerTest, RequestLogKeepsCommandsAndBodies)
{
    server->clearRequestLog();
    const QString session = client->login(QStringLiteral("alice"), QStringLiteral("secret"), kPc);
    client->command(kQuota.arg(session));
    client->command(QStringLiteral("<XML><NOPE/></XML>"));
    client->send("GET", QStringLiteral("?do=download&session=%1&key=1").arg(session));
    EXPECT_EQ(server->requestedCommands(), (QStringList{QStringLiteral("LOGIN"), QStringLiteral("QUOTA"),
                                                        QStringLiteral("NOPE"), QStringLiteral("DOWNLOAD")}));
    const auto log = server->requestLog();
    EXPECT_TRUE(log[1].body.contains(session.toUtf8()));
    EXPECT_EQ(log[1].method, u"POST");
    EXPECT_TRUE(log[3].target.startsWith(u"/?do=download"));
    EXPECT_LT(log[0].sequence, log[3].sequence);
}
