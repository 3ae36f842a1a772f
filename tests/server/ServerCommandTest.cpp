#include "ServerTestClient.h"
#include "server/ServerClock.h"

#include <QRegularExpression>

namespace {
const QString kPc = QStringLiteral("pc-one");

const XmlElement *childNamed(const XmlElement &element, const QString &name, const QString &attr = {},
                             const QString &value = {})
{
    for (const XmlElement &child : element.children) {
        if (child.name == name && (attr.isEmpty() || child.attribute(attr) == value))
            return &child;
    }
    return nullptr;
}
} // namespace

TEST(ServerClockTest, ZonesAndFourteenDigitTimes)
{
    int offset = 0;
    EXPECT_TRUE(ServerClock::parseZone(QStringLiteral("+0900"), &offset));
    EXPECT_EQ(offset, 32400);
    EXPECT_TRUE(ServerClock::parseZone(QStringLiteral("-0530"), &offset));
    EXPECT_EQ(offset, -19800);
    for (const char *bad : {"0900", "+09:00", "+2500", "+0960", "", "+09000"})
        EXPECT_FALSE(ServerClock::parseZone(QString::fromLatin1(bad), nullptr)) << bad;

    const ServerClock tokyo(32400);
    EXPECT_EQ(tokyo.zoneText(), u"+0900");
    EXPECT_EQ(ServerClock(-19800).zoneText(), u"-0530");
    EXPECT_EQ(tokyo.format(0), u"19700101090000");
    qint64 epoch = -1;
    ASSERT_TRUE(tokyo.parse(QStringLiteral("19700101090000"), &epoch));
    EXPECT_EQ(epoch, 0);
    for (const char *bad : {"2024010203040", "20241302030405", "2024010203040x", "20240230000000"})
        EXPECT_FALSE(tokyo.isValid(QString::fromLatin1(bad))) << bad;
}

TEST_F(ServerTest, LoginGivesSessionZoneAndMailIdAndRefusesWrongCredentials)
{
    const auto good =
        client->element(QStringLiteral("<XML><LOGIN ID=\"alice\" PASSWORD=\"secret\" ENCODE=\"raw\" "
                                       "PCNAME = \"pc\" MAC=\"m\" VER=\"20130128\"></LOGIN></XML>"));
    ASSERT_TRUE(good);
    EXPECT_EQ(good->name, u"LOGIN");
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^[0-9a-f]{32}$"))
                    .match(good->attribute(QStringLiteral("RESULT")))
                    .hasMatch());
    EXPECT_EQ(good->attribute(QStringLiteral("TIMEZONE")), u"+0900");
    EXPECT_EQ(good->attribute(QStringLiteral("ID")), u"alice@example.com");

    EXPECT_EQ(client->login(QStringLiteral("alice"), QStringLiteral("wrong"), kPc), u"-1");
    EXPECT_EQ(client->login(QStringLiteral("nobody"), QStringLiteral("secret"), kPc), u"-1");
    EXPECT_EQ(client->login(QString(), QString(), kPc), u"-1");

    // Credentials holding XML's special characters arrive escaped and still match.
    ASSERT_TRUE(server->addUser(QStringLiteral("o\"<b>&"), QStringLiteral("p'w<\"&"), {}));
    const QString session = client->login(QStringLiteral("o&quot;&lt;b&gt;&amp;"),
                                          QStringLiteral("p&apos;w&lt;&quot;&amp;"), kPc);
    EXPECT_EQ(session.size(), 32);
    EXPECT_NE(session,
              client->login(QStringLiteral("alice"), QStringLiteral("secret"), kPc)); // one per sign-in
}

TEST_F(ServerTest, UnknownOrExpiredSessionGetsBareMinusThree)
{
    const QString session = client->login(QStringLiteral("alice"), QStringLiteral("secret"), kPc);
    const QStringList templates = {
        QStringLiteral("<XML><QUOTA SESSION=\"%1\" ></QUOTA></XML>"),
        QStringLiteral("<XML><THUMBNAIL SESSION =\"%1\" ><KEY>1</KEY></THUMBNAIL></XML>"),
        QStringLiteral("<XML><LIST SESSION =\"%1\"></LIST></XML>"),
        QStringLiteral("<XML><LIST SESSION =\"%1\" ><DIRKEY> 1 </DIRKEY></LIST></XML>"),
        QStringLiteral("<XML><SYNCLIST SESSION =\"%1\"></SYNCLIST></XML>"),
        QStringLiteral(
            "<XML><WORKLIST SESSION =\"%1\" ID=\"20240101000000\" PCNAME = \"x\"></WORKLIST></XML>"),
        QStringLiteral("<XML><PUT SESSION =\"%1\"  PCNAME=\"x\" ></PUT></XML>"),
        QStringLiteral("<XML><RENAME SESSION =\"%1\"  PCNAME=\"x\" ></RENAME></XML>"),
        QStringLiteral("<XML><DEL SESSION =\"%1\"  PCNAME=\"x\" ></DEL></XML>"),
        QStringLiteral("<XML><MOVE SESSION =\"%1\"  PCNAME=\"x\" ></MOVE></XML>"),
        QStringLiteral("<XML><SERVERTIME SESSION =\"%1\"></SERVERTIME></XML>"),
        QStringLiteral("<XML><INFO SESSION=\"%1\"><KEY>1</KEY></INFO></XML>"),
    };
    for (const QString &body : templates) {
        EXPECT_TRUE(client->element(body.arg(session))) << body.toStdString();
        const HttpReply reply = client->command(body.arg(QStringLiteral("not-a-session")));
        EXPECT_EQ(reply.status, 200);
        EXPECT_EQ(reply.body, "-3") << body.toStdString();
    }
    EXPECT_EQ(server->expireSessions(QStringLiteral("alice")), 1);
    EXPECT_EQ(client->command(templates[0].arg(session)).body, "-3");
    EXPECT_EQ(client->send("POST", QStringLiteral("?do=upload&session=%1&key=1").arg(session), "x")
                  .header("Velmora-result"),
              "-3");
    EXPECT_EQ(client->send("GET", QStringLiteral("?do=download&session=%1&key=1").arg(session)).status, 403);
}

TEST_F(ServerTest, ListingsShowSyncFolderAndItsContents)
{
    const QString session = client->login(QStringLiteral("alice"), QStringLiteral("secret"), kPc);
    const auto top = client->element(QStringLiteral("<XML><LIST SESSION =\"%1\"></LIST></XML>").arg(session));
    ASSERT_TRUE(top);
    ASSERT_EQ(top->children.size(), 3);
    QList<const XmlElement *> syncFolders;
    for (const XmlElement &dir : top->children) {
        EXPECT_EQ(dir.name, u"DIR");
        EXPECT_FALSE(dir.attribute(QStringLiteral("KEY")).isEmpty());
        if (dir.attribute(QStringLiteral("SYNC")) == u"1" && dir.attribute(QStringLiteral("KIND")).isEmpty())
            syncFolders << &dir;
    }
    ASSERT_EQ(syncFolders.size(), 1); // a second SYNC="1" folder carries a KIND and does not count
    const QString rootKey = syncFolders[0]->attribute(QStringLiteral("KEY"));

    const QString subKey = server->makeFolder(QStringLiteral("alice"), QStringLiteral("sub"));
    const QString fileKey = server->putFile(QStringLiteral("alice"), QStringLiteral("sub/a.txt"), "hello",
                                            QStringLiteral("20230405060708"));
    server->putFile(QStringLiteral("alice"), QStringLiteral("top.txt"), "x");

    const auto sync =
        client->element(QStringLiteral("<XML><SYNCLIST SESSION =\"%1\"></SYNCLIST></XML>").arg(session));
    ASSERT_TRUE(sync);
    EXPECT_EQ(sync->name, u"SYNCLIST");
    ASSERT_EQ(sync->children.size(), 2);
    const XmlElement *dir =
        childNamed(*sync, QStringLiteral("DIR"), QStringLiteral("NAME"), QStringLiteral("sub"));
    ASSERT_TRUE(dir);
    EXPECT_EQ(dir->attribute(QStringLiteral("KEY")), subKey);
    EXPECT_EQ(dir->attribute(QStringLiteral("PKEY")), rootKey);
    EXPECT_EQ(dir->attribute(QStringLiteral("TIME")).size(), 14);

    // The folder listing takes the key with blanks around it, as clients send it.
    const auto folder =
        client->element(QStringLiteral("<XML><LIST SESSION =\"%1\" ><DIRKEY> %2 </DIRKEY></LIST></XML>")
                            .arg(session, subKey));
    ASSERT_TRUE(folder);
    ASSERT_EQ(folder->children.size(), 1);
    const XmlElement &file = folder->children[0];
    EXPECT_EQ(file.name, u"FILE");
    EXPECT_EQ(file.attribute(QStringLiteral("NAME")), u"a.txt");
    EXPECT_EQ(file.attribute(QStringLiteral("KEY")), fileKey);
    EXPECT_EQ(file.attribute(QStringLiteral("PKEY")), subKey);
    EXPECT_EQ(file.attribute(QStringLiteral("SIZE")), u"5");
    EXPECT_EQ(file.attribute(QStringLiteral("MD5")), u"5d41402abc4b2a76b9719d911017c592");
    EXPECT_EQ(file.attribute(QStringLiteral("TIME")), u"20230405060708");
    EXPECT_EQ(file.attribute(QStringLiteral("sync")), u"1");
    EXPECT_EQ(file.attribute(QStringLiteral("MEMO")), u"0");

    const auto info = client->element(
        QStringLiteral("<XML><INFO SESSION=\"%1\"><KEY>%2</KEY></INFO></XML>").arg(session, fileKey));
    ASSERT_TRUE(info && !info->children.isEmpty());
    const XmlElement &first = info->children[0];
    const QStringList nine = {QStringLiteral("NAME"), QStringLiteral("PATH"), QStringLiteral("TIME"),
                              QStringLiteral("SIZE"), QStringLiteral("MEMO"), QStringLiteral("PRIV"),
                              QStringLiteral("TAG"),  QStringLiteral("DESC"), QStringLiteral("OWNER")};
    for (const QString &name : nine) {
        const bool present = std::any_of(first.attributes.begin(), first.attributes.end(),
                                         [&](const auto &pair) { return pair.first == name; });
        EXPECT_TRUE(present) << name.toStdString();
    }
    EXPECT_EQ(first.attribute(QStringLiteral("PATH")), u"syncfolder/sub/a.txt");
    EXPECT_EQ(first.attribute(QStringLiteral("TIME")), u"20230405060708");
    EXPECT_EQ(first.attribute(QStringLiteral("SIZE")), u"5");
    EXPECT_EQ(first.attribute(QStringLiteral("OWNER")), u"alice");

    const auto quota =
        client->element(QStringLiteral("<XML><QUOTA SESSION=\"%1\" ></QUOTA></XML>").arg(session));
    ASSERT_TRUE(quota);
    EXPECT_EQ(quota->attribute(QStringLiteral("USED")), u"6");
    EXPECT_EQ(quota->attribute(QStringLiteral("TOTAL")).toLongLong(), 10LL * 1024 * 1024 * 1024);

    const auto thumb =
        client->element(QStringLiteral("<XML><THUMBNAIL SESSION =\"%1\" ><KEY>%2</KEY></THUMBNAIL></XML>")
                            .arg(session, fileKey));
    ASSERT_TRUE(thumb);
    EXPECT_EQ(thumb->attribute(QStringLiteral("RESULT")), u"1");
    EXPECT_EQ(client->send("GET", thumb->attribute(QStringLiteral("URL"))).body, "hello");

    // Unknown keys are answered in the document, not by a transport error.
    for (const QString &body :
         {QStringLiteral("<XML><INFO SESSION=\"%1\"><KEY>999999</KEY></INFO></XML>"),
          QStringLiteral("<XML><LIST SESSION =\"%1\" ><DIRKEY> zz </DIRKEY></LIST></XML>")}) {
        const auto reply = client->element(body.arg(session));
        ASSERT_TRUE(reply);
        EXPECT_TRUE(reply->children.isEmpty());
        EXPECT_EQ(reply->attribute(QStringLiteral("RESULT")), u"-4");
    }
}

TEST_F(ServerTest, PutRenameDelMoveAnswerPerItem)
{
    const QString session = client->login(QStringLiteral("alice"), QStringLiteral("secret"), kPc);
    const auto dir =
        client->element(putFolder(session, kPc, QStringLiteral("docs"), QStringLiteral("/docs")));
    ASSERT_TRUE(dir && dir->children.size() == 1);
    EXPECT_EQ(dir->children[0].name, u"DIR");
    EXPECT_EQ(dir->children[0].text, u"1");
    const QString docsKey = dir->children[0].attribute(QStringLiteral("KEY"));
    EXPECT_FALSE(docsKey.isEmpty());
    // Announcing an existing folder again answers the same key.
    EXPECT_EQ(client->element(putFolder(session, kPc, QStringLiteral("docs"), QStringLiteral("/docs")))
                  ->children[0]
                  .attribute(QStringLiteral("KEY")),
              docsKey);

    auto putCode = [&](const QString &body) {
        const auto reply = client->element(body);
        return reply && reply->children.size() == 1 ? reply->children[0].text : QStringLiteral("<none>");
    };
    EXPECT_EQ(putCode(putFile(session, kPc, QStringLiteral("x"), 1, QStringLiteral("/missing/x"))), u"-11");
    EXPECT_EQ(putCode(putFile(session, kPc, QStringLiteral("docs"), 1, QStringLiteral("/docs"))), u"-12");
    EXPECT_EQ(putCode(putFile(session, kPc, QStringLiteral(".."), 1, QStringLiteral("/.."))), u"-10");
    EXPECT_EQ(putCode(putFile(session, kPc, QStringLiteral("n"), -5, QStringLiteral("/n"))), u"-10");

    const QString aKey = storeFile(session, kPc, QStringLiteral("/docs/a.txt"), "aaa");
    const QString bKey = storeFile(session, kPc, QStringLiteral("/b.txt"), "bbb");
    const QString otherKey = server->makeFolder(QStringLiteral("alice"), QStringLiteral("other"));

    const auto renamed =
        client->element(QStringLiteral("<XML><RENAME SESSION =\"%1\"  PCNAME=\"%2\" >"
                                       "<KEY NAME=\"c.txt\">%3</KEY><KEY NAME=\"b.txt\">%4</KEY>"
                                       "<KEY NAME=\"z\">424242</KEY></RENAME></XML>")
                            .arg(session, kPc, aKey, bKey));
    ASSERT_TRUE(renamed);
    ASSERT_EQ(renamed->children.size(), 3);
    EXPECT_EQ(renamed->children[0].text, u"1");
    EXPECT_EQ(renamed->children[1].text, u"1"); // already so named
    EXPECT_EQ(renamed->children[2].text, u"-4");

    const auto moved =
        client->element(QStringLiteral("<XML><MOVE SESSION =\"%1\"  PCNAME=\"%2\" >"
                                       "<KEY DEST=\"%3\" SRC=\"%4\" FORCE=\"1\"></KEY>"
                                       "<KEY DEST=\"%5\" SRC=\"%3\" FORCE=\"1\"></KEY></MOVE></XML>")
                            .arg(session, kPc, otherKey, docsKey, aKey));
    ASSERT_TRUE(moved);
    ASSERT_EQ(moved->children.size(), 2);
    EXPECT_EQ(moved->children[0].attribute(QStringLiteral("RESULT")), u"1");
    EXPECT_EQ(moved->children[1].attribute(QStringLiteral("RESULT")), u"-14"); // a folder into a file

    // FORCE replaces an item of the same name at the destination.
    server->putFile(QStringLiteral("alice"), QStringLiteral("other/b.txt"), "old");
    const auto forced =
        client->element(QStringLiteral("<XML><MOVE SESSION =\"%1\"  PCNAME=\"%2\" >"
                                       "<KEY DEST=\"%3\" SRC=\"%4\" FORCE=\"1\"></KEY></MOVE></XML>")
                            .arg(session, kPc, otherKey, bKey));
    EXPECT_EQ(forced->children[0].attribute(QStringLiteral("RESULT")), u"1");
    EXPECT_EQ(server->fileContents(QStringLiteral("alice"), QStringLiteral("other/b.txt")), "bbb");

    const auto removed =
        client->element(QStringLiteral("<XML><DEL SESSION =\"%1\"  PCNAME=\"%2\" >"
                                       "<KEY KIND=\"SYNC\">%3</KEY><KEY KIND=\"SYNC\">%3</KEY>"
                                       "</DEL></XML>")
                            .arg(session, kPc, otherKey));
    ASSERT_TRUE(removed && removed->children.size() == 2);
    EXPECT_EQ(removed->children[0].text, u"1");
    EXPECT_EQ(removed->children[1].text, u"-4");
    EXPECT_TRUE(server->tree(QStringLiteral("alice")).isEmpty());
}

TEST_F(ServerTest, WorkListSkipsAskersChangesAndNumbersChangesStrictly)
{
    const QString mine =
        client->login(QStringLiteral("alice"), QStringLiteral("secret"), QStringLiteral("mine"));
    const auto start =
        client->element(QStringLiteral("<XML><SERVERTIME SESSION =\"%1\"></SERVERTIME></XML>").arg(mine));
    ASSERT_TRUE(start);
    const QString since = start->attribute(QStringLiteral("ID"));
    ASSERT_EQ(since.size(), 14);

    // Many changes within the same second, from this computer and from another.
    client->element(
        putFolder(mine, QStringLiteral("mine"), QStringLiteral("local"), QStringLiteral("/local")));
    const QString fileKey = storeFile(mine, QStringLiteral("mine"), QStringLiteral("/local/l.txt"), "l");
    const QString dirKey = server->makeFolder(QStringLiteral("alice"), QStringLiteral("remote"));
    const QString remoteFile = server->putFile(QStringLiteral("alice"), QStringLiteral("remote/r.txt"), "rr",
                                               QStringLiteral("20220101010101"));
    ASSERT_TRUE(
        server->renameItem(QStringLiteral("alice"), QStringLiteral("remote/r.txt"), QStringLiteral("s.txt")));
    ASSERT_TRUE(server->moveItem(QStringLiteral("alice"), QStringLiteral("remote/s.txt"), QString()));
    ASSERT_TRUE(server->deleteItem(QStringLiteral("alice"), QStringLiteral("local/l.txt")));

    const auto list = client->element(workList(mine, since, QStringLiteral("mine")));
    ASSERT_TRUE(list);
    QStringList kinds;
    QString previous = since;
    for (const XmlElement &item : list->children) {
        kinds << item.name;
        const QString id = item.attribute(QStringLiteral("ID"));
        EXPECT_GT(id, previous) << "IDs must strictly increase";
        previous = id;
    }
    EXPECT_EQ(kinds, (QStringList{QStringLiteral("ADD"), QStringLiteral("ADD"), QStringLiteral("RENAME"),
                                  QStringLiteral("MOVE"), QStringLiteral("DEL")}));
    ASSERT_EQ(list->children.size(), 5);
    const XmlElement &addDir = list->children[0];
    EXPECT_EQ(addDir.attribute(QStringLiteral("KEY")), dirKey);
    EXPECT_EQ(addDir.attribute(QStringLiteral("FOLDER")), u"1");
    EXPECT_EQ(addDir.text, u"syncfolder/remote");
    const XmlElement &addFile = list->children[1];
    EXPECT_EQ(addFile.attribute(QStringLiteral("FOLDER")), u"0");
    EXPECT_EQ(addFile.attribute(QStringLiteral("NAME")), u"r.txt");
    EXPECT_EQ(addFile.attribute(QStringLiteral("SIZE")), u"2");
    EXPECT_EQ(addFile.attribute(QStringLiteral("PKEY")), dirKey);
    EXPECT_EQ(addFile.attribute(QStringLiteral("TIME")), u"20220101010101");
    EXPECT_EQ(addFile.attribute(QStringLiteral("MD5")).size(), 32);
    EXPECT_EQ(addFile.text, u"syncfolder/remote/r.txt");
    EXPECT_EQ(list->children[2].attribute(QStringLiteral("NAME")), u"s.txt");
    const auto entries = server->tree(QStringLiteral("alice"));
    const auto moved =
        std::find_if(entries.begin(), entries.end(), [](const TreeEntry &e) { return e.path == u"s.txt"; });
    ASSERT_NE(moved, entries.end());
    EXPECT_EQ(list->children[3].attribute(QStringLiteral("DEST_PARENT_KEY")), moved->parentKey);
    EXPECT_EQ(list->children[3].attribute(QStringLiteral("KEY")), remoteFile);
    EXPECT_EQ(list->children[4].attribute(QStringLiteral("KEY")), fileKey); // deleted by the other computer

    // The reply's ID is where the asker continues: nothing new after it.
    const QString next = list->attribute(QStringLiteral("ID"));
    EXPECT_GE(next, previous);
    EXPECT_TRUE(client->element(workList(mine, next, QStringLiteral("mine")))->children.isEmpty());

    // Another computer sees this computer's changes too; a change after SERVERTIME comes after it.
    const auto theirs = client->element(workList(mine, since, QStringLiteral("theirs")));
    EXPECT_EQ(theirs->children.size(), 7);
    const QString now =
        client->element(QStringLiteral("<XML><SERVERTIME SESSION =\"%1\"></SERVERTIME></XML>").arg(mine))
            ->attribute(QStringLiteral("ID"));
    server->makeFolder(QStringLiteral("alice"), QStringLiteral("later"));
    const auto later = client->element(workList(mine, now, QStringLiteral("mine")));
    ASSERT_EQ(later->children.size(), 1);
    EXPECT_GT(later->children[0].attribute(QStringLiteral("ID")), now);

    // An unusable ID is answered with the present time and no changes.
    const auto bad = client->element(workList(mine, QStringLiteral("(null)"), QStringLiteral("mine")));
    ASSERT_TRUE(bad);
    EXPECT_TRUE(bad->children.isEmpty());
    EXPECT_EQ(bad->attribute(QStringLiteral("ID")).size(), 14);
}
