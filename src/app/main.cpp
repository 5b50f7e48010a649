// Tavelo's entry point: the application root, the window and the tray.
//
// The window shows the login view until a workspace exists; closing it keeps
// Tavelo running in the tray. Quitting (Ctrl+Q or the tray) ends at once
// without a workspace and otherwise once the save under way has landed.

#include "ai/AICloudStore.h"
#include "support/Defaults.h"
#include "app/GoogleServicesWiring.h"
#include "app/SingleInstance.h"
#include "app/TaveloApp.h"
#include "views/shell/ShellAppearance.h"
#include "views/shell/ShellEngine.h"
#include "views/shell/ShellRoot.h"
#include "views/shell/TrayMenu.h"

#include <QApplication>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickWindow>
#include <QSystemTrayIcon>
#include <QtQml/qqmlextensionplugin.h>

#include <cstdio>
#include <memory>

Q_IMPORT_QML_PLUGIN(Tavelo_ShellPlugin)
#ifdef TAVELO_HAS_CALENDAR_VIEWS
Q_IMPORT_QML_PLUGIN(Tavelo_CalendarPlugin)
#endif

using namespace tavelo;

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Tavelo"));
    QApplication::setApplicationDisplayName(QStringLiteral("Tavelo"));
    QApplication::setOrganizationDomain(QStringLiteral("tavelo.app"));
    QApplication::setApplicationVersion(QStringLiteral(TAVELO_VERSION));
    QApplication::setQuitOnLastWindowClosed(false);

    // One Tavelo per user: a second start brings the running window forward
    // and leaves, so two processes never open the same workspace.
    SingleInstance instance;
    if (!instance.tryBecomePrimary()) {
        if (!instance.handedOver()) std::fprintf(stderr, "Tavelo is already running but did not answer.\n");
        return 0;
    }
    shell::applyAppearance();
    QApplication::setWindowIcon(shell::applicationIcon());

    const QString root = TaveloApp::standardRootDirectory();
    AICloudStore::Dependencies dependencies;
    dependencies.cacheDirectory = root;
    // A workspace whose "google-oauth.json" can be read gets the Google calendar service over
    // its local store.
    TaveloApp app(root, std::make_unique<AICloudStore>(std::move(dependencies)),
                  makeGoogleServicesFactory(std::make_shared<SettingsDefaults>(), googleCalendarServiceBuilder()));
    shell::ShellRoot shellRoot(app);

    // The window's QML loads on the engine's loader thread while the session
    // is restored and the calendar loads here.
    QQmlEngine engine;
    shell::addModuleImportPaths(engine);
    QQmlComponent component(&engine, shell::mainWindowUrl(), QQmlComponent::Asynchronous);
    shellRoot.start();
    while (component.isLoading()) QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    std::unique_ptr<QObject> windowObject(
        component.createWithInitialProperties({{QStringLiteral("root"), QVariant::fromValue(&shellRoot)}}));
    auto* window = qobject_cast<QQuickWindow*>(windowObject.get());
    if (!window) {
        std::fprintf(stderr, "%s\n", qPrintable(component.errorString()));
        return 1;
    }
    shellRoot.setRevealWindow([window] {
        if (!window) return;
        window->show();
        window->raise();
        window->requestActivate();
    });

    QObject::connect(&instance, &SingleInstance::activationRequested, &shellRoot, [&shellRoot] {
        emit shellRoot.revealRequested();
    });

    shell::TrayMenu tray(shellRoot);
    tray.show();
    // Without a status area there is nothing to come back to: closing the
    // window then quits, by the same rules.
    if (!QSystemTrayIcon::isSystemTrayAvailable())
        QObject::connect(window, &QQuickWindow::visibleChanged, &shellRoot, [window, &shellRoot] {
            if (!window->isVisible()) shellRoot.requestQuit();
        });
    QObject::connect(&shellRoot, &shell::ShellRoot::quitApproved, &application, &QApplication::quit,
                     Qt::QueuedConnection);

    return application.exec();
}
