#pragma once

#include "google/GoogleOAuth.h"
#include "google/GoogleOAuthConfiguration.h"
#include "support/Async.h"

#include <QCoro/QCoroTask>

#include <memory>
#include <stop_token>

namespace tavelo {

class HTTPTransport;
struct GoogleCredential;

class GoogleOAuthClientError final : public Error {
public:
    enum class Kind { httpFailure, invalidGrant, invalidResponse };
    static GoogleOAuthClientError httpFailure(int statusCode) { return GoogleOAuthClientError(Kind::httpFailure, statusCode); }
    static GoogleOAuthClientError invalidGrant() { return GoogleOAuthClientError(Kind::invalidGrant); }
    static GoogleOAuthClientError invalidResponse() { return GoogleOAuthClientError(Kind::invalidResponse); }

    Kind kind() const { return kind_; }
    // The HTTP status of an httpFailure.
    int statusCode() const { return statusCode_; }
    std::optional<QString> errorDescription() const override;
    const char* domain() const override { return "GoogleOAuthClientError"; }
    int code() const override { return static_cast<int>(kind_); }

private:
    explicit GoogleOAuthClientError(Kind kind, int statusCode = 0) : kind_(kind), statusCode_(statusCode) {}
    Kind kind_;
    int statusCode_;
};

// A validated reply of the token endpoint.
struct TokenResponse {
    QString accessToken;
    double expiresIn = 0;
    std::optional<QString> refreshToken;
    std::optional<QString> scope;
    QString tokenType;
    bool operator==(const TokenResponse&) const = default;
};

// Talks to Google's token, userinfo and revocation endpoints. Keeps nothing
// between calls; single flight for refreshes lives in the token provider.
// Every operation fails with GoogleOAuthClientError or CancellationError.
class GoogleOAuthClient {
public:
    GoogleOAuthClient(GoogleOAuthConfiguration configuration, std::shared_ptr<HTTPTransport> transport,
                      Clock now = systemClock(), GoogleOAuthEndpoints endpoints = GoogleOAuthEndpoints::google());

    const GoogleOAuthConfiguration& configuration() const { return configuration_; }
    const GoogleOAuthEndpoints& endpoints() const { return endpoints_; }
    Date now() const { return now_(); }

    // Trades the browser's code for tokens; `redirectURI` is the loopback
    // address that the authorization request carried.
    QCoro::Task<GoogleOAuthGrant> exchangeCode(QString code, QString verifier, QUrl redirectURI,
                                               std::stop_token stop = {}) const;
    // A new credential for the same account: the response's refresh token
    // when Google rotates it, else the old one.
    QCoro::Task<GoogleCredential> refresh(GoogleCredential credential, std::stop_token stop = {}) const;
    QCoro::Task<GoogleIdentity> fetchIdentity(QString accessToken, std::stop_token stop = {}) const;
    // Asks Google to revoke a token (and with a refresh token the whole
    // grant). A token Google no longer knows counts as revoked.
    QCoro::Task<void> revoke(QString token, std::stop_token stop = {}) const;

private:
    QCoro::Task<TokenResponse> tokenRequest(OAuthParameters parameters, std::stop_token stop) const;

    GoogleOAuthConfiguration configuration_;
    std::shared_ptr<HTTPTransport> transport_;
    Clock now_;
    GoogleOAuthEndpoints endpoints_;
};

} // namespace tavelo
