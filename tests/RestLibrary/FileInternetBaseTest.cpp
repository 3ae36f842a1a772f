// FileInternetBase against the local server: whole answers with progress, the failure codes, the
// multipart form as an upload, and cancelling.
#include "RestLibrary/FileInternetBase.h"

#include "RestLibrary/RestClient.h"
#include "common/TestServer.h"
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

class FileInternetBaseServer : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.ok()) << qPrintable(server.error());
        ASSERT_TRUE(server->addUser(kUser, QStringLiteral("pw")));
        session = server.signIn(kUser, QStringLiteral("pw"));
        ASSERT_FALSE(session.isEmpty());
        for (qsizetype i = 0; i < payload.size(); ++i)
            payload[i] = char((i * 13) % 251);
        key = server->putFile(kUser, QStringLiteral("pictures/big.bin"), payload);
        ASSERT_FALSE(key.isEmpty());
        client.setHost(server->domain());
        server->clearRequestLog();
    }

    // The form the sync engine's single-file fetch uses.
    QString transferUrl(const QString &action) const
    {
        return QStringLiteral("cgi-bin/cloudXml.cgi?do=%1&session=%2&key=%3&offset=0")
            .arg(action, session, key);
    }

    const QString kUser = QStringLiteral("erin");
    TestServer server;
    QString session;
    QString key;
    QByteArray payload = QByteArray(300 * 1024, Qt::Uninitialized);
    RestClient client;
};

} // namespace

TEST_F(FileInternetBaseServer, DownloadGathersTheAnswerWithPercentProgress)
{
    TransferRecorder recorder;
    QPointer<FileInternetBase> transfer =
        client.downloadFileWithURL(transferUrl(QStringLiteral("download")), &recorder);
    ASSERT_TRUE(TestUtil::waitFor([&] { return recorder.ended(); }));
    EXPECT_TRUE(recorder.succeeded);
    EXPECT_EQ(recorder.data, payload);
    EXPECT_EQ(recorder.length, payload.size());
    ASSERT_FALSE(recorder.percents.isEmpty());
    EXPECT_TRUE(std::is_sorted(recorder.percents.cbegin(), recorder.percents.cend()));
    EXPECT_FLOAT_EQ(recorder.percents.last(), 100.0f);
    const QList<RequestLogEntry> log = server->requestLog();
    ASSERT_EQ(log.size(), 1);
    EXPECT_EQ(log[0].command, QStringLiteral("DOWNLOAD"));
    EXPECT_EQ(log[0].method, QStringLiteral("GET"));
    // It releases itself after the last callback.
    EXPECT_TRUE(TestUtil::waitFor([&] { return transfer.isNull(); }));
}

TEST_F(FileInternetBaseServer, FailureCodesTellWhetherTheAnswerHadStarted)
{
    const auto fetch = [&](TransferRecorder &recorder) {
        client.downloadFileWithURL(transferUrl(QStringLiteral("download")), &recorder);
        return TestUtil::waitFor([&] { return recorder.ended(); });
    };
    // Broke during the answer: after part of the body, or right after the head.
    server->cutDownloads(64 * 1024);
    TransferRecorder cut;
    ASSERT_TRUE(fetch(cut));
    EXPECT_EQ(cut.failCode, 1);
    EXPECT_EQ(cut.length, payload.size());
    server->cutReplies(QStringLiteral("DOWNLOAD"));
    TransferRecorder headOnly;
    ASSERT_TRUE(fetch(headOnly));
    EXPECT_EQ(headOnly.failCode, 1);

    // An HTTP error answer is still an answer: its body is handed over.
    server->failWithStatus(QStringLiteral("DOWNLOAD"), 404);
    TransferRecorder error;
    ASSERT_TRUE(fetch(error));
    EXPECT_TRUE(error.succeeded);
    EXPECT_EQ(error.data, QByteArray("Not Found\n"));

    // Nothing arrived at all.
    client.setHost(QStringLiteral("127.0.0.1:1"));
    TransferRecorder nobody;
    ASSERT_TRUE(fetch(nobody));
    EXPECT_EQ(nobody.failCode, 2);
    EXPECT_FALSE(cut.succeeded || headOnly.succeeded || nobody.succeeded);
}

TEST_F(FileInternetBaseServer, UploadSendsTheFormByteForByteAndReportsFractions)
{
    // Every parameter also travels as a header, so each stays under the server's header limit.
    client.addParam(QStringLiteral("name"), QStringLiteral("caf\u00e9"));
    client.addParam(QStringLiteral("data"), QString(40 * 1024, QLatin1Char('d')));
    TransferRecorder recorder;
    client.uploadFileWithURL(transferUrl(QStringLiteral("upload")), &recorder);
    ASSERT_TRUE(TestUtil::waitFor([&] { return recorder.ended(); }));
    EXPECT_TRUE(recorder.succeeded);
    EXPECT_EQ(recorder.data, QByteArray("0")); // the server's verdict: stored
    // The server stores the body as it came: the whole multipart form.
    EXPECT_EQ(server->fileContents(kUser, QStringLiteral("pictures/big.bin")), client.getHeadersData());
    // Body progress runs 0..1 while answer progress runs 0..100.
    EXPECT_TRUE(std::any_of(recorder.percents.cbegin(), recorder.percents.cend(),
                            [](float p) { return p > 0.0f && p <= 1.0f; }));
    EXPECT_FLOAT_EQ(recorder.percents.last(), 100.0f);
}

TEST_F(FileInternetBaseServer, CancelStopsWithoutCallbacks)
{
    server->delayReplies(QStringLiteral("DOWNLOAD"), 60000);
    TransferRecorder recorder;
    QPointer<FileInternetBase> transfer =
        client.downloadFileWithURL(transferUrl(QStringLiteral("download")), &recorder);
    ASSERT_TRUE(TestUtil::waitFor([&] { return server->requestLog().size() == 1; }));
    transfer->cancel();
    EXPECT_TRUE(TestUtil::waitFor([&] {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        return transfer.isNull();
    }));
    EXPECT_FALSE(recorder.ended());
}
