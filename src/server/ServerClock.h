#pragma once
// The server's clock in its own fixed-offset zone ("+hhmm" / "-hhmm"). Every time the server sends
// or stores is a 14-digit "yyyyMMddHHmmss" string in that zone; internally times are seconds since
// the epoch. Immutable after construction, so any thread may use it.

#include <QString>

class ServerClock
{
public:
    // Parses "+hhmm" / "-hhmm" (hours up to 14, minutes below 60) into seconds east of UTC.
    static bool parseZone(const QString &zone, int *offsetSeconds);

    explicit ServerClock(int offsetSeconds = 9 * 3600);

    int offsetSeconds() const { return m_offset; }
    // The zone written back as "+hhmm" / "-hhmm".
    QString zoneText() const;
    qint64 nowEpoch() const;
    QString now() const { return format(nowEpoch()); }
    QString format(qint64 epochSeconds) const;
    // Reads exactly 14 digits that make a valid date and time in the server zone.
    bool parse(const QString &text, qint64 *epochSeconds) const;
    bool isValid(const QString &text) const;

private:
    int m_offset;
};
