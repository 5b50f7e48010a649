#pragma once

#include <QObject>
#include <QPointer>
#include <QTimer>
#include <QVariantMap>
#include <QtQml/qqmlregistration.h>

#include <memory>

namespace tavelo {
class AICloudStore;
class AppStore;
class GoogleRefreshSchedule;
class SceneState;
class TaveloApp;
class TaveloWorkspace;
}

namespace tavelo::shell {

class LocalCloudServer;

// What the window needs of the application root: the cloud, the current
// workspace's store and scene (null while nobody is signed in), the server
// on this computer, and the quitting rules. The workspace key changes with
// every new workspace, so the window rebuilds its content for it.
class ShellRoot : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("Provided by the application")
    Q_PROPERTY(QObject* cloud READ cloud CONSTANT)
    Q_PROPERTY(QObject* localServer READ localServer CONSTANT)
    Q_PROPERTY(QObject* store READ store NOTIFY workspaceChanged)
    Q_PROPERTY(QObject* scene READ scene NOTIFY workspaceChanged)
    Q_PROPERTY(bool hasWorkspace READ hasWorkspace NOTIFY workspaceChanged)
    Q_PROPERTY(QString workspaceKey READ workspaceKey NOTIFY workspaceChanged)
    Q_PROPERTY(bool isStarting READ isStarting NOTIFY isStartingChanged)
    // The application palette by role name ("window", "windowText", ...),
    // which the window hands on to every control.
    Q_PROPERTY(QVariantMap colors READ colors CONSTANT)

public:
    // `localServer` is taken over; null reads the standard owner file.
    explicit ShellRoot(TaveloApp& app, LocalCloudServer* localServer = nullptr, QObject* parent = nullptr);
    // One fixed workspace (or none, with a null store) outside an
    // application root: for rendering the screens from a prepared store.
    ShellRoot(AICloudStore& cloud, AppStore* store, SceneState* scene, LocalCloudServer* localServer = nullptr,
              QObject* parent = nullptr);
    ~ShellRoot() override;

    QObject* cloud() const;
    QObject* localServer() const;
    QObject* store() const;
    QObject* scene() const;
    bool hasWorkspace() const;
    QString workspaceKey() const;
    bool isStarting() const { return isStarting_; }
    bool isQuitting() const { return isQuitting_; }
    QVariantMap colors() const;

    // Restores the session and opens its workspace; the window shows the
    // login view meanwhile.
    void start();
    // Called by the window so that commands from the tray can bring it up.
    void setRevealWindow(std::function<void()> reveal);

    // Quits: at once without a workspace; with one, after the save under way
    // has landed. A second request while waiting starts nothing new.
    Q_INVOKABLE void requestQuit();
    // Tray and menu entries.
    Q_INVOKABLE void openCalendar();
    Q_INVOKABLE void openMeetings();
    Q_INVOKABLE void openSettings();
    Q_INVOKABLE void newEvent();

signals:
    void workspaceChanged();
    void isStartingChanged();
    // Asks the window to come to the front.
    void revealRequested();
    // The application may end now.
    void quitApproved();

private:
    void adoptWorkspace();
    void reveal();
    void followWorkspace();

    TaveloApp* app_ = nullptr;
    AICloudStore* cloud_;
    LocalCloudServer* localServer_;
    std::shared_ptr<TaveloWorkspace> workspace_;
    QPointer<AppStore> store_;
    QPointer<SceneState> scene_;
    // Refreshes the cloud's schedules and runs every 15 seconds while a
    // workspace is open.
    QTimer cloudRefresh_;
    // Knocks on the store's Google refresh every minute and on activation.
    std::unique_ptr<GoogleRefreshSchedule> googleRefresh_;
    bool isStarting_ = false;
    bool isQuitting_ = false;
};

} // namespace tavelo::shell
