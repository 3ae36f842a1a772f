#include "server/RequestLog.h"

void RequestLog::append(RequestLogEntry entry)
{
    QMutexLocker lock(&m_mutex);
    entry.sequence = ++m_sequence;
    m_entries << std::move(entry);
    if (m_entries.size() > kMaxEntries)
        m_entries.remove(0, m_entries.size() - kMaxEntries);
}

QList<RequestLogEntry> RequestLog::entries() const
{
    QMutexLocker lock(&m_mutex);
    return m_entries;
}

void RequestLog::clear()
{
    QMutexLocker lock(&m_mutex);
    m_entries.clear();
}
