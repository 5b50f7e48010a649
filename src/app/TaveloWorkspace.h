#pragma once

#include <QObject>
#include <QString>

#include <functional>
#include <memory>
#include <optional>

namespace tavelo {

class AICloudStore;
class AppStore;
class CalendarService;
class GoogleAccountService;
class LocalCalendarService;
class SceneState;
struct GoogleOAuthConfiguration;

// The Google services of a workspace whose OAuth configuration could be read:
// one object that is both the calendar service (wrapping the local store) and
// the account service.
struct TaveloGoogleServices {
    std::shared_ptr<CalendarService> calendarService;
    std::shared_ptr<GoogleAccountService> accountService;
};

// Builds the Google services over the local store. Returns nothing when this
// build cannot offer them; the workspace then runs on the local store alone.
using GoogleServicesFactory = std::function<std::optional<TaveloGoogleServices>(
    const GoogleOAuthConfiguration&, std::shared_ptr<LocalCalendarService> local, const QString& directory)>;

// Everything that belongs to one signed-in cloud account, over one directory
// "{root}/users/{id}". A change of account replaces the whole bundle.
class TaveloWorkspace {
public:
    TaveloWorkspace(QString id, const QString& root, const AICloudStore& cloud, const GoogleServicesFactory& google = {});
    ~TaveloWorkspace();
    TaveloWorkspace(const TaveloWorkspace&) = delete;
    TaveloWorkspace& operator=(const TaveloWorkspace&) = delete;

    // `existing` when it still belongs to the cloud store's workspace and
    // connection, a new workspace when the account changed, nothing when no
    // one is signed in.
    static std::shared_ptr<TaveloWorkspace> restoring(std::shared_ptr<TaveloWorkspace> existing, const QString& root,
                                                      const AICloudStore& cloud,
                                                      const GoogleServicesFactory& google = {});

    const QString& id() const { return id_; }
    const QString& connectionID() const { return connectionID_; }
    const QString& directory() const { return directory_; }
    const QString& googleOAuthConfigurationPath() const { return googleOAuthConfigurationPath_; }
    const QString& statePath() const { return statePath_; }

    AppStore& store() const { return *store_; }
    SceneState& sceneState() const { return *sceneState_; }
    // True when "google-oauth.json" loaded and the Google services exist.
    bool hasGoogleServices() const;

private:
    QString id_;
    QString connectionID_;
    QString directory_;
    QString googleOAuthConfigurationPath_;
    QString statePath_;
    std::unique_ptr<SceneState> sceneState_;
    std::shared_ptr<LocalCalendarService> localService_;
    std::shared_ptr<GoogleAccountService> googleAccountService_;
    std::unique_ptr<AppStore> store_;
};

} // namespace tavelo
