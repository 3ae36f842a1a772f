#include "common/QtWarnings.h"

// Built twice: GUI tests (FERROVANE_GUI_TESTS) get a QApplication so that real widgets can be
// made (offscreen under ctest), every other test a QCoreApplication.
#ifdef FERROVANE_GUI_TESTS
#include <QApplication>
using TestApplication = QApplication;
#else
#include <QCoreApplication>
using TestApplication = QCoreApplication;
#endif

#include "util/Log.h"

#include <QList>
#include <QMutex>
#include <QProcess>
#include <QStandardPaths>
#include <csignal>
#include <cstdio>
#include <gtest/gtest.h>
#include <sys/prctl.h>

namespace {

QtMessageHandler g_previous = nullptr;
QMutex g_mutex;
QList<QPair<QString, int>> g_expected; // text -> messages matched, for the live guards
int g_strayWarnings = 0;               // warnings while no test ran

void checkMessage(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (g_previous)
        g_previous(type, context, message);
    if (type != QtWarningMsg && type != QtCriticalMsg)
        return;
    // Machines without a login session (CI) have no runtime folder; Qt picks one and says so.
    if (message.contains(QLatin1String("XDG_RUNTIME_DIR")))
        return;
#ifdef FERROVANE_GUI_TESTS
    // The offscreen platform lacks window-manager calls and a tray; these say so, nothing more.
    if (message.startsWith(QLatin1String("This plugin does not support"))
        || message.contains(QLatin1String("systemTrayWindowChanged")))
        return;
#endif
    {
        QMutexLocker lock(&g_mutex);
        for (auto &[text, count] : g_expected) {
            if (message.contains(text)) {
                ++count;
                return;
            }
        }
        if (!::testing::UnitTest::GetInstance()->current_test_info()) {
            std::fprintf(stderr, "Qt warning outside any test: %s\n", qPrintable(message));
            ++g_strayWarnings;
            return;
        }
    }
    ADD_FAILURE() << "Qt " << (type == QtWarningMsg ? "warning" : "critical message") << ": "
                  << message.toStdString();
}

} // namespace

ExpectedQtWarning::ExpectedQtWarning(QString text) : m_text(std::move(text))
{
    QMutexLocker lock(&g_mutex);
    g_expected.append({m_text, 0});
}

ExpectedQtWarning::~ExpectedQtWarning()
{
    int seen = 0;
    {
        QMutexLocker lock(&g_mutex);
        for (qsizetype i = g_expected.size() - 1; i >= 0; --i) {
            if (g_expected[i].first == m_text) {
                seen = g_expected.takeAt(i).second;
                break;
            }
        }
    }
    EXPECT_GT(seen, 0) << "the expected Qt warning never came: " << m_text.toStdString();
}

int ExpectedQtWarning::count() const
{
    QMutexLocker lock(&g_mutex);
    for (qsizetype i = g_expected.size() - 1; i >= 0; --i) {
        if (g_expected[i].first == m_text)
            return g_expected[i].second;
    }
    return 0;
}

// A session bus of this process's own, started before anything connects to a bus: the names the
// tests hold and the watcher daemons a client under test starts are nobody else's, and they end
// with the bus when the tests are done (a daemon left running would keep ctest waiting on its
// output).
static void startOwnBus(QProcess &bus)
{
    const QString program = QStandardPaths::findExecutable(QStringLiteral("dbus-daemon"));
    if (program.isEmpty())
        return;
    // Ends with this process even when a test crashes it.
    bus.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
    bus.start(program, {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address=1")});
    if (bus.waitForStarted(5000) && bus.waitForReadyRead(10000)) {
        const QByteArray address = bus.readLine().trimmed();
        if (!address.isEmpty())
            qputenv("DBUS_SESSION_BUS_ADDRESS", address);
    }
}

int main(int argc, char **argv)
{
    g_previous = qInstallMessageHandler(checkMessage);
    // Diagnostics on stderr when a failure needs them.
    Log::setVerbose(qEnvironmentVariableIsSet("FERROVANE_TEST_VERBOSE"));
    int result;
    {
        TestApplication app(argc, argv);
        QProcess bus;
        startOwnBus(bus);
        ::testing::InitGoogleTest(&argc, argv);
        result = RUN_ALL_TESTS();
        bus.terminate();
        if (!bus.waitForFinished(3000))
            bus.kill();
        // The application object goes first, so that warnings of its teardown count too.
    }
    QMutexLocker lock(&g_mutex);
    if (g_strayWarnings > 0) {
        std::fprintf(stderr, "%d Qt warning(s) outside any test: failing\n", g_strayWarnings);
        result = 1;
    }
    return result;
}
