#include "google/GoogleOAuth.h"

#include <QCryptographicHash>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QUrlQuery>

#include <array>
#include <cstdlib>
#include <map>

namespace tavelo {

namespace {

QString base64Url(const QByteArray& bytes) {
    return QString::fromLatin1(bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

bool isUnreserved(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_' || c == '~';
}

QByteArray percentEncode(const QString& text) {
    static constexpr char hex[] = "0123456789ABCDEF";
    QByteArray out;
    for (const char c : text.toUtf8()) {
        if (isUnreserved(c)) {
            out += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            out += '%';
            out += hex[byte >> 4];
            out += hex[byte & 0xF];
        }
    }
    return out;
}

} // namespace

PKCEPair PKCEGenerator::make() {
    std::array<quint32, 8> words{};
    QRandomGenerator::system()->fillRange(words.data(), words.size());
    return make(QByteArray(reinterpret_cast<const char*>(words.data()), sizeof(words)));
}

PKCEPair PKCEGenerator::make(const QByteArray& randomBytes) {
    PKCEPair pair;
    pair.verifier = base64Url(randomBytes);
    pair.challenge = base64Url(QCryptographicHash::hash(pair.verifier.toUtf8(), QCryptographicHash::Sha256));
    return pair;
}

std::optional<QString> OAuthCallbackError::errorDescription() const {
    switch (kind_) {
    case Kind::invalidHost: return QStringLiteral("OAuth callback must use the local loopback host.");
    case Kind::invalidPath: return QStringLiteral("OAuth callback path is invalid.");
    case Kind::invalidQuery: return QStringLiteral("OAuth callback query is invalid.");
    case Kind::missingState: return QStringLiteral("OAuth callback state is missing.");
    case Kind::stateMismatch: return QStringLiteral("OAuth callback state does not match the pending request.");
    case Kind::providerDenied: return QStringLiteral("Google denied the OAuth request.");
    case Kind::missingCode: return QStringLiteral("OAuth callback authorization code is missing.");
    }
    return std::nullopt;
}

QString OAuthCallback::parse(const QUrl& url, const QString& expectedState) {
    using Kind = OAuthCallbackError::Kind;
    if (!url.isValid() || url.scheme().toLower() != QLatin1String("http") || url.host() != QLatin1String("127.0.0.1"))
        throw OAuthCallbackError(Kind::invalidHost);
    if (url.path(QUrl::FullyEncoded) != QLatin1String("/oauth/callback")) throw OAuthCallbackError(Kind::invalidPath);
    if (!url.hasQuery() || url.query().isEmpty()) throw OAuthCallbackError(Kind::missingState);

    // Items are split on the raw text first, so that an encoded "&" or "="
    // inside a value cannot forge a second item.
    std::map<QString, QString> items;
    const QString query = url.query(QUrl::FullyEncoded);
    for (const QString& item : query.split(QLatin1Char('&'))) {
        const qsizetype equals = item.indexOf(QLatin1Char('='));
        if (equals < 0) throw OAuthCallbackError(Kind::invalidQuery);
        // A "+" stays a plus sign, as in any URL query.
        auto decode = [](const QString& part) { return QUrl::fromPercentEncoding(part.toUtf8()); };
        const QString name = decode(item.left(equals));
        if (!items.emplace(name, decode(item.mid(equals + 1))).second) throw OAuthCallbackError(Kind::invalidQuery);
    }
    const auto state = items.find(QStringLiteral("state"));
    if (state == items.end()) throw OAuthCallbackError(Kind::missingState);
    if (state->second != expectedState) throw OAuthCallbackError(Kind::stateMismatch);
    if (items.contains(QStringLiteral("error"))) throw OAuthCallbackError(Kind::providerDenied);
    const auto code = items.find(QStringLiteral("code"));
    if (code == items.end() || code->second.isEmpty()) throw OAuthCallbackError(Kind::missingCode);
    return code->second;
}

QByteArray formEncode(const OAuthParameters& parameters) {
    QByteArray out;
    for (const auto& [key, value] : parameters) {
        if (!out.isEmpty()) out += '&';
        out += percentEncode(key) + '=' + percentEncode(value);
    }
    return out;
}

QStringList parseScopes(const QString& scope) {
    static const QRegularExpression whitespace(QStringLiteral("\\s+"));
    return scope.split(whitespace, Qt::SkipEmptyParts);
}

GoogleOAuthEndpoints GoogleOAuthEndpoints::google() {
    return GoogleOAuthEndpoints{QUrl(QStringLiteral("https://accounts.google.com/o/oauth2/v2/auth")),
                                QUrl(QStringLiteral("https://oauth2.googleapis.com/token")),
                                QUrl(QStringLiteral("https://openidconnect.googleapis.com/v1/userinfo")),
                                QUrl(QStringLiteral("https://oauth2.googleapis.com/revoke"))};
}

GoogleOAuthEndpoints GoogleOAuthEndpoints::at(const QString& origin) {
    return GoogleOAuthEndpoints{QUrl(origin + QStringLiteral("/o/oauth2/v2/auth")), QUrl(origin + QStringLiteral("/token")),
                                QUrl(origin + QStringLiteral("/v1/userinfo")), QUrl(origin + QStringLiteral("/revoke"))};
}

const QStringList& googleRequestedScopes() {
    static const QStringList scopes{
        QStringLiteral("openid"),
        QStringLiteral("email"),
        QStringLiteral("profile"),
        QStringLiteral("https://www.googleapis.com/auth/calendar.calendarlist.readonly"),
        QStringLiteral("https://www.googleapis.com/auth/calendar.events"),
        QStringLiteral("https://www.googleapis.com/auth/calendar.events.freebusy"),
    };
    return scopes;
}

QUrl googleAuthorizationURL(const QUrl& authorizationEndpoint, const QString& clientID, const QUrl& redirectURI,
                            const PKCEPair& pkce, const QString& state) {
    const OAuthParameters items{
        {QStringLiteral("client_id"), clientID},
        {QStringLiteral("redirect_uri"), redirectURI.toString(QUrl::FullyEncoded)},
        {QStringLiteral("response_type"), QStringLiteral("code")},
        {QStringLiteral("scope"), googleRequestedScopes().join(QLatin1Char(' '))},
        {QStringLiteral("code_challenge"), pkce.challenge},
        {QStringLiteral("code_challenge_method"), QStringLiteral("S256")},
        {QStringLiteral("access_type"), QStringLiteral("offline")},
        {QStringLiteral("prompt"), QStringLiteral("consent")},
        {QStringLiteral("state"), state},
    };
    QUrl url = authorizationEndpoint;
    url.setQuery(QString::fromLatin1(formEncode(items)), QUrl::StrictMode);
    return url;
}

} // namespace tavelo
