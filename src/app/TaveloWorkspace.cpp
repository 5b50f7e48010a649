#include "app/TaveloWorkspace.h"

#include "ai/AICloudStore.h"
#include "google/GoogleOAuthConfiguration.h"
#include "services/GoogleAccountService.h"
#include "services/LocalCalendarService.h"
#include "stores/AppStore.h"
#include "stores/SceneState.h"

#include <QDir>

namespace tavelo {

TaveloWorkspace::TaveloWorkspace(QString id, const QString& root, const AICloudStore& cloud,
                                 const GoogleServicesFactory& google)
    : id_(std::move(id)) {
    sceneState_ = std::make_unique<SceneState>(Date::now());
    connectionID_ = cloud.connectionID();
    directory_ = QDir(root).filePath(QStringLiteral("users/") + id_);
    googleOAuthConfigurationPath_ = QDir(directory_).filePath(QStringLiteral("google-oauth.json"));
    statePath_ = QDir(directory_).filePath(QStringLiteral("state.json"));

    localService_ = std::make_shared<LocalCalendarService>(statePath_, [] { return AppSnapshot::empty(); });
    std::shared_ptr<CalendarService> calendarService = localService_;
    try {
        const auto configuration = GoogleOAuthConfiguration::load(googleOAuthConfigurationPath_);
        if (google) {
            if (auto services = google(configuration, localService_, directory_)) {
                calendarService = services->calendarService;
                googleAccountService_ = services->accountService;
            }
        }
    } catch (const GoogleOAuthConfigurationError&) {
        // Missing or invalid: the workspace runs on the local store, and the
        // store tells the user where the file belongs.
    }
    store_ = std::make_unique<AppStore>(calendarService, googleAccountService_, googleOAuthConfigurationPath_);
}

TaveloWorkspace::~TaveloWorkspace() = default;

bool TaveloWorkspace::hasGoogleServices() const { return googleAccountService_ != nullptr; }

std::shared_ptr<TaveloWorkspace> TaveloWorkspace::restoring(std::shared_ptr<TaveloWorkspace> existing,
                                                            const QString& root, const AICloudStore& cloud,
                                                            const GoogleServicesFactory& google) {
    const auto workspaceID = cloud.workspaceID();
    if (!workspaceID) return nullptr;
    if (existing && existing->id() == *workspaceID && existing->connectionID() == cloud.connectionID()) return existing;
    return std::make_shared<TaveloWorkspace>(*workspaceID, root, cloud, google);
}

} // namespace tavelo
