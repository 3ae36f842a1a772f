#include "util/Log.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QMutex>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <syslog.h>
#include <unistd.h>

namespace {
std::atomic<bool> g_verbose{false};
std::atomic<Log::Sink> g_sink{nullptr};

QString baseName(const char *file)
{
    const char *slash = std::strrchr(file, '/');
    const char *start = slash ? slash + 1 : file;
    const char *dot = std::strrchr(start, '.');
    const qsizetype len = dot ? dot - start : qsizetype(std::strlen(start));
    return QString::fromUtf8(start, len);
}

void openSyslogOnce()
{
    static std::once_flag once;
    std::call_once(once, [] { openlog("ferrovane", LOG_PID | LOG_NDELAY, LOG_USER); });
}

// Without a system log socket (containers, minimal systems) every syslog(3) call tries to connect
// again: three system calls per line for nothing. Whether it is there is looked at every 30 s.
bool systemLogThere()
{
    static std::mutex mutex;
    static QElapsedTimer lastLook;
    static bool there = false;
    std::lock_guard lock(mutex);
    if (!lastLook.isValid() || lastLook.hasExpired(30 * 1000)) {
        there = ::access(_PATH_LOG, W_OK) == 0;
        lastLook.start();
    }
    return there;
}
} // namespace

namespace Log {

QString format(const char *file, const char *function, int line, const QString &message)
{
    return QStringLiteral("[CLASS: ") + baseName(file) + QStringLiteral("]") + QString::fromUtf8(function) +
           QStringLiteral("[LINE: ") + QString::number(line) + QStringLiteral("]") + message;
}

void write(const char *file, const char *function, int line, const QString &message)
{
    const QString text = format(file, function, line, message);
    const QByteArray bytes = text.toUtf8();
    if (systemLogThere()) {
        openSyslogOnce();
        syslog(LOG_INFO, "%s", bytes.constData());
    }
    if (g_verbose.load(std::memory_order_relaxed)) {
        static QMutex mutex;
        QMutexLocker lock(&mutex);
        std::fprintf(stderr, "%s\n", bytes.constData());
        std::fflush(stderr);
    }
    if (Sink sink = g_sink.load())
        sink(text);
}

void setVerbose(bool verbose)
{
    g_verbose = verbose;
}
bool isVerbose()
{
    return g_verbose;
}
void setSink(Sink sink)
{
    g_sink = sink;
}

} // namespace Log
