#include "util/Pace.h"

#include <QMutex>
#include <QThread>
#include <QtGlobal>

#include <atomic>
#include <chrono>
#include <cmath>
#include <limits>

namespace {
double readScale()
{
    bool ok = false;
    const double value = qEnvironmentVariable("FERROVANE_TIME_SCALE").toDouble(&ok);
    return (ok && value > 0 && std::isfinite(value)) ? value : 1.0;
}

std::atomic<double> &factor()
{
    static std::atomic<double> value{readScale()};
    return value;
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

double scale() { return factor().load(); }

void setScale(double value)
{
    if (value > 0 && std::isfinite(value))
        factor() = value;
}

int ms(qint64 milliseconds)
{
    if (milliseconds <= 0)
        return 0;
    const double scaled = std::llround(double(milliseconds) * scale());
    return int(qBound(1.0, scaled, double(std::numeric_limits<int>::max())));
}

void sleep(qint64 milliseconds)
{
    const int scaled = ms(milliseconds);
    if (scaled <= 0)
        return;
    Account &a = account();
    {
        QMutexLocker lock(&a.lock);
        ++a.pauses;
        if (a.sleepers++ == 0)
            a.spanStart = Clock::now();
    }
    QThread::msleep(ulong(scaled));
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
