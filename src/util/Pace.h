#pragma once
// Owns the time scale: every timer interval and pause of the program goes through here, so that
// FERROVANE_TIME_SCALE (a factor, default 1) can shrink them for tests and demos. A factor of 0
// skips the pauses (for measurements of the work alone: a retry loop then retries at once) and
// leaves the timers at their real rates.
// FERROVANE_TIMER_SCALE, when set, scales the timer intervals and polling waits (ms()) on its own,
// so that a measurement can shrink the pauses without making every timer fire more often.
// Also keeps count of what the pauses took, for a diagnostic line (how much of a run was pacing).
// Thread-safe.

#include <QtGlobal>

namespace Pace {
// The factor read once from FERROVANE_TIME_SCALE (invalid or negative values mean 1).
double scale();
// Overrides the factor (tests that start with a scale other than the environment's).
void setScale(double factor);
// The factor of timer intervals: FERROVANE_TIMER_SCALE when it is a valid factor, else scale(), or
// 1 when that is 0.
double timerScale();
// Overrides the timer factor; a non-positive value makes it follow scale() again.
void setTimerScale(double factor);
// A timer interval or polling wait: `milliseconds` times timerScale(), rounded, at least 1 when
// `milliseconds` > 0.
int ms(qint64 milliseconds);
// Blocks the calling thread for `milliseconds` times scale() (rounded, at least 1 ms); at a scale
// of 0 it only counts the pause.
void sleep(qint64 milliseconds);

// The pauses of sleep() so far: how many, and the wall time during which at least one thread was
// in one (pauses on several threads at the same time count once).
struct Spent
{
    qint64 pauses = 0;
    qint64 pausedNs = 0;
};
Spent spent();
} // namespace Pace
