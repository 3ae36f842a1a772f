#include "util/Pace.h"

#include <QThread>
#include <QtGlobal>

#include <atomic>
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
    if (scaled > 0)
        QThread::msleep(ulong(scaled));
}

} // namespace Pace
