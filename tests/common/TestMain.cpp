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

#include <QList>
#include <QMutex>
#include <cstdio>
#include <gtest/gtest.h>

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

int main(int argc, char **argv)
{
    g_previous = qInstallMessageHandler(checkMessage);
    int result;
    {
        TestApplication app(argc, argv);
        ::testing::InitGoogleTest(&argc, argv);
        result = RUN_ALL_TESTS();
        // The application object goes first, so that warnings of its teardown count too.
    }
    QMutexLocker lock(&g_mutex);
    if (g_strayWarnings > 0) {
        std::fprintf(stderr, "%d Qt warning(s) outside any test: failing\n", g_strayWarnings);
        result = 1;
    }
    return result;
}
