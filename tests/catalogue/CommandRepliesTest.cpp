// Reading the task commands' replies and SERVERTIME / INFO, apart from the senders.

#include "catalogue/CommandReplies.h"

#include "xml/GDataXMLNode.h"

#include <gtest/gtest.h>

namespace {

std::shared_ptr<GDataXMLDocument> reply(const char *xml)
{
    FvError error;
    auto document = GDataXMLDocument::initWithData(QByteArray(xml), 0, &error);
    EXPECT_TRUE(document) << xml;
    return document;
}

} // namespace

TEST(CommandReplies, PutRefusalEndsTheReadingAndTheLastNamedItemWins)
{
    auto put = CommandReplies::readPut(reply(
        "<XML><PUT><FILE KEY=\"1\" PKEY=\"2\">1</FILE><!-- c --><DIR KEY=\"3\" PKEY=\"4\"> -1 </DIR></PUT>"
        "<PUT><FILE KEY=\"9\">1</FILE></PUT></XML>"));
    EXPECT_FALSE(put.refusal);
    EXPECT_TRUE(put.named);
    EXPECT_EQ(put.key, u"3");
    EXPECT_EQ(put.pkey, u"4");

    put = CommandReplies::readPut(
        reply("<XML><PUT><A KEY=\"1\">1</A><B KEY=\"2\">-3</B><C KEY=\"5\">1</C></PUT></XML>"));
    EXPECT_EQ(put.refusal, -3);
    // Text that is no number is a refusal too (code 0).
    EXPECT_EQ(CommandReplies::readPut(reply("<XML><PUT><A KEY=\"1\">ok</A></PUT></XML>")).refusal, 0);

    for (const auto &document :
         {reply("<XML><PUT/></XML>"), reply("<XML/>"), std::shared_ptr<GDataXMLDocument>()}) {
        put = CommandReplies::readPut(document);
        EXPECT_FALSE(put.refusal);
        EXPECT_FALSE(put.named);
    }
    // An item without KEY is named with a null key.
    put = CommandReplies::readPut(reply("<XML><PUT><FILE>1</FILE></PUT></XML>"));
    EXPECT_TRUE(put.named);
    EXPECT_TRUE(put.key.isNull());
}

TEST(CommandReplies, InfoIsTheFirstElementChildOfTheFirstInfo)
{
    const QStringList fields = CommandReplies::readInfo(reply(
        "<XML><INFO>text<!-- c --><FILE NAME=\"a\" TIME=\"20240101120000\" OWNER=\"o\"/><DIR NAME=\"b\"/>"
        "</INFO><INFO><FILE NAME=\"c\"/></INFO></XML>"));
    ASSERT_EQ(fields.size(), 9);
    EXPECT_EQ(fields[0], u"a");
    EXPECT_TRUE(fields[1].isNull());
    EXPECT_EQ(fields[2], u"20240101120000");
    EXPECT_EQ(fields[8], u"o");

    EXPECT_TRUE(CommandReplies::readInfo(reply("<XML><INFO>no item</INFO></XML>")).isEmpty());
    EXPECT_TRUE(CommandReplies::readInfo(reply("<XML><LIST/></XML>")).isEmpty());
    EXPECT_TRUE(CommandReplies::readInfo(nullptr).isEmpty());
}

TEST(CommandReplies, ServerTimeIsTheIdOfTheFirstServertime)
{
    EXPECT_EQ(CommandReplies::readServerTime(
                  reply("<XML><SERVERTIME ID=\"20240131235959\"/><SERVERTIME ID=\"1\"/></XML>")),
              u"20240131235959");
    EXPECT_TRUE(CommandReplies::readServerTime(reply("<XML><SERVERTIME/></XML>")).isNull());
    EXPECT_TRUE(CommandReplies::readServerTime(reply("<SERVERTIME ID=\"1\"/>"))
                    .isNull()); // the root itself is no child
    EXPECT_TRUE(CommandReplies::readServerTime(nullptr).isNull());
}
