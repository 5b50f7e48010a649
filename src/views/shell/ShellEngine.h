#pragma once

#include <QUrl>

class QQmlEngine;

namespace tavelo::shell {

// Import paths of the application's QML modules (compiled into resources).
void addModuleImportPaths(QQmlEngine& engine);
// The window: qrc:/qt/qml/Tavelo/Shell/qml/Main.qml
QUrl mainWindowUrl();

} // namespace tavelo::shell
