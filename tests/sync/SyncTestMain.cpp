// The sync tests' main: a session bus of this process's own, started before anything connects to a
// bus. The watcher daemons the engine starts, and the names the tests hold, are nobody else's, and
// they end with the bus when the tests are done.
#include "util/Log.h"

#include <QCoreApplication>
#include <QProcess>
#include <QStandardPaths>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/prctl.h>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    // Diagnostics on stderr when a failure needs them.
    Log::setVerbose(qEnvironmentVariableIsSet("FERROVANE_TEST_VERBOSE"));
    QProcess bus;
    const QString program = QStandardPaths::findExecutable(QStringLiteral("dbus-daemon"));
    if (!program.isEmpty()) {
        // Ends with this process even when a test crashes it.
        bus.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
        bus.start(program, {QStringLiteral("--session"), QStringLiteral("--nofork"),
                            QStringLiteral("--print-address=1")});
        if (bus.waitForStarted(5000) && bus.waitForReadyRead(10000)) {
            const QByteArray address = bus.readLine().trimmed();
            if (!address.isEmpty())
                qputenv("DBUS_SESSION_BUS_ADDRESS", address);
        }
    }
    ::testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    bus.terminate();
    if (!bus.waitForFinished(3000))
        bus.kill();
    return result;
}
