#include "server/ServerClock.h"

#include <QDateTime>
#include <QTimeZone>

bool ServerClock::parseZone(const QString &zone, int *offsetSeconds)
{
    if (zone.size() != 5 || (zone[0] != u'+' && zone[0] != u'-'))
        return false;
    for (int i = 1; i < 5; ++i) {
        if (!zone[i].isDigit())
            return false;
    }
    const int hours = zone.mid(1, 2).toInt();
    const int minutes = zone.mid(3, 2).toInt();
    if (hours > 14 || minutes > 59)
        return false;
    const int sign = zone[0] == u'-' ? -1 : 1;
    if (offsetSeconds)
        *offsetSeconds = sign * (hours * 3600 + minutes * 60);
    return true;
}

ServerClock::ServerClock(int offsetSeconds) : m_offset(offsetSeconds) {}

QString ServerClock::zoneText() const
{
    const int total = m_offset < 0 ? -m_offset : m_offset;
    return (m_offset < 0 ? QStringLiteral("-") : QStringLiteral("+")) +
           QStringLiteral("%1%2")
               .arg(total / 3600, 2, 10, QLatin1Char('0'))
               .arg((total % 3600) / 60, 2, 10, QLatin1Char('0'));
}

qint64 ServerClock::nowEpoch() const
{
    return QDateTime::currentSecsSinceEpoch();
}

QString ServerClock::format(qint64 epochSeconds) const
{
    return QDateTime::fromSecsSinceEpoch(epochSeconds, QTimeZone(m_offset))
        .toString(QStringLiteral("yyyyMMddHHmmss"));
}

bool ServerClock::parse(const QString &text, qint64 *epochSeconds) const
{
    if (text.size() != 14)
        return false;
    for (const QChar c : text) {
        if (!c.isDigit())
            return false;
    }
    const QDate date(text.left(4).toInt(), text.mid(4, 2).toInt(), text.mid(6, 2).toInt());
    const QTime time(text.mid(8, 2).toInt(), text.mid(10, 2).toInt(), text.mid(12, 2).toInt());
    if (!date.isValid() || !time.isValid())
        return false;
    if (epochSeconds)
        *epochSeconds = QDateTime(date, time, QTimeZone(m_offset)).toSecsSinceEpoch();
    return true;
}

bool ServerClock::isValid(const QString &text) const
{
    return parse(text, nullptr);
}
