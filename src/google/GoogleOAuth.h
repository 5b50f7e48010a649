#pragma once

// The small protocol pieces of Google sign-in that hold no state: PKCE values,
// the browser's redirect, the form encoding of token requests and the
// authorization URL.

#include "google/GoogleIdentity.h"
#include "support/Date.h"
#include "support/Error.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <optional>
#include <utility>
#include <vector>

namespace tavelo {

struct PKCEPair {
    QString verifier;
    QString challenge;
    bool operator==(const PKCEPair&) const = default;
};

struct PKCEGenerator {
    // 32 bytes from the system's cryptographic source.
    static PKCEPair make();
    // The same from given bytes (any length), for fixed results.
    static PKCEPair make(const QByteArray& randomBytes);
};

// What one token response becomes after the code exchange.
struct GoogleOAuthGrant {
    QString accessToken;
    std::optional<QString> refreshToken;
    Date expiry;
    QStringList scopes;
    bool operator==(const GoogleOAuthGrant&) const = default;
};

class OAuthCallbackError final : public Error {
public:
    enum class Kind { invalidHost, invalidPath, invalidQuery, missingState, stateMismatch, providerDenied, missingCode };
    explicit OAuthCallbackError(Kind kind) : kind_(kind) {}
    Kind kind() const { return kind_; }
    std::optional<QString> errorDescription() const override;
    const char* domain() const override { return "OAuthCallbackError"; }
    int code() const override { return static_cast<int>(kind_); }

private:
    Kind kind_;
};

struct OAuthCallback {
    // The authorization code of a redirect to http://127.0.0.1/oauth/callback
    // that carries `expectedState`; the first failed rule decides the error.
    static QString parse(const QUrl& url, const QString& expectedState);
};

using OAuthParameters = std::vector<std::pair<QString, QString>>;

// "k=v&k=v" in the given order; everything but A-Z a-z 0-9 - . _ ~ is
// percent-encoded, a space as %20.
QByteArray formEncode(const OAuthParameters& parameters);

// Splits a "scope" value at runs of whitespace, dropping empty pieces.
QStringList parseScopes(const QString& scope);

// The endpoints of Google's OAuth service. Tests point them at a stand-in.
struct GoogleOAuthEndpoints {
    QUrl authorization;
    QUrl token;
    QUrl userInfo;
    QUrl revocation;

    static GoogleOAuthEndpoints google();
    // The same paths below another origin ("http://127.0.0.1:1234").
    static GoogleOAuthEndpoints at(const QString& origin);
    bool operator==(const GoogleOAuthEndpoints&) const = default;
};

// openid, email, profile and the three calendar scopes, in that order.
const QStringList& googleRequestedScopes();

// The consent page address with every query item of a sign-in.
QUrl googleAuthorizationURL(const QUrl& authorizationEndpoint, const QString& clientID, const QUrl& redirectURI,
                            const PKCEPair& pkce, const QString& state);

} // namespace tavelo
