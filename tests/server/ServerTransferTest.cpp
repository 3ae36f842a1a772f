#include "ServerTestClient.h"
#include "common/TestUtil.h"

#include <QCryptographicHash>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>

namespace {
const QString kPc = QStringLiteral("pc-one");

QByteArray randomBytes(qsizetype size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator generator(42);
    for (char &c : bytes)
        c = char(generator.bounded(256));
    return bytes;
}

QString md5(const QByteArray &bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
}
} // namespace

TEST_F(ServerTest, UploadedBytesComeBackByGetPostAndOffset)
{
    const QString session = client->login(QStringLiteral("alice"), QStringLiteral("secret"), kPc);
    client->element(putFolder(session, kPc, QStringLiteral("d"), QStringLiteral("/d")));
    const QByteArray payload = randomBytes(5 * 1024 * 1024 + 17);
    const auto put = client->element(
        putFile(session, kPc, QStringLiteral("big.bin"), payload.size(), QStringLiteral("/d/big.bin")));
    ASSERT_TRUE(put && put->children.size() == 1);
    const QString key = put->children[0].attribute(QStringLiteral("KEY"));

    // Announced but not yet uploaded: invisible to listings, not downloadable.
    EXPECT_TRUE(server->tree(QStringLiteral("alice")).size() == 1);
    EXPECT_EQ(server->tree(QStringLiteral("alice"), true).size(), 2);
    EXPECT_EQ(client->send("GET", QStringLiteral("?do=download&session=%1&key=%2").arg(session, key)).status,
              404);

    const HttpReply upload =
        client->send("POST", QStringLiteral("/?do=upload&session=%1&key=%2").arg(session, key), payload,
                     {{"Content-Type", "application/stream"}, {"velmora_filetime", "20231231235959"}});
    ASSERT_EQ(upload.header("Velmora-result"), "0");

    const QString base =
        QStringLiteral("cgi-bin/cloudXml.cgi?do=download&session=%1&key=%2").arg(session, key);
    EXPECT_EQ(client->send("GET", base + QStringLiteral("&offset=0")).body, payload);
    EXPECT_EQ(client->send("POST", base).body, payload);
    EXPECT_EQ(client->send("GET", base + QStringLiteral("&offset=5000000")).body, payload.mid(5000000));
    EXPECT_EQ(client->send("GET", base + QStringLiteral("&offset=%1").arg(payload.size())).body,
              QByteArray());
    EXPECT_EQ(client->send("GET", base + QStringLiteral("&offset=%1").arg(payload.size() + 1)).status, 416);

    const auto tree = server->tree(QStringLiteral("alice"));
    ASSERT_EQ(tree.size(), 2);
    EXPECT_EQ(tree[1].path, u"d/big.bin");
    EXPECT_EQ(tree[1].md5, md5(payload));
    EXPECT_EQ(tree[1].size, payload.size());
    EXPECT_EQ(tree[1].time, u"20231231235959");

    // A new version replaces the contents under the same key; the old contents file is gone.
    EXPECT_EQ(storeFile(session, kPc, QStringLiteral("/d/big.bin"), "small"), key);
    EXPECT_EQ(client->send("GET", base).body, "small");
    EXPECT_EQ(QDir(dataDir() + QStringLiteral("/files")).entryList(QDir::Files).size(), 1);
    EXPECT_TRUE(QDir(dataDir() + QStringLiteral("/tmp")).entryList(QDir::Files).isEmpty());

    // Empty files are files too.
    const QString emptyKey = storeFile(session, kPc, QStringLiteral("/empty"), QByteArray());
    EXPECT_EQ(
        client->send("GET", QStringLiteral("?do=download&session=%1&key=%2").arg(session, emptyKey)).status,
        200);
    EXPECT_EQ(server->tree(QStringLiteral("alice")).last().md5, md5({}));
}

TEST_F(ServerTest, UploadsThatCannotLandAreRefused)
{
    const QString session = client->login(QStringLiteral("alice"), QStringLiteral("secret"), kPc);
    const QString folderKey = server->makeFolder(QStringLiteral("alice"), QStringLiteral("f"));
    auto verdict = [&](const QString &key, const QByteArray &body) {
        return client->send("POST", QStringLiteral("?do=upload&session=%1&key=%2").arg(session, key), body)
            .header("Velmora-result");
    };
    EXPECT_EQ(verdict(folderKey, "x"), "-4");
    EXPECT_EQ(verdict(QStringLiteral("99999"), "x"), "-4");
    EXPECT_EQ(verdict(QStringLiteral("abc"), "x"), "-4");

    // Over quota: refused, and what was stored stays.
    const QString key = storeFile(session, kPc, QStringLiteral("/q.bin"), "1234");
    ASSERT_TRUE(server->setQuota(QStringLiteral("alice"), 10));
    EXPECT_EQ(verdict(key, "0123456789A"), "-13");
    EXPECT_EQ(server->fileContents(QStringLiteral("alice"), QStringLiteral("q.bin")), "1234");
    EXPECT_EQ(verdict(key, "0123456789"), "0");
}

TEST_F(ServerTest, StateSurvivesRestart)
{
    const QString session = client->login(QStringLiteral("alice"), QStringLiteral("secret"), kPc);
    const QString key = storeFile(session, kPc, QStringLiteral("/keep.txt"), "kept bytes");
    server->makeFolder(QStringLiteral("alice"), QStringLiteral("dir/sub"));
    const auto before =
        client->element(workList(session, QStringLiteral("20000101000000"), QStringLiteral("other")));
    ASSERT_TRUE(before && !before->children.isEmpty());
    const QString lastId = before->children.last().attribute(QStringLiteral("ID"));
    const auto treeBefore = server->tree(QStringLiteral("alice"));
    const QByteArray certBefore = TestUtil::readFile(server->certificatePath());

    restartServer();
    EXPECT_EQ(TestUtil::readFile(server->certificatePath()), certBefore); // generated once, then reused
    EXPECT_EQ(client->login(QStringLiteral("alice"), QStringLiteral("secret"), kPc).size(), 32);
    // The old session still works, the tree and contents are unchanged, the journal continues.
    EXPECT_EQ(client->send("GET", QStringLiteral("?do=download&session=%1&key=%2").arg(session, key)).body,
              "kept bytes");
    const auto treeAfter = server->tree(QStringLiteral("alice"));
    ASSERT_EQ(treeAfter.size(), treeBefore.size());
    for (qsizetype i = 0; i < treeAfter.size(); ++i) {
        EXPECT_EQ(treeAfter[i].path, treeBefore[i].path);
        EXPECT_EQ(treeAfter[i].key, treeBefore[i].key);
        EXPECT_EQ(treeAfter[i].md5, treeBefore[i].md5);
    }
    server->makeFolder(QStringLiteral("alice"), QStringLiteral("after"));
    const auto after = client->element(workList(session, lastId, QStringLiteral("other")));
    ASSERT_TRUE(after);
    ASSERT_EQ(after->children.size(), 1);
    EXPECT_GT(after->children[0].attribute(QStringLiteral("ID")), lastId);
}

TEST_F(ServerTest, AdminInterfaceChangesAndReadsTheTree)
{
    EXPECT_EQ(client
                  ->admin("POST", QStringLiteral("users"),
                          {{QStringLiteral("id"), QStringLiteral("bob")},
                           {QStringLiteral("password"), QStringLiteral("pw")}})
                  .status,
              200);
    EXPECT_EQ(client->login(QStringLiteral("bob"), QStringLiteral("pw"), kPc).size(), 32);
    auto post = [&](const QString &path, QJsonObject body) {
        body.insert(QStringLiteral("user"), QStringLiteral("bob"));
        return QJsonDocument::fromJson(client->admin("POST", path, body).body).object();
    };
    EXPECT_TRUE(post(QStringLiteral("mkdir"), {{QStringLiteral("path"), QStringLiteral("a/b")}})
                    .value(QStringLiteral("ok"))
                    .toBool());
    EXPECT_TRUE(post(QStringLiteral("put"), {{QStringLiteral("path"), QStringLiteral("a/b/f.bin")},
                                             {QStringLiteral("content_base64"),
                                              QString::fromLatin1(QByteArray("\x00\x01\xff", 3).toBase64())}})
                    .value(QStringLiteral("ok"))
                    .toBool());
    EXPECT_TRUE(post(QStringLiteral("rename"), {{QStringLiteral("path"), QStringLiteral("a/b")},
                                                {QStringLiteral("name"), QStringLiteral("c")}})
                    .value(QStringLiteral("ok"))
                    .toBool());
    EXPECT_TRUE(post(QStringLiteral("move"), {{QStringLiteral("path"), QStringLiteral("a/c/f.bin")},
                                              {QStringLiteral("dest"), QString()}})
                    .value(QStringLiteral("ok"))
                    .toBool());
    const QJsonObject refused =
        post(QStringLiteral("delete"), {{QStringLiteral("path"), QStringLiteral("nope")}});
    EXPECT_FALSE(refused.value(QStringLiteral("ok")).toBool());
    EXPECT_EQ(refused.value(QStringLiteral("code")).toInt(), -4);

    const QJsonArray entries =
        QJsonDocument::fromJson(client->admin("GET", QStringLiteral("tree?user=bob")).body)
            .object()
            .value(QStringLiteral("entries"))
            .toArray();
    QStringList paths;
    for (const QJsonValue &entry : entries)
        paths << entry.toObject().value(QStringLiteral("path")).toString();
    EXPECT_EQ(paths, (QStringList{QStringLiteral("a"), QStringLiteral("a/c"), QStringLiteral("f.bin")}));
    EXPECT_EQ(entries[2].toObject().value(QStringLiteral("md5")).toString(),
              md5(QByteArray("\x00\x01\xff", 3)));
    EXPECT_EQ(client->admin("GET", QStringLiteral("file?user=bob&path=f.bin")).body,
              QByteArray("\x00\x01\xff", 3));

    // Faults through JSON reach the same plan as the in-process calls.
    EXPECT_TRUE(QJsonDocument::fromJson(client
                                            ->admin("POST", QStringLiteral("fault"),
                                                    {{QStringLiteral("kind"), QStringLiteral("body")},
                                                     {QStringLiteral("command"), QStringLiteral("QUOTA")},
                                                     {QStringLiteral("body"), QStringLiteral("-2")}})
                                            .body)
                    .object()
                    .value(QStringLiteral("ok"))
                    .toBool());
    const QString session = client->login(QStringLiteral("bob"), QStringLiteral("pw"), kPc);
    EXPECT_EQ(client->command(QStringLiteral("<XML><QUOTA SESSION=\"%1\" ></QUOTA></XML>").arg(session)).body,
              "-2");
    EXPECT_EQ(
        client->admin("POST", QStringLiteral("fault"), {{QStringLiteral("kind"), QStringLiteral("bogus")}})
            .body.contains("false"),
        true);

    const QJsonArray log = QJsonDocument::fromJson(client->admin("GET", QStringLiteral("log")).body)
                               .object()
                               .value(QStringLiteral("entries"))
                               .toArray();
    ASSERT_FALSE(log.isEmpty());
    EXPECT_EQ(log.last().toObject().value(QStringLiteral("command")).toString(), u"QUOTA");
    EXPECT_TRUE(log.last().toObject().value(QStringLiteral("body")).toString().contains(session));
    EXPECT_EQ(client->admin("GET", QStringLiteral("nothing")).status, 404);
    EXPECT_EQ(client->admin("POST", QStringLiteral("users"), {}).status, 200); // answered, not crashed
}

TEST_F(ServerTest, UpdateDescriptionAndPackageAreServedUnderTheDomain)
{
    const QString base = QStringLiteral("winapp/%1/palmoor/tessaline/").arg(server->domain());
    auto description = client->send("GET", base + QStringLiteral("tessaline.xml"));
    ASSERT_EQ(description.status, 200);
    auto mac = XmlMessage::parseCommand(
        description.body.replace("<update>", "<XML>").replace("</update>", "</XML>"), nullptr);
    ASSERT_TRUE(mac);
    EXPECT_EQ(mac->name, u"update_mac");
    EXPECT_EQ(mac->attribute(QStringLiteral("version")), u"0.0.0");
    EXPECT_EQ(client->send("GET", base + QStringLiteral("ferrovaneupdate.pkg")).status, 404);

    ASSERT_TRUE(server->setUpdate(QStringLiteral("1.2.10"), QStringLiteral("7"), "package bytes"));
    description = client->send("GET", base + QStringLiteral("tessaline.xml"));
    EXPECT_TRUE(description.body.contains("version=\"1.2.10\" build=\"7\""))
        << description.body.toStdString();
    EXPECT_EQ(client->send("GET", base + QStringLiteral("ferrovaneupdate.pkg")).body, "package bytes");
    EXPECT_EQ(client->send("GET", QStringLiteral("winapp/x/other.xml")).status, 404);
}
