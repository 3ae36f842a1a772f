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

#include <QDir>
#include <QFile>
#include <QList>
#include <QMutex>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
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
    if (message.startsWith(QLatin1String("This plugin does not support")) ||
        message.contains(QLatin1String("systemTrayWindowChanged")))
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

// Address and leak sanitizer reports of the programs a test starts (clients, daemons, servers,
// peers) go to files in a folder of this process's own rather than to their stderr, which nobody
// may read (a detached daemon's) or which a test only shows on failure; any such file fails the
// test. The options reach every child through the environment; this process read its own at
// start and is not affected. (With both sanitizers linked, undefined-behaviour reports ignore
// log_path and stay on stderr: they end the child with exit code 1, which the harnesses check.)
class ChildReports final : public ::testing::EmptyTestEventListener
{
public:
    explicit ChildReports(QString folder) : m_folder(std::move(folder))
    {
        for (const char *name : {"ASAN_OPTIONS", "UBSAN_OPTIONS"}) {
            QByteArray options = qgetenv(name);
            if (!options.isEmpty())
                options += ':';
            options += "log_path=" + QFile::encodeName(m_folder) + "/report";
            qputenv(name, options);
        }
    }

    // Reports written so far, removed as they are read.
    QString take() const
    {
        QString reports;
        QDir folder(m_folder);
        for (const QString &name : folder.entryList({QStringLiteral("report*")}, QDir::Files, QDir::Name)) {
            QFile file(folder.filePath(name));
            if (file.open(QIODevice::ReadOnly))
                reports += QStringLiteral("--- %1\n").arg(name) + QString::fromUtf8(file.readAll());
            file.remove();
        }
        return reports;
    }

    // Late in the test's end, so the failure counts for the test that started the child.
    void OnTestEnd(const ::testing::TestInfo &) override
    {
        const QString reports = take();
        if (!reports.isEmpty())
            ADD_FAILURE() << "sanitizer report(s) from a child process:\n" << reports.toStdString();
    }

private:
    QString m_folder;
};

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
    bus.start(program,
              {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address=1")});
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
    QTemporaryDir reportFolder;
    ChildReports *childReports = nullptr;
    {
        TestApplication app(argc, argv);
        ::testing::InitGoogleTest(&argc, argv);
        // Before the bus: the daemons it may start get the same options.
        childReports = new ChildReports(reportFolder.path());
        ::testing::UnitTest::GetInstance()->listeners().Append(childReports); // gtest owns it
        QProcess bus;
        startOwnBus(bus);
        result = RUN_ALL_TESTS();
        bus.terminate();
        if (!bus.waitForFinished(3000))
            bus.kill();
        // The application object goes first, so that warnings of its teardown count too.
    }
    // A child that outlived its test (a daemon that ended with the bus) reported too late for one.
    if (const QString late = childReports->take(); !late.isEmpty()) {
        std::fprintf(stderr, "sanitizer report(s) from a child process after the tests:\n%s\n",
                     qPrintable(late));
        result = 1;
    }
    QMutexLocker lock(&g_mutex);
    if (g_strayWarnings > 0) {
        std::fprintf(stderr, "%d Qt warning(s) outside any test: failing\n", g_strayWarnings);
        result = 1;
    }
    return result;
}
