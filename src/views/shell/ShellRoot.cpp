#include "views/shell/ShellRoot.h"

#include "ai/AICloudStore.h"
#include "app/GoogleRefreshSchedule.h"
#include "app/TaveloApp.h"
#include "app/TaveloWorkspace.h"
#include "stores/AppStore.h"
#include "stores/SceneState.h"
#include "views/shell/LocalCloudServer.h"
#include "views/shell/ShellTasks.h"

#include <QGuiApplication>
#include <QPalette>

namespace tavelo::shell {

namespace {

// Waits until no writer of the store is running: the save under way lands
// before the application ends.
QCoro::Task<void> drainSaves(QPointer<AppStore> store) {
    if (!store) co_return;
    const bool held = co_await store->acquirePersistenceTransaction(false);
    if (held && store) store->releasePersistenceTransaction();
}

} // namespace

ShellRoot::ShellRoot(TaveloApp& app, LocalCloudServer* localServer, QObject* parent)
    : QObject(parent), app_(&app), cloud_(&app.aiCloud()),
      localServer_(localServer ? localServer : new LocalCloudServer()) {
    localServer_->setParent(this);
    connect(app_, &TaveloApp::workspaceChanged, this, &ShellRoot::adoptWorkspace);
    connect(this, &ShellRoot::workspaceChanged, this, &ShellRoot::followWorkspace);
    cloudRefresh_.setInterval(15000);
    connect(&cloudRefresh_, &QTimer::timeout, this, [this] {
        if (cloud_->hasSession() && !cloud_->isRefreshing()) launch(cloud_->refresh(), this);
    });
    adoptWorkspace();
}

void ShellRoot::followWorkspace() {
    if (!googleRefresh_) googleRefresh_ = std::make_unique<GoogleRefreshSchedule>();
    // After the load that adoptWorkspace started, which it waits behind.
    googleRefresh_->setStore(store_);
    if (!store_) {
        cloudRefresh_.stop();
        return;
    }
    cloudRefresh_.start();
    if (cloud_->hasSession()) launch(cloud_->refresh(), this);
}

ShellRoot::ShellRoot(AICloudStore& cloud, AppStore* store, SceneState* scene, LocalCloudServer* localServer,
                     QObject* parent)
    : QObject(parent), cloud_(&cloud), localServer_(localServer ? localServer : new LocalCloudServer()),
      store_(store), scene_(scene) {
    localServer_->setParent(this);
    if (scene_)
        scene_->setRevealMainWindow([self = QPointer<ShellRoot>(this)] {
            if (self) self->reveal();
        });
}

ShellRoot::~ShellRoot() = default;

QVariantMap ShellRoot::colors() const {
    const QPalette palette = QGuiApplication::palette();
    const std::pair<const char*, QPalette::ColorRole> roles[] = {
        {"window", QPalette::Window},       {"windowText", QPalette::WindowText},
        {"base", QPalette::Base},           {"alternateBase", QPalette::AlternateBase},
        {"text", QPalette::Text},           {"button", QPalette::Button},
        {"buttonText", QPalette::ButtonText}, {"highlight", QPalette::Highlight},
        {"highlightedText", QPalette::HighlightedText}, {"mid", QPalette::Mid},
        {"dark", QPalette::Dark},           {"light", QPalette::Light},
        {"midlight", QPalette::Midlight},   {"shadow", QPalette::Shadow},
        {"placeholderText", QPalette::PlaceholderText}, {"toolTipBase", QPalette::ToolTipBase},
        {"toolTipText", QPalette::ToolTipText}, {"link", QPalette::Link},
    };
    QVariantMap map;
    for (const auto& [name, role] : roles) map.insert(QString::fromLatin1(name), palette.color(QPalette::Active, role));
    map.insert(QStringLiteral("disabledText"), palette.color(QPalette::Disabled, QPalette::Text));
    map.insert(QStringLiteral("isDark"), palette.color(QPalette::Window).lightness() < 128);
    return map;
}

bool ShellRoot::hasWorkspace() const { return !store_.isNull(); }
QObject* ShellRoot::cloud() const { return cloud_; }
QObject* ShellRoot::localServer() const { return localServer_; }
QObject* ShellRoot::store() const { return store_.data(); }
QObject* ShellRoot::scene() const { return scene_.data(); }
QString ShellRoot::workspaceKey() const {
    if (workspace_) return workspace_->id() + QLatin1Char('/') + workspace_->connectionID();
    return store_ ? QStringLiteral("fixed") : QString();
}

void ShellRoot::start() {
    if (!app_) return;
    isStarting_ = true;
    emit isStartingChanged();
    // The workspace first: the window goes from the busy state straight to
    // the calendar, never through the login form.
    launch(app_->start(), this, [this] {
        adoptWorkspace();
        isStarting_ = false;
        emit isStartingChanged();
    }, [this](std::exception_ptr) {
        isStarting_ = false;
        emit isStartingChanged();
    });
}

void ShellRoot::adoptWorkspace() {
    auto current = app_->currentWorkspace();
    if (current == workspace_) return;
    workspace_ = std::move(current);
    store_ = workspace_ ? &workspace_->store() : nullptr;
    scene_ = workspace_ ? &workspace_->sceneState() : nullptr;
    if (workspace_) {
        workspace_->sceneState().setRevealMainWindow([self = QPointer<ShellRoot>(this)] {
            if (self) self->reveal();
        });
        launch(workspace_->store().load(), this);
    }
    emit workspaceChanged();
}

void ShellRoot::reveal() { emit revealRequested(); }

void ShellRoot::setRevealWindow(std::function<void()> reveal) {
    connect(this, &ShellRoot::revealRequested, this, std::move(reveal));
}

void ShellRoot::requestQuit() {
    if (!store_) {
        emit quitApproved();
        return;
    }
    if (isQuitting_) return;
    isQuitting_ = true;
    launch(drainSaves(store_), this, [this] { emit quitApproved(); },
           [this](std::exception_ptr) { emit quitApproved(); });
}

void ShellRoot::openCalendar() {
    if (!scene_) return;
    scene_->selectNavigation(scene_->calendarNavigation());
    reveal();
}

void ShellRoot::openMeetings() {
    if (!scene_) return;
    scene_->selectNavigation(NavigationItem::meetings);
    reveal();
}

void ShellRoot::openSettings() {
    if (!scene_) return;
    scene_->selectNavigation(NavigationItem::settings);
    reveal();
}

void ShellRoot::newEvent() {
    if (!scene_) return;
    scene_->setPendingEventDraft(std::nullopt);
    scene_->setEditorPresentation(EditorPresentation::create());
    reveal();
}

} // namespace tavelo::shell
