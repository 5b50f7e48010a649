// Access tokens and the single refresh flight, against the Google stand-in
// over real sockets. The credential store is an in-memory one that can be
// told to fail; the real Secret Service store has its own suite.

#include "GoogleTestSupport.h"

#include "google/GoogleAccessTokenProvider.h"


using namespace tavelo;
using namespace tavelo::testing;
using Kind = GoogleAccessTokenProviderError::Kind;

namespace {

class AccessTokenProviderTest : public ::testing::Test {
protected:
    AccessTokenProviderTest()
        : google(kClientID, kClientSecret), store(std::make_shared<MemoryCredentialStore>()),
          client(std::make_shared<GoogleOAuthClient>(GoogleOAuthConfiguration{kClientID, kClientSecret},
                                                     std::make_shared<NetworkHTTPTransport>(),
                                                     [this] { return now; }, google.endpoints())) {
        refreshToken = google.grantOffline({subject, "hanako@example.com", {}}, googleRequestedScopes());
        storeCredential(now.addingSeconds(-10));
    }

    void storeCredential(Date expiry) {
        store->items[subject] = GoogleCredential{subject, "hanako@example.com", refreshToken, "ya29.stored", expiry,
                                                 googleRequestedScopes()};
    }

    std::shared_ptr<GoogleAccessTokenProvider> makeProvider() {
        GoogleAccessTokenProvider::Functions f;
        f.loadCredential = [this] { return store->load(subject); };
        f.refreshCredential = [this](GoogleCredential c) { return client->refresh(std::move(c)); };
        f.saveCredential = [this](GoogleCredential c) { return store->save(std::move(c)); };
        f.now = [this] { return now; };
        f.refreshWaiterDidJoin = [this](int count) { joined = count; };
        f.refreshWaiterDidCancel = [this] { ++cancelled; };
        return GoogleAccessTokenProvider::make(std::move(f));
    }

    const QString subject = QStringLiteral("108234567890123456789");
    GoogleOAuthStandIn google;
    std::shared_ptr<MemoryCredentialStore> store;
    Date now = Date::fromReferenceSeconds(800'000'000);
    std::shared_ptr<GoogleOAuthClient> client;
    QString refreshToken;
    int joined = 0;
    int cancelled = 0;
};

} // namespace

TEST_F(AccessTokenProviderTest, HundredConcurrentCallersShareOneRefreshStoredBeforeUse) {
    google.setRotatesRefreshTokens(true);
    auto provider = makeProvider();
    std::vector<QString> tokens;
    bool tokenHandedOutBeforeSave = false;
    store->onSave = [&](const GoogleCredential& saved) {
        tokenHandedOutBeforeSave = !tokens.empty();
        EXPECT_NE(saved.refreshToken, refreshToken);
        EXPECT_TRUE(google.isRefreshTokenLive(saved.refreshToken));
    };

    std::vector<QCoro::Task<QString>> callers;
    for (int i = 0; i < 100; ++i) callers.push_back(provider->accessToken());
    for (auto& caller : callers) tokens.push_back(syncWait(caller));

    EXPECT_EQ(google.refreshCount(), 1);
    EXPECT_EQ(store->saves, 1);
    EXPECT_EQ(joined, 100);
    EXPECT_FALSE(tokenHandedOutBeforeSave);
    EXPECT_EQ(std::count(tokens.begin(), tokens.end(), tokens.front()), 100);

    // The fresh token is served from memory, with no further request.
    EXPECT_EQ(syncWait(provider->accessToken()), tokens.front());
    EXPECT_EQ(google.refreshCount(), 1);
}

TEST_F(AccessTokenProviderTest, CancellingOneWaiterLeavesTheFlightAndTheOthersAlone) {
    google.setHoldsTokenRequests(true);
    auto provider = makeProvider();
    std::stop_source starterStop, waiterStop;
    auto starter = provider->accessToken(std::nullopt, starterStop.get_token());
    auto cancelledWaiter = provider->accessToken(std::nullopt, waiterStop.get_token());
    std::vector<QCoro::Task<QString>> others;
    for (int i = 0; i < 8; ++i) others.push_back(provider->accessToken());
    ASSERT_TRUE(LocalHttpServer::waitUntil([&] { return google.heldTokenRequests() == 1 && joined == 10; }));

    starterStop.request_stop();
    waiterStop.request_stop();
    EXPECT_THROW(syncWait(starter), CancellationError);
    EXPECT_THROW(syncWait(cancelledWaiter), CancellationError);
    EXPECT_EQ(cancelled, 2);
    EXPECT_TRUE(provider->hasRefreshFlight());

    google.releaseHeldTokenRequests();
    QString first;
    for (auto& other : others) {
        const QString token = syncWait(other);
        if (first.isEmpty()) first = token;
        EXPECT_EQ(token, first);
    }
    EXPECT_TRUE(google.isAccessTokenLive(first));
    EXPECT_EQ(google.refreshCount(), 1);
}

TEST_F(AccessTokenProviderTest, AFailedRefreshFailsEveryWaiterAlikeAndClearsTheSlot) {
    auto provider = makeProvider();
    const std::vector<std::pair<CannedResponse, Kind>> failures{
        {CannedResponse{503, {}, "upstream connect error"}, Kind::refreshFailed},
        {CannedResponse::json(200, "{\"access_token\":"), Kind::refreshFailed},
        {CannedResponse::json(400, R"({"error":"invalid_grant","error_description":"Token has been expired or revoked."})"),
         Kind::reconnectRequired},
    };
    int refreshes = 0;
    for (const auto& [response, kind] : failures) {
        SCOPED_TRACE(response.body.toStdString());
        google.failNext("/token", response);
        std::vector<QCoro::Task<QString>> callers;
        for (int i = 0; i < 10; ++i) callers.push_back(provider->accessToken());
        for (auto& caller : callers)
            expectError<GoogleAccessTokenProviderError>([&] { syncWait(caller); }, kind);
        EXPECT_EQ(google.server().count("POST", "/token"), ++refreshes);
        EXPECT_FALSE(provider->hasRefreshFlight());
        EXPECT_EQ(provider->cachedCredential()->accessToken, QStringLiteral("ya29.stored"));
    }
    EXPECT_EQ(store->saves, 0);

    // A refreshed token that cannot be stored is not handed out; the next
    // call tries again.
    store->failSave = true;
    expectError<GoogleAccessTokenProviderError>([&] { syncWait(provider->accessToken()); }, Kind::persistenceFailed);
    EXPECT_EQ(provider->cachedCredential()->accessToken, QStringLiteral("ya29.stored"));
    store->failSave = false;
    const QString token = syncWait(provider->accessToken());
    EXPECT_EQ(google.server().count("POST", "/token"), refreshes + 2);
    EXPECT_EQ(store->items[subject].accessToken, token);
}

TEST_F(AccessTokenProviderTest, LifetimeMarginAndRejectedTokens) {
    storeCredential(now.addingSeconds(300));
    auto provider = makeProvider();
    EXPECT_EQ(syncWait(provider->accessToken()), QStringLiteral("ya29.stored"));
    now = now.addingSeconds(0.1);
    const QString refreshed = syncWait(provider->accessToken());
    EXPECT_NE(refreshed, QStringLiteral("ya29.stored"));
    EXPECT_EQ(google.refreshCount(), 1);

    // A refused token that is no longer current: the current one, even when
    // close to its end, and no request.
    now = provider->cachedCredential()->expiry.addingSeconds(-10);
    EXPECT_EQ(syncWait(provider->accessToken(QStringLiteral("ya29.stored"))), refreshed);
    EXPECT_EQ(google.refreshCount(), 1);
    // The current token refused: a refresh, even with hours left.
    now = provider->cachedCredential()->expiry.addingSeconds(-3000);
    const QString again = syncWait(provider->accessToken(refreshed));
    EXPECT_NE(again, refreshed);
    EXPECT_EQ(google.refreshCount(), 2);
}

TEST_F(AccessTokenProviderTest, MissingOrUnreadableCredentials) {
    store->items.clear();
    auto provider = makeProvider();
    expectError<GoogleAccessTokenProviderError>([&] { syncWait(provider->accessToken()); }, Kind::reconnectRequired);
    store->failLoad = true;
    expectError<GoogleAccessTokenProviderError>([&] { syncWait(provider->accessToken()); }, Kind::credentialUnavailable);
    store->failLoad = false;
    storeCredential(now.addingSeconds(3600));
    EXPECT_EQ(syncWait(provider->accessToken()), QStringLiteral("ya29.stored"));
    EXPECT_EQ(google.refreshCount(), 0);
}
