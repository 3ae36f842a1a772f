// Exchanges a worker makes on its own thread: one kept connection reused, a kept connection the
// server dropped replaced without losing the request, and every way an answer can end.
#include "RestLibrary/DirectHttp.h"

#include "RestLibrary/NetworkAccess.h"
#include "TestHttpsServer.h"
#include "common/TestServer.h"

#include <QNetworkReply>
#include <gtest/gtest.h>

namespace {

RestRequest post(const TestHttpsServer &server, const QByteArray &body)
{
    return {NetworkAccess::request(QUrl(QStringLiteral("https://%1/cmd").arg(server.domain()))), "POST",
            body};
}

} // namespace

TEST(DirectHttp, OneConnectionCarriesTheRequestsAndADroppedOneIsReplacedOnce)
{
    // 1 (with a long header line) and 2 keep the connection (2 chunked); 3 finds it closed under it,
    // unanswered, and goes again on a new one; 4 is refused with 404; 5 gets a body cut short.
    TestHttpsServer server([](const TestRequest &request) {
        TestResponse r;
        r.body = "answer to " + request.body;
        if (request.body == "one") {
            r.action = TestResponse::KeepOpen;
            r.headers.append({"X-Long", QByteArray(3000, 'x') + "end"}); // read in several pieces
        } else if (request.body == "two")
            r.action = TestResponse::Chunked;
        else if (request.body == "three" && request.connection == 1)
            r.action = TestResponse::CloseUnanswered;
        else if (request.body == "four")
            r.status = 404;
        else if (request.body == "five")
            r.action = TestResponse::CutBody;
        else
            r.action = TestResponse::KeepOpen;
        return r;
    });
    QList<DirectHttp::Answer> answers;
    QList<QByteArray> bodies;
    ASSERT_TRUE(runOffMainThread([&] {
        for (const char *body : {"one", "two", "three", "four", "five"}) {
            DirectHttp::BodyReceiver receiver;
            answers.append(DirectHttp::exchange(post(server, body), receiver));
            bodies.append(receiver.body);
        }
    }));
    ASSERT_EQ(answers.size(), 5);
    EXPECT_EQ(bodies.mid(0, 3), (QList<QByteArray>{"answer to one", "answer to two", "answer to three"}));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(answers[i].status, 200) << i;
        EXPECT_TRUE(answers[i].error.isNull()) << i << qPrintable(answers[i].error.toString());
    }
    EXPECT_EQ(DirectHttp::headerValue(answers[0].headers, "x-long"), QByteArray(3000, 'x') + "end");
    // An HTTP error is an answer: its body is there, its error says which.
    EXPECT_FALSE(answers[3].transportFailure);
    EXPECT_EQ(answers[3].error.code, int(QNetworkReply::ContentNotFoundError));
    EXPECT_EQ(bodies[3], QByteArray("answer to four"));
    // A cut body is no answer, and is not sent again: the server may have acted on it.
    EXPECT_TRUE(answers[4].transportFailure);
    EXPECT_EQ(answers[4].status, 0);

    const QList<TestRequest> requests = server.requests();
    QList<QPair<QByteArray, int>> seen;
    for (const TestRequest &r : requests)
        seen.append({r.body, r.connection});
    EXPECT_EQ(seen, (QList<QPair<QByteArray, int>>{
                        {"one", 1}, {"two", 1}, {"three", 1}, {"three", 2}, {"four", 2}, {"five", 3}}));
    EXPECT_EQ(requests.value(0).headers.value("content-length"), QByteArray("3"));
}

TEST(DirectHttp, UntrustedServerAndAStreamedBodyThatCannotBeRead)
{
    TestHttpsServer untrusted([](const TestRequest &) { return TestResponse(); }, false);
    TestHttpsServer server([](const TestRequest &) { return TestResponse(); });
    struct Shrunk : DirectHttp::BodySource
    {
        qint64 size() const override { return 10; }
        qint64 read(char *to, qint64) override { return n++ == 0 ? (std::memset(to, 'x', 4), 4) : 0; }
        bool rewind() override { return true; }
        int n = 0;
    } shrunk;
    DirectHttp::Answer refused, unreadable;
    ASSERT_TRUE(runOffMainThread([&] {
        DirectHttp::BodyReceiver receiver;
        refused = DirectHttp::exchange(post(untrusted, "x"), receiver);
        unreadable = DirectHttp::exchange(post(server, {}), receiver, &shrunk);
    }));
    EXPECT_TRUE(refused.transportFailure);
    EXPECT_EQ(refused.error.code, int(QNetworkReply::SslHandshakeFailedError));
    EXPECT_TRUE(untrusted.requests().isEmpty());
    EXPECT_TRUE(unreadable.transportFailure);
    EXPECT_EQ(unreadable.status, 0);
}
