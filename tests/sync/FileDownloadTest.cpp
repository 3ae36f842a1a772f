// FileDownload against the local server: the file lands in place, is catalogued and announced;
// failed requests are started again; records that would leave the sync folder are refused.
#include "sync/FileDownload.h"

#include "CatalogueFixture.h"
#include "catalogue/CataloguePaths.h"

namespace {

class Recorder final : public FileDownloadDelegate
{
public:
    QStringList statuses;
    int completed = 0;
    void fileDownloadStatus(const QString &status) override { statuses.append(status); }
    void fileDownloadComplete() override { ++completed; }
};

class FileDownloadTest : public ServerCatalogueFixture
{
protected:
    QStringList put(const QString &relative, const QByteArray &data)
    {
        const QString key =
            server().putFile(ServerHarness::user(), relative, data, QStringLiteral("20230405060708"));
        EXPECT_FALSE(key.isEmpty());
        return {CataloguePaths::lastPathComponent(relative),
                QString::number(data.size()),
                {},
                key,
                harness->rootKey,
                at(relative)};
    }
    Recorder recorder;
};

} // namespace

TEST_F(FileDownloadTest, FileIsWrittenCataloguedAndAnnounced)
{
    const QByteArray data(100000, 'x');
    const QStringList record = put(QStringLiteral("docs/deep/a.txt"), data);
    FileDownload download(&recorder, record);
    download.sentRequestToServer();
    EXPECT_TRUE(download.isDownloading());
    ASSERT_TRUE(TestUtil::waitFor([&] { return recorder.completed == 1; }));
    EXPECT_FALSE(download.isDownloading());
    EXPECT_EQ(TestUtil::readFile(at(QStringLiteral("docs/deep/a.txt"))), data);
    const FilePtr row = db->getFileWithKey(record[DatabaseUtils::ItemKey], context);
    ASSERT_TRUE(row);
    EXPECT_EQ(row->path(), at(QStringLiteral("docs/deep/a.txt")));
    EXPECT_EQ(row->size(), u"100000");
    EXPECT_EQ(row->time(), u"20230405060708");
    EXPECT_EQ(CataloguePaths::modificationDate(at(QStringLiteral("docs/deep/a.txt"))),
              db->serverTimeToLocalTime(QStringLiteral("20230405060708")));
    EXPECT_TRUE(services->notifications().contains(QStringLiteral("download_complete | file: a.txt")));
    ASSERT_FALSE(recorder.statuses.isEmpty());
    EXPECT_TRUE(recorder.statuses.last().startsWith(at(QStringLiteral("docs/deep/a.txt")) +
                                                    QStringLiteral(" percent ")));
    QString target;
    for (const RequestLogEntry &entry : server().requestLog())
        if (entry.command == u"DOWNLOAD")
            target = entry.target;
    EXPECT_TRUE(target.endsWith(QStringLiteral("?do=download&session=%1&key=%2&offset=0")
                                    .arg(harness->session, record[DatabaseUtils::ItemKey])));
}

TEST_F(FileDownloadTest, FailedRequestIsStartedAgainAtOnce)
{
    const QStringList record = put(QStringLiteral("b.txt"), "bravo");
    Fault cut;
    cut.kind = Fault::Kind::CutReply;
    cut.command = QStringLiteral("DOWNLOAD");
    cut.count = 2;
    server().addFault(cut);
    FileDownload download(&recorder, record);
    download.sentRequest();
    ASSERT_TRUE(TestUtil::waitFor([&] { return recorder.completed == 1; }));
    EXPECT_EQ(server().requestedCommands().filter(QStringLiteral("DOWNLOAD")).size(), 3);
    EXPECT_EQ(TestUtil::readFile(at(QStringLiteral("b.txt"))), "bravo");

    // A request that cannot even be made fails at once, every time: the retries go round the
    // event loop (no recursion) and stop when the download goes.
    LogCapture diagnostics;
    services->setConfigValue(QStringLiteral("no such host"), QStringLiteral("kKeyDomain"));
    auto broken = std::make_unique<FileDownload>(&recorder, record);
    broken->sentRequestToServer();
    ASSERT_TRUE(TestUtil::waitFor(
        [&] { return diagnostics.lines().filter(QStringLiteral("Connect URL: ")).size() >= 20; }));
    broken.reset();
    const qsizetype attempts = diagnostics.lines().filter(QStringLiteral("Connect URL: ")).size();
    TestUtil::waitFor([] { return false; }, 50);
    EXPECT_EQ(diagnostics.lines().filter(QStringLiteral("Connect URL: ")).size(), attempts);
    EXPECT_EQ(recorder.completed, 1);
}

TEST_F(FileDownloadTest, RecordsLeavingTheSyncFolderAreRefused)
{
    const QStringList good = put(QStringLiteral("c.txt"), "charlie");
    const QString outside = syncDir.path() + QStringLiteral("/outside.txt");
    for (const QString &path :
         QStringList{root + QStringLiteral("/../outside.txt"), outside, QStringLiteral("relative.txt")}) {
        QStringList hostile = good;
        hostile[DatabaseUtils::ItemPath] = path;
        FileDownload download(&recorder, hostile);
        download.sentRequestToServer();
        EXPECT_FALSE(download.isDownloading());
    }
    QStringList badName = good;
    badName[DatabaseUtils::ItemName] = QStringLiteral("..");
    FileDownload download(&recorder, badName);
    download.sentRequestToServer();
    EXPECT_FALSE(download.isDownloading());
    TestUtil::waitFor([] { return false; }, 50); // let anything that was started arrive
    EXPECT_FALSE(QFileInfo::exists(outside));
    EXPECT_TRUE(server().requestedCommands().filter(QStringLiteral("DOWNLOAD")).isEmpty());
    EXPECT_EQ(recorder.completed, 0);
}
