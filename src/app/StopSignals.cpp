#include "app/StopSignals.h"

#include "util/Log.h"

#include <QSocketNotifier>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

int g_signalPipe[2] = {-1, -1};

// Async-signal-safe: one byte into the pipe, read back on the event loop.
void onSignal(int signal)
{
    const char byte = char(signal);
    [[maybe_unused]] const auto written = ::write(g_signalPipe[1], &byte, 1);
}

} // namespace

StopSignals::StopSignals(QObject *parent) : QObject(parent)
{
    if (g_signalPipe[0] < 0 && ::pipe2(g_signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        FV_LOG(QStringLiteral("Cannot make the signal pipe; SIGINT and SIGTERM end the program at once"));
        return;
    }
    m_notifier = new QSocketNotifier(g_signalPipe[0], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, [this] {
        char signal = 0;
        char byte = 0;
        while (::read(g_signalPipe[0], &byte, 1) == 1)
            signal = byte;
        if (signal)
            emit stopRequested(signal);
    });
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

StopSignals::~StopSignals()
{
    if (m_notifier) {
        ::signal(SIGINT, SIG_DFL);
        ::signal(SIGTERM, SIG_DFL);
    }
}

QString StopSignals::name(int signal)
{
    return signal == SIGINT ? QStringLiteral("SIGINT") : QStringLiteral("SIGTERM");
}
