// The Google parts a workspace is given, used end to end: sign-in through
// the coordinator into the real Secret Service, then tokens from a provider
// of the same parts.

#include "GoogleTestSupport.h"

#include "app/GoogleServicesWiring.h"
#include "google/GoogleAccessTokenProvider.h"
#include "google/GoogleAccountCoordinator.h"
#include "support/Defaults.h"
#include "support/SecretStore.h"

using namespace tavelo;
using namespace tavelo::testing;

namespace {

class VisitingOpener final : public AuthorizationURLOpening {
public:
    QCoro::Task<bool> open(QUrl url) override {
        visits.push_back(BackgroundTask<bool>::start([this, url](std::stop_token) { return browser.open(url); }));
        co_return true;
    }
    ScriptedBrowser browser;
    std::vector<BackgroundTask<bool>> visits;
};

} // namespace

TEST(GoogleServicesWiringTest, WorkspacePartsSignInStoreAndHandOutTokens) {
    GoogleOAuthStandIn google(kClientID, kClientSecret);
    auto defaults = std::make_shared<MemoryDefaults>();
    auto secrets = std::make_shared<KeychainSecretStore>();
    GoogleServiceSeams seams{nullptr, std::make_shared<VisitingOpener>(), secrets, google.endpoints()};
    const GoogleOAuthConfiguration configuration{kClientID, kClientSecret};

    EXPECT_FALSE(makeGoogleServicesFactory(defaults, nullptr, seams)(configuration, nullptr, "/data/users/ws-1"));

    std::optional<GoogleServiceParts> parts;
    auto factory = makeGoogleServicesFactory(defaults, [&](GoogleServiceParts made, std::shared_ptr<LocalCalendarService>) {
        parts = std::move(made);
        return std::optional<TaveloGoogleServices>(TaveloGoogleServices{});
    }, seams);
    const QString workspaceID = "ws-" + UUID::random().toString();
    ASSERT_TRUE(factory(configuration, nullptr, "/data/jp.tavelo.app/users/" + workspaceID));
    ASSERT_TRUE(parts);
    EXPECT_EQ(parts->workspaceID, workspaceID);
    EXPECT_EQ(parts->oauthClient->configuration(), configuration);

    const GoogleIdentity identity = syncWait(parts->coordinator->connect());
    const SecretReadResult item = syncWait(secrets->read("jp.tavelo.app.google-oauth." + workspaceID, identity.subject));
    ASSERT_EQ(item.status, SecretStatus::success);
    const GoogleCredential stored = GoogleCredential::fromJson(item.data);
    EXPECT_EQ(syncWait(parts->makeTokenProvider(identity.subject)->accessToken()), stored.accessToken);
    EXPECT_EQ(google.refreshCount(), 0);
    syncWait(parts->coordinator->disconnect(identity.subject));

    // With a collection chosen in the defaults, the store uses it.
    defaults->setString(kGoogleCredentialKeychainPathKey, "/org/freedesktop/secrets/collection/session");
    const auto chosen = makeGoogleServiceParts(configuration, workspaceID, *defaults, seams);
    auto* store = dynamic_cast<KeychainGoogleCredentialStore*>(chosen.credentialStore.get());
    ASSERT_TRUE(store);
    EXPECT_EQ(store->keychainPath(), QStringLiteral("/org/freedesktop/secrets/collection/session"));
    EXPECT_EQ(syncWait(store->load(identity.subject)), std::nullopt);
}
