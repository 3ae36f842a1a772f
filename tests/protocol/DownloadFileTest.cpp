// DownloadFile against the local server: contents, digest and date; a shorter file over a longer
// one; error pages; cut and missing answers.
#include "protocol/DownloadFile.h"

#include "RestLibrary/FileInternetBase.h"
#include "RestLibrary/RestClient.h"
#include "common/TestServer.h"
#include "common/TestUtil.h"
#include "protocol/MyImage.h"
#include "xml/GDataXMLNode.h"

#include <QCryptographicHash>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTimeZone>
#include <gtest/gtest.h>

namespace {

QString md5(const QByteArray &data)
{
    return QString::fromLatin1(QCryptographicHash::hash(data, QCryptographicHash::Md5).toHex());
}

class DownloadServer : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.ok()) << qPrintable(server.error());
        ASSERT_TRUE(server->addUser(kUser, QStringLiteral("pw")));
        session = server.signIn(kUser, QStringLiteral("pw"));
        ASSERT_FALSE(session.isEmpty());
        server->clearRequestLog();
    }

    // Stores `contents` on the server; the URL that fetches it.
    QString stored(const QByteArray &contents)
    {
        const QString key = server->putFile(kUser, QStringLiteral("photo.jpg"), contents);
        EXPECT_FALSE(key.isEmpty());
        return QStringLiteral("%1?do=download&session=%2&key=%3").arg(server->url(), session, key);
    }

    bool download(const QString &url, QString *digest, const QDateTime &time = {})
    {
        bool ok = false;
        EXPECT_TRUE(
            runOffMainThread([&] { ok = DownloadFile::downloadFileFromURL(url, path, digest, time); }));
        return ok;
    }

    const QString kUser = QStringLiteral("gina");
    TestServer server;
    QString session;
    QTemporaryDir dir;
    QString path = dir.filePath(QStringLiteral("photo.jpg"));
};

} // namespace

TEST_F(DownloadServer, AnEmptyFileArrivesAsAnEmptyFile)
{
    const QString url = stored(QByteArray());
    const QDateTime when(QDate(2014, 2, 3), QTime(4, 5, 6), QTimeZone::utc());
    QString digest;
    ASSERT_TRUE(download(url, &digest, when));
    ASSERT_TRUE(QFileInfo::exists(path));
    EXPECT_EQ(QFileInfo(path).size(), 0);
    EXPECT_EQ(digest, md5(QByteArray()));
    EXPECT_EQ(QFileInfo(path).lastModified().toUTC(), when);
}

TEST_F(DownloadServer, WritesTheBodyDigestsItAndSetsTheDate)
{
    QByteArray content(3 * 1024 * 1024 + 11, Qt::Uninitialized);
    for (qsizetype i = 0; i < content.size(); ++i)
        content[i] = char((i * 7) % 253);
    const QString url = stored(content);
    const QDateTime when(QDate(2013, 1, 28), QTime(9, 30, 15), QTimeZone::utc());
    QString digest;
    ASSERT_TRUE(download(url, &digest, when));
    EXPECT_EQ(TestUtil::readFile(path), content);
    EXPECT_EQ(digest, md5(content));
    EXPECT_EQ(QFileInfo(path).lastModified().toUTC(), when);

    const QList<RequestLogEntry> log = server->requestLog();
    ASSERT_EQ(log.size(), 1);
    EXPECT_EQ(log[0].command, QStringLiteral("DOWNLOAD"));
    EXPECT_EQ(log[0].method, QStringLiteral("POST"));
    EXPECT_EQ(log[0].bodySize, 0);
}

TEST_F(DownloadServer, ShorterFileLeavesTheOldTailAndAnErrorPageIsStillSaved)
{
    ASSERT_TRUE(TestUtil::writeFile(path, "0123456789ABCDEF"));
    const QDateTime before = QFileInfo(path).lastModified();
    const QString url = stored("new");
    QString digest;
    ASSERT_TRUE(download(url, &digest));
    EXPECT_EQ(TestUtil::readFile(path), QByteArray("new3456789ABCDEF"));
    EXPECT_EQ(digest, md5("new"));                     // the digest covers what came, not the file
    EXPECT_GE(QFileInfo(path).lastModified(), before); // no time given: the system's dates

    server->failWithStatus(QStringLiteral("DOWNLOAD"), 404);
    ASSERT_TRUE(download(url, &digest));
    EXPECT_EQ(TestUtil::readFile(path), QByteArray("Not Found\nABCDEF"));
    EXPECT_EQ(digest, md5("Not Found\n"));
}

TEST_F(DownloadServer, CutOrMissingAnswersFailAndLeaveTheDigestAlone)
{
    const QString url = stored(QByteArray(256 * 1024, 'c'));
    QString digest = QStringLiteral("untouched");
    server->cutDownloads(1000);
    EXPECT_FALSE(download(url, &digest));
    EXPECT_EQ(digest, QStringLiteral("untouched"));

    // A reply cut right after its head: nothing arrived, nothing created.
    QFile::remove(path);
    server->cutReplies(QStringLiteral("DOWNLOAD"));
    EXPECT_FALSE(download(url, &digest));
    EXPECT_FALSE(QFileInfo::exists(path));
    EXPECT_EQ(server->pendingFaults(), 0);

    // Nobody listening; a folder that does not exist cannot take the file.
    EXPECT_FALSE(download(QStringLiteral("https://127.0.0.1:1/?do=download"), &digest));
    path = dir.filePath(QStringLiteral("no/such/folder/file"));
    EXPECT_FALSE(download(url, &digest));
    EXPECT_EQ(digest, QStringLiteral("untouched"));
}

TEST_F(DownloadServer, ImageRecordFetchesItsThumbnailEntryAndTheImageFromItsOffset)
{
    const QByteArray picture = "\x89PNG\r\n\x1a\n picture bytes";
    const QString url = stored(picture);
    MyImage image(session, url.section(QLatin1Char('='), -1));
    RestClient client;
    client.setHost(server->domain());
    std::shared_ptr<GDataXMLDocument> reply;
    ASSERT_TRUE(runOffMainThread([&] {
        reply = client.postNonAsyncWithURL(QStringLiteral("cgi-bin/cloudXml.cgi"), image.thumbXml());
    }));
    ASSERT_TRUE(reply && reply->rootElement());
    const auto thumbnail = reply->rootElement()->elementsForName(QStringLiteral("THUMBNAIL"));
    ASSERT_EQ(thumbnail.size(), 1);
    const auto attribute = [&](const QString &name) {
        const auto node = thumbnail[0]->attributeForName(name);
        return node ? node->stringValue() : QString();
    };
    EXPECT_EQ(attribute(QStringLiteral("RESULT")), QStringLiteral("1"));
    EXPECT_EQ(attribute(QStringLiteral("MD5")), md5(picture));

    struct Receiver : FileInternetBaseDelegate
    {
        std::optional<QByteArray> data;
        void fileInternetBaseDidSusscelWithData(FileInternetBase *, const QByteArray &d) override
        {
            data = d;
        }
        void fileInternetBaseDidFailWithCode(FileInternetBase *, int) override
        {
            data = QByteArray("failed");
        }
    } receiver;
    image.setOffset(8);
    client.downloadFileWithURL(QStringLiteral("cgi-bin/cloudXml.cgi") + image.imageXml(), &receiver);
    ASSERT_TRUE(TestUtil::waitFor([&] { return receiver.data.has_value(); }));
    EXPECT_EQ(*receiver.data, picture.mid(8));
}

TEST(DownloadFile, MainThreadUseIsRefused)
{
    QString digest = QStringLiteral("untouched");
    EXPECT_FALSE(DownloadFile::downloadFileFromURL(QStringLiteral("https://127.0.0.1:1/"),
                                                   QStringLiteral("/tmp/x"), &digest, {}));
    EXPECT_EQ(digest, QStringLiteral("untouched"));
}
