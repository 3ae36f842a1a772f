// Changes that arrive from the server, applied to a real sync folder with INFO answered by the local
// server; the SERVERTIME and INFO commands; and the refusal of names and paths that would leave the
// sync folder.
#include "CatalogueFixture.h"
#include "catalogue/CataloguePaths.h"
#include "util/Pace.h"

#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QScopeGuard>
#include <QTcpServer>
#include <QThread>

namespace {

class ServerOperationsTest : public ServerCatalogueFixture
{
protected:
    QString serverTime(const QString &relative)
    {
        for (const TreeEntry &entry : server().tree(ServerHarness::user()))
            if (entry.path == relative)
                return entry.time;
        return {};
    }
    QString serverKey(const QString &relative)
    {
        for (const TreeEntry &entry : server().tree(ServerHarness::user()))
            if (entry.path == relative)
                return entry.key;
        return {};
    }
    // A folder made on the server and brought into the catalogue and the sync folder.
    QString folder(const QString &relative, const QString &parentKey)
    {
        const QString key = server().makeFolder(ServerHarness::user(), relative);
        EXPECT_FALSE(key.isEmpty());
        EXPECT_TRUE(db->insertDir(record(CataloguePaths::lastPathComponent(relative), QStringLiteral("-1"),
                                         {}, key, parentKey, at(relative)),
                                  context));
        return key;
    }
    // A file put on the server, "downloaded" into place and catalogued.
    QString file(const QString &relative, const QByteArray &data, const QString &parentKey)
    {
        const QString key =
            server().putFile(ServerHarness::user(), relative, data, QStringLiteral("20230102030405"));
        EXPECT_FALSE(key.isEmpty());
        EXPECT_TRUE(TestUtil::writeFile(at(relative), data));
        EXPECT_TRUE(db->insertFile(record(CataloguePaths::lastPathComponent(relative),
                                          QString::number(data.size()), {}, key, parentKey, at(relative)),
                                   context));
        return key;
    }
    QString trashed(const QString &name) const
    {
        return dataHome.path() + QStringLiteral("/Trash/files/") + name;
    }
    ActivityLog activity;
};

} // namespace

TEST_F(ServerOperationsTest, InsertedItemsCarryTheServersDetailsAndDates)
{
    const QString docs = folder(QStringLiteral("docs"), harness->rootKey);
    const DirectoryPtr row = db->getDirectoryWithKey(docs, context);
    ASSERT_TRUE(row);
    EXPECT_FALSE(context->hasChanges());
    EXPECT_EQ(row->path(), at(QStringLiteral("docs")));
    EXPECT_EQ(row->size(), u"-1");
    EXPECT_EQ(row->md5(), u"");
    EXPECT_EQ(row->pkey(), harness->rootKey);
    EXPECT_EQ(row->owner(), u"bob");
    EXPECT_EQ(row->time(), serverTime(QStringLiteral("docs")));
    ASSERT_TRUE(QFileInfo(at(QStringLiteral("docs"))).isDir());
    EXPECT_EQ(CataloguePaths::modificationDate(at(QStringLiteral("docs"))),
              db->serverTimeToLocalTime(row->time()));

    // One row per key: a second announcement under another path changes nothing.
    EXPECT_TRUE(db->insertDir(record(QStringLiteral("elsewhere"), QStringLiteral("-1"), {}, docs,
                                     harness->rootKey, at(QStringLiteral("elsewhere"))),
                              context));
    EXPECT_EQ(context->fetch<Directory>().size(), 1);
    EXPECT_FALSE(QFileInfo::exists(at(QStringLiteral("elsewhere"))));

    const QString uploaded = server().makeFolder(ServerHarness::user(), QStringLiteral("mine"));
    db->insertDirNoCreate(record(QStringLiteral("mine"), QStringLiteral("-1"), {}, uploaded, harness->rootKey,
                                 at(QStringLiteral("mine"))),
                          context);
    EXPECT_TRUE(db->getDirectoryWithKey(uploaded, context));
    EXPECT_FALSE(QFileInfo::exists(at(QStringLiteral("mine"))));

    // A file: INFO's size replaces the announced one, its time becomes the file's date.
    const QString key = file(QStringLiteral("docs/a.txt"), "hello", docs);
    FilePtr a = db->getFileWithKey(key, context);
    ASSERT_TRUE(a);
    EXPECT_EQ(a->size(), u"5");
    EXPECT_EQ(a->time(), u"20230102030405");
    EXPECT_EQ(CataloguePaths::modificationDate(at(QStringLiteral("docs/a.txt"))),
              db->serverTimeToLocalTime(QStringLiteral("20230102030405")));
    // An update of the same key keeps one row.
    db->insertFile(record(QStringLiteral("a.txt"), QStringLiteral("5"),
                          QStringLiteral("5d41402abc4b2a76b9719d911017c592"), key, docs,
                          at(QStringLiteral("docs/a.txt"))),
                   context);
    EXPECT_EQ(context->fetch<File>().size(), 1);
    EXPECT_EQ(db->getFileWithKey(key, context)->md5(), u"5d41402abc4b2a76b9719d911017c592");
    EXPECT_EQ(catalogueTree(*context, root, false).value(QStringLiteral("docs/a.txt")).md5,
              localTree(root).value(QStringLiteral("docs/a.txt")).md5);
}

TEST_F(ServerOperationsTest, ServerDeletionsGoToTheTrashWithActivityEntries)
{
    const QString docs = folder(QStringLiteral("docs"), harness->rootKey);
    folder(QStringLiteral("docs/sub"), docs);
    file(QStringLiteral("docs/sub/a.txt"), "aaa", serverKey(QStringLiteral("docs/sub")));
    const QString b = file(QStringLiteral("b.txt"), "bbb", harness->rootKey);
    const QString c = file(QStringLiteral("c.txt"), "ccc", harness->rootKey);
    const QString docsTime = db->getDirectoryWithKey(docs, context)->time();

    db->deleteDirectory(docs, context);
    EXPECT_FALSE(QFileInfo::exists(at(QStringLiteral("docs"))));
    EXPECT_EQ(TestUtil::readFile(trashed(QStringLiteral("docs/sub/a.txt"))), "aaa");
    EXPECT_EQ(catalogueTree(*context, root, false).keys(),
              (QStringList{QStringLiteral("b.txt"), QStringLiteral("c.txt")}));
    ASSERT_FALSE(activity.entries().isEmpty());
    const ActivityLog::Entry entry = activity.entries().last();
    EXPECT_TRUE(entry.fromServer);
    EXPECT_EQ(entry.log,
              LogObject::createLogObjectWithName(QStringLiteral("docs"), QStringLiteral("work_delete"), -1,
                                                 QStringLiteral("/docs"), true,
                                                 db->serverTimeToLocalTimeStr(docsTime), QString(), true));

    db->deleteFile(b, context);
    EXPECT_EQ(TestUtil::readFile(trashed(QStringLiteral("b.txt"))), "bbb");
    EXPECT_FALSE(activity.logObjects().last().isFolder());

    // The main-context form removes the item directly.
    db->deleteFile(c);
    EXPECT_FALSE(QFileInfo::exists(at(QStringLiteral("c.txt"))));
    EXPECT_FALSE(QFileInfo::exists(trashed(QStringLiteral("c.txt"))));
    EXPECT_TRUE(context->fetch<File>().isEmpty());

    db->deleteDirectory(QStringLiteral("no-such-key"), context); // nothing to do
}

TEST_F(ServerOperationsTest, ServerRenamesAndMovesAreFollowedOnDisk)
{
    const QString docs = folder(QStringLiteral("docs"), harness->rootKey);
    const QString sub = folder(QStringLiteral("docs/sub"), docs);
    const QString a = file(QStringLiteral("docs/sub/a.txt"), "aaa", sub);
    const QString b = file(QStringLiteral("b.txt"), "bbb", harness->rootKey);
    const QString archive = folder(QStringLiteral("archive"), harness->rootKey);

    db->renameDirectory(record(QStringLiteral("papers"), {}, {}, docs, {}, {}), context);
    db->renameFile(record(QStringLiteral("a2.txt"), {}, {}, a, {}, {}), context);
    db->moveFile(record(QStringLiteral("b.txt"), {}, {}, b, archive, {}), context);
    db->moveDirectory(record(QStringLiteral("sub"), {}, {}, sub, QStringLiteral("unknown-parent"), {}),
                      context);

    const Tree expected{
        {QStringLiteral("archive"), {true, {}, {}}},
        {QStringLiteral("archive/b.txt"), {false, QStringLiteral("08f8e0260c64418510cefb2b06eee5cd"), {}}},
        {QStringLiteral("papers"), {true, {}, {}}},
        {QStringLiteral("sub"), {true, {}, {}}},
        {QStringLiteral("sub/a2.txt"), {false, QStringLiteral("47bce5c74f589f4867dbd57e9ca9f808"), {}}}};
    EXPECT_EQ(localTree(root), expected);
    Tree catalogue = catalogueTree(*context, root, false);
    for (TreeItem &item : catalogue)
        item.md5.clear();
    Tree shape = expected;
    for (TreeItem &item : shape)
        item.md5.clear();
    EXPECT_EQ(catalogue, shape);
    EXPECT_EQ(db->getFileWithKey(b, context)->pkey(), archive);
    EXPECT_EQ(db->getDirectoryWithKey(sub, context)->pkey(), u"unknown-parent");

    QStringList works;
    for (const LogObject &log : activity.logObjects()) {
        EXPECT_TRUE(log.isSuccess());
        works.append(log.work() + u' ' + log.description());
    }
    EXPECT_TRUE(works.contains(QStringLiteral("work_rename docs => papers")));
    EXPECT_TRUE(works.contains(QStringLiteral("work_move /b.txt => /archive/b.txt")));
    EXPECT_TRUE(works.contains(QStringLiteral("work_move /papers/sub => /sub")));
}

TEST_F(ServerOperationsTest, FailedMoveOnDiskIsUndoneInTheCatalogue)
{
    LogCapture diagnostics;
    const QString docs = folder(QStringLiteral("docs"), harness->rootKey);
    const QString a = file(QStringLiteral("a.txt"), "aaa", harness->rootKey);
    ASSERT_TRUE(TestUtil::writeFile(at(QStringLiteral("taken.txt")), "local")); // the target exists locally

    db->renameFile(record(QStringLiteral("taken.txt"), {}, {}, a, {}, {}), context);
    FilePtr row = db->getFileWithKey(a, context);
    EXPECT_EQ(row->name(), u"a.txt");
    EXPECT_EQ(row->path(), at(QStringLiteral("a.txt")));
    EXPECT_FALSE(context->hasChanges());
    EXPECT_EQ(TestUtil::readFile(at(QStringLiteral("taken.txt"))), "local");
    EXPECT_TRUE(diagnostics.contains(QStringLiteral("Rename file fail: ")));
    ASSERT_FALSE(activity.logObjects().isEmpty());
    EXPECT_FALSE(activity.logObjects().last().isSuccess());
    EXPECT_EQ(activity.logObjects().last().description(), u"a.txt => taken.txt");

    // The folder is gone locally: the move fails and name, path and parent key come back.
    ASSERT_TRUE(QDir(at(QStringLiteral("docs"))).removeRecursively());
    const QString other = folder(QStringLiteral("other"), harness->rootKey);
    db->moveDirectory(record(QStringLiteral("docs"), {}, {}, docs, other, {}), context);
    const DirectoryPtr moved = db->getDirectoryWithKey(docs, context);
    EXPECT_EQ(moved->path(), at(QStringLiteral("docs")));
    EXPECT_EQ(moved->pkey(), harness->rootKey);
    EXPECT_TRUE(diagnostics.contains(QStringLiteral("Rename directory fail: ")));
    EXPECT_FALSE(activity.logObjects().last().isSuccess());
}

TEST_F(ServerOperationsTest, HostileNamesAndPathsNeverLeaveTheSyncFolder)
{
    LogCapture diagnostics;
    const QString outside = syncDir.path() + QStringLiteral("/outside");
    ASSERT_TRUE(TestUtil::writeFile(outside + QStringLiteral("/victim.txt"), "keep me"));
    const QString docs = folder(QStringLiteral("docs"), harness->rootKey);
    const QString a = file(QStringLiteral("docs/a.txt"), "aaa", docs);
    // The server announces a real item but answers INFO for it with a hostile name and path.
    const QString evil = server().makeFolder(ServerHarness::user(), QStringLiteral("evil"));
    server().replyWithBody(QStringLiteral("INFO"),
                           "<XML><INFO><DIR NAME=\"../../outside\" PATH=\"/etc\" TIME=\"20200101000000\" "
                           "OWNER=\"x\"/></INFO></XML>");
    const Tree before = localTree(syncDir.path());
    const QString nul = QStringLiteral("a") + QChar(0) + QStringLiteral("b");

    const QList<QStringList> folders = {
        record(QStringLiteral("outside"), QStringLiteral("-1"), {}, evil, docs,
               root + QStringLiteral("/../outside/new")),
        record(QStringLiteral("x"), QStringLiteral("-1"), {}, evil, docs, QStringLiteral("/tmp/x")),
        record(QStringLiteral(".."), QStringLiteral("-1"), {}, evil, docs, at(QStringLiteral(".."))),
        record(QStringLiteral("a/b"), QStringLiteral("-1"), {}, evil, docs, at(QStringLiteral("a/b"))),
        record(nul, QStringLiteral("-1"), {}, evil, docs, at(nul)),
        record(QStringLiteral("root"), QStringLiteral("-1"), {}, evil, docs, root),
        record(QStringLiteral("rel"), QStringLiteral("-1"), {}, evil, docs,
               QStringLiteral("CloudFolder/rel")),
    };
    for (const QStringList &hostile : folders) {
        db->insertDir(hostile, context);
        db->insertFile(hostile, context);
    }
    EXPECT_EQ(context->fetch<Directory>().size(), 1);
    EXPECT_EQ(context->fetch<File>().size(), 1);

    // The INFO reply's fields are data, never a place: this insert stays where the record says.
    db->insertDir(record(QStringLiteral("evil"), QStringLiteral("-1"), {}, evil, harness->rootKey,
                         at(QStringLiteral("evil"))),
                  context);
    ASSERT_TRUE(db->getDirectoryWithKey(evil, context));
    EXPECT_EQ(db->getDirectoryWithKey(evil, context)->path(), at(QStringLiteral("evil")));
    EXPECT_EQ(db->getDirectoryWithKey(evil, context)->time(), u"20200101000000");

    for (const QString &name :
         {QStringLiteral("../outside"), QStringLiteral(".."), QStringLiteral("."), QString(), nul}) {
        db->renameDirectory(record(name, {}, {}, docs, {}, {}), context);
        db->renameFile(record(name, {}, {}, a, {}, {}), context);
        db->moveFile(record(name, {}, {}, a, harness->rootKey, {}), context);
        db->moveDirectory(record(name, {}, {}, docs, harness->rootKey, {}), context);
    }
    // Rows that somehow hold paths outside (a damaged catalogue) are not acted on either.
    const auto planted = context->insertNewObject<Directory>();
    planted->setKey(QStringLiteral("planted"));
    planted->setName(QStringLiteral("outside"));
    planted->setPath(outside);
    ASSERT_TRUE(context->save());
    db->moveFile(record(QStringLiteral("a.txt"), {}, {}, a, QStringLiteral("planted"), {}), context);
    db->renameDirectory(record(QStringLiteral("gone"), {}, {}, QStringLiteral("planted"), {}, {}), context);
    db->deleteDirectory(QStringLiteral("planted"), context);
    db->changePathOfFile(outside, at(QStringLiteral("docs")), context);
    QString md5;
    EXPECT_FALSE(db->downloadFileTo(outside + QStringLiteral("/victim.txt"), QStringLiteral("victim.txt"),
                                    &md5, a, QStringLiteral("20200101000000")));

    Tree after = localTree(syncDir.path());
    after.remove(QStringLiteral("CloudFolder/evil"));
    EXPECT_EQ(after, before);
    EXPECT_EQ(db->getFileWithKey(a, context)->path(), at(QStringLiteral("docs/a.txt")));
    EXPECT_EQ(db->getDirectoryWithKey(docs, context)->path(), at(QStringLiteral("docs")));
    EXPECT_FALSE(QFileInfo::exists(dataHome.path() + QStringLiteral("/Trash")));
    EXPECT_TRUE(diagnostics.contains(QStringLiteral("outside the sync folder skipped")));
    EXPECT_TRUE(diagnostics.contains(QStringLiteral("with an unusable name skipped")));
    EXPECT_FALSE(server().requestedCommands().contains(QStringLiteral("DOWNLOAD")));
}

TEST_F(ServerOperationsTest, AFileIsTakenForItsDownloadOnlyWhileNothingChangedIt)
{
    const QString key = server().putFile(ServerHarness::user(), QStringLiteral("n.txt"), "1234",
                                         QStringLiteral("20220304050607"));
    const QString file = at(QStringLiteral("n.txt"));
    bool fetched = false;
    QString md5;
    ASSERT_TRUE(runOffMainThread([&] {
        fetched = db->downloadFileTo(file, QStringLiteral("n.txt"), &md5, key, QStringLiteral("20220304050607"));
    }));
    ASSERT_TRUE(fetched);
    EXPECT_TRUE(db->isAsDownloaded(file));
    EXPECT_TRUE(db->isAsDownloaded(file)); // asking does not use it up
    EXPECT_FALSE(db->isAsDownloaded(at(QStringLiteral("other.txt"))));
    // Written again with the same size and its date put back: only the change time tells.
    const QDateTime dated = QFileInfo(file).lastModified();
    ASSERT_TRUE(TestUtil::writeFile(file, "5678"));
    ASSERT_TRUE(setMTime(file, dated));
    EXPECT_FALSE(db->isAsDownloaded(file));
    // Replaced by another file of the same contents: another inode.
    ASSERT_TRUE(runOffMainThread([&] {
        fetched = db->downloadFileTo(file, QStringLiteral("n.txt"), &md5, key, QStringLiteral("20220304050607"));
    }));
    ASSERT_TRUE(fetched && db->isAsDownloaded(file));
    ASSERT_TRUE(QFile::copy(file, file + QStringLiteral(".copy")));
    ASSERT_TRUE(QFile::remove(file) && QFile::rename(file + QStringLiteral(".copy"), file));
    ASSERT_TRUE(setMTime(file, dated));
    EXPECT_FALSE(db->isAsDownloaded(file));
}

TEST_F(ServerOperationsTest, ServerClockAndItemDetails)
{
    const QString id = db->getServerID();
    EXPECT_EQ(id.size(), 14);
    db->updateLastCheckWithCurrentTimeOfServer(context);
    EXPECT_EQ(db->getInfomation()->lastUpdate().size(), 14);
    EXPECT_FALSE(context->hasChanges());
    const QString body = QString::fromUtf8(server().requestLog().first().body);
    EXPECT_EQ(body,
              QStringLiteral("<XML><SERVERTIME SESSION =\"%1\"></SERVERTIME></XML>").arg(harness->session));

    // A reply that is not XML: nothing, and nothing stored changes.
    const QString stored = db->getInfomation()->lastUpdate();
    server().replyWithBody(QStringLiteral("SERVERTIME"), "-3");
    db->updateLastCheckWithCurrentTimeOfServer(context);
    EXPECT_EQ(db->getInfomation()->lastUpdate(), stored);
    server().replyWithBody(QStringLiteral("SERVERTIME"), "-3");
    EXPECT_TRUE(db->getServerID().isNull());

    const QString key = server().putFile(ServerHarness::user(), QStringLiteral("n.txt"), "1234",
                                         QStringLiteral("20220304050607"));
    ASSERT_TRUE(db->getInfoOfItemWithKey(key));
    // Its own connection resends until a reply comes.
    server().clearRequestLog();
    Fault cut; // answers broken off after their head, which the network layer does not resend itself
    cut.kind = Fault::Kind::CutReply;
    cut.command = QStringLiteral("INFO");
    cut.count = 2;
    server().addFault(cut);
    const std::optional<QStringList> info = db->getInfomationOfItemWithKey(key);
    ASSERT_TRUE(info);
    ASSERT_EQ(info->size(), 9);
    EXPECT_EQ(info->at(0), u"n.txt");
    EXPECT_EQ(info->at(2), u"20220304050607");
    EXPECT_EQ(info->at(3), u"4");
    EXPECT_EQ(info->at(8), u"bob");
    EXPECT_EQ(server().requestedCommands(), QStringList(3, QStringLiteral("INFO")));
    EXPECT_EQ(
        QString::fromUtf8(server().requestLog().first().body),
        QStringLiteral("<XML><INFO SESSION=\"%1\"><KEY>%2</KEY></INFO></XML>").arg(harness->session, key));

    EXPECT_TRUE(db->getInfomationOfItemWithKey(QStringLiteral("999999"))->isEmpty()); // no such item
    server().replyWithBody(QStringLiteral("INFO"), "<html>oops");
    FvError error;
    EXPECT_FALSE(db->getInfomationOfItemWithKey(key, &error));
    EXPECT_FALSE(error.isNull());
    // An insert that meets it ends without a row.
    server().replyWithBody(QStringLiteral("INFO"), "<html>oops");
    EXPECT_FALSE(db->insertFile(record(QStringLiteral("n.txt"), QStringLiteral("4"), {}, key,
                                       harness->rootKey, at(QStringLiteral("n.txt"))),
                                context));
    EXPECT_TRUE(context->fetch<File>().isEmpty());
}

TEST_F(ServerOperationsTest, OwnConnectionInfoIsPacedAndStopsOnlyWhenClosedAndCancelled)
{
    const double scale = Pace::scale();
    Pace::setScale(0.05); // a second between tries is 50 ms here
    const auto restoreScale = qScopeGuard([scale] { Pace::setScale(scale); });
    LogCapture diagnostics;
    QTcpServer closed;
    ASSERT_TRUE(closed.listen(QHostAddress::LocalHost));
    services->setConfigValue(QStringLiteral("127.0.0.1:%1").arg(closed.serverPort()),
                             QStringLiteral("kKeyDomain"));
    closed.close(); // every try is refused at once

    std::optional<std::optional<QStringList>> result;
    QThread *worker = QThread::create([&] { result = db->getInfomationOfItemWithKey(QStringLiteral("1")); });
    worker->start();
    auto attempts = [&] { return diagnostics.lines().filter(QStringLiteral("error get data")).size(); };
    ASSERT_TRUE(TestUtil::waitFor([&] { return attempts() >= 2; }));
    // Paced: five more tries take at least five pauses, where unpaced they take a few milliseconds.
    QElapsedTimer clock;
    clock.start();
    const qsizetype before = attempts();
    ASSERT_TRUE(TestUtil::waitFor([&] { return attempts() >= before + 5; }));
    EXPECT_GE(clock.elapsed(), 4 * Pace::ms(1000));
    worker->requestInterruption(); // alone, it does not end the loop
    const qsizetype seen = attempts();
    ASSERT_TRUE(TestUtil::waitFor([&] { return attempts() >= seen + 3; }));
    EXPECT_FALSE(worker->isFinished());
    DatabaseUtils::destroy(); // now both hold
    ASSERT_TRUE(TestUtil::waitFor([&] { return worker->isFinished(); }));
    worker->wait();
    delete worker;
    ASSERT_TRUE(result.has_value());
    EXPECT_FALSE(result->has_value());
}
