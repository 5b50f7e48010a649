// The start of the window as `tavelo` does it, on a given calendar file:
// loads the store, opens the window on the week view and prints
// "frame <milliseconds since main>" at the first frame that shows the week
// view, then ends at once. Run by the start-up benchmark.

#include "ai/AICloudStore.h"
#include "services/LocalCalendarService.h"
#include "stores/AppStore.h"
#include "stores/SceneState.h"
#include "support/Async.h"
#include "support/Defaults.h"
#include "views/shell/ShellAppearance.h"
#include "views/shell/ShellEngine.h"
#include "views/shell/ShellRoot.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QQmlApplicationEngine>
#include <QQmlComponent>
#include <QQuickItem>
#include <QQuickWindow>
#include <QtQml/qqmlextensionplugin.h>

#include <cstdio>
#include <cstdlib>

Q_IMPORT_QML_PLUGIN(Tavelo_ShellPlugin)
#ifdef TAVELO_HAS_CALENDAR_VIEWS
Q_IMPORT_QML_PLUGIN(Tavelo_CalendarPlugin)
#endif

using namespace tavelo;

namespace {

// The week view once its host has built it.
QObject* weekView(QObject* root) {
    for (QQuickItem* item : root->findChildren<QQuickItem*>()) {
        if (item->property("typeName").toString() != QLatin1String("WeekView")) continue;
        if (auto* view = item->property("view").value<QObject*>()) return view;
    }
    return nullptr;
}

// With TAVELO_PROBE_TRACE set, the phases of the start on stderr.
void trace(const QElapsedTimer& clock, const char* phase) {
    static const bool enabled = qEnvironmentVariableIsSet("TAVELO_PROBE_TRACE");
    if (enabled) std::fprintf(stderr, "%6lld ms  %s\n", static_cast<long long>(clock.elapsed()), phase);
}

} // namespace

int main(int argc, char** argv) {
    QElapsedTimer sinceMain;
    sinceMain.start();
    if (argc < 2) {
        std::fprintf(stderr, "usage: tavelo_shell_startup_probe <state file>\n");
        return 2;
    }
    if (qEnvironmentVariable("QT_QPA_PLATFORM") == QLatin1String("offscreen"))
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    shell::applyAppearance(false);
    trace(sinceMain, "application");

    auto service = std::make_shared<LocalCalendarService>(QString::fromLocal8Bit(argv[1]));
    AppStore store(service, nullptr, QString(), DateCalendar(QStringLiteral("Asia/Tokyo"), QStringLiteral("ja_JP")));
    AICloudStore cloud(AICloudStore::Dependencies{std::make_shared<MemoryDefaults>(), nullptr, nullptr,
                                                  QStringLiteral("/nonexistent"), {}, {}, {}});
    SceneState scene(Date::now());
    shell::ShellRoot root(cloud, &store, &scene);

    // The window's types load on the QML loader thread while the store
    // loads here; the window is built once both are done.
    QQmlApplicationEngine engine;
    shell::addModuleImportPaths(engine);
    QQmlComponent component(&engine, shell::mainWindowUrl(), QQmlComponent::Asynchronous);
    QCoro::Task<void> loading = store.load();
    trace(sinceMain, "load started");
    while (component.isLoading()) QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    if (!component.isReady()) {
        std::fprintf(stderr, "%s\n", qPrintable(component.errorString()));
        return 1;
    }
    QObject* created = component.createWithInitialProperties({{QStringLiteral("root"), QVariant::fromValue(&root)}});
    auto* window = qobject_cast<QQuickWindow*>(created);
    if (!window) return 1;
    trace(sinceMain, "window created");
    QObject::connect(&store, &AppStore::eventsChanged, [&] { trace(sinceMain, "events loaded"); });

    bool armed = false;
    QObject::connect(window, &QQuickWindow::frameSwapped, window, [&] {
        // The frame after the one in which the loaded week view was first
        // synchronised is the first that shows it.
        if (armed) {
            std::printf("frame %lld events %zu\n", static_cast<long long>(sinceMain.elapsed()), store.events().size());
            std::fflush(stdout);
            std::_Exit(0);
        }
        trace(sinceMain, "frame");
        if (store.didLoad() && weekView(window)) {
            armed = true;
            window->update();
        } else {
            window->update();
        }
    });
    window->show();
    return application.exec();
}
