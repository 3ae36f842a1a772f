#include "util/Log.h"
#include "util/Pace.h"

#include <QElapsedTimer>
#include <QThread>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

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

TEST(Pace, ATimerFactorScalesIntervalsButNotPauses)
{
    const double old = Pace::scale();
    Pace::setScale(0.001);
    Pace::setTimerScale(1);
    EXPECT_EQ(Pace::ms(500), 500);
    const Pace::Spent before = Pace::spent();
    QElapsedTimer wall;
    wall.start();
    Pace::sleep(500); // 1 ms at the pause factor, not 500 at the timer factor
    EXPECT_LT(wall.elapsed(), 400);
    EXPECT_EQ(Pace::spent().pauses - before.pauses, 1);
    Pace::setTimerScale(0); // follows the time scale again
    EXPECT_EQ(Pace::ms(60000), 60);
    Pace::setScale(old);
}

TEST(Pace, AZeroScaleSkipsPausesButCountsThemAndKeepsTimersAtTheirRates)
{
    const double old = Pace::scale();
    Pace::setScale(0);
    EXPECT_EQ(Pace::ms(60000), 60000); // an interval of nothing would spin
    const Pace::Spent before = Pace::spent();
    QElapsedTimer wall;
    wall.start();
    for (int i = 0; i < 50; ++i)
        Pace::sleep(1000);
    EXPECT_LT(wall.elapsed(), 40);
    EXPECT_EQ(Pace::spent().pauses - before.pauses, 50);
    EXPECT_EQ(Pace::spent().pausedNs, before.pausedNs);
    Pace::setTimerScale(0.5);
    EXPECT_EQ(Pace::ms(60000), 30000);
    Pace::setTimerScale(0);
    Pace::setScale(old);
}

TEST(Pace, PausesOnSeveralThreadsAtOnceCountOnceInThePausedTime)
{
    const double old = Pace::scale();
    Pace::setScale(1);
    const Pace::Spent before = Pace::spent();
    QElapsedTimer wall;
    wall.start();
    std::vector<std::unique_ptr<QThread>> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back(QThread::create([] { Pace::sleep(100); }));
    for (auto &thread : threads)
        thread->start();
    for (auto &thread : threads)
        thread->wait();
    const qint64 wallNs = wall.nsecsElapsed();
    const Pace::Spent after = Pace::spent();
    Pace::setScale(old);

    EXPECT_EQ(after.pauses - before.pauses, 4);
    const qint64 paused = after.pausedNs - before.pausedNs;
    EXPECT_GE(paused, 100'000'000);
    // Never more than the wall time around them, however the four overlapped (their sum is 400 ms).
    EXPECT_LE(paused, wallNs);
}
