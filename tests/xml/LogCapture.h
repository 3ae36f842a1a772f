#pragma once
// Collects diagnostic lines while alive (one capture at a time per process).

#include "util/Log.h"

#include <QStringList>

class LogCapture
{
public:
    LogCapture()
    {
        lines().clear();
        Log::setSink([](const QString &line) { lines().append(line); });
    }
    ~LogCapture() { Log::setSink(nullptr); }
    bool contains(const QString &text) const { return !lines().filter(text).isEmpty(); }

private:
    static QStringList &lines()
    {
        static QStringList captured;
        return captured;
    }
};
