// main() for the tests that drive real sockets or the window (offscreen): they need a Qt application.
#include <QApplication>

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    // Test discovery runs the executable outside CTest's environment; no test needs a real display.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
