#pragma once

#include <QObject>
#include <QString>

#include "app/TaveloWorkspace.h"

#include <QCoro/QCoroTask>

#include <memory>

namespace tavelo {

class AICloudStore;

// The application root: owns the cloud store, which outlives workspaces, and
// decides which workspace is current. Everything here lives on the main
// thread.
class TaveloApp : public QObject {
    Q_OBJECT
public:
    // `root` is the application directory ("$XDG_DATA_HOME/jp.tavelo.app" in
    // production); `cloud` the store built for it.
    TaveloApp(QString root, std::unique_ptr<AICloudStore> cloud, GoogleServicesFactory google = {},
              QObject* parent = nullptr);
    ~TaveloApp() override;

    // "$XDG_DATA_HOME/jp.tavelo.app", the first per-user data directory.
    static QString standardRootDirectory();

    AICloudStore& aiCloud() const { return *cloud_; }
    const QString& rootDirectory() const { return root_; }

    // The workspace of the signed-in account, and only while it still is:
    // a workspace left over from another account or connection is never
    // returned, even before updateWorkspace has run.
    std::shared_ptr<TaveloWorkspace> currentWorkspace() const;
    // Keeps the workspace when the account is unchanged, builds a new one
    // when it changed, drops it when no one is signed in.
    void updateWorkspace();

    // Start-up: restore the session, then build the workspace. Never fails.
    QCoro::Task<void> start();

signals:
    void workspaceChanged();

private:
    QString root_;
    std::unique_ptr<AICloudStore> cloud_;
    GoogleServicesFactory google_;
    std::shared_ptr<TaveloWorkspace> workspace_;
};

} // namespace tavelo
