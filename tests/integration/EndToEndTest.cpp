// The whole product at work: the real ferrovane-server, headless clients on computers of their own
// (each with its own session bus and so its own ferrovane-daemon), and whole-state checks: the
// server's tree (with MD5s) equals every sync folder equals every catalogue.
#include "integration/EndToEndSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QTemporaryDir>
#include <QUrlQuery>
#include <csignal>
#include <cstdio>
#include <gtest/gtest.h>
#include <memory>

using namespace EndToEnd;

namespace {

const QString kUser = QStringLiteral("alice");
const QString kPassword = QStringLiteral("s3cret & <sure>");
constexpr int kConverge = 90000;

// Names that have tripped up path and XML handling before.
const QString kUnicodeFolder = QStringLiteral("Fotos \u00dcberblick \u65e5\u672c");
const QString kSpecialFile = QStringLiteral("a&b <c> \"d\" 'e'.txt");
const QString kDecomposed = QStringLiteral("Cafe\u0301 menu.txt");
const QString kDecomposedFolder = QStringLiteral("Mu\u0308ller");

class EndToEndTest : public AccountTest
{
protected:
    EndToEndTest() : AccountTest(kUser, kPassword) {}

    std::unique_ptr<Computer> computer(const QString &name)
    {
        return std::make_unique<Computer>(name, server);
    }

    void seed()
    {
        ASSERT_TRUE(server.mkdir(kUser, QStringLiteral("/docs")));
        ASSERT_TRUE(server.mkdir(kUser, QStringLiteral("/docs/deep")));
        ASSERT_TRUE(server.mkdir(kUser, QStringLiteral("/docs/deep/deeper")));
        ASSERT_TRUE(server.mkdir(kUser, QStringLiteral("/") + kUnicodeFolder));
        ASSERT_TRUE(server.mkdir(kUser, QStringLiteral("/empty")));
        ASSERT_TRUE(
            server.put(kUser, QStringLiteral("/readme.txt"), "hello\n", QStringLiteral("20240102030405")));
        ASSERT_TRUE(server.put(kUser, QStringLiteral("/docs/") + kSpecialFile, "special",
                               QStringLiteral("20230615120000")));
        ASSERT_TRUE(server.put(kUser, QStringLiteral("/docs/deep/deeper/big.bin"),
                               QByteArray(3 * 1024 * 1024 + 7, 'x')));
        ASSERT_TRUE(server.put(
            kUser, QStringLiteral("/") + kUnicodeFolder + QStringLiteral("/\u00e9t\u00e9.jpg"), "jpeg?"));
        ASSERT_TRUE(server.put(kUser, QStringLiteral("/docs/empty.txt"), QByteArray()));
    }

    // Server tree == every computer's sync folder == its catalogue.
    ::testing::AssertionResult inStep(const QList<Computer *> &computers, const Compare &how = {})
    {
        const Tree expected = server.tree(kUser);
        for (Computer *c : computers) {
            QString diff = difference(expected, c->localTree(), how);
            if (!diff.isEmpty())
                return ::testing::AssertionFailure() << qPrintable(c->name()) << " sync folder:\n"
                                                     << qPrintable(diff);
            diff = difference(expected, c->catalogueTree(kUser), how);
            if (!diff.isEmpty())
                return ::testing::AssertionFailure() << qPrintable(c->name()) << " catalogue:\n"
                                                     << qPrintable(diff);
        }
        return ::testing::AssertionSuccess();
    }

    ::testing::AssertionResult converge(const QList<Computer *> &computers, const Compare &how = {},
                                        int timeoutMs = kConverge)
    {
        if (waitFor([&] { return bool(inStep(computers, how)); }, timeoutMs))
            return ::testing::AssertionSuccess();
        ::testing::AssertionResult result = inStep(computers, how);
        for (Computer *c : computers) {
            // The whole conversation goes to a file; the failure shows where.
            const QString file = QDir::temp().filePath(
                QStringLiteral("ferrovane-e2e-%1-%2.log")
                    .arg(QString::fromUtf8(::testing::UnitTest::GetInstance()->current_test_info()->name()),
                         c->name()));
            QFile log(file);
            if (log.open(QIODevice::WriteOnly))
                log.write(
                    (c->output().join(u'\n') + QStringLiteral("\n--- stderr\n") + c->errorOutput()).toUtf8());
            result << "\n--- " << qPrintable(c->name()) << " said: see " << qPrintable(file);
        }
        return result;
    }

    // Waits for `count` more work-list passes of a computer's client (seen in its output).
    bool passes(Computer &c, int count)
    {
        const auto done = [&c] {
            int n = 0;
            for (const QString &line : c.output())
                n += line.contains(QLatin1String("Read sync list complete"));
            return n;
        };
        const int target = done() + count;
        return waitFor([&] { return done() >= target; }, kConverge);
    }
};

QStringList changeCommands(const QStringList &log)
{
    QStringList changes;
    for (const QString &command : log) {
        if (command == u"PUT" || command == u"DEL" || command == u"RENAME" || command == u"MOVE" ||
            command == u"UPLOAD")
            changes << command;
    }
    return changes;
}

} // namespace

TEST_F(EndToEndTest, FirstSyncMirrorsTheServerTreeWithDatesAndSendsNothingBack)
{
    seed();
    auto a = computer(QStringLiteral("a"));
    server.clearLog();
    ASSERT_TRUE(a->startSyncing(kUser, kPassword));
    ASSERT_TRUE(converge({a.get()}, {.dates = true, .folderDates = true}));
    EXPECT_TRUE(QFile::exists(a->path(QStringLiteral("/docs/") + kSpecialFile)));

    // Several passes later nothing has gone back to the server.
    ASSERT_TRUE(passes(*a, 3));
    EXPECT_EQ(changeCommands(server.commandLog()), QStringList());
    EXPECT_EQ(a->pendingTasks(kUser), 0);
    EXPECT_EQ(a->stopClient(), 0);
}

TEST_F(EndToEndTest, LocalChangesOfEveryKindReachTheServerAndTheOtherComputer)
{
    seed();
    auto a = computer(QStringLiteral("a"));
    auto b = computer(QStringLiteral("b"));
    ASSERT_TRUE(a->startSyncing(kUser, kPassword));
    ASSERT_TRUE(b->startSyncing(kUser, kPassword));
    ASSERT_TRUE(converge({a.get(), b.get()}));
    QDir root(a->syncFolder());

    // New file and folder (with a file inside), names that need escaping.
    ASSERT_TRUE(a->writeFile(QStringLiteral("/new folder/inside.txt"), "inside"));
    ASSERT_TRUE(a->writeFile(QStringLiteral("/") + kSpecialFile, "top special"));
    ASSERT_TRUE(a->writeFile(QStringLiteral("/") + kDecomposed, "composed?"));
    ASSERT_TRUE(a->writeFile(QStringLiteral("/") + kDecomposedFolder + QStringLiteral("/first.txt"), "1"));
    ASSERT_TRUE(converge({a.get(), b.get()}));
    // The server names them composed; the other computer changes them under that spelling, and
    // this one keeps its own spelling rather than making a second item.
    const QString composedName = kDecomposed.normalized(QString::NormalizationForm_C);
    const QString composedFolder = kDecomposedFolder.normalized(QString::NormalizationForm_C);
    ASSERT_TRUE(b->writeFile(QStringLiteral("/") + composedName, "composed, and longer now"));
    ASSERT_TRUE(b->writeFile(QStringLiteral("/") + composedFolder + QStringLiteral("/second.txt"), "2"));
    ASSERT_TRUE(converge({a.get(), b.get()}));
    EXPECT_TRUE(QFile::exists(a->path(QStringLiteral("/") + kDecomposed)));

    // Edit in place, and an editor's atomic save (temporary file renamed over the original).
    ASSERT_TRUE(a->writeFile(QStringLiteral("/readme.txt"), "hello again, longer\n"));
    ASSERT_TRUE(a->writeFile(QStringLiteral("/docs/.empty.txt.swp"), "edited by an editor"));
    // (QDir::rename refuses to replace a file; an editor's save does just that.)
    ASSERT_EQ(std::rename(QFile::encodeName(a->path(QStringLiteral("/docs/.empty.txt.swp"))).constData(),
                          QFile::encodeName(a->path(QStringLiteral("/docs/empty.txt"))).constData()),
              0);
    ASSERT_TRUE(converge({a.get(), b.get()}));

    // Rename and move of files and folders.
    ASSERT_TRUE(root.rename(QStringLiteral("readme.txt"), QStringLiteral("README.md")));
    ASSERT_TRUE(root.rename(QStringLiteral("docs/deep"), QStringLiteral("docs/shallow")));
    ASSERT_TRUE(converge({a.get(), b.get()}));
    ASSERT_TRUE(root.rename(QStringLiteral("README.md"), QStringLiteral("docs/README.md")));
    ASSERT_TRUE(root.rename(QStringLiteral("docs/shallow"), QStringLiteral("empty/shallow")));
    ASSERT_TRUE(converge({a.get(), b.get()}));

    // Delete a file and a folder with contents.
    ASSERT_TRUE(QFile::remove(a->path(QStringLiteral("/docs/README.md"))));
    ASSERT_TRUE(QDir(a->path(QStringLiteral("/") + kUnicodeFolder)).removeRecursively());
    ASSERT_TRUE(converge({a.get(), b.get()}));

    // A tree moved in from outside, and one moved out.
    QTemporaryDir outside(a->syncFolder() + QStringLiteral("/../outside-XXXXXX"));
    ASSERT_TRUE(QDir().mkpath(outside.filePath(QStringLiteral("incoming/sub"))));
    ASSERT_TRUE(QFile(outside.filePath(QStringLiteral("incoming/sub/one.txt"))).open(QIODevice::WriteOnly));
    ASSERT_TRUE(
        QDir().rename(outside.filePath(QStringLiteral("incoming")), a->path(QStringLiteral("/incoming"))));
    ASSERT_TRUE(converge({a.get(), b.get()}));
    ASSERT_TRUE(QDir().rename(a->path(QStringLiteral("/empty")), outside.filePath(QStringLiteral("left"))));
    ASSERT_TRUE(converge({a.get(), b.get()}));

    EXPECT_EQ(a->pendingTasks(kUser), 0);
    EXPECT_EQ(b->pendingTasks(kUser), 0);
}

TEST_F(EndToEndTest, ServerChangesOfEveryKindReachBothComputers)
{
    seed();
    auto a = computer(QStringLiteral("a"));
    auto b = computer(QStringLiteral("b"));
    ASSERT_TRUE(a->startSyncing(kUser, kPassword));
    ASSERT_TRUE(b->startSyncing(kUser, kPassword));
    ASSERT_TRUE(converge({a.get(), b.get()}));

    ASSERT_TRUE(server.mkdir(kUser, QStringLiteral("/from server")));
    ASSERT_TRUE(server.put(kUser, QStringLiteral("/from server/") + kSpecialFile, "made elsewhere"));
    ASSERT_TRUE(server.put(kUser, QStringLiteral("/readme.txt"), "changed elsewhere, longer\n"));
    ASSERT_TRUE(converge({a.get(), b.get()}, {.dates = true}));

    ASSERT_TRUE(server.rename(kUser, QStringLiteral("/docs/deep"), QStringLiteral("d\u00e9ep")));
    ASSERT_TRUE(server.rename(kUser, QStringLiteral("/readme.txt"), QStringLiteral("read me.txt")));
    ASSERT_TRUE(server.move(kUser, QStringLiteral("/read me.txt"), QStringLiteral("/docs")));
    ASSERT_TRUE(server.move(kUser, QStringLiteral("/docs/d\u00e9ep"), QStringLiteral("/from server")));
    ASSERT_TRUE(converge({a.get(), b.get()}));

    ASSERT_TRUE(server.remove(kUser, QStringLiteral("/docs/") + kSpecialFile));
    ASSERT_TRUE(server.remove(kUser, QStringLiteral("/") + kUnicodeFolder));
    ASSERT_TRUE(converge({a.get(), b.get()}));
    EXPECT_EQ(a->pendingTasks(kUser), 0);
}

TEST_F(EndToEndTest, SessionExpiryAndBrokenRepliesDelayChangesButLoseNone)
{
    seed();
    auto a = computer(QStringLiteral("a"));
    ASSERT_TRUE(a->startSyncing(kUser, kPassword));
    ASSERT_TRUE(converge({a.get()}));

    const QList<QJsonObject> faults = {
        {{QStringLiteral("kind"), QStringLiteral("body")},
         {QStringLiteral("command"), QStringLiteral("WORKLIST")},
         {QStringLiteral("body"), QStringLiteral("-3")}},
        {{QStringLiteral("kind"), QStringLiteral("body")},
         {QStringLiteral("command"), QStringLiteral("WORKLIST")},
         {QStringLiteral("body"), QStringLiteral("-2")}},
        {{QStringLiteral("kind"), QStringLiteral("body")},
         {QStringLiteral("command"), QStringLiteral("WORKLIST")},
         {QStringLiteral("body"), QStringLiteral("<html>proxy error")},
         {QStringLiteral("count"), 4}},
        {{QStringLiteral("kind"), QStringLiteral("drop")},
         {QStringLiteral("command"), QStringLiteral("*")},
         {QStringLiteral("count"), 3}},
        {{QStringLiteral("kind"), QStringLiteral("cut-reply")},
         {QStringLiteral("command"), QStringLiteral("PUT")}},
        {{QStringLiteral("kind"), QStringLiteral("drop-after")},
         {QStringLiteral("command"), QStringLiteral("PUT")}},
        {{QStringLiteral("kind"), QStringLiteral("cut-reply")},
         {QStringLiteral("command"), QStringLiteral("UPLOAD")}},
        {{QStringLiteral("kind"), QStringLiteral("drop-after")},
         {QStringLiteral("command"), QStringLiteral("UPLOAD")}},
        {{QStringLiteral("kind"), QStringLiteral("drop")},
         {QStringLiteral("command"), QStringLiteral("UPLOAD")}},
        {{QStringLiteral("kind"), QStringLiteral("status")},
         {QStringLiteral("command"), QStringLiteral("WORKLIST")},
         {QStringLiteral("status"), 503}},
        {{QStringLiteral("kind"), QStringLiteral("drop-after")},
         {QStringLiteral("command"), QStringLiteral("INFO")}},
        {{QStringLiteral("kind"), QStringLiteral("cut-download")},
         {QStringLiteral("command"), QStringLiteral("DOWNLOAD")},
         {QStringLiteral("bytes"), 3}},
    };
    int round = 0;
    for (const QJsonObject &fault : faults) {
        SCOPED_TRACE(QJsonDocument(fault).toJson().constData());
        ++round;
        ASSERT_TRUE(server.fault(fault));
        // One change on each side while the fault is armed.
        ASSERT_TRUE(a->writeFile(QStringLiteral("/local %1.txt").arg(round), QByteArray(round * 100, 'l')));
        ASSERT_TRUE(
            server.put(kUser, QStringLiteral("/remote %1.txt").arg(round), QByteArray(round * 10, 'r')));
        // The fault must have struck, or this round proves nothing.
        ASSERT_TRUE(waitFor([&] { return server.pendingFaults() == 0; }, kConverge));
        ASSERT_TRUE(converge({a.get()}));
        server.clearFaults();
    }
    // Expired sessions on the server side: the client signs in again by itself.
    ASSERT_TRUE(
        server.ok(server.post(QStringLiteral("/sessions/expire"), {{QStringLiteral("user"), kUser}})));
    ASSERT_TRUE(server.put(kUser, QStringLiteral("/after expiry.txt"), "still here"));
    ASSERT_TRUE(converge({a.get()}));
    EXPECT_TRUE(a->clientRunning());
}

TEST_F(EndToEndTest, ServerAndDaemonRestartsLoseNoChange)
{
    seed();
    auto a = computer(QStringLiteral("a"));
    ASSERT_TRUE(a->startSyncing(kUser, kPassword));
    ASSERT_TRUE(converge({a.get()}));

    server.stop();
    ASSERT_TRUE(a->writeFile(QStringLiteral("/while server was down.txt"), "offline edit"));
    ASSERT_TRUE(QFile::remove(a->path(QStringLiteral("/docs/empty.txt"))));
    QString error;
    ASSERT_TRUE(server.start(&error)) << qPrintable(error);
    ASSERT_TRUE(converge({a.get()}));

    const qint64 daemon = a->daemonPid();
    ASSERT_GT(daemon, 0);
    ::kill(pid_t(daemon), SIGKILL);
    ASSERT_TRUE(a->writeFile(QStringLiteral("/while daemon was down.txt"), "unwatched"));
    ASSERT_TRUE(QFile::remove(a->path(QStringLiteral("/readme.txt"))));
    ASSERT_TRUE(converge({a.get()}));
    EXPECT_TRUE(waitFor([&] { return a->daemonPid() > 0 && a->daemonPid() != daemon; }, kConverge));
    ASSERT_TRUE(a->writeFile(QStringLiteral("/after daemon restart.txt"), "watched again"));
    ASSERT_TRUE(converge({a.get()}));

    // What changed while the client itself was stopped, on both sides, is found when it starts.
    EXPECT_EQ(a->stopClient(), 0);
    ASSERT_TRUE(a->writeFile(QStringLiteral("/while client was stopped.txt"), "offline"));
    ASSERT_TRUE(QDir().mkpath(a->path(QStringLiteral("/new empty folder"))));
    ASSERT_TRUE(QFile::remove(a->path(QStringLiteral("/docs/") + kSpecialFile)));
    ASSERT_TRUE(QDir(a->path(QStringLiteral("/docs/deep"))).removeRecursively());
    ASSERT_TRUE(server.put(kUser, QStringLiteral("/made while stopped.txt"), "server side"));
    ASSERT_TRUE(a->startSyncing(kUser, kPassword));
    ASSERT_TRUE(converge({a.get()}));
    EXPECT_FALSE(server.tree(kUser).contains(QStringLiteral("/docs/deep/deeper/big.bin")));
}

TEST_F(EndToEndTest, ServerNamesThatLeaveTheSyncFolderChangeNothingOutsideIt)
{
    ASSERT_TRUE(server.put(kUser, QStringLiteral("/known.txt"), "known"));
    ASSERT_TRUE(server.mkdir(kUser, QStringLiteral("/kept")));
    auto a = computer(QStringLiteral("a"));
    ASSERT_TRUE(a->startSyncing(kUser, kPassword));
    ASSERT_TRUE(converge({a.get()}));
    QString fileKey, folderKey;
    for (const QJsonValue &v :
         server.get(QStringLiteral("/tree?user=") + kUser).value(QStringLiteral("entries")).toArray()) {
        const QString path = v[QStringLiteral("path")].toString();
        (path.endsWith(QLatin1String("known.txt")) ? fileKey : folderKey) =
            v[QStringLiteral("key")].toString();
    }
    ASSERT_FALSE(fileKey.isEmpty());
    ASSERT_FALSE(folderKey.isEmpty());

    // Everything around the sync folder, two levels up, as it was before.
    const QString home = QFileInfo(a->syncFolder()).absolutePath();
    const QString above = QFileInfo(home).absolutePath();
    const auto around = [&] {
        const auto flags = QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System;
        return QDir(home).entryList(flags) + QStringList{QStringLiteral("--")} + QDir(above).entryList(flags);
    };
    const QStringList before = around();

    const QString now = server.get(QStringLiteral("/time")).value(QStringLiteral("time")).toString();
    // Names and paths that climb out, names with "/" in them, absolute paths; for new and known items.
    const QString hostile =
        QStringLiteral(
            "<XML><WORKLIST ID=\"%1\">"
            "<ADD ID=\"%1\" KEY=\"900001\" FOLDER=\"0\" NAME=\"../escaped.txt\" SIZE=\"3\" MD5=\"\" "
            "PKEY=\"1\" TIME=\"%1\">syncfolder/../escaped.txt</ADD>"
            "<ADD ID=\"%1\" KEY=\"900002\" FOLDER=\"1\" NAME=\"/tmp\" SIZE=\"0\" MD5=\"\" PKEY=\"1\" "
            "TIME=\"%1\">/tmp/owned</ADD>"
            "<ADD ID=\"%1\" KEY=\"900004\" FOLDER=\"0\" NAME=\"ok.txt\" SIZE=\"3\" MD5=\"\" PKEY=\"1\" "
            "TIME=\"%1\">syncfolder/../../ok.txt</ADD>"
            "<ADD ID=\"%1\" KEY=\"900005\" FOLDER=\"1\" NAME=\"..\" SIZE=\"-1\" MD5=\"\" PKEY=\"1\" "
            "TIME=\"%1\">syncfolder/..</ADD>"
            "<RENAME ID=\"%1\" KEY=\"900003\" FOLDER=\"0\" NAME=\"../../renamed\">x</RENAME>"
            "<RENAME ID=\"%1\" KEY=\"%2\" FOLDER=\"0\" NAME=\"../renamed-out.txt\">x</RENAME>"
            "<RENAME ID=\"%1\" KEY=\"%2\" FOLDER=\"0\" NAME=\"kept/inside.txt\">x</RENAME>"
            "<RENAME ID=\"%1\" KEY=\"%3\" FOLDER=\"1\" NAME=\"..\">x</RENAME>"
            "<MOVE ID=\"%1\" KEY=\"%3\" FOLDER=\"1\" NAME=\"../../moved-out\" "
            "DEST_PARENT_KEY=\"999999\">x</MOVE>"
            "<MOVE ID=\"%1\" KEY=\"%2\" FOLDER=\"0\" NAME=\"/etc/passwd\" DEST_PARENT_KEY=\"%3\">x</MOVE>"
            "</WORKLIST></XML>")
            .arg(now, fileKey, folderKey);
    ASSERT_TRUE(server.fault({{QStringLiteral("kind"), QStringLiteral("body")},
                              {QStringLiteral("command"), QStringLiteral("WORKLIST")},
                              {QStringLiteral("body"), hostile}}));
    // NUL, as a character reference and raw: such a reply is unreadable, never half applied.
    for (const QString &nul : {QStringLiteral("&#0;"), QString(QChar(0))}) {
        ASSERT_TRUE(server.fault(
            {{QStringLiteral("kind"), QStringLiteral("body")},
             {QStringLiteral("command"), QStringLiteral("WORKLIST")},
             {QStringLiteral("body"),
              QStringLiteral(
                  "<XML><WORKLIST ID=\"%1\"><RENAME ID=\"%1\" KEY=\"%2\" FOLDER=\"0\" NAME=\"a%3b\">x"
                  "</RENAME><ADD ID=\"%1\" KEY=\"900006\" FOLDER=\"0\" NAME=\"n%3.txt\" SIZE=\"1\" "
                  "MD5=\"\" PKEY=\"1\" TIME=\"%1\">syncfolder/n%3.txt</ADD></WORKLIST></XML>")
                  .arg(now, fileKey, nul)}}));
    }
    ASSERT_TRUE(waitFor([&] { return server.pendingFaults() == 0; }, kConverge));
    ASSERT_TRUE(passes(*a, 2));
    EXPECT_EQ(around(), before);
    EXPECT_FALSE(QFile::exists(QStringLiteral("/tmp/owned")));
    EXPECT_TRUE(a->clientRunning());

    // A first synchronisation whose listing holds such names makes nothing outside either.
    auto b = computer(QStringLiteral("b"));
    ASSERT_TRUE(QDir().mkpath(b->syncFolder()));
    const QString bHome = QFileInfo(b->syncFolder()).absolutePath();
    const QStringList bBefore = QDir(bHome).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    const QString listing =
        QStringLiteral(
            "<XML><SYNCLIST KEY=\"1\">"
            "<DIR NAME=\"..\" TIME=\"%1\" SIZE=\"-1\" KEY=\"900010\" PKEY=\"1\"/>"
            "<DIR NAME=\"a/../../b\" TIME=\"%1\" SIZE=\"-1\" KEY=\"900011\" PKEY=\"1\"/>"
            "<FILE NAME=\"../../escaped.txt\" MD5=\"\" TIME=\"%1\" SIZE=\"3\" KEY=\"900012\" PKEY=\"1\"/>"
            "<FILE NAME=\"/etc/passwd\" MD5=\"\" TIME=\"%1\" SIZE=\"3\" KEY=\"900013\" PKEY=\"1\"/>"
            "<FILE NAME=\"\" MD5=\"\" TIME=\"%1\" SIZE=\"3\" KEY=\"900014\" PKEY=\"1\"/>"
            "</SYNCLIST></XML>")
            .arg(now);
    ASSERT_TRUE(server.fault({{QStringLiteral("kind"), QStringLiteral("body")},
                              {QStringLiteral("command"), QStringLiteral("SYNCLIST")},
                              {QStringLiteral("body"), listing}}));
    ASSERT_TRUE(b->startSyncing(kUser, kPassword));
    ASSERT_TRUE(passes(*b, 1));
    EXPECT_EQ(QDir(bHome).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden), bBefore);
    EXPECT_EQ(QDir(b->syncFolder()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
              QStringList());

    // Both go on syncing the rest; the known items were neither renamed nor moved.
    ASSERT_TRUE(server.put(kUser, QStringLiteral("/fine.txt"), "fine"));
    ASSERT_TRUE(converge({a.get()}));
    ASSERT_TRUE(waitFor([&] { return QFile::exists(b->path(QStringLiteral("/fine.txt"))); }, kConverge));
    EXPECT_EQ(around(), before);
}

TEST_F(EndToEndTest, LookAlikeServerNamesNeverTakeEachOthersPlace)
{
    // Case twins are distinct items here, files and folders alike.
    ASSERT_TRUE(server.put(kUser, QStringLiteral("/Report.txt"), "upper"));
    ASSERT_TRUE(server.put(kUser, QStringLiteral("/report.txt"), "lower, longer"));
    ASSERT_TRUE(server.put(kUser, QStringLiteral("/Docs/a.txt"), "in Docs"));
    ASSERT_TRUE(server.put(kUser, QStringLiteral("/docs/a.txt"), "in docs, longer"));
    ASSERT_TRUE(server.put(kUser, QStringLiteral("/docs/b.txt"), "b"));
    // Spelling twins: one name composed and decomposed, two items on the server (another client
    // made the second). The decomposed one sorts first in a listing.
    const QString composed = QStringLiteral("Caf\u00e9.txt");
    const QString decomposed = composed.normalized(QString::NormalizationForm_D);
    ASSERT_TRUE(server.put(kUser, u'/' + composed, "composed"));
    ASSERT_TRUE(server.put(kUser, u'/' + decomposed, "decomposed, longer"));
    const auto serverMd5s = [&] {
        QMap<QString, QString> md5s; // by the path as the server spells it
        QUrlQuery query;
        query.addQueryItem(QStringLiteral("user"), kUser);
        for (const QJsonValue &v : server.get(QStringLiteral("/tree?") + query.toString(QUrl::FullyEncoded))
                                       .value(QStringLiteral("entries"))
                                       .toArray())
            md5s.insert(v[QStringLiteral("path")].toString(), v[QStringLiteral("md5")].toString());
        return md5s;
    };
    const auto spellings = [](Computer &c, const QString &name) {
        QStringList found;
        for (const QString &entry : QDir(c.syncFolder()).entryList(QDir::Files | QDir::Hidden)) {
            if (entry.normalized(QString::NormalizationForm_C) ==
                name.normalized(QString::NormalizationForm_C))
                found << entry;
        }
        return found;
    };
    const auto content = [](Computer &c, const QString &relative) {
        QFile file(c.path(relative));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<none>");
    };
    const QMap<QString, QString> before = serverMd5s();

    auto a = computer(QStringLiteral("a"));
    ASSERT_TRUE(a->startSyncing(kUser, kPassword));
    ASSERT_TRUE(waitFor([&] { return content(*a, QStringLiteral("/docs/b.txt")) == "b"; }, kConverge));
    ASSERT_TRUE(passes(*a, 2));
    EXPECT_EQ(content(*a, QStringLiteral("/Report.txt")), "upper");
    EXPECT_EQ(content(*a, QStringLiteral("/report.txt")), "lower, longer");
    EXPECT_EQ(content(*a, QStringLiteral("/Docs/a.txt")), "in Docs");
    EXPECT_EQ(content(*a, QStringLiteral("/docs/a.txt")), "in docs, longer");
    // The composed twin (the spelling this client sends) is the one kept, whole.
    EXPECT_EQ(spellings(*a, composed), QStringList{composed});
    EXPECT_EQ(content(*a, u'/' + composed), "composed");
    EXPECT_EQ(a->catalogueTree(kUser).value(u'/' + composed).md5, md5Hex("composed"));

    // A decomposed twin of a name already here, through the work list: skipped, nothing written.
    ASSERT_TRUE(server.put(kUser, QStringLiteral("/\u00dcber.txt"), "first"));
    ASSERT_TRUE(waitFor([&] { return content(*a, QStringLiteral("/\u00dcber.txt")) == "first"; }, kConverge));
    ASSERT_TRUE(server.put(kUser, QStringLiteral("/U\u0308ber.txt"), "second, longer"));
    ASSERT_TRUE(server.put(kUser, QStringLiteral("/Docs/U\u0308ber.txt"), "alone in its folder"));
    // (Alone in its folder, a decomposed name is no twin: it comes as spelled.)
    ASSERT_TRUE(
        waitFor([&] { return content(*a, QStringLiteral("/Docs/U\u0308ber.txt")) == "alone in its folder"; },
                kConverge));
    EXPECT_EQ(spellings(*a, QStringLiteral("\u00dcber.txt")), QStringList{QStringLiteral("\u00dcber.txt")});
    EXPECT_EQ(content(*a, QStringLiteral("/\u00dcber.txt")), "first");

    // Neither side writes over the other, and nothing goes back and forth.
    server.clearLog();
    ASSERT_TRUE(passes(*a, 3));
    EXPECT_EQ(changeCommands(server.commandLog()), QStringList());
    const QMap<QString, QString> after = serverMd5s();
    for (auto it = before.cbegin(); it != before.cend(); ++it)
        EXPECT_EQ(after.value(it.key()), *it) << qPrintable(it.key());

    // A folder deleted or renamed on the server leaves its case twin and that one's catalogue rows.
    ASSERT_TRUE(server.remove(kUser, QStringLiteral("/docs")));
    ASSERT_TRUE(server.rename(kUser, QStringLiteral("/report.txt"), QStringLiteral("REPORT.txt")));
    // With the decomposed twins gone the three places agree in full.
    ASSERT_TRUE(server.remove(kUser, u'/' + decomposed));
    ASSERT_TRUE(server.remove(kUser, QStringLiteral("/U\u0308ber.txt")));
    ASSERT_TRUE(converge({a.get()}));
    EXPECT_EQ(content(*a, QStringLiteral("/Docs/a.txt")), "in Docs");

    // And this computer's edit of a look-alike reaches the right item.
    ASSERT_TRUE(a->writeFile(QStringLiteral("/Report.txt"), "upper, edited here"));
    ASSERT_TRUE(converge({a.get()}));
    EXPECT_EQ(server.tree(kUser).value(QStringLiteral("/REPORT.txt")).md5, md5Hex("lower, longer"));
}

TEST_F(EndToEndTest, StoppingInTheMiddleAndAnotherUserLeaveConsistentStores)
{
    seed();
    for (int i = 0; i < 40; ++i)
        ASSERT_TRUE(server.put(kUser, QStringLiteral("/docs/many/f%1.txt").arg(i), QByteArray::number(i)));
    auto a = computer(QStringLiteral("a"));

    // Stopped during the first synchronisation: the next start completes it.
    ASSERT_TRUE(a->startSyncing(kUser, kPassword));
    ASSERT_TRUE(waitFor([&] { return a->catalogueTree(kUser).size() > 5; }, kConverge));
    EXPECT_EQ(a->stopClient(), 0);
    ASSERT_TRUE(a->startSyncing(kUser, kPassword));
    ASSERT_TRUE(converge({a.get()}));

    // Stopped in the middle of sending local changes: nothing is lost.
    for (int i = 0; i < 20; ++i)
        ASSERT_TRUE(a->writeFile(QStringLiteral("/batch/b%1.txt").arg(i), QByteArray(i + 1, 'b')));
    ASSERT_TRUE(
        waitFor([&] { return server.tree(kUser).contains(QStringLiteral("/batch/b3.txt")); }, kConverge));
    EXPECT_EQ(a->stopClient(), 0);
    ASSERT_TRUE(a->startSyncing(kUser, kPassword));
    ASSERT_TRUE(converge({a.get()}));
    EXPECT_EQ(a->stopClient(), 0);

    // Another user on the same computer: their own store and tree; the first store is untouched.
    const QString bob = QStringLiteral("bob");
    ASSERT_TRUE(server.addUser(bob, QStringLiteral("pw")));
    ASSERT_TRUE(server.put(bob, QStringLiteral("/bob.txt"), "bob's"));
    const Tree aliceCatalogue = a->catalogueTree(kUser);
    ASSERT_TRUE(QDir(a->syncFolder()).removeRecursively());
    ASSERT_TRUE(a->startClient({QStringLiteral("--domain"), server.domain(), QStringLiteral("--user"), bob,
                                QStringLiteral("--password-stdin"), QStringLiteral("--folder"),
                                a->syncFolder(), QStringLiteral("--sync")},
                               QStringLiteral("pw")));
    // The file lands before its catalogue entry is saved: wait for both.
    ASSERT_TRUE(waitFor(
        [&] {
            return difference(server.tree(bob), a->localTree()).isEmpty() &&
                   difference(server.tree(bob), a->catalogueTree(bob)).isEmpty();
        },
        kConverge))
        << qPrintable(difference(server.tree(bob), a->localTree()))
        << qPrintable(difference(server.tree(bob), a->catalogueTree(bob)));
    EXPECT_EQ(a->catalogueTree(kUser), aliceCatalogue);
    EXPECT_EQ(a->stopClient(), 0);
}

TEST_F(EndToEndTest, OnceSyncsBothWaysAndSaysWhetherItEndedInStep)
{
    seed();
    auto a = computer(QStringLiteral("a"));
    const QStringList signIn = {QStringLiteral("--domain"),
                                server.domain(),
                                QStringLiteral("--user"),
                                kUser,
                                QStringLiteral("--password-stdin"),
                                QStringLiteral("--folder"),
                                a->syncFolder(),
                                QStringLiteral("--pc-name"),
                                a->name(),
                                QStringLiteral("--verbose")};
    const auto lines = [&](const QString &first, const QString &second) {
        QStringList found;
        for (const QString &line : a->output()) {
            const QStringList fields = line.split(u'\t');
            if (fields.value(0) == first && fields.value(1) == second)
                found << line;
        }
        return found;
    };

    // The first sync, once.
    ASSERT_EQ(a->runClient(signIn + QStringList{QStringLiteral("--once")}, kPassword, kConverge), 0)
        << qPrintable(a->output().join(u'\n'));
    EXPECT_EQ(lines(QStringLiteral("status"), QStringLiteral("in-step")).size(), 1);
    EXPECT_TRUE(inStep({a.get()}));

    // Changes on both sides while no client ran; stored credentials sign in.
    ASSERT_TRUE(a->writeFile(QStringLiteral("/made offline.txt"), "offline"));
    ASSERT_TRUE(QFile::remove(a->path(QStringLiteral("/readme.txt"))));
    ASSERT_TRUE(server.put(kUser, QStringLiteral("/docs/from elsewhere.txt"), "elsewhere"));
    ASSERT_EQ(a->runClient({QStringLiteral("--once"), QStringLiteral("--pc-name"), a->name()}, QString(),
                           kConverge),
              0)
        << qPrintable(a->output().join(u'\n'));
    EXPECT_TRUE(inStep({a.get()}));

    // The server goes away while a change is being sent: not in step, and said why.
    ASSERT_TRUE(a->writeFile(QStringLiteral("/big.bin"), QByteArray(2 * 1024 * 1024, 'b')));
    ASSERT_TRUE(server.fault({{QStringLiteral("kind"), QStringLiteral("delay")},
                              {QStringLiteral("command"), QStringLiteral("UPLOAD")},
                              {QStringLiteral("ms"), 3000}}));
    server.clearLog();
    ASSERT_TRUE(a->startClient({QStringLiteral("--once"), QStringLiteral("--pc-name"), a->name()}));
    ASSERT_TRUE(waitFor([&] { return server.commandLog().contains(QStringLiteral("UPLOAD")); }, kConverge));
    server.stop();
    ASSERT_TRUE(waitFor([&] { return !a->clientRunning(); }, kConverge));
    EXPECT_EQ(a->stopClient(), 4) << qPrintable(a->output().join(u'\n'));
    EXPECT_EQ(lines(QStringLiteral("error"), QStringLiteral("unreachable")).size(), 1)
        << qPrintable(a->output().join(u'\n'));
    EXPECT_TRUE(lines(QStringLiteral("status"), QStringLiteral("in-step")).isEmpty());

    // Back again: the change is sent and the next run ends in step.
    QString error;
    ASSERT_TRUE(server.start(&error)) << qPrintable(error);
    ASSERT_EQ(a->runClient({QStringLiteral("--once"), QStringLiteral("--pc-name"), a->name()}, QString(),
                           kConverge),
              0)
        << qPrintable(a->output().join(u'\n'));
    EXPECT_TRUE(inStep({a.get()}));
}
