#pragma once
// Owns the time scale: every timer interval and pause of the program goes through here, so that
// FERROVANE_TIME_SCALE (a positive factor, default 1) can shrink them for tests and demos.
// Also keeps count of what the pauses took, for a diagnostic line (how much of a run was pacing).
// Thread-safe.

#include <QtGlobal>

namespace Pace {
// The factor read once from FERROVANE_TIME_SCALE (invalid or non-positive values mean 1).
double scale();
// Overrides the factor (tests that start with a scale other than the environment's).
void setScale(double factor);
// `milliseconds` scaled, rounded, at least 1 when `milliseconds` > 0.
int ms(qint64 milliseconds);
// Blocks the calling thread for the scaled time.
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
