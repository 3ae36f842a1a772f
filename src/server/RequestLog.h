#pragma once
// The requests the server received, in order, for tests and the admin interface. Keeps the newest
// entries up to a bound. Thread-safe.

#include "server/ServerTypes.h"

#include <QList>
#include <QMutex>

class RequestLog
{
public:
    static constexpr int kMaxEntries = 10000;

    void append(RequestLogEntry entry);
    QList<RequestLogEntry> entries() const;
    void clear();

private:
    mutable QMutex m_mutex;
    QList<RequestLogEntry> m_entries;
    qint64 m_sequence = 0;
};
