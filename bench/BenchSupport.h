#pragma once
// Shared by the benchmark programs: Qt warnings make a benchmark fail (they are printed and
// counted), and the process's memory figures.

#include <QByteArray>
#include <QFile>
#include <QtGlobal>
#include <atomic>
#include <cstdio>

namespace BenchSupport {

inline std::atomic<int> &qtWarnings()
{
    static std::atomic<int> count{0};
    return count;
}

// Counts every Qt warning and critical message; call first thing in main().
inline void installQtWarningCheck()
{
    static QtMessageHandler previous = nullptr;
    previous =
        qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &context, const QString &text) {
            if (type == QtWarningMsg || type == QtCriticalMsg)
                ++qtWarnings();
            if (previous)
                previous(type, context, text);
        });
}

// The exit status of a benchmark whose own verdict was `ok`, failing it when Qt warned.
inline int exitStatus(bool ok)
{
    const int warnings = qtWarnings().load();
    if (warnings > 0)
        std::fprintf(stderr, "%d Qt warning(s): the benchmark fails\n", warnings);
    return ok && warnings == 0 ? 0 : 1;
}

// A "VmRSS:"-style field of /proc/self/status in KiB, -1 when unreadable.
inline qint64 statusKib(const char *field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith(field))
            return line.mid(qsizetype(qstrlen(field))).trimmed().split(' ').value(0).toLongLong();
    }
    return -1;
}

} // namespace BenchSupport
