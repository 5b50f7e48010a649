#pragma once

// A stand-in for Google's OAuth 2.0 service on 127.0.0.1, written after
// Google's documentation of its installed-app flow: the consent page (which
// redirects at once, as if the user had agreed), the token endpoint (code
// exchange with PKCE S256, refresh with optional rotation), OpenID userinfo
// and revocation. Codes are one-time, tokens are opaque random strings, and
// the test can queue faults (any status and body) for the next requests of
// an endpoint, or hold token requests until it releases them.

#include "support/LocalHttpServer.h"

#include "google/GoogleOAuth.h"

#include <QString>
#include <QStringList>

#include <deque>
#include <map>
#include <optional>
#include <set>

namespace tavelo::testing {

class GoogleOAuthStandIn {
public:
    struct Account {
        QString subject;
        QString email;
        std::optional<QString> name;
    };

    static constexpr const char* kAuthorizationPath = "/o/oauth2/v2/auth";
    static constexpr const char* kTokenPath = "/token";
    static constexpr const char* kUserInfoPath = "/v1/userinfo";
    static constexpr const char* kRevocationPath = "/revoke";

    GoogleOAuthStandIn(QString clientID, QString clientSecret);

    LocalHttpServer& server() { return server_; }
    GoogleOAuthEndpoints endpoints() const { return GoogleOAuthEndpoints::at(server_.baseUrl()); }

    // The account the "browser" is signed in to on the consent page.
    void setSignedInAccount(Account account) { account_ = std::move(account); }
    // The user presses "Cancel": the redirect carries error=access_denied.
    void setDeniesConsent(bool denies) { deniesConsent_ = denies; }
    // Google leaves out the refresh token, as for a repeated consent without
    // prompt=consent.
    void setIssuesRefreshTokens(bool issues) { issuesRefreshTokens_ = issues; }
    // Every refresh hands out a new refresh token and retires the old one.
    void setRotatesRefreshTokens(bool rotates) { rotatesRefreshTokens_ = rotates; }
    // Leave "scope" out of token responses.
    void setOmitsScope(bool omits) { omitsScope_ = omits; }

    // The next request to `path` gets `response` instead (queued in order).
    void failNext(const QByteArray& path, CannedResponse response);
    // While held, token requests are answered only by releaseHeldTokenRequests().
    void setHoldsTokenRequests(bool holds) { holdsTokenRequests_ = holds; }
    std::size_t heldTokenRequests() const { return heldTokenResponses_.size(); }
    void releaseHeldTokenRequests();

    // A grant made outside any browser flow; returns its refresh token.
    QString grantOffline(const Account& account, const QStringList& scopes);

    int exchangeCount() const { return exchanges_; }
    int refreshCount() const { return refreshes_; }
    bool isRefreshTokenLive(const QString& token) const { return refreshTokens_.contains(token); }
    bool isAccessTokenLive(const QString& token) const { return accessTokens_.contains(token); }

private:
    struct PendingCode {
        QString clientID;
        QString redirectURI;
        QString challenge;
        QStringList scopes;
        Account account;
    };
    struct Grant {
        Account account;
        QStringList scopes;
    };

    std::optional<CannedResponse> queuedFault(const QByteArray& path);
    CannedResponse authorize(const RecordedRequest& request);
    CannedResponse token(const RecordedRequest& request);
    CannedResponse userInfo(const RecordedRequest& request);
    CannedResponse revoke(const RecordedRequest& request);
    CannedResponse tokenReply(const Grant& grant, const std::optional<QString>& refreshToken);
    static CannedResponse oauthError(int status, const char* error, const char* description);

    QString clientID_;
    QString clientSecret_;
    LocalHttpServer server_;
    Account account_{QStringLiteral("108234567890123456789"), QStringLiteral("hanako@example.com"),
                     QStringLiteral("Hanako Yamada")};
    bool deniesConsent_ = false;
    bool issuesRefreshTokens_ = true;
    bool rotatesRefreshTokens_ = false;
    bool omitsScope_ = false;
    static constexpr int kAccessTokenLifetime = 3599;
    bool holdsTokenRequests_ = false;
    std::deque<CannedResponse> heldTokenResponses_;
    std::map<QByteArray, std::deque<CannedResponse>> faults_;
    std::map<QString, PendingCode> codes_;
    std::map<QString, Grant> refreshTokens_;
    std::map<QString, Grant> accessTokens_;
    int exchanges_ = 0;
    int refreshes_ = 0;
};

// Parses "a=b&c=d" with "+" as space and percent-decoding; a repeated key
// keeps its first value. Nothing when the text is malformed.
std::optional<std::map<QString, QString>> parseForm(const QByteArray& text);

} // namespace tavelo::testing
