#include "app/GoogleServicesWiring.h"

#include "google/GoogleAccessTokenProvider.h"
#include "google/GoogleAccountCoordinator.h"
#include "google/GoogleCredential.h"
#include "google/GoogleOAuthClient.h"
#include "google/GoogleCalendarAPIClient.h"
#include "services/GoogleCalendarService.h"
#include "services/LocalCalendarService.h"
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

GoogleCalendarServiceBuilder googleCalendarServiceBuilder(std::shared_ptr<HTTPTransport> transport,
                                                          std::optional<QUrl> calendarBaseURL) {
    return [transport, calendarBaseURL](GoogleServiceParts parts,
                                        std::shared_ptr<LocalCalendarService> local) -> std::optional<TaveloGoogleServices> {
        auto httpTransport = transport ? transport : std::make_shared<NetworkHTTPTransport>();
        const QUrl baseURL = calendarBaseURL.value_or(GoogleCalendarAPIClient::defaultBaseURL());
        auto providers = std::make_shared<std::map<QString, std::shared_ptr<GoogleAccessTokenProvider>>>();
        auto coordinator = parts.coordinator;
        auto makeTokenProvider = parts.makeTokenProvider;

        GoogleCalendarService::Functions functions;
        functions.connectGoogleIdentity = [coordinator](std::stop_token stop) -> QCoro::Task<GoogleIdentity> {
            auto keep = coordinator;
            GoogleIdentity identity = co_await keep->connect(stop);
            co_return identity;
        };
        functions.reconnectGoogleIdentity = [coordinator](QString subject,
                                                          std::stop_token stop) -> QCoro::Task<GoogleIdentity> {
            auto keep = coordinator;
            GoogleIdentity identity = co_await keep->reconnect(subject, stop);
            co_return identity;
        };
        functions.disconnectGoogleIdentity = [coordinator, providers](QString subject) -> QCoro::Task<void> {
            auto keep = coordinator;
            auto cache = providers;
            cache->erase(subject);
            co_await keep->disconnect(subject);
        };
        functions.makeAPIClient = [providers, makeTokenProvider, httpTransport, baseURL](const QString& subject) {
            auto& provider = (*providers)[subject];
            if (!provider) provider = makeTokenProvider(subject);
            return GoogleCalendarAPIClient(provider, httpTransport, eventLoopSleep(), &GoogleCalendarAPIClient::randomJitter,
                                           baseURL);
        };
        auto service = std::make_shared<GoogleCalendarService>(std::move(local), std::move(functions));
        return TaveloGoogleServices{service, service};
    };
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
