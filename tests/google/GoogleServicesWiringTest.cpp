// The Google parts a workspace is given, used end to end: sign-in through
// the coordinator into the real Secret Service, then tokens from a provider
// of the same parts.

#include "GoogleTestSupport.h"

#include "app/GoogleServicesWiring.h"
#include "google/GoogleAccessTokenProvider.h"
#include "google/GoogleAccountCoordinator.h"
#include "google/GoogleCalendarStandIn.h"
#include "services/GoogleCalendarService.h"
#include "services/LocalCalendarService.h"
#include "support/Defaults.h"
#include "support/SecretStore.h"

#include <QJsonObject>
#include <QTemporaryDir>

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

class GoogleServicesWiringTest : public ::testing::Test {
protected:
    GoogleOAuthStandIn oauth{kClientID, kClientSecret};
    std::shared_ptr<MemoryDefaults> defaults = std::make_shared<MemoryDefaults>();
    std::shared_ptr<KeychainSecretStore> secrets = std::make_shared<KeychainSecretStore>();
    GoogleServiceSeams seams{nullptr, std::make_shared<VisitingOpener>(), secrets, oauth.endpoints()};
    const GoogleOAuthConfiguration configuration{kClientID, kClientSecret};
    const QString workspaceID = "ws-" + UUID::random().toString();
};

} // namespace

TEST_F(GoogleServicesWiringTest, WorkspacePartsSignInStoreAndHandOutTokens) {
    std::optional<GoogleServiceParts> parts;
    auto factory = makeGoogleServicesFactory(defaults, [&](GoogleServiceParts made, std::shared_ptr<LocalCalendarService>) {
        parts = std::move(made);
        return std::optional<TaveloGoogleServices>(TaveloGoogleServices{});
    }, seams);
    ASSERT_TRUE(factory(configuration, nullptr, "/data/jp.tavelo.app/users/" + workspaceID));
    ASSERT_TRUE(parts);

    const GoogleIdentity identity = syncWait(parts->coordinator->connect());
    const SecretReadResult item = syncWait(secrets->read("jp.tavelo.app.google-oauth." + workspaceID, identity.subject));
    ASSERT_EQ(item.status, SecretStatus::success);
    const GoogleCredential stored = GoogleCredential::fromJson(item.data);
    EXPECT_EQ(syncWait(parts->makeTokenProvider(identity.subject)->accessToken()), stored.accessToken);
    EXPECT_EQ(oauth.refreshCount(), 0);
    syncWait(parts->coordinator->disconnect(identity.subject));

    // With a collection chosen in the defaults, the store uses it.
    defaults->setString(kGoogleCredentialKeychainPathKey, "/org/freedesktop/secrets/collection/session");
    const auto chosen = makeGoogleServiceParts(configuration, workspaceID, *defaults, seams);
    auto* store = dynamic_cast<KeychainGoogleCredentialStore*>(chosen.credentialStore.get());
    ASSERT_TRUE(store);
    EXPECT_EQ(store->keychainPath(), QStringLiteral("/org/freedesktop/secrets/collection/session"));
}

// The production calendar service builder: sign-in through the coordinator,
// tokens from the account's provider, listings from the Calendar stand-in,
// everything into a real SQLite file.
TEST_F(GoogleServicesWiringTest, BuiltCalendarServiceSignsInAndSyncsAnAccount) {
    GoogleCalendarStandIn calendar;
    calendar.setTokenValidator([&](const QString& token) { return oauth.isAccessTokenLive(token); });
    calendar.addCalendar("hanako@example.com", "Hanako", true);
    for (int i = 0; i < 3; ++i)
        calendar.putEvent("hanako@example.com",
                          QJsonObject{{"id", QStringLiteral("wired%1").arg(i)},
                                      {"summary", "Wired"},
                                      {"start", QJsonObject{{"dateTime", "2026-12-01T10:00:00Z"}}},
                                      {"end", QJsonObject{{"dateTime", "2026-12-01T11:00:00Z"}}}});

    auto factory = makeGoogleServicesFactory(defaults, googleCalendarServiceBuilder(nullptr, calendar.baseURL()), seams);
    QTemporaryDir dir;
    auto local = std::make_shared<LocalCalendarService>(dir.filePath("calendar.sqlite"));
    auto services = factory(configuration, local, "/data/users/" + workspaceID);
    ASSERT_TRUE(services && services->calendarService && services->accountService);

    const Account account = syncWait(services->accountService->connectGoogleAccount({}));
    syncWait(services->accountService->syncGoogleAccount(account.id, {}));
    const AppSnapshot stored = syncWait(LocalCalendarService(dir.filePath("calendar.sqlite")).load()).snapshot;
    EXPECT_EQ(std::count_if(stored.events.begin(), stored.events.end(),
                            [](const CalendarEvent& e) { return e.googleEventID.has_value(); }),
              3);
    syncWait(services->accountService->disconnectGoogleAccount(account.id, {}));
}
