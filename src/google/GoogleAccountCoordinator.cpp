#include "google/GoogleAccountCoordinator.h"

#include "google/GoogleCredential.h"
#include "google/GoogleOAuthClient.h"
#include "google/LoopbackOAuthReceiver.h"

#include <QDesktopServices>

namespace tavelo {

using Kind = GoogleAccountCoordinatorError::Kind;

std::optional<QString> GoogleAccountCoordinatorError::errorDescription() const {
    switch (kind_) {
    case Kind::accountMismatch:
        return QStringLiteral("The authorized Google account does not match the account being reconnected.");
    case Kind::browserUnavailable: return QStringLiteral("The Google authorization page could not be opened.");
    case Kind::missingRefreshToken: return QStringLiteral("Google did not return an offline authorization credential.");
    }
    return std::nullopt;
}

QCoro::Task<bool> DesktopAuthorizationURLOpener::open(QUrl url) { co_return QDesktopServices::openUrl(url); }

GoogleAccountCoordinator::ReceiverFactory GoogleAccountCoordinator::defaultReceiverFactory() {
    return [] { return std::static_pointer_cast<OAuthCallbackReceiving>(LoopbackOAuthReceiver::make()); };
}

GoogleAccountCoordinator::GoogleAccountCoordinator(Dependencies dependencies)
    : dependencies_(std::make_shared<const Dependencies>(std::move(dependencies))) {}

QCoro::Task<GoogleIdentity> GoogleAccountCoordinator::connect(std::stop_token stop) const {
    return authorize(dependencies_, std::nullopt, std::nullopt, std::move(stop));
}

QCoro::Task<GoogleIdentity> GoogleAccountCoordinator::reconnect(QString subject, std::stop_token stop) const {
    auto dependencies = dependencies_;
    const std::optional<GoogleCredential> stored = co_await dependencies->credentialStore->load(subject);
    std::optional<QString> existingRefreshToken;
    if (stored) existingRefreshToken = stored->refreshToken;
    std::optional<QString> expectedSubject = subject;
    co_return co_await authorize(dependencies, expectedSubject, existingRefreshToken, stop);
}

QCoro::Task<void> GoogleAccountCoordinator::disconnect(QString subject) const {
    auto dependencies = dependencies_;
    co_await dependencies->credentialStore->remove(subject);
}

QCoro::Task<GoogleIdentity> GoogleAccountCoordinator::authorize(std::shared_ptr<const Dependencies> dependencies,
                                                                std::optional<QString> expectedSubject,
                                                                std::optional<QString> existingRefreshToken,
                                                                std::stop_token stop) {
    const GoogleOAuthClient& client = *dependencies->oauthClient;
    const std::shared_ptr<OAuthCallbackReceiving> receiver = dependencies->receiverFactory();
    const QUrl redirectURL = co_await receiver->start(stop);
    const PKCEPair pkce = dependencies->makePKCE();
    const QString state = dependencies->makeState();
    const QUrl url = googleAuthorizationURL(client.endpoints().authorization, client.configuration().clientID,
                                            redirectURL, pkce, state);

    bool opened = false;
    std::exception_ptr openFailure;
    try {
        opened = co_await dependencies->authorizationOpener->open(url);
    } catch (...) {
        openFailure = std::current_exception();
    }
    if (openFailure || !opened) {
        receiver->cancel();
        if (openFailure && isCancellation(openFailure)) std::rethrow_exception(openFailure);
        throw GoogleAccountCoordinatorError(Kind::browserUnavailable);
    }

    const QString code = co_await receiver->waitForCallback(state, stop);
    const GoogleOAuthGrant grant = co_await client.exchangeCode(code, pkce.verifier, redirectURL, stop);
    const GoogleIdentity identity = co_await client.fetchIdentity(grant.accessToken, stop);
    if (expectedSubject && *expectedSubject != identity.subject)
        throw GoogleAccountCoordinatorError(Kind::accountMismatch);
    const std::optional<QString> refreshToken = grant.refreshToken ? grant.refreshToken : existingRefreshToken;
    if (!refreshToken) throw GoogleAccountCoordinatorError(Kind::missingRefreshToken);

    GoogleCredential credential{identity.subject, identity.email, *refreshToken, grant.accessToken, grant.expiry,
                                grant.scopes};
    co_await dependencies->credentialStore->save(credential);
    co_return identity;
}

} // namespace tavelo
