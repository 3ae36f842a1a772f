#include <gtest/gtest.h>

// Built twice: GUI tests (FERROVANE_GUI_TESTS) get a QApplication so that real widgets can be
// made (offscreen under ctest), every other test a QCoreApplication.
#ifdef FERROVANE_GUI_TESTS
#include <QApplication>
using TestApplication = QApplication;
#else
#include <QCoreApplication>
using TestApplication = QCoreApplication;
#endif

int main(int argc, char **argv)
{
    TestApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
