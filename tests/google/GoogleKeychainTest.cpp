// Google credentials in a real Secret Service, and a whole sign-in through
// a real browser. Runs under scripts/with-secret-service, which starts a
// private D-Bus session with an unlocked GNOME Keyring in a throw-away home.

#include "GoogleTestSupport.h"

#include "google/GoogleAccessTokenProvider.h"
#include "google/GoogleAccountCoordinator.h"
#include "google/LoopbackOAuthReceiver.h"
#include "support/SecretStore.h"
#include "support/UUID.h"

#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

using namespace tavelo;
using namespace tavelo::testing;

namespace {

QStringList capturedWarnings;

void captureWarnings(QtMsgType type, const QMessageLogContext& context, const QString& message) {
    if (type == QtWarningMsg) capturedWarnings << QString::fromLatin1(context.category) + ": " + message;
}

class GoogleKeychainTest : public ::testing::Test {
protected:
    GoogleKeychainTest()
        : secrets(std::make_shared<KeychainSecretStore>()),
          workspace(UUID::random().toString()),
          store(std::make_shared<KeychainGoogleCredentialStore>(KeychainGoogleCredentialStore::serviceName(workspace),
                                                                secrets)) {}
    ~GoogleKeychainTest() override { qInstallMessageHandler(nullptr); }

    GoogleCredential credential(const QString& subject, const QString& accessToken) const {
        return GoogleCredential{subject, "hanako@example.com", "1//refresh", accessToken,
                                Date::fromReferenceSeconds(800'000'000.5), googleRequestedScopes()};
    }

    std::shared_ptr<KeychainSecretStore> secrets;
    QString workspace;
    std::shared_ptr<KeychainGoogleCredentialStore> store;
};

} // namespace

TEST_F(GoogleKeychainTest, OneItemPerWorkspaceAndSubjectInItsStoredForm) {
    EXPECT_EQ(store->service(), "jp.tavelo.app.google-oauth." + workspace);
    EXPECT_EQ(syncWait(store->load("sub-1")), std::nullopt);

    syncWait(store->save(credential("sub-1", "ya29.first")));
    syncWait(store->save(credential("sub-1", "ya29.second")));
    syncWait(store->save(credential("sub-2", "ya29.other")));
    EXPECT_EQ(syncWait(store->load("sub-1")), credential("sub-1", "ya29.second"));
    EXPECT_EQ(syncWait(store->load("sub-2"))->accessToken, QStringLiteral("ya29.other"));

    const SecretReadResult raw = syncWait(secrets->read(store->service(), "sub-1"));
    ASSERT_EQ(raw.status, SecretStatus::success);
    EXPECT_TRUE(raw.data.startsWith(R"({"subject":"sub-1","email":"hanako@example.com","refreshToken":"1//refresh",)"
                                    R"("accessToken":"ya29.second","expiry":800000000.5,"scopes":["openid",)"))
        << raw.data.toStdString();

    // Another workspace of the same user sees nothing.
    KeychainGoogleCredentialStore other(KeychainGoogleCredentialStore::serviceName(UUID::random().toString()), secrets);
    EXPECT_EQ(syncWait(other.load("sub-1")), std::nullopt);

    syncWait(store->remove("sub-1"));
    syncWait(store->remove("sub-1"));
    EXPECT_EQ(syncWait(store->load("sub-1")), std::nullopt);
    EXPECT_TRUE(syncWait(store->load("sub-2")).has_value());
    syncWait(store->remove("sub-2"));
}

TEST_F(GoogleKeychainTest, ADamagedItemIsAFailureNotAnAbsence) {
    qInstallMessageHandler(captureWarnings);
    capturedWarnings.clear();
    for (const QByteArray& damaged : {QByteArray("not json"), QByteArray(R"({"subject":"sub-1"})"),
                                      QByteArray(R"({"subject":"s","email":"e","refreshToken":"r","accessToken":"a",)"
                                                 R"("expiry":"2026-01-01T00:00:00Z","scopes":[]})")}) {
        ASSERT_EQ(syncWait(secrets->save(store->service(), "sub-1", damaged)), SecretStatus::success);
        EXPECT_THROW(syncWait(store->load("sub-1")), KeychainGoogleCredentialStoreError);
        // Nothing was lost: the item is still there for a person to inspect.
        EXPECT_EQ(syncWait(secrets->read(store->service(), "sub-1")).data, damaged);
    }
    for (const QString& line : capturedWarnings) EXPECT_FALSE(line.contains("1//refresh") || line.contains("ya29"));

    // A provider over the damaged item reports it, and refreshes nothing.
    auto provider = GoogleAccessTokenProvider::make("sub-1", store, nullptr);
    expectError<GoogleAccessTokenProviderError>([&] { syncWait(provider->accessToken()); },
                                                GoogleAccessTokenProviderError::Kind::credentialUnavailable);
    syncWait(store->remove("sub-1"));
}

namespace {

// Opens the consent page in headless Chromium and keeps the DOM it ends on.
class ChromiumOpener final : public AuthorizationURLOpening {
public:
    static constexpr const char* kChromium = "/usr/bin/chromium";

    QCoro::Task<bool> open(QUrl url) override {
        process.setProgram(QString::fromLatin1(kChromium));
        process.setArguments({"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                              "--disable-background-networking", "--disable-component-update", "--disable-sync",
                              "--user-data-dir=" + profile.path(), "--dump-dom", url.toString(QUrl::FullyEncoded)});
        process.start();
        co_return process.waitForStarted(10000);
    }

    QString finishedDom() {
        if (process.state() != QProcess::NotRunning && !process.waitForFinished(60000)) process.kill();
        return QString::fromUtf8(process.readAllStandardOutput());
    }

    QTemporaryDir profile;
    QProcess process;
};

} // namespace

TEST_F(GoogleKeychainTest, SignsInThroughARealBrowserAndRefreshesFromTheSecretService) {
    ASSERT_TRUE(QFileInfo(ChromiumOpener::kChromium).isExecutable())
        << "Chromium is required for this test: run scripts/bootstrap";
    GoogleOAuthStandIn google(kClientID, kClientSecret);
    google.setRotatesRefreshTokens(true);
    Date now = Date::fromReferenceSeconds(800'000'000);
    auto client = std::make_shared<GoogleOAuthClient>(GoogleOAuthConfiguration{kClientID, kClientSecret},
                                                      std::make_shared<NetworkHTTPTransport>(), [&] { return now; },
                                                      google.endpoints());
    auto browser = std::make_shared<ChromiumOpener>();
    GoogleAccountCoordinator::Dependencies dependencies;
    dependencies.oauthClient = client;
    dependencies.credentialStore = store;
    dependencies.authorizationOpener = browser;
    GoogleAccountCoordinator coordinator(std::move(dependencies));

    const GoogleIdentity identity = syncWait(coordinator.connect());
    EXPECT_EQ(identity.subject, QStringLiteral("108234567890123456789"));
    const QString dom = browser->finishedDom();
    EXPECT_TRUE(dom.contains("<h1>Authorization complete</h1><p>You can close this window and return to Tavelo.</p>"))
        << dom.toStdString();
    EXPECT_EQ(google.exchangeCount(), 1);

    // The credential lives in the Secret Service, where a new provider finds
    // it and where the rotated refresh token lands before anyone uses it.
    const auto stored = syncWait(store->load(identity.subject));
    ASSERT_TRUE(stored);
    EXPECT_TRUE(google.isRefreshTokenLive(stored->refreshToken));
    now = stored->expiry.addingSeconds(-60);
    auto provider = GoogleAccessTokenProvider::make(identity.subject, store, client, [&] { return now; });
    const QString token = syncWait(provider->accessToken()); // callers sharing one refresh: the provider's own test
    EXPECT_EQ(google.refreshCount(), 1);
    const auto refreshed = syncWait(store->load(identity.subject));
    EXPECT_EQ(refreshed->accessToken, token);
    EXPECT_NE(refreshed->refreshToken, stored->refreshToken);
    EXPECT_TRUE(google.isRefreshTokenLive(refreshed->refreshToken));

    syncWait(coordinator.disconnect(identity.subject));
    EXPECT_EQ(syncWait(store->load(identity.subject)), std::nullopt);
}

// GNOME Keyring always has the in-memory "session" collection, unlocked.
TEST_F(GoogleKeychainTest, AChosenCollectionHoldsTheCredentialsAndAMissingOneFails) {
    const QString session = QStringLiteral("/org/freedesktop/secrets/collection/session");
    KeychainGoogleCredentialStore chosen(store->service(), secrets, session);
    syncWait(chosen.save(credential("sub-9", "ya29.session")));
    EXPECT_EQ(syncWait(chosen.load("sub-9"))->accessToken, QStringLiteral("ya29.session"));
    // The chosen collection sees nothing of the default one.
    syncWait(store->save(credential("sub-8", "ya29.default")));
    EXPECT_EQ(syncWait(chosen.load("sub-8")), std::nullopt);
    syncWait(store->remove("sub-8"));
    syncWait(chosen.remove("sub-9"));

    KeychainGoogleCredentialStore missing(store->service(), secrets,
                                          QStringLiteral("/org/freedesktop/secrets/collection/no_such_keyring"));
    EXPECT_THROW(syncWait(missing.load("sub-9")), KeychainGoogleCredentialStoreError);
    EXPECT_THROW(syncWait(missing.save(credential("sub-9", "ya29.x"))), KeychainGoogleCredentialStoreError);
}
