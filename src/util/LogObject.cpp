#include "util/LogObject.h"

LogObject LogObject::createLogObjectWithName(const QString &name, const QString &work, qint64 size,
                                             const QString &path, bool folder, const QString &time,
                                             const QString &desc, bool success)
{
    LogObject log;
    log.m_name = name;
    log.m_work = work;
    log.m_size = size;
    log.m_path = path;
    log.m_isFolder = folder;
    log.m_time = time;
    log.m_description = desc;
    log.m_isSuccess = success;
    return log;
}

QString LogObject::getIsFolderStr() const
{
    return m_isFolder ? QStringLiteral("Y") : QStringLiteral("N");
}

QString LogObject::getIsSuccessStr() const
{
    return m_isSuccess ? QStringLiteral("Y") : QStringLiteral("N");
}

QString LogObject::getSizeStr() const
{
    if (m_isFolder)
        return QString();
    constexpr qint64 kKB = 1024;
    constexpr qint64 kMB = 1048576;
    constexpr qint64 kGB = 1073741824;
    const double size = double(m_size);
    // The GB limit is exclusive while the others are inclusive; the table has always read so.
    if (m_size > kGB)
        return QString::asprintf("%.2f GB", size / double(kGB));
    if (m_size >= kMB)
        return QString::asprintf("%.2f MB", size / double(kMB));
    if (m_size < kKB)
        return QString::asprintf("%.2f B", size);
    return QString::asprintf("%.2f KB", size / double(kKB));
}
