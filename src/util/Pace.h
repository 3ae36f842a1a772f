#pragma once
// Owns the time scale: every timer interval and pause of the program goes through here, so that
// FERROVANE_TIME_SCALE (a positive factor, default 1) can shrink them for tests and demos.
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
} // namespace Pace
