// Answers the local server never writes: the verdict header alone decides, and it is taken as soon
// as the head arrives, whatever the status or the rest of the answer. Also the request's headers
// as sent, and a server whose certificate is not trusted.
#include "TestHttpsServer.h"
#include "common/TestUtil.h"
#include "protocol/UploadFile.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>

TEST(UploadVerdict, TheHeaderDecidesAsSoonAsTheHeadArrives)
{
    // The case is chosen by the request's path.
    TestHttpsServer server([](const TestRequest &request) {
        TestResponse r;
        r.headers = {{"Velmora-result", "0"}};
        r.body = "answer";
        if (request.target.startsWith("/error"))
            r.status = 500;
        else if (request.target.startsWith("/hang"))
            r.action = TestResponse::HeadersThenHang; // the rest of the body never comes
        else if (request.target.startsWith("/cut"))
            r.action = TestResponse::CutBody; // the connection breaks after a good verdict
        return r;
    });
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("a.txt"));
    ASSERT_TRUE(TestUtil::writeFile(path, "hello"));
    for (const char *kind : {"error", "hang", "cut"}) {
        const QString url =
            QStringLiteral("https://%1/%2?do=upload").arg(server.domain(), QLatin1String(kind));
        QString result;
        ASSERT_TRUE(runOffMainThread([&] {
            result = UploadFile::uploadFileWithKey({}, path, url, 0, QStringLiteral("20240131235959"));
        }));
        EXPECT_EQ(result, QStringLiteral("done")) << kind;
    }

    const TestRequest sent = server.requests().value(0);
    EXPECT_EQ(sent.headers.value("content-type"), QByteArray("application/stream"));
    EXPECT_EQ(sent.headers.value("velmora_filetime"), QByteArray("20240131235959"));

    TestHttpsServer untrusted([](const TestRequest &) { return TestResponse{}; }, false);
    QString result;
    ASSERT_TRUE(runOffMainThread([&] {
        result = UploadFile::uploadFileWithKey(
            {}, path, QStringLiteral("https://%1/?do=upload").arg(untrusted.domain()), 0, {});
    }));
    EXPECT_EQ(result, QStringLiteral("fail"));
    EXPECT_TRUE(untrusted.requests().isEmpty());
}

TEST(UploadVerdict, AnsweredConnectionsCarryTheNextUploadAndOneClosedUnansweredIsSentAgainOnce)
{
    TestHttpsServer server([](const TestRequest &request) {
        TestResponse r;
        r.headers = {{"Velmora-result", "0"}};
        r.action = TestResponse::KeepOpen;
        if (request.target.startsWith("/closing") && request.onConnection > 0)
            r.action = TestResponse::CloseUnanswered; // the server closed the kept connection
        else if (request.target.startsWith("/never"))
            r.action = TestResponse::CloseUnanswered;
        else if (request.target.startsWith("/last"))
            r.action = TestResponse::Reply; // says "Connection: close"
        return r;
    });
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("a.txt"));
    ASSERT_TRUE(TestUtil::writeFile(path, "hello"));
    // One worker sends them all, as the engine's does: its connection carries them.
    QStringList results;
    ASSERT_TRUE(runOffMainThread([&] {
        for (const char *target : {"a", "b", "c", "closing", "last", "after", "never"})
            results << UploadFile::uploadFileWithKey(
                {}, path, QStringLiteral("https://%1/%2?do=upload").arg(server.domain(), QLatin1String(target)),
                0, QStringLiteral("20240131235959"));
    }));
    EXPECT_EQ(results.join(u','), QStringLiteral("done,done,done,done,done,done,fail"));
    // The first connection's answers were whole, so it carried three uploads, then was found closed.
    const QList<TestRequest> sent = server.requests();
    ASSERT_EQ(sent.size(), 9);
    QList<std::pair<int, int>> places;
    for (const TestRequest &request : sent.mid(0, 7))
        places.append({request.connection, request.onConnection});
    const QList<std::pair<int, int>> expected = {{1, 0}, {1, 1}, {1, 2}, {1, 3}, {2, 0}, {2, 1}, {3, 0}};
    EXPECT_EQ(places, expected);
    EXPECT_EQ(sent[4].target, QByteArray("/closing?do=upload"));
    EXPECT_EQ(sent[4].body, QByteArray("hello")); // the file again from its start

    // Sent again once only: a new connection closed unanswered is a failure.
    EXPECT_EQ(sent[7].connection, 3);
    EXPECT_EQ(sent[8].connection, 4);
}
