#pragma once

#include "app/TaveloWorkspace.h"
#include "google/GoogleOAuth.h"

#include <QString>
#include <QUrl>

#include <functional>
#include <memory>
#include <optional>

namespace tavelo {

class AuthorizationURLOpening;
class Defaults;
class GoogleAccessTokenProvider;
class GoogleAccountCoordinator;
class GoogleCredentialStore;
class GoogleOAuthClient;
class HTTPTransport;
class SecretStore;

// Everything a workspace's Google services are made of, below the calendar
// service: the credential store of the workspace, the OAuth client, the
// sign-in coordinator and one token provider per account.
struct GoogleServiceParts {
    QString workspaceID;
    std::shared_ptr<GoogleCredentialStore> credentialStore;
    std::shared_ptr<GoogleOAuthClient> oauthClient;
    std::shared_ptr<GoogleAccountCoordinator> coordinator;
    // A new provider for the account of `subject`, on the same store and
    // client.
    std::function<std::shared_ptr<GoogleAccessTokenProvider>(const QString& subject)> makeTokenProvider;
};

// What production uses for each seam; tests replace any of them.
struct GoogleServiceSeams {
    std::shared_ptr<HTTPTransport> transport;         // default: NetworkHTTPTransport
    std::shared_ptr<AuthorizationURLOpening> opener;  // default: the desktop browser
    std::shared_ptr<SecretStore> defaultSecrets;      // default: KeychainSecretStore
    std::optional<GoogleOAuthEndpoints> endpoints;    // default: Google's own
};

// The key of the user default that names a Secret Service collection for
// Google credentials (see the README).
inline constexpr const char* kGoogleCredentialKeychainPathKey = "googleCredentialKeychainPath";

// Builds the parts for workspace `workspaceID`: the credential store uses
// service "jp.tavelo.app.google-oauth.{workspaceID}", in the collection named
// by "googleCredentialKeychainPath" when that default is set.
GoogleServiceParts makeGoogleServiceParts(const GoogleOAuthConfiguration& configuration, const QString& workspaceID,
                                          const Defaults& defaults, GoogleServiceSeams seams = {});

// Puts the calendar service on top of the parts and the local store.
using GoogleCalendarServiceBuilder =
    std::function<std::optional<TaveloGoogleServices>(GoogleServiceParts parts, std::shared_ptr<LocalCalendarService> local)>;

// The production builder: a GoogleCalendarService over the local store, with
// one token provider per account (so that refreshes stay single-flight) and
// one Calendar REST client per sync. `transport` and `calendarBaseURL` default
// to the network and Google's own root; tests point them at a stand-in.
GoogleCalendarServiceBuilder googleCalendarServiceBuilder(std::shared_ptr<HTTPTransport> transport = nullptr,
                                                          std::optional<QUrl> calendarBaseURL = std::nullopt);

// The workspace's factory of Google services. Without a calendar service
// builder it offers none, and the workspace runs on the local store.
GoogleServicesFactory makeGoogleServicesFactory(std::shared_ptr<const Defaults> defaults,
                                                GoogleCalendarServiceBuilder buildCalendarService,
                                                GoogleServiceSeams seams = {});

} // namespace tavelo
