// The OAuth protocol layer: PKCE, the consent URL, the redirect's rules and
// the client's requests against the Google stand-in over real sockets.

#include "GoogleTestSupport.h"

#include "google/GoogleCredential.h"

#include <QRegularExpression>
#include <QTimer>
#include <QUrlQuery>


using namespace tavelo;
using namespace tavelo::testing;

namespace {

QString decodedItem(const QUrl& url, const QString& key) {
    return QUrlQuery(url).queryItemValue(key, QUrl::FullyDecoded);
}

} // namespace

TEST(PKCETest, MatchesTheRfcExampleAndDrawsFreshVerifiers) {
    // RFC 7636, appendix B.
    const unsigned char bytes[] = {116, 24, 223, 180, 151, 153, 224, 37, 79, 250, 96, 125, 216, 173, 187, 186,
                                   22, 212, 37, 77, 105, 214, 191, 240, 91, 88, 5, 88, 83, 132, 141, 121};
    const PKCEPair fixed = PKCEGenerator::make(QByteArray(reinterpret_cast<const char*>(bytes), sizeof bytes));
    EXPECT_EQ(fixed.verifier, QStringLiteral("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"));
    EXPECT_EQ(fixed.challenge, QStringLiteral("E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM"));

    const QRegularExpression base64url(QStringLiteral("^[A-Za-z0-9_-]{43}$"));
    const PKCEPair drawn = PKCEGenerator::make();
    EXPECT_TRUE(base64url.match(drawn.verifier).hasMatch()) << drawn.verifier.toStdString();
    EXPECT_TRUE(base64url.match(drawn.challenge).hasMatch());
    EXPECT_NE(PKCEGenerator::make().verifier, drawn.verifier);
}

TEST(AuthorizationURLTest, CarriesEveryItemInOrderWithScopesAsOneValue) {
    const PKCEPair pkce = PKCEGenerator::make();
    const QUrl redirect(QStringLiteral("http://127.0.0.1:49152/oauth/callback"));
    const QUrl url = googleAuthorizationURL(GoogleOAuthEndpoints::google().authorization, kClientID, redirect, pkce,
                                            QStringLiteral("st+a/te="));
    EXPECT_EQ(url.toString(QUrl::RemoveQuery), QStringLiteral("https://accounts.google.com/o/oauth2/v2/auth"));

    EXPECT_EQ(decodedItem(url, "redirect_uri"), redirect.toString());
    EXPECT_EQ(decodedItem(url, "scope"),
              QStringLiteral("openid email profile https://www.googleapis.com/auth/calendar.calendarlist.readonly "
                             "https://www.googleapis.com/auth/calendar.events "
                             "https://www.googleapis.com/auth/calendar.events.freebusy"));
    EXPECT_EQ(decodedItem(url, "code_challenge"), pkce.challenge);
    EXPECT_EQ(decodedItem(url, "state"), QStringLiteral("st+a/te="));
    // Without these Google hands out no refresh token.
    EXPECT_EQ(decodedItem(url, "access_type"), QStringLiteral("offline"));
    EXPECT_EQ(decodedItem(url, "prompt"), QStringLiteral("consent"));
}

TEST(FormEncodingTest, EncodesEverythingOutsideTheUnreservedSet) {
    EXPECT_EQ(formEncode({{"a b", "x+y"}, {"k", "-._~AZaz09"}, {"t", "=&/?%"}, {"u", QStringLiteral("日")}}),
              QByteArray("a%20b=x%2By&k=-._~AZaz09&t=%3D%26%2F%3F%25&u=%E6%97%A5"));
    EXPECT_EQ(parseScopes(QStringLiteral("  openid\temail \n profile ")), QStringList({"openid", "email", "profile"}));
}

TEST(OAuthCallbackTest, AppliesItsRulesInOrder) {
    using Kind = OAuthCallbackError::Kind;
    const QString state = QStringLiteral("expected-state");
    auto parse = [&](const QString& url) { return OAuthCallback::parse(QUrl(url), state); };

    EXPECT_EQ(parse("http://127.0.0.1:5000/oauth/callback?state=expected-state&code=4/0Abc"), QStringLiteral("4/0Abc"));
    EXPECT_EQ(parse("HTTP://127.0.0.1/oauth/callback?code=a%2Bb%26c&state=expected-state&scope=x"),
              QStringLiteral("a+b&c"));
    EXPECT_EQ(parse("http://127.0.0.1/oauth/callback?code=a+b&state=expected-state"), QStringLiteral("a+b"));

    const std::vector<std::pair<const char*, Kind>> cases{
        {"https://127.0.0.1/oauth/callback?state=expected-state&code=c", Kind::invalidHost},
        {"http://localhost/oauth/callback?state=expected-state&code=c", Kind::invalidHost},
        {"http://127.0.0.1/oauth/callback/?state=expected-state&code=c", Kind::invalidPath},
        {"http://127.0.0.1/oauth/callback?code=c", Kind::missingState},
        {"http://127.0.0.1/oauth/callback?state=expected-state&state=expected-state&code=c", Kind::invalidQuery},
        {"http://127.0.0.1/oauth/callback?state=expected-state&code=c&code=d", Kind::invalidQuery},
        {"http://127.0.0.1/oauth/callback?state=expected-state&c%6fde=c&code=d", Kind::invalidQuery},
        {"http://127.0.0.1/oauth/callback?state=wrong&error=access_denied", Kind::stateMismatch},
        {"http://127.0.0.1/oauth/callback?state=expected-state%26code%3Dx&code=c", Kind::stateMismatch},
        {"http://127.0.0.1/oauth/callback?state=expected-state&error=access_denied&code=c", Kind::providerDenied},
        {"http://127.0.0.1/oauth/callback?state=expected-state&code=", Kind::missingCode},
    };
    for (const auto& [url, kind] : cases) {
        SCOPED_TRACE(url);
        expectError<OAuthCallbackError>([&] { parse(QString::fromLatin1(url)); }, kind);
    }
}

namespace {

class GoogleOAuthClientTest : public ::testing::Test {
protected:
    GoogleOAuthClientTest()
        : google(kClientID, kClientSecret), transport(std::make_shared<NetworkHTTPTransport>()),
          client(makeClient(kClientSecret)) {}

    GoogleOAuthClient makeClient(const QString& secret) {
        return GoogleOAuthClient({kClientID, secret}, transport, [this] { return clock; }, google.endpoints());
    }

    GoogleCredential storedCredential(const QString& refreshToken) {
        return GoogleCredential{"108234567890123456789", "hanako@example.com", refreshToken, "ya29.old",
                                Date::fromReferenceSeconds(1000), {"openid", "old-scope"}};
    }

    GoogleOAuthStandIn google;
    std::shared_ptr<NetworkHTTPTransport> transport;
    Date clock = Date::fromReferenceSeconds(800'000'000);
    GoogleOAuthClient client;
};

} // namespace

TEST_F(GoogleOAuthClientTest, RefreshKeepsOrReplacesTokensAndClassifiesFailures) {
    using Kind = GoogleOAuthClientError::Kind;
    const QString refreshToken = google.grantOffline({"108234567890123456789", "hanako@example.com", {}}, {"openid", "email"});

    GoogleCredential refreshed = syncWait(client.refresh(storedCredential(refreshToken)));
    EXPECT_EQ(refreshed.refreshToken, refreshToken);
    EXPECT_EQ(refreshed.scopes, QStringList({"openid", "email"}));
    EXPECT_EQ(refreshed.expiry, clock.addingSeconds(3599));

    google.setRotatesRefreshTokens(true);
    google.setOmitsScope(true);
    refreshed = syncWait(client.refresh(storedCredential(refreshToken)));
    EXPECT_NE(refreshed.refreshToken, refreshToken);
    EXPECT_TRUE(google.isRefreshTokenLive(refreshed.refreshToken));
    EXPECT_EQ(refreshed.scopes, storedCredential(refreshToken).scopes);

    const std::vector<std::pair<CannedResponse, Kind>> faults{
        {CannedResponse::json(401, R"({"error":"invalid_client","error_description":"Unauthorized"})"), Kind::httpFailure},
        {CannedResponse::json(401, R"({"error":"invalid_grant"})"), Kind::invalidGrant},
        {CannedResponse{200, {{"Content-Type", "text/html"}}, "<html>captive portal</html>"}, Kind::invalidResponse},
        {CannedResponse::json(200, R"({"access_token":"t","expires_in":0,"token_type":"Bearer"})"), Kind::invalidResponse},
        {CannedResponse::json(200, R"({"access_token":"","expires_in":3599,"token_type":"Bearer"})"), Kind::invalidResponse},
        {CannedResponse::json(200, R"({"access_token":"t","expires_in":3599,"token_type":"mac"})"), Kind::invalidResponse},
        {CannedResponse::json(200, R"({"access_token":"t","expires_in":3599})"), Kind::invalidResponse},
    };
    for (const auto& [response, kind] : faults) {
        SCOPED_TRACE(response.body.toStdString());
        google.failNext("/token", response);
        try {
            syncWait(client.refresh(storedCredential(refreshed.refreshToken)));
            ADD_FAILURE() << "no error";
        } catch (const GoogleOAuthClientError& error) {
            EXPECT_EQ(error.kind(), kind);
            if (kind == Kind::httpFailure) {
                EXPECT_EQ(error.statusCode(), response.status);
            }
        }
    }
}

TEST_F(GoogleOAuthClientTest, FetchesTheIdentityAndRevokes) {
    using Kind = GoogleOAuthClientError::Kind;
    const QString refreshToken = google.grantOffline({"sub-1", "taro@example.com", "太郎"}, {"openid"});
    const GoogleCredential credential = syncWait(client.refresh(storedCredential(refreshToken)));

    EXPECT_EQ(syncWait(client.fetchIdentity(credential.accessToken)), (GoogleIdentity{"sub-1", "taro@example.com", "太郎"}));
    for (const QByteArray& body : {QByteArray(R"({"sub":"","email":"a@b"})"), QByteArray(R"({"sub":"x"})"), QByteArray("not json")}) {
        google.failNext("/v1/userinfo", CannedResponse::json(200, body));
        expectError<GoogleOAuthClientError>([&] { syncWait(client.fetchIdentity(credential.accessToken)); },
                                            Kind::invalidResponse);
    }

    syncWait(client.revoke(refreshToken));
    EXPECT_FALSE(google.isRefreshTokenLive(refreshToken));
    EXPECT_FALSE(google.isAccessTokenLive(credential.accessToken));
    syncWait(client.revoke(refreshToken)); // already gone: nothing to do
}

TEST_F(GoogleOAuthClientTest, CancellationPassesThrough) {
    google.server().hold("GET", "/v1/userinfo");
    std::stop_source stop;
    auto task = client.fetchIdentity("t", stop.get_token());
    QTimer::singleShot(20, [&] { stop.request_stop(); });
    EXPECT_THROW(syncWait(task), CancellationError);
}
