// Test entry point: every test binary gets a Qt application object so that
// coroutines can be driven by the event loop.
#include <QCoreApplication>

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
