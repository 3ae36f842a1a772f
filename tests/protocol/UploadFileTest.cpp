#include "protocol/UploadFile.h"

#include "TestHttpsServer.h"
#include "common/TestUtil.h"

#include <QTemporaryDir>
#include <QThread>
#include <gtest/gtest.h>

namespace {

TestResponse verdict(const QByteArray &value, TestResponse::Action action = TestResponse::Reply)
{
    TestResponse r;
    r.action = action;
    if (!value.isNull())
        r.headers = {{"Velmora-result", value}};
    r.body = "answer";
    return r;
}

struct UploadFixture : ::testing::Test
{
    QTemporaryDir dir;
    QString path = dir.filePath(QStringLiteral("report.pdf"));

    QString upload(TestHttpsServer &server, const QString &file)
    {
        QString result = QStringLiteral("unset");
        const QString url = QStringLiteral("https://%1/?do=upload&session=S1&key=K9").arg(server.domain());
        EXPECT_TRUE(runOffMainThread([&] {
            result = UploadFile::uploadFileWithKey(QStringLiteral("K9"), file, url, 12345,
                                                   QStringLiteral("20240131235959"));
        }));
        return result;
    }
};

} // namespace

TEST_F(UploadFixture, StreamsTheWholeFileAndAcceptsOnlyResultZero)
{
    QByteArray content(2 * 1024 * 1024 + 5, Qt::Uninitialized);
    for (qsizetype i = 0; i < content.size(); ++i)
        content[i] = char(i % 251);
    ASSERT_TRUE(TestUtil::writeFile(path, content));

    TestResponse next = verdict("0");
    TestHttpsServer server([&next](const TestRequest &) { return next; });
    EXPECT_EQ(upload(server, path), QStringLiteral("done"));
    const TestRequest sent = server.requests().value(0);
    EXPECT_EQ(sent.method, QByteArray("POST"));
    EXPECT_EQ(sent.target, QByteArray("/?do=upload&session=S1&key=K9"));
    EXPECT_EQ(sent.headers.value("content-type"), QByteArray("application/stream"));
    EXPECT_EQ(sent.headers.value("velmora_filetime"), QByteArray("20240131235959"));
    // The offset is ignored: always the whole file from its first byte.
    EXPECT_EQ(sent.body, content);
    EXPECT_EQ(UploadFile::currentUpload(), nullptr);

    // Refusals: another value, no header at all (even with status 200).
    next = verdict("1");
    EXPECT_EQ(upload(server, path), QStringLiteral("fail"));
    next = verdict(QByteArray());
    EXPECT_EQ(upload(server, path), QStringLiteral("fail"));
    // The header decides, not the status.
    next = verdict("0");
    next.status = 500;
    EXPECT_EQ(upload(server, path), QStringLiteral("done"));
}

TEST_F(UploadFixture, ConnectionFaultsFail)
{
    ASSERT_TRUE(TestUtil::writeFile(path, "hello"));
    TestResponse next;
    next.action = TestResponse::Drop;
    TestHttpsServer server([&next](const TestRequest &) { return next; });
    EXPECT_EQ(upload(server, path), QStringLiteral("fail"));

    // The verdict is taken when the headers arrive: a body that never ends does not matter...
    next = verdict("0", TestResponse::HeadersThenHang);
    EXPECT_EQ(upload(server, path), QStringLiteral("done"));
    // ...and a connection cut after a good verdict still counts as done.
    next = verdict("0", TestResponse::CutBody);
    EXPECT_EQ(upload(server, path), QStringLiteral("done"));

    // A file that cannot be read sends nothing.
    const qsizetype before = server.requests().size();
    EXPECT_EQ(upload(server, dir.filePath(QStringLiteral("missing"))), QStringLiteral("fail"));
    EXPECT_EQ(server.requests().size(), before);

    // A server whose certificate is not trusted never sees the request.
    TestHttpsServer untrusted([](const TestRequest &) { return verdict("0"); }, false);
    EXPECT_EQ(upload(untrusted, path), QStringLiteral("fail"));
    EXPECT_TRUE(untrusted.requests().isEmpty());

    // Nobody listening.
    QString result;
    ASSERT_TRUE(runOffMainThread([&] {
        result =
            UploadFile::uploadFileWithKey({}, path, QStringLiteral("https://127.0.0.1:1/?do=upload"), 0, {});
    }));
    EXPECT_EQ(result, QStringLiteral("fail"));
}

TEST_F(UploadFixture, EmptyFileIsSentAsAnEmptyBody)
{
    ASSERT_TRUE(TestUtil::writeFile(path, QByteArray()));
    TestHttpsServer server([](const TestRequest &) { return verdict("0"); });
    EXPECT_EQ(upload(server, path), QStringLiteral("done"));
    ASSERT_EQ(server.requests().size(), 1);
    EXPECT_TRUE(server.requests()[0].body.isEmpty());
    EXPECT_EQ(server.requests()[0].headers.value("content-length", "0"), QByteArray("0"));
}

TEST_F(UploadFixture, CancelEndsTheCurrentUploadAtOnce)
{
    UploadFile::cancelCurrentUpload(); // nothing running: no effect
    EXPECT_EQ(UploadFile::currentUpload(), nullptr);

    ASSERT_TRUE(TestUtil::writeFile(path, QByteArray(64 * 1024, 'c')));
    TestHttpsServer server([](const TestRequest &) { return verdict({}, TestResponse::Hang); });
    const QString url = QStringLiteral("https://%1/?do=upload&session=S&key=K").arg(server.domain());
    QString result = QStringLiteral("unset");
    std::atomic<bool> finished = false;
    QThread *worker = QThread::create([&] {
        result = UploadFile::uploadFileWithKey(QStringLiteral("K"), path, url, 0, QStringLiteral("t"));
        finished = true;
    });
    worker->start();
    ASSERT_TRUE(
        TestUtil::waitFor([&] { return server.requests().size() == 1 && UploadFile::currentUpload(); }));
    UploadFile::cancelCurrentUpload();
    EXPECT_EQ(UploadFile::currentUpload(), nullptr);
    ASSERT_TRUE(TestUtil::waitFor([&] { return finished.load(); }));
    worker->wait();
    delete worker;
    EXPECT_EQ(result, QStringLiteral("cancel"));
}

TEST(UploadFile, BadArgumentListAndMainThreadUseFail)
{
    UploadFile upload;
    upload.createConnection({QStringLiteral("only-a-path")});
    EXPECT_TRUE(upload.isFail());
    EXPECT_FALSE(upload.isDone());

    // On the main thread the wait could never end: refused at once.
    EXPECT_EQ(UploadFile::uploadFileWithKey({}, QStringLiteral("/nonexistent"),
                                            QStringLiteral("https://127.0.0.1:1/"), 0, {}),
              QStringLiteral("fail"));
}
