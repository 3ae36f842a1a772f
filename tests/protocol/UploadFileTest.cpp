// UploadFile against the local server: the round trip through DownloadFile, refusals, the empty
// file, and cancelling a running upload.
#include "protocol/UploadFile.h"

#include "common/TestServer.h"
#include "common/TestUtil.h"
#include "protocol/DownloadFile.h"

#include <QTemporaryDir>
#include <QThread>
#include <gtest/gtest.h>

namespace {

QByteArray pattern(qsizetype size)
{
    QByteArray data(size, Qt::Uninitialized);
    for (qsizetype i = 0; i < size; ++i)
        data[i] = char((i * 7 + i / 4093) % 251);
    return data;
}

class UploadServer : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.ok()) << qPrintable(server.error());
        ASSERT_TRUE(server->addUser(kUser, QStringLiteral("pw")));
        session = server.signIn(kUser, QStringLiteral("pw"));
        ASSERT_FALSE(session.isEmpty());
        // The file as already announced, with older contents.
        key = server->putFile(kUser, kRemote, "old contents", QStringLiteral("20200101000000"));
        ASSERT_FALSE(key.isEmpty());
        server->clearRequestLog();
    }

    QString transferUrl(const QString &action, const QString &forKey = {})
    {
        return QStringLiteral("%1?do=%2&session=%3&key=%4")
            .arg(server->url(), action, session, forKey.isEmpty() ? key : forKey);
    }

    QString upload(const QString &file, const QString &url)
    {
        QString result = QStringLiteral("unset");
        EXPECT_TRUE(runOffMainThread([&] {
            result = UploadFile::uploadFileWithKey(key, file, url, 12345, QStringLiteral("20240131235959"));
        }));
        return result;
    }

    TreeEntry remote()
    {
        for (const TreeEntry &entry : server->tree(kUser)) {
            if (entry.path == kRemote)
                return entry;
        }
        return {};
    }

    const QString kUser = QStringLiteral("frank");
    const QString kRemote = QStringLiteral("docs/report.pdf");
    TestServer server;
    QString session;
    QString key;
    QTemporaryDir dir;
    QString path = dir.filePath(QStringLiteral("report.pdf"));
};

} // namespace

TEST_F(UploadServer, UploadThenDownloadGivesTheSameBytesAndDigest)
{
    const QByteArray content = pattern(2 * 1024 * 1024 + 5);
    ASSERT_TRUE(TestUtil::writeFile(path, content));
    EXPECT_EQ(upload(path, transferUrl(QStringLiteral("upload"))), QStringLiteral("done"));
    EXPECT_EQ(UploadFile::currentUpload(), nullptr);
    const QString localMd5 = UploadFile::getMD5OfFileAtPath(path);
    EXPECT_EQ(server->fileContents(kUser, kRemote), content);
    EXPECT_EQ(remote().md5, localMd5);
    EXPECT_EQ(remote().time, QStringLiteral("20240131235959")); // from the file-time header
    const QList<RequestLogEntry> log = server->requestLog();
    ASSERT_EQ(log.size(), 1);
    EXPECT_EQ(log[0].method, QStringLiteral("POST"));
    EXPECT_EQ(log[0].bodySize, content.size()); // the whole file, whatever offset was given

    const QString back = dir.filePath(QStringLiteral("back.pdf"));
    QString digest;
    bool ok = false;
    ASSERT_TRUE(runOffMainThread([&] {
        ok = DownloadFile::downloadFileFromURL(transferUrl(QStringLiteral("download")), back, &digest, {});
    }));
    ASSERT_TRUE(ok);
    EXPECT_EQ(TestUtil::readFile(back), content);
    EXPECT_EQ(digest, localMd5);
    EXPECT_EQ(UploadFile::getMD5OfFileAtPath(back), localMd5);
}

TEST_F(UploadServer, EmptyFileIsSentAsAnEmptyBody)
{
    ASSERT_TRUE(TestUtil::writeFile(path, QByteArray()));
    EXPECT_EQ(upload(path, transferUrl(QStringLiteral("upload"))), QStringLiteral("done"));
    const TreeEntry stored = remote();
    EXPECT_EQ(stored.size, 0);
    EXPECT_TRUE(stored.uploaded);
    EXPECT_EQ(stored.md5, QStringLiteral("d41d8cd98f00b204e9800998ecf8427e"));
    EXPECT_EQ(UploadFile::getMD5OfFileAtPath(path), stored.md5);
    EXPECT_TRUE(server->fileContents(kUser, kRemote).isEmpty());
}

TEST_F(UploadServer, EveryRefusalOrBrokenAnswerFailsAndKeepsTheStoredFile)
{
    ASSERT_TRUE(TestUtil::writeFile(path, "new contents"));
    const QString url = transferUrl(QStringLiteral("upload"));
    const QString upload_ = QStringLiteral("UPLOAD");
    const QList<std::pair<const char *, std::function<void()>>> faults = {
        {"verdict 1", [&] { server->refuseUploads(1, QStringLiteral("1")); }},
        // "0" in the body but no verdict header: refused.
        {"no verdict header", [&] { server->replyWithBody(upload_, "0"); }},
        {"HTTP 500", [&] { server->failWithStatus(upload_, 500); }},
        {"reply cut", [&] { server->cutReplies(upload_); }},
    };
    for (const auto &[what, inject] : faults) {
        inject();
        EXPECT_EQ(upload(path, url), QStringLiteral("fail")) << what;
        EXPECT_EQ(server->pendingFaults(), 0) << what;
    }
    // The server's own refusals: an unknown key, a session it no longer knows.
    EXPECT_EQ(upload(path, transferUrl(QStringLiteral("upload"), QStringLiteral("999999"))),
              QStringLiteral("fail"));
    ASSERT_EQ(server->expireSessions(kUser), 1);
    EXPECT_EQ(upload(path, url), QStringLiteral("fail"));
    EXPECT_EQ(server->fileContents(kUser, kRemote), QByteArray("old contents"));
    EXPECT_EQ(server->requestLog().size(), faults.size() + 2);

    // A file that cannot be read sends nothing; nobody listening fails too.
    EXPECT_EQ(upload(dir.filePath(QStringLiteral("missing")), url), QStringLiteral("fail"));
    EXPECT_EQ(server->requestLog().size(), faults.size() + 2);
    EXPECT_EQ(upload(path, QStringLiteral("https://127.0.0.1:1/?do=upload")), QStringLiteral("fail"));
    EXPECT_EQ(UploadFile::currentUpload(), nullptr);
}

TEST_F(UploadServer, CancelEndsTheCurrentUploadAtOnce)
{
    UploadFile::cancelCurrentUpload(); // nothing running: no effect
    EXPECT_EQ(UploadFile::currentUpload(), nullptr);

    ASSERT_TRUE(TestUtil::writeFile(path, pattern(256 * 1024)));
    // The server holds its answer far longer than the test waits.
    server->delayReplies(QStringLiteral("UPLOAD"), 60000);
    // The worker's outcome outlives this test should the upload never end.
    struct Outcome
    {
        std::atomic<bool> finished = false;
        QString result;
    };
    auto outcome = std::make_shared<Outcome>();
    QThread *worker =
        QThread::create([outcome, file = path, url = transferUrl(QStringLiteral("upload")), k = key] {
            outcome->result =
                UploadFile::uploadFileWithKey(k, file, url, 0, QStringLiteral("20240131235959"));
            outcome->finished = true;
        });
    QObject::connect(worker, &QThread::finished, worker, &QObject::deleteLater);
    worker->start();
    ASSERT_TRUE(
        TestUtil::waitFor([&] { return !server->requestLog().isEmpty() && UploadFile::currentUpload(); }));
    UploadFile::cancelCurrentUpload();
    EXPECT_EQ(UploadFile::currentUpload(), nullptr);
    ASSERT_TRUE(TestUtil::waitFor([&] { return outcome->finished.load(); }));
    EXPECT_EQ(outcome->result, QStringLiteral("cancel"));
    EXPECT_EQ(server->fileContents(kUser, kRemote), QByteArray("old contents"));
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
