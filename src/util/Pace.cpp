#include "util/Pace.h"

#include <QMutex>
#include <QThread>
#include <QtGlobal>
#include <atomic>
#include <chrono>
#include <cmath>
#include <limits>

namespace {
// A valid factor from the environment (zero only where `zeroAllowed`), or `fallback`.
double readFactor(const char *name, double fallback, bool zeroAllowed = false)
{
    bool ok = false;
    const double value = qEnvironmentVariable(name).toDouble(&ok);
    return (ok && std::isfinite(value) && (value > 0 || (zeroAllowed && value == 0))) ? value : fallback;
}

// 0: no pauses at all, timers at their real rates (unless the timer factor says otherwise).
std::atomic<double> &factor()
{
    static std::atomic<double> value{readFactor("FERROVANE_TIME_SCALE", 1.0, true)};
    return value;
}

// 0: timers follow factor().
std::atomic<double> &timerFactor()
{
    static std::atomic<double> value{readFactor("FERROVANE_TIMER_SCALE", 0.0)};
    return value;
}

int scaled(qint64 milliseconds, double by)
{
    if (milliseconds <= 0)
        return 0;
    const double value = std::llround(double(milliseconds) * by);
    return int(qBound(1.0, value, double(std::numeric_limits<int>::max())));
}

using Clock = std::chrono::steady_clock;

// The account of the pauses: a span opens when the first thread starts one and closes when the
// last one under way ends.
struct Account
{
    QMutex lock;
    int sleepers = 0;
    qint64 pauses = 0;
    Clock::time_point spanStart;
    Clock::duration paused{};
};

Account &account()
{
    static Account value;
    return value;
}
} // namespace

namespace Pace {

double scale()
{
    return factor().load();
}

void setScale(double value)
{
    if (value >= 0 && std::isfinite(value))
        factor() = value;
}

double timerScale()
{
    const double timers = timerFactor().load();
    if (timers > 0)
        return timers;
    const double pauses = scale();
    return pauses > 0 ? pauses : 1.0; // a timer of no interval would spin
}

void setTimerScale(double value)
{
    timerFactor() = (value > 0 && std::isfinite(value)) ? value : 0.0;
}

int ms(qint64 milliseconds)
{
    return scaled(milliseconds, timerScale());
}

void sleep(qint64 milliseconds)
{
    if (milliseconds <= 0)
        return;
    Account &a = account();
    const double by = scale();
    if (by == 0) {
        // Skipped, but counted: a measurement still sees how many rests the work had.
        QMutexLocker lock(&a.lock);
        ++a.pauses;
        return;
    }
    const int pause = scaled(milliseconds, by);
    {
        QMutexLocker lock(&a.lock);
        ++a.pauses;
        if (a.sleepers++ == 0)
            a.spanStart = Clock::now();
    }
    QThread::msleep(ulong(pause));
    QMutexLocker lock(&a.lock);
    if (--a.sleepers == 0)
        a.paused += Clock::now() - a.spanStart;
}

Spent spent()
{
    Account &a = account();
    QMutexLocker lock(&a.lock);
    Clock::duration paused = a.paused;
    if (a.sleepers > 0)
        paused += Clock::now() - a.spanStart;
    return {a.pauses, qint64(std::chrono::duration_cast<std::chrono::nanoseconds>(paused).count())};
}

} // namespace Pace
