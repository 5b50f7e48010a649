#include "google/GoogleOAuthStandIn.h"

#include <QCryptographicHash>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>
#include <QUrlQuery>

#include "support/UUID.h"

namespace tavelo::testing {

namespace {

QString opaqueToken(const char* prefix) {
    return QString::fromLatin1(prefix) + UUID::random().toString().remove(QLatin1Char('-')).toLower();
}

QString s256(const QString& verifier) {
    return QString::fromLatin1(QCryptographicHash::hash(verifier.toUtf8(), QCryptographicHash::Sha256)
                                   .toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

bool isLoopbackRedirect(const QString& uri) {
    const QUrl url(uri, QUrl::StrictMode);
    return url.isValid() && url.scheme() == QLatin1String("http") &&
           (url.host() == QLatin1String("127.0.0.1") || url.host() == QLatin1String("[::1]") ||
            url.host() == QLatin1String("localhost"));
}

// A form value, empty when not sent.
QString formValue(const std::map<QString, QString>& form, const char* key) {
    auto it = form.find(QString::fromLatin1(key));
    return it == form.end() ? QString() : it->second;
}

CannedResponse errorPage(int status, const QByteArray& text) {
    return CannedResponse::html(status, "<!doctype html><title>Error</title><p>" + text + "</p>");
}

} // namespace

std::optional<std::map<QString, QString>> parseForm(const QByteArray& text) {
    std::map<QString, QString> out;
    if (text.isEmpty()) return out;
    for (const QByteArray& pair : text.split('&')) {
        const qsizetype equals = pair.indexOf('=');
        if (equals <= 0) return std::nullopt;
        auto decode = [](QByteArray part) { return QUrl::fromPercentEncoding(part.replace('+', ' ')); };
        out.emplace(decode(pair.left(equals)), decode(pair.mid(equals + 1)));
    }
    return out;
}

GoogleOAuthStandIn::GoogleOAuthStandIn(QString clientID, QString clientSecret)
    : clientID_(std::move(clientID)), clientSecret_(std::move(clientSecret)) {
    server_.route("GET", kAuthorizationPath, [this](const RecordedRequest& r) -> std::optional<CannedResponse> {
        if (auto fault = queuedFault(kAuthorizationPath)) return fault;
        return authorize(r);
    });
    server_.route("POST", kTokenPath, [this](const RecordedRequest& r) -> std::optional<CannedResponse> {
        const auto fault = queuedFault(kTokenPath);
        const CannedResponse response = fault ? *fault : token(r);
        if (!holdsTokenRequests_) return response;
        heldTokenResponses_.push_back(response);
        return std::nullopt;
    });
    server_.route("GET", kUserInfoPath, [this](const RecordedRequest& r) -> std::optional<CannedResponse> {
        if (auto fault = queuedFault(kUserInfoPath)) return fault;
        return userInfo(r);
    });
    server_.route("POST", kRevocationPath, [this](const RecordedRequest& r) -> std::optional<CannedResponse> {
        if (auto fault = queuedFault(kRevocationPath)) return fault;
        return revoke(r);
    });
}

void GoogleOAuthStandIn::failNext(const QByteArray& path, CannedResponse response) {
    faults_[path].push_back(std::move(response));
}

std::optional<CannedResponse> GoogleOAuthStandIn::queuedFault(const QByteArray& path) {
    auto& queue = faults_[path];
    if (queue.empty()) return std::nullopt;
    CannedResponse response = queue.front();
    queue.pop_front();
    return response;
}

void GoogleOAuthStandIn::releaseHeldTokenRequests() {
    while (!heldTokenResponses_.empty()) {
        const CannedResponse response = heldTokenResponses_.front();
        heldTokenResponses_.pop_front();
        server_.answerOldestHeld(response);
    }
}

QString GoogleOAuthStandIn::grantOffline(const Account& account, const QStringList& scopes) {
    const QString refreshToken = opaqueToken("1//refresh-");
    refreshTokens_[refreshToken] = Grant{account, scopes};
    return refreshToken;
}

CannedResponse GoogleOAuthStandIn::oauthError(int status, const char* error, const char* description) {
    QJsonObject body{{"error", error}, {"error_description", description}};
    return CannedResponse::json(status, QJsonDocument(body).toJson(QJsonDocument::Compact));
}

CannedResponse GoogleOAuthStandIn::authorize(const RecordedRequest& request) {
    // The consent page reads its query as a browser sent it.
    const auto query = parseForm(request.query);
    if (!query) return errorPage(400, "Error 400: invalid_request");
    const auto value = [&](const char* key) { return formValue(*query, key); };
    if (value("client_id") != clientID_) return errorPage(401, "Error 401: invalid_client");
    const QString redirectURI = value("redirect_uri");
    if (!isLoopbackRedirect(redirectURI)) return errorPage(400, "Error 400: redirect_uri_mismatch");
    if (value("response_type") != QLatin1String("code") || value("scope").isEmpty() ||
        value("code_challenge_method") != QLatin1String("S256") || value("code_challenge").size() < 43)
        return errorPage(400, "Error 400: invalid_request");

    QUrlQuery back;
    back.addQueryItem(QStringLiteral("state"), QString::fromUtf8(QUrl::toPercentEncoding(value("state"))));
    if (deniesConsent_) {
        back.addQueryItem(QStringLiteral("error"), QStringLiteral("access_denied"));
    } else {
        const QString code = opaqueToken("4/0A-");
        codes_[code] = PendingCode{clientID_, redirectURI, value("code_challenge"), parseScopes(value("scope")), account_};
        back.addQueryItem(QStringLiteral("code"), code);
        back.addQueryItem(QStringLiteral("scope"),
                          QString::fromUtf8(QUrl::toPercentEncoding(value("scope"))));
    }
    const QByteArray location = redirectURI.toUtf8() + '?' + back.query(QUrl::FullyEncoded).toUtf8();
    return CannedResponse{302, {{"Location", location}, {"Content-Type", "text/html; charset=UTF-8"}}, QByteArray()};
}

CannedResponse GoogleOAuthStandIn::tokenReply(const Grant& grant, const std::optional<QString>& refreshToken) {
    const QString accessToken = opaqueToken("ya29.");
    accessTokens_[accessToken] = grant;
    QJsonObject body{{"access_token", accessToken}, {"expires_in", kAccessTokenLifetime}, {"token_type", "Bearer"}};
    if (!omitsScope_) body.insert("scope", grant.scopes.join(QLatin1Char(' ')));
    if (refreshToken) body.insert("refresh_token", *refreshToken);
    return CannedResponse::json(200, QJsonDocument(body).toJson(QJsonDocument::Compact));
}

CannedResponse GoogleOAuthStandIn::token(const RecordedRequest& request) {
    if (!request.header("content-type").value_or("").startsWith("application/x-www-form-urlencoded"))
        return oauthError(400, "invalid_request", "Bad Request");
    const auto form = parseForm(request.body);
    if (!form) return oauthError(400, "invalid_request", "Bad Request");
    const auto value = [&](const char* key) { return formValue(*form, key); };
    if (value("client_id") != clientID_ || value("client_secret") != clientSecret_)
        return oauthError(401, "invalid_client", "The OAuth client was not found.");

    const QString grantType = value("grant_type");
    if (grantType == QLatin1String("authorization_code")) {
        ++exchanges_;
        auto pending = codes_.find(value("code"));
        if (pending == codes_.end()) return oauthError(400, "invalid_grant", "Malformed auth code.");
        const PendingCode code = pending->second;
        codes_.erase(pending); // one use, whatever the outcome
        if (value("redirect_uri") != code.redirectURI) return oauthError(400, "redirect_uri_mismatch", "Bad Request");
        if (value("code_verifier").isEmpty() || s256(value("code_verifier")) != code.challenge)
            return oauthError(400, "invalid_grant", "Invalid code verifier.");
        const Grant grant{code.account, code.scopes};
        std::optional<QString> refreshToken;
        if (issuesRefreshTokens_) {
            refreshToken = opaqueToken("1//refresh-");
            refreshTokens_[*refreshToken] = grant;
        }
        return tokenReply(grant, refreshToken);
    }
    if (grantType == QLatin1String("refresh_token")) {
        ++refreshes_;
        auto known = refreshTokens_.find(value("refresh_token"));
        if (known == refreshTokens_.end()) return oauthError(400, "invalid_grant", "Token has been expired or revoked.");
        const Grant grant = known->second;
        std::optional<QString> rotated;
        if (rotatesRefreshTokens_) {
            refreshTokens_.erase(known);
            rotated = opaqueToken("1//refresh-");
            refreshTokens_[*rotated] = grant;
        }
        return tokenReply(grant, rotated);
    }
    return oauthError(400, "unsupported_grant_type", "Invalid grant_type.");
}

CannedResponse GoogleOAuthStandIn::userInfo(const RecordedRequest& request) {
    const QByteArray authorization = request.header("authorization").value_or("");
    const auto grant = authorization.startsWith("Bearer ")
                           ? accessTokens_.find(QString::fromUtf8(authorization.mid(7)))
                           : accessTokens_.end();
    if (grant == accessTokens_.end()) return oauthError(401, "invalid_request", "Invalid Credentials");
    const Account& account = grant->second.account;
    QJsonObject body{{"sub", account.subject}, {"email", account.email}, {"email_verified", true},
                     {"picture", "https://lh3.googleusercontent.com/a/photo"}};
    if (account.name) body.insert("name", *account.name);
    return CannedResponse::json(200, QJsonDocument(body).toJson(QJsonDocument::Compact));
}

CannedResponse GoogleOAuthStandIn::revoke(const RecordedRequest& request) {
    const QString token = formValue(parseForm(request.body).value_or(std::map<QString, QString>()), "token");
    if (auto grant = refreshTokens_.find(token); grant != refreshTokens_.end()) {
        const QString subject = grant->second.account.subject;
        refreshTokens_.erase(grant);
        std::erase_if(accessTokens_, [&](const auto& entry) { return entry.second.account.subject == subject; });
        return CannedResponse::json(200, "{}");
    }
    if (accessTokens_.erase(token)) return CannedResponse::json(200, "{}");
    return oauthError(400, "invalid_token", "Token expired or revoked");
}

} // namespace tavelo::testing
