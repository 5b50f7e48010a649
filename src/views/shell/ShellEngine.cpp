#include "views/shell/ShellEngine.h"

#include <QQmlEngine>

namespace tavelo::shell {

void addModuleImportPaths(QQmlEngine& engine) { engine.addImportPath(QStringLiteral("qrc:/qt/qml")); }

QUrl mainWindowUrl() { return QUrl(QStringLiteral("qrc:/qt/qml/Tavelo/Shell/qml/Main.qml")); }

} // namespace tavelo::shell
