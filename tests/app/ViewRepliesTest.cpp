// Reading the LOGIN and QUOTA replies, apart from the views.

#include "app/ViewReplies.h"

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

TEST(ViewReplies, LastLoginElementWinsAndAbsentAttributesAreNull)
{
    auto login = ViewReplies::readLogin(
        reply("<XML><LOGIN RESULT=\"-1\" ID=\"first\" TIMEZONE=\"+0100\"/><LOGIN RESULT=\"s2\"/></XML>"));
    EXPECT_EQ(login.result, u"s2");
    EXPECT_TRUE(login.mailId.isNull());
    EXPECT_TRUE(login.timezone.isNull());

    login = ViewReplies::readLogin(reply("<XML><LOGIN TIMEZONE=\"-0530\" ID=\"a&amp;b\"/></XML>"));
    EXPECT_TRUE(login.result.isNull()); // counts as success
    EXPECT_EQ(login.timezone, u"-0530");
    EXPECT_EQ(login.mailId, u"a&b");

    EXPECT_TRUE(ViewReplies::readLogin(reply("<XML><QUOTA RESULT=\"x\"/></XML>")).result.isNull());
    EXPECT_TRUE(ViewReplies::readLogin(nullptr).result.isNull());
}

TEST(ViewReplies, QuotaReadsTheFirstQuotaByTheGivenNames)
{
    auto quota = ViewReplies::readQuota(
        reply("<XML><QUOTA TOTAL=\" 2048 \" USED=\"1.5\" ALL=\"7\"/><QUOTA TOTAL=\"9\"/></XML>"),
        QStringLiteral("TOTAL"), QStringLiteral("USED"));
    EXPECT_EQ(quota.total, 2048);
    EXPECT_EQ(quota.used, 1.5);
    quota = ViewReplies::readQuota(reply("<XML><QUOTA TOTAL=\"2048\" ALL=\"7\"/></XML>"),
                                   QStringLiteral("ALL"), QStringLiteral("USED"));
    EXPECT_EQ(quota.total, 7);
    EXPECT_EQ(quota.used, 0);
    quota = ViewReplies::readQuota(reply("<XML><QUOTA TOTAL=\"lots\" USED=\"\"/></XML>"),
                                   QStringLiteral("TOTAL"), QStringLiteral("USED"));
    EXPECT_EQ(quota.total, 0);
    EXPECT_EQ(quota.used, 0);
    EXPECT_EQ(ViewReplies::readQuota(nullptr, QStringLiteral("TOTAL"), QStringLiteral("USED")).total, 0);
}
