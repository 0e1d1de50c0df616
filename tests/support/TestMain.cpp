// main() of every test binary: a Qt application object for the test's lifetime, then GoogleTest.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#ifdef TAVREL_TEST_GUI
#include <QApplication>
using TestApplication = QApplication;
#else
#include <QCoreApplication>
using TestApplication = QCoreApplication;
#endif

int main(int argc, char** argv) {
    // Widget tests never need a display; integration tests that want one set DISPLAY themselves.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    if (qEnvironmentVariableIsEmpty("TAVREL_SOURCE_DIR"))
        qputenv("TAVREL_SOURCE_DIR", TAVREL_SOURCE_DIR_DEFAULT);
    if (qEnvironmentVariableIsEmpty("TAVREL_BUILD_DIR"))
        qputenv("TAVREL_BUILD_DIR", TAVREL_BUILD_DIR_DEFAULT);
    TestApplication app(argc, argv);
    ::testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
