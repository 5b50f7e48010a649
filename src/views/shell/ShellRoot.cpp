#include "views/shell/ShellRoot.h"

#include "ai/AICloudStore.h"
#include "app/TaveloApp.h"
#include "app/TaveloWorkspace.h"
#include "stores/AppStore.h"
#include "stores/SceneState.h"
#include "views/shell/LocalCloudServer.h"
#include "views/shell/ShellTasks.h"

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
    : QObject(parent), app_(app), localServer_(localServer ? localServer : new LocalCloudServer()) {
    localServer_->setParent(this);
    connect(&app_, &TaveloApp::workspaceChanged, this, &ShellRoot::adoptWorkspace);
    adoptWorkspace();
}

ShellRoot::~ShellRoot() = default;

QObject* ShellRoot::cloud() const { return &app_.aiCloud(); }
QObject* ShellRoot::localServer() const { return localServer_; }
QObject* ShellRoot::store() const { return workspace_ ? &workspace_->store() : nullptr; }
QObject* ShellRoot::scene() const { return workspace_ ? &workspace_->sceneState() : nullptr; }
QString ShellRoot::workspaceKey() const {
    return workspace_ ? workspace_->id() + QLatin1Char('/') + workspace_->connectionID() : QString();
}

void ShellRoot::start() {
    isStarting_ = true;
    emit isStartingChanged();
    launch(app_.start(), this, [this] {
        isStarting_ = false;
        emit isStartingChanged();
        adoptWorkspace();
    }, [this](std::exception_ptr) {
        isStarting_ = false;
        emit isStartingChanged();
    });
}

void ShellRoot::adoptWorkspace() {
    auto current = app_.currentWorkspace();
    if (current == workspace_) return;
    workspace_ = std::move(current);
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
    if (!workspace_) {
        emit quitApproved();
        return;
    }
    if (isQuitting_) return;
    isQuitting_ = true;
    launch(drainSaves(QPointer<AppStore>(&workspace_->store())), this, [this] { emit quitApproved(); },
           [this](std::exception_ptr) { emit quitApproved(); });
}

void ShellRoot::openCalendar() {
    if (!workspace_) return;
    SceneState& scene = workspace_->sceneState();
    scene.selectNavigation(scene.calendarNavigation());
    reveal();
}

void ShellRoot::openMeetings() {
    if (!workspace_) return;
    workspace_->sceneState().selectNavigation(NavigationItem::meetings);
    reveal();
}

void ShellRoot::openSettings() {
    if (!workspace_) return;
    workspace_->sceneState().selectNavigation(NavigationItem::settings);
    reveal();
}

void ShellRoot::newEvent() {
    if (!workspace_) return;
    SceneState& scene = workspace_->sceneState();
    scene.setPendingEventDraft(std::nullopt);
    scene.setEditorPresentation(EditorPresentation::create());
    reveal();
}

} // namespace tavelo::shell
