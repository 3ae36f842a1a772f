#include "protocol/DownloadFile.h"

#include "TestHttpsServer.h"
#include "common/TestUtil.h"

#include <QCryptographicHash>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTimeZone>
#include <gtest/gtest.h>

namespace {

TestResponse answer(const QByteArray &body, TestResponse::Action action = TestResponse::Reply,
                    int status = 200)
{
    TestResponse r;
    r.action = action;
    r.status = status;
    r.body = body;
    return r;
}

QString md5(const QByteArray &data)
{
    return QString::fromLatin1(QCryptographicHash::hash(data, QCryptographicHash::Md5).toHex());
}

struct DownloadFixture : ::testing::Test
{
    QTemporaryDir dir;
    QString path = dir.filePath(QStringLiteral("photo.jpg"));

    bool download(TestHttpsServer &server, QString *digest, const QDateTime &time = {})
    {
        bool ok = false;
        const QString url = QStringLiteral("https://%1/?do=download&session=S1&key=K2").arg(server.domain());
        EXPECT_TRUE(
            runOffMainThread([&] { ok = DownloadFile::downloadFileFromURL(url, path, digest, time); }));
        return ok;
    }
};

} // namespace

TEST_F(DownloadFixture, WritesTheBodyDigestsItAndSetsTheDate)
{
    QByteArray content(3 * 1024 * 1024 + 11, Qt::Uninitialized);
    for (qsizetype i = 0; i < content.size(); ++i)
        content[i] = char((i * 7) % 253);
    TestHttpsServer server([&](const TestRequest &) { return answer(content); });
    const QDateTime when(QDate(2013, 1, 28), QTime(9, 30, 15), QTimeZone::utc());
    QString digest;
    ASSERT_TRUE(download(server, &digest, when));
    EXPECT_EQ(TestUtil::readFile(path), content);
    EXPECT_EQ(digest, md5(content));
    EXPECT_EQ(QFileInfo(path).lastModified().toUTC(), when);

    const TestRequest sent = server.requests().value(0);
    EXPECT_EQ(sent.method, QByteArray("POST"));
    EXPECT_EQ(sent.target, QByteArray("/?do=download&session=S1&key=K2"));
    EXPECT_TRUE(sent.body.isEmpty());
}

TEST_F(DownloadFixture, ShorterContentLeavesTheOldTailAndAnErrorPageIsStillSaved)
{
    ASSERT_TRUE(TestUtil::writeFile(path, "0123456789ABCDEF"));
    const QDateTime before = QFileInfo(path).lastModified();
    TestResponse next = answer("new");
    TestHttpsServer server([&next](const TestRequest &) { return next; });
    QString digest;
    ASSERT_TRUE(download(server, &digest));
    EXPECT_EQ(TestUtil::readFile(path), QByteArray("new3456789ABCDEF"));
    EXPECT_EQ(digest, md5("new"));                     // the digest covers what came, not the file
    EXPECT_GE(QFileInfo(path).lastModified(), before); // no time given: the system's dates

    next = answer("<html>missing</html>", TestResponse::Reply, 404);
    ASSERT_TRUE(download(server, &digest));
    EXPECT_EQ(TestUtil::readFile(path).left(20), QByteArray("<html>missing</html>"));
    EXPECT_EQ(digest, md5("<html>missing</html>"));
}

TEST_F(DownloadFixture, CutOrDroppedAnswersFailAndLeaveTheDigestAlone)
{
    TestResponse next = answer("partial", TestResponse::CutBody);
    TestHttpsServer server([&next](const TestRequest &) { return next; });
    QString digest = QStringLiteral("untouched");
    EXPECT_FALSE(download(server, &digest));
    EXPECT_EQ(digest, QStringLiteral("untouched"));

    QFile::remove(path);
    next = answer({}, TestResponse::Drop);
    EXPECT_FALSE(download(server, &digest));
    EXPECT_EQ(digest, QStringLiteral("untouched"));
    EXPECT_FALSE(QFileInfo::exists(path)); // nothing arrived, nothing created

    // A folder that does not exist cannot take the file.
    next = answer("data");
    path = dir.filePath(QStringLiteral("no/such/folder/file"));
    EXPECT_FALSE(download(server, &digest));
    EXPECT_EQ(digest, QStringLiteral("untouched"));
}

TEST(DownloadFile, MainThreadUseIsRefused)
{
    QString digest = QStringLiteral("untouched");
    EXPECT_FALSE(DownloadFile::downloadFileFromURL(QStringLiteral("https://127.0.0.1:1/"),
                                                   QStringLiteral("/tmp/x"), &digest, {}));
    EXPECT_EQ(digest, QStringLiteral("untouched"));
}
