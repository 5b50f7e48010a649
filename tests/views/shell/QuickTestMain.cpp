// Entry point of the Qt Quick tests: a widget application (offscreen in CI) so
// that windows can be shown and driven with key and mouse events.
#include <QApplication>
#include <QQuickWindow>
#include <QtQml/qqmlextensionplugin.h>

#include <gtest/gtest.h>

Q_IMPORT_QML_PLUGIN(Tavelo_ShellPlugin)
#ifdef TAVELO_HAS_CALENDAR_VIEWS
Q_IMPORT_QML_PLUGIN(Tavelo_CalendarPlugin)
#endif

int main(int argc, char** argv) {
    // Offscreen unless told otherwise, also when ctest lists the tests.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
    QApplication app(argc, argv); // the tray menu is a widget
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
