#include "RestLibrary/FileInternetBase.h"

#include "RestLibrary/RestClient.h"
#include "TestHttpsServer.h"
#include "common/TestUtil.h"

#include <QCoreApplication>
#include <QPointer>
#include <gtest/gtest.h>

namespace {

struct TransferRecorder : FileInternetBaseDelegate
{
    qint64 length = -2;
    QList<float> percents;
    QByteArray data;
    int failCode = 0;
    bool succeeded = false;

    void fileInternetBaseDidConnectedWithDataLength(FileInternetBase *, qint64 l) override { length = l; }
    void fileInternetBaseDidSusscelWithData(FileInternetBase *, const QByteArray &d) override
    {
        succeeded = true;
        data = d;
    }
    void fileInternetBaseDidWorkPercent(FileInternetBase *, float p) override { percents << p; }
    void fileInternetBaseDidFailWithCode(FileInternetBase *, int code) override { failCode = code; }
    bool ended() const { return succeeded || failCode != 0; }
};

TestResponse body(const QByteArray &bytes, TestResponse::Action a = TestResponse::Reply, int status = 200)
{
    TestResponse r;
    r.action = a;
    r.body = bytes;
    r.status = status;
    return r;
}

} // namespace

TEST(FileInternetBase, DownloadGathersTheAnswerWithPercentProgress)
{
    const QByteArray payload(300 * 1024, 'z');
    TestHttpsServer server([&](const TestRequest &) { return body(payload); });
    RestClient client;
    client.setHost(server.domain());
    TransferRecorder recorder;
    QPointer<FileInternetBase> transfer =
        client.downloadFileWithURL(QStringLiteral("thumb.cgi?key=9"), &recorder);
    ASSERT_TRUE(TestUtil::waitFor([&] { return recorder.ended(); }));
    EXPECT_TRUE(recorder.succeeded);
    EXPECT_EQ(recorder.data, payload);
    EXPECT_EQ(recorder.length, payload.size());
    ASSERT_FALSE(recorder.percents.isEmpty());
    EXPECT_FLOAT_EQ(recorder.percents.last(), 100.0f);
    EXPECT_EQ(server.requests().value(0).method, QByteArray("GET"));
    EXPECT_EQ(server.requests().value(0).target, QByteArray("/thumb.cgi?key=9"));
    // It releases itself after the last callback.
    EXPECT_TRUE(TestUtil::waitFor([&] { return transfer.isNull(); }));
}

TEST(FileInternetBase, FailureCodesTellWhetherTheAnswerHadStarted)
{
    struct Case
    {
        TestResponse response;
        int code;
    };
    const QList<Case> cases = {
        {body({}, TestResponse::Drop), 2},           // nothing arrived
        {body("partial", TestResponse::CutBody), 1}, // broke during the answer
    };
    for (const Case &c : cases) {
        TestHttpsServer server([&](const TestRequest &) { return c.response; });
        RestClient client;
        client.setHost(server.domain());
        TransferRecorder recorder;
        client.downloadFileWithURL(QStringLiteral("f"), &recorder);
        ASSERT_TRUE(TestUtil::waitFor([&] { return recorder.ended(); }));
        EXPECT_EQ(recorder.failCode, c.code) << "action " << c.response.action;
        EXPECT_FALSE(recorder.succeeded);
    }

    // An HTTP error answer is still an answer: its body is handed over.
    TestHttpsServer server([](const TestRequest &) { return body("missing", TestResponse::Reply, 404); });
    RestClient client;
    client.setHost(server.domain());
    TransferRecorder recorder;
    client.downloadFileWithURL(QStringLiteral("f"), &recorder);
    ASSERT_TRUE(TestUtil::waitFor([&] { return recorder.ended(); }));
    EXPECT_TRUE(recorder.succeeded);
    EXPECT_EQ(recorder.data, QByteArray("missing"));
}

TEST(FileInternetBase, UploadSendsTheFormAndReportsFractions)
{
    TestHttpsServer server([](const TestRequest &) { return body("ok"); });
    RestClient client;
    client.setHost(server.domain());
    client.addParam(QStringLiteral("data"), QString(200 * 1024, QLatin1Char('d')));
    TransferRecorder recorder;
    client.uploadFileWithURL(QStringLiteral("up.cgi"), &recorder);
    ASSERT_TRUE(TestUtil::waitFor([&] { return recorder.ended(); }));
    EXPECT_TRUE(recorder.succeeded);
    EXPECT_EQ(server.requests().value(0).body, client.getHeadersData());
    // Body progress runs 0..1 while answer progress runs 0..100.
    bool sawFraction = false;
    for (float p : recorder.percents) {
        if (p > 0.0f && p <= 1.0f)
            sawFraction = true;
    }
    EXPECT_TRUE(sawFraction);
    EXPECT_FLOAT_EQ(recorder.percents.last(), 100.0f);
}

TEST(FileInternetBase, CancelStopsWithoutCallbacks)
{
    TestHttpsServer server([](const TestRequest &) { return body({}, TestResponse::Hang); });
    RestClient client;
    client.setHost(server.domain());
    TransferRecorder recorder;
    QPointer<FileInternetBase> transfer = client.downloadFileWithURL(QStringLiteral("f"), &recorder);
    ASSERT_TRUE(TestUtil::waitFor([&] { return server.requests().size() == 1; }));
    transfer->cancel();
    EXPECT_TRUE(TestUtil::waitFor([&] {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        return transfer.isNull();
    }));
    EXPECT_FALSE(recorder.ended());
}
