#include "util/Log.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QMutex>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <syslog.h>
#include <unistd.h>

namespace {
std::atomic<bool> g_verbose{false};
std::atomic<Log::Sink> g_sink{nullptr};

// The line in UTF-8, built in one buffer: the engine writes several per file it syncs.
QByteArray formatBytes(const char *file, const char *function, int line, const QString &message)
{
    const char *slash = std::strrchr(file, '/');
    const char *start = slash ? slash + 1 : file;
    const char *dot = std::strrchr(start, '.');
    const qsizetype baseLength = dot ? dot - start : qsizetype(std::strlen(start));
    const QByteArray text = message.toUtf8();
    QByteArray out;
    out.reserve(baseLength + qsizetype(std::strlen(function)) + text.size() + 32);
    out.append("[CLASS: ").append(start, baseLength).append(']').append(function);
    out.append("[LINE: ").append(QByteArray::number(line)).append(']').append(text);
    return out;
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
    return QString::fromUtf8(formatBytes(file, function, line, message));
}

void write(const char *file, const char *function, int line, const QString &message)
{
    QByteArray bytes = formatBytes(file, function, line, message);
    if (systemLogThere()) {
        openSyslogOnce();
        syslog(LOG_INFO, "%s", bytes.constData());
    }
    if (Sink sink = g_sink.load())
        sink(QString::fromUtf8(bytes));
    if (g_verbose.load(std::memory_order_relaxed)) {
        bytes.append('\n');
        static QMutex mutex;
        QMutexLocker lock(&mutex);
        std::fflush(stderr); // what stdio still holds goes first
        for (qsizetype done = 0; done < bytes.size();) {
            const ssize_t n = ::write(STDERR_FILENO, bytes.constData() + done, size_t(bytes.size() - done));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break; // stderr closed or full: the line is dropped, the program goes on
            done += n;
        }
    }
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
