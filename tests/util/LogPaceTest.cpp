#include "util/Log.h"
#include "util/Pace.h"

#include <gtest/gtest.h>

namespace {
QString g_last;
void capture(const QString &line)
{
    g_last = line;
}
} // namespace

TEST(Log, LineCarriesFileStemFunctionLineAndMessage)
{
    EXPECT_EQ(Log::format("/a/b/RestClient.cpp", "void RestClient::f()", 42, QStringLiteral("hi")),
              QStringLiteral("[CLASS: RestClient]void RestClient::f()[LINE: 42]hi"));
    EXPECT_EQ(Log::format("NoFolder", "g", 1, QString()), QStringLiteral("[CLASS: NoFolder]g[LINE: 1]"));

    Log::setSink(&capture);
    const int line = __LINE__ + 1;
    FV_LOG(QStringLiteral("message %1").arg(7));
    Log::setSink(nullptr);
    EXPECT_TRUE(g_last.startsWith(QStringLiteral("[CLASS: LogPaceTest]")));
    EXPECT_TRUE(g_last.endsWith(QStringLiteral("[LINE: %1]message 7").arg(line)));
}

TEST(Pace, ScalesIntervalsAndNeverRoundsAPositiveWaitToZero)
{
    const double old = Pace::scale();
    Pace::setScale(0.01);
    EXPECT_EQ(Pace::ms(60000), 600);
    EXPECT_EQ(Pace::ms(10), 1);
    EXPECT_EQ(Pace::ms(0), 0);
    Pace::setScale(-3); // ignored
    EXPECT_DOUBLE_EQ(Pace::scale(), 0.01);
    Pace::setScale(old);
}
