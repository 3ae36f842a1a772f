#pragma once
// Collects diagnostic lines for the lifetime of the object (one at a time per process).

#include "util/Log.h"

#include <QMutex>
#include <QStringList>

class LogCapture
{
public:
    LogCapture()
    {
        lines().clear();
        Log::setSink(&LogCapture::receive);
    }
    ~LogCapture() { Log::setSink(nullptr); }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    bool contains(const QString &text) const
    {
        QMutexLocker locker(&mutex());
        for (const QString &line : lines()) {
            if (line.contains(text))
                return true;
        }
        return false;
    }

private:
    static void receive(const QString &line)
    {
        QMutexLocker locker(&mutex());
        lines().append(line);
    }
    static QStringList &lines()
    {
        static QStringList captured;
        return captured;
    }
    static QMutex &mutex()
    {
        static QMutex lock;
        return lock;
    }
};
