#include "app/GoogleServicesWiring.h"

#include "google/GoogleAccessTokenProvider.h"
#include "google/GoogleAccountCoordinator.h"
#include "google/GoogleCredential.h"
#include "google/GoogleOAuthClient.h"
#include "support/Defaults.h"
#include "support/HTTPTransport.h"
#include "support/SecretStore.h"

#include <QFileInfo>

namespace tavelo {

GoogleServiceParts makeGoogleServiceParts(const GoogleOAuthConfiguration& configuration, const QString& workspaceID,
                                          const Defaults& defaults, GoogleServiceSeams seams) {
    if (!seams.transport) seams.transport = std::make_shared<NetworkHTTPTransport>();
    if (!seams.opener) seams.opener = std::make_shared<DesktopAuthorizationURLOpener>();
    if (!seams.defaultSecrets) seams.defaultSecrets = std::make_shared<KeychainSecretStore>();

    std::optional<QString> keychainPath = defaults.string(QString::fromLatin1(kGoogleCredentialKeychainPathKey));
    if (keychainPath && keychainPath->isEmpty()) keychainPath.reset();

    GoogleServiceParts parts;
    parts.workspaceID = workspaceID;
    parts.credentialStore = std::make_shared<KeychainGoogleCredentialStore>(
        KeychainGoogleCredentialStore::serviceName(workspaceID), seams.defaultSecrets, keychainPath);
    parts.oauthClient = std::make_shared<GoogleOAuthClient>(configuration, seams.transport, systemClock(),
                                                            seams.endpoints.value_or(GoogleOAuthEndpoints::google()));

    GoogleAccountCoordinator::Dependencies dependencies;
    dependencies.oauthClient = parts.oauthClient;
    dependencies.credentialStore = parts.credentialStore;
    dependencies.authorizationOpener = seams.opener;
    parts.coordinator = std::make_shared<GoogleAccountCoordinator>(std::move(dependencies));

    parts.makeTokenProvider = [store = parts.credentialStore, client = parts.oauthClient](const QString& subject) {
        return GoogleAccessTokenProvider::make(subject, store, client);
    };
    return parts;
}

GoogleServicesFactory makeGoogleServicesFactory(std::shared_ptr<const Defaults> defaults,
                                                GoogleCalendarServiceBuilder buildCalendarService,
                                                GoogleServiceSeams seams) {
    return [defaults, buildCalendarService, seams](const GoogleOAuthConfiguration& configuration,
                                                   std::shared_ptr<LocalCalendarService> local,
                                                   const QString& directory) -> std::optional<TaveloGoogleServices> {
        if (!buildCalendarService) return std::nullopt;
        // The workspace directory is "{root}/users/{id}".
        const QString workspaceID = QFileInfo(directory).fileName();
        return buildCalendarService(makeGoogleServiceParts(configuration, workspaceID, *defaults, seams),
                                    std::move(local));
    };
}

} // namespace tavelo
