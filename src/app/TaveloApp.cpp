#include "app/TaveloApp.h"

#include "ai/AICloudStore.h"

#include <QDir>
#include <QPointer>
#include <QStandardPaths>

namespace tavelo {

TaveloApp::TaveloApp(QString root, std::unique_ptr<AICloudStore> cloud, GoogleServicesFactory google, QObject* parent)
    : QObject(parent), root_(std::move(root)), cloud_(std::move(cloud)), google_(std::move(google)) {
    // A change of account or connection replaces the workspace.
    connect(cloud_.get(), &AICloudStore::workspaceIDChanged, this, &TaveloApp::updateWorkspace);
    connect(cloud_.get(), &AICloudStore::connectionIDChanged, this, &TaveloApp::updateWorkspace);
}

TaveloApp::~TaveloApp() = default;

QString TaveloApp::standardRootDirectory() {
    return QDir(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation)).filePath(QStringLiteral("jp.tavelo.app"));
}

std::shared_ptr<TaveloWorkspace> TaveloApp::currentWorkspace() const {
    if (!workspace_) return nullptr;
    const auto id = cloud_->workspaceID();
    if (!id || workspace_->id() != *id || workspace_->connectionID() != cloud_->connectionID()) return nullptr;
    return workspace_;
}

void TaveloApp::updateWorkspace() {
    auto next = TaveloWorkspace::restoring(workspace_, root_, *cloud_, google_);
    if (next == workspace_) return;
    workspace_ = std::move(next);
    emit workspaceChanged();
}

QCoro::Task<void> TaveloApp::start() {
    QPointer<TaveloApp> self(this);
    co_await cloud_->restoreSession();
    if (!self) co_return;
    updateWorkspace();
}

} // namespace tavelo
