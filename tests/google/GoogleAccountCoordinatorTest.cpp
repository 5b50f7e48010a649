// Whole sign-ins: the real loopback receiver, the Google stand-in and a
// scripted browser that follows the consent page's redirect over HTTP.

#include "GoogleTestSupport.h"

#include "google/GoogleAccountCoordinator.h"
#include "google/LoopbackOAuthReceiver.h"

#include <QTcpSocket>
#include <QUrlQuery>

using namespace tavelo;
using namespace tavelo::testing;
using Kind = GoogleAccountCoordinatorError::Kind;

namespace {

// Opens the consent page like a browser would, or refuses, or only notes
// the address and never visits it.
class TestOpener final : public AuthorizationURLOpening {
public:
    enum class Mode { visit, refuse, ignore };
    QCoro::Task<bool> open(QUrl url) override {
        opened.push_back(url);
        if (mode == Mode::refuse) co_return false;
        // Like a real browser, the visit goes on after the opener returns.
        if (mode == Mode::visit)
            visits.push_back(BackgroundTask<bool>::start([this, url](std::stop_token) { return browser.open(url); }));
        co_return true;
    }
    // The page the browser ended on, once its last visit is over.
    QByteArray finalPage() {
        if (!visits.empty()) syncWait(visits.back().result());
        return browser.lastPage ? browser.lastPage->body : QByteArray();
    }
    quint16 redirectPort() const {
        return QUrl(QUrlQuery(opened.back()).queryItemValue("redirect_uri", QUrl::FullyDecoded)).port();
    }

    Mode mode = Mode::visit;
    QList<QUrl> opened;
    ScriptedBrowser browser;
    std::vector<BackgroundTask<bool>> visits;
};

class AccountCoordinatorTest : public ::testing::Test {
protected:
    AccountCoordinatorTest()
        : google(kClientID, kClientSecret), store(std::make_shared<MemoryCredentialStore>()),
          opener(std::make_shared<TestOpener>()),
          client(std::make_shared<GoogleOAuthClient>(GoogleOAuthConfiguration{kClientID, kClientSecret},
                                                     std::make_shared<NetworkHTTPTransport>(), [this] { return now; },
                                                     google.endpoints())),
          coordinator(GoogleAccountCoordinator::Dependencies{
              client, store, GoogleAccountCoordinator::defaultReceiverFactory(), opener,
              [] { return PKCEGenerator::make(); }, [] { return PKCEGenerator::make().verifier; }}) {}

    static bool portIsClosed(quint16 port) {
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, port);
        return !probe.waitForConnected(500);
    }

    GoogleOAuthStandIn google;
    std::shared_ptr<MemoryCredentialStore> store;
    std::shared_ptr<TestOpener> opener;
    Date now = Date::fromReferenceSeconds(800'000'000);
    std::shared_ptr<GoogleOAuthClient> client;
    GoogleAccountCoordinator coordinator;
    const GoogleOAuthStandIn::Account hanako{"108234567890123456789", "hanako@example.com", "Hanako Yamada"};
};

} // namespace

TEST_F(AccountCoordinatorTest, ConnectStoresTheCredentialOfWhoeverSignedIn) {
    const GoogleIdentity identity = syncWait(coordinator.connect());
    EXPECT_EQ(identity, (GoogleIdentity{hanako.subject, hanako.email, hanako.name}));
    EXPECT_TRUE(portIsClosed(opener->redirectPort()));

    ASSERT_EQ(store->items.size(), 1u);
    const GoogleCredential& stored = store->items.at(hanako.subject);
    EXPECT_EQ(stored.expiry, now.addingSeconds(3599));
    EXPECT_EQ(stored.scopes, googleRequestedScopes());

    EXPECT_NO_THROW(syncWait(coordinator.disconnect(hanako.subject)));
    EXPECT_TRUE(store->items.empty());
    EXPECT_NO_THROW(syncWait(coordinator.disconnect(hanako.subject)));
}

TEST_F(AccountCoordinatorTest, ReconnectKeepsTheRefreshTokenAndRefusesAnotherAccount) {
    syncWait(coordinator.connect());
    const GoogleCredential first = store->items.at(hanako.subject);

    google.setIssuesRefreshTokens(false);
    google.setOmitsScope(true);
    now = now.addingSeconds(100);
    EXPECT_EQ(syncWait(coordinator.reconnect(hanako.subject)).subject, hanako.subject);
    const GoogleCredential second = store->items.at(hanako.subject);
    EXPECT_EQ(second.refreshToken, first.refreshToken);
    EXPECT_EQ(second.expiry, now.addingSeconds(3599));

    google.setIssuesRefreshTokens(true);
    google.setSignedInAccount({"999", "someone-else@example.com", {}});
    expectError<GoogleAccountCoordinatorError>([&] { syncWait(coordinator.reconnect(hanako.subject)); },
                                               Kind::accountMismatch);
    EXPECT_EQ(store->items.at(hanako.subject), second);
    EXPECT_FALSE(store->items.contains("999"));

    // A first sign-in without a refresh token stores nothing.
    google.setIssuesRefreshTokens(false);
    expectError<GoogleAccountCoordinatorError>([&] { syncWait(coordinator.connect()); }, Kind::missingRefreshToken);
    EXPECT_EQ(store->items.size(), 1u);
}

TEST_F(AccountCoordinatorTest, FailedSignInsStoreNothingAndCloseTheListener) {
    opener->mode = TestOpener::Mode::refuse;
    expectError<GoogleAccountCoordinatorError>([&] { syncWait(coordinator.connect()); }, Kind::browserUnavailable);
    EXPECT_TRUE(portIsClosed(opener->redirectPort()));

    opener->mode = TestOpener::Mode::visit;
    google.setDeniesConsent(true);
    expectError<OAuthCallbackError>([&] { syncWait(coordinator.connect()); }, OAuthCallbackError::Kind::providerDenied);
    EXPECT_TRUE(opener->finalPage().contains("Authorization failed"));
    EXPECT_TRUE(portIsClosed(opener->redirectPort()));
    google.setDeniesConsent(false);

    google.failNext(GoogleOAuthStandIn::kTokenPath,
                    CannedResponse::json(401, R"({"error":"invalid_client","error_description":"Unauthorized"})"));
    expectError<GoogleOAuthClientError>([&] { syncWait(coordinator.connect()); }, GoogleOAuthClientError::Kind::httpFailure);
    EXPECT_TRUE(portIsClosed(opener->redirectPort()));
    store->failSave = true;
    expectError<KeychainGoogleCredentialStoreError>([&] { syncWait(coordinator.connect()); },
                                                    KeychainGoogleCredentialStoreError::Kind::operationFailed);
    EXPECT_TRUE(store->items.empty());

    opener->mode = TestOpener::Mode::ignore;
    std::stop_source stop;
    auto waiting = coordinator.connect(stop.get_token());
    ASSERT_TRUE(LocalHttpServer::waitUntil([&] { return opener->opened.size() == 5; }));
    const quint16 port = opener->redirectPort();
    stop.request_stop();
    EXPECT_THROW(syncWait(waiting), CancellationError);
    EXPECT_TRUE(portIsClosed(port));
    EXPECT_TRUE(store->items.empty());
}
