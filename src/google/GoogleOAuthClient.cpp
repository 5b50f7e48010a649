#include "google/GoogleOAuthClient.h"

#include "google/GoogleCredential.h"
#include "support/HTTPTransport.h"
#include "support/JsonReader.h"

namespace tavelo {

namespace {

constexpr double kRequestTimeout = 60.0;

bool mayMapToInvalidGrant(const OAuthParameters& parameters) {
    for (const auto& [key, value] : parameters)
        if (key == QLatin1String("grant_type") && value == QLatin1String("refresh_token")) return true;
    return false;
}

bool bodyNamesInvalidGrant(const QByteArray& body) {
    try {
        JsonDocumentParser parser;
        JsonPath root;
        const JsonObject object = JsonValue(parser.parse(std::string_view(body.constData(), body.size())), &root).object();
        const auto error = optional<QString>(object, "error");
        return error && *error == QLatin1String("invalid_grant");
    } catch (const JsonDecodingError&) {
        return false;
    }
}

// Sends the request and returns the body of a 2xx answer; everything else
// becomes the client's error. Cancellation passes through.
QCoro::Task<QByteArray> successfulBody(HTTPTransport& transport, HTTPRequest request, bool invalidGrantPossible,
                                       std::stop_token stop) {
    HTTPResponse response;
    try {
        response = co_await transport.send(std::move(request), stop);
    } catch (const CancellationError&) {
        throw;
    } catch (...) {
        checkCancellation(stop);
        throw GoogleOAuthClientError::invalidResponse();
    }
    checkCancellation(stop);
    if (!response.status) throw GoogleOAuthClientError::invalidResponse();
    const int status = *response.status;
    if (status >= 200 && status <= 299) co_return response.body;
    if (invalidGrantPossible && bodyNamesInvalidGrant(response.body)) throw GoogleOAuthClientError::invalidGrant();
    throw GoogleOAuthClientError::httpFailure(status);
}

TokenResponse decodeTokenResponse(const QByteArray& body) {
    TokenResponse token;
    try {
        JsonDocumentParser parser;
        JsonPath root;
        const JsonObject o = JsonValue(parser.parse(std::string_view(body.constData(), body.size())), &root).object();
        token.accessToken = required<QString>(o, "access_token");
        token.expiresIn = required<double>(o, "expires_in");
        token.refreshToken = optional<QString>(o, "refresh_token");
        token.scope = optional<QString>(o, "scope");
        token.tokenType = required<QString>(o, "token_type");
    } catch (const JsonDecodingError&) {
        throw GoogleOAuthClientError::invalidResponse();
    }
    if (token.accessToken.isEmpty() || !(token.expiresIn > 0) ||
        token.tokenType.compare(QLatin1String("Bearer"), Qt::CaseInsensitive) != 0)
        throw GoogleOAuthClientError::invalidResponse();
    return token;
}

} // namespace

std::optional<QString> GoogleOAuthClientError::errorDescription() const {
    switch (kind_) {
    case Kind::httpFailure: return QStringLiteral("Google OAuth could not complete.");
    case Kind::invalidGrant: return QStringLiteral("Google authorization must be renewed.");
    case Kind::invalidResponse: return QStringLiteral("Google returned an invalid OAuth response.");
    }
    return std::nullopt;
}

GoogleOAuthClient::GoogleOAuthClient(GoogleOAuthConfiguration configuration, std::shared_ptr<HTTPTransport> transport,
                                     Clock now, GoogleOAuthEndpoints endpoints)
    : configuration_(std::move(configuration)), transport_(std::move(transport)), now_(std::move(now)),
      endpoints_(std::move(endpoints)) {}

QCoro::Task<TokenResponse> GoogleOAuthClient::tokenRequest(OAuthParameters parameters, std::stop_token stop) const {
    HTTPRequest request;
    request.method = "POST";
    request.url = endpoints_.token;
    request.timeout = kRequestTimeout;
    request.setHeader("Accept", "application/json");
    request.setHeader("Content-Type", "application/x-www-form-urlencoded");
    request.body = formEncode(parameters);
    const bool invalidGrantPossible = mayMapToInvalidGrant(parameters);
    auto transport = transport_;
    const QByteArray body = co_await successfulBody(*transport, std::move(request), invalidGrantPossible, stop);
    co_return decodeTokenResponse(body);
}

QCoro::Task<GoogleOAuthGrant> GoogleOAuthClient::exchangeCode(QString code, QString verifier, QUrl redirectURI,
                                                              std::stop_token stop) const {
    OAuthParameters parameters{
        {QStringLiteral("client_id"), configuration_.clientID},
        {QStringLiteral("client_secret"), configuration_.clientSecret},
        {QStringLiteral("code"), code},
        {QStringLiteral("code_verifier"), verifier},
        {QStringLiteral("grant_type"), QStringLiteral("authorization_code")},
        {QStringLiteral("redirect_uri"), redirectURI.toString(QUrl::FullyEncoded)},
    };
    const TokenResponse token = co_await tokenRequest(std::move(parameters), stop);
    GoogleOAuthGrant grant;
    grant.accessToken = token.accessToken;
    grant.refreshToken = token.refreshToken;
    grant.expiry = now_().addingSeconds(token.expiresIn);
    grant.scopes = token.scope ? parseScopes(*token.scope) : googleRequestedScopes();
    co_return grant;
}

QCoro::Task<GoogleCredential> GoogleOAuthClient::refresh(GoogleCredential credential, std::stop_token stop) const {
    OAuthParameters parameters{
        {QStringLiteral("client_id"), configuration_.clientID},
        {QStringLiteral("client_secret"), configuration_.clientSecret},
        {QStringLiteral("grant_type"), QStringLiteral("refresh_token")},
        {QStringLiteral("refresh_token"), credential.refreshToken},
    };
    const TokenResponse token = co_await tokenRequest(std::move(parameters), stop);
    GoogleCredential next = credential;
    if (token.refreshToken) next.refreshToken = *token.refreshToken;
    next.accessToken = token.accessToken;
    next.expiry = now_().addingSeconds(token.expiresIn);
    if (token.scope) next.scopes = parseScopes(*token.scope);
    co_return next;
}

QCoro::Task<GoogleIdentity> GoogleOAuthClient::fetchIdentity(QString accessToken, std::stop_token stop) const {
    HTTPRequest request;
    request.method = "GET";
    request.url = endpoints_.userInfo;
    request.timeout = kRequestTimeout;
    request.setHeader("Accept", "application/json");
    request.setHeader("Authorization", "Bearer " + accessToken.toUtf8());
    auto transport = transport_;
    const QByteArray body = co_await successfulBody(*transport, std::move(request), false, stop);
    GoogleIdentity identity;
    try {
        JsonDocumentParser parser;
        JsonPath root;
        const JsonObject o = JsonValue(parser.parse(std::string_view(body.constData(), body.size())), &root).object();
        identity.subject = required<QString>(o, "sub");
        identity.email = required<QString>(o, "email");
        identity.name = optional<QString>(o, "name");
    } catch (const JsonDecodingError&) {
        throw GoogleOAuthClientError::invalidResponse();
    }
    if (identity.subject.isEmpty() || identity.email.isEmpty()) throw GoogleOAuthClientError::invalidResponse();
    co_return identity;
}

QCoro::Task<void> GoogleOAuthClient::revoke(QString token, std::stop_token stop) const {
    HTTPRequest request;
    request.method = "POST";
    request.url = endpoints_.revocation;
    request.timeout = kRequestTimeout;
    request.setHeader("Content-Type", "application/x-www-form-urlencoded");
    request.body = formEncode({{QStringLiteral("token"), token}});
    auto transport = transport_;
    try {
        co_await successfulBody(*transport, std::move(request), false, stop);
    } catch (const GoogleOAuthClientError& error) {
        // Google answers 400 "invalid_token" for a token it has already
        // forgotten: the goal is reached.
        if (error.kind() != GoogleOAuthClientError::Kind::httpFailure || error.statusCode() != 400) throw;
    }
}

} // namespace tavelo
