// AICloudStore: the common request path and the identity requests.

#include "ai/AICloudStore.h"
#include "ai/AICloudStoreInternal.h"

#include "support/Observable.h"

#include "ai/CloudJson.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>
#include <QStringDecoder>
#include <QTextBoundaryFinder>

namespace tavelo {

using namespace aicloud;

// --- the common request path ------------------------------------------------------------

QCoro::Task<QByteArray> AICloudStore::sendData(QByteArray method, QString path, std::optional<QByteArray> body,
                                               std::optional<QString> endpoint, std::optional<QString> token,
                                               std::stop_token stop) {
    QPointer<AICloudStore> self(this);
    const std::int64_t generation = generation_;
    const QString base = endpoint.value_or(endpoint_);
    if (!token && path != QLatin1String("session") && !session_) throw CloudError(kNotConnected);
    const auto url = cloudURL(base, path);
    if (!url) throw CloudError(kNotConnected);

    QString bearer;
    if (token)
        bearer = *token;
    else
        bearer = co_await credential(base, stop);
    ensureCurrent(self, generation, stop);

    HTTPRequest request;
    request.method = method;
    request.url = *url;
    request.timeout = kRequestTimeout;
    request.setHeader("Authorization", "Bearer " + bearer.toUtf8());
    request.setHeader("Content-Type", "application/json");
    request.body = std::move(body);

    auto transport = deps_.transport;
    const HTTPResponse response = co_await transport->send(std::move(request), stop);
    ensureCurrent(self, generation, stop);

    if (response.status && *response.status >= 200 && *response.status <= 299) co_return response.body;
    QString message = kCannotReachCloud;
    if (const auto map = CloudStringMap::tryFromCloudJson(
            std::string_view(response.body.constData(), static_cast<std::size_t>(response.body.size())))) {
        auto it = map->values.find(QStringLiteral("error"));
        if (it != map->values.end() && !it->second.isEmpty()) message = it->second;
    }
    throw CloudError(message, std::nullopt, response.status);
}

QCoro::Task<QString> AICloudStore::credential(QString endpoint, std::stop_token stop) {
    QPointer<AICloudStore> self(this);
    // A copy: g++ 12 moves from a member named in co_return, which would
    // empty the token after its first use.
    if (endpoint == endpoint_ && identityToken_ && identityExpiry_ > deps_.now()) co_return QString(*identityToken_);
    if (deps_.defaults->string(kAuthKindKey) == QLatin1String("owner")) co_return co_await loadToken(endpoint);

    const QString refreshKey = kIdentityKeyPrefix + endpoint;
    const QString refreshToken = co_await loadToken(refreshKey);
    if (!self) throw CancellationError();
    const std::int64_t generation = generation_;
    const auto reply = co_await identityRequest(
        QStringLiteral("token"), refreshBody(refreshToken), true, stop);
    ensureCurrent(self, generation, stop);

    const auto idToken = member(reply, "id_token");
    const auto newRefreshToken = member(reply, "refresh_token");
    if (!idToken || !newRefreshToken) throw CloudError(kSignInAgain);
    co_await saveToken(*newRefreshToken, refreshKey);
    ensureCurrent(self, generation, stop);
    identityToken_ = *idToken;
    identityExpiry_ = deps_.now().addingSeconds(kIdentityTokenLifetime);
    co_return *idToken;
}

// The only request that leaves the cloud's own host: the identity service,
// with the key the cloud hands out in /v1/config. Never carries a bearer.
QCoro::Task<AICloudStore::IdentityReply> AICloudStore::identityRequest(QString path, QByteArray body, bool refresh,
                                                                       std::stop_token stop) {
    QPointer<AICloudStore> self(this);
    const std::int64_t generation = generation_;
    auto transport = deps_.transport;

    const auto configURL = cloudURL(configuration_.hostedEndpoint, QStringLiteral("config"));
    if (!configURL) throw CloudError(kRegistrationUnavailable);
    HTTPRequest configRequest;
    configRequest.method = "GET";
    configRequest.url = *configURL;
    configRequest.timeout = kConfigTimeout;
    const HTTPResponse configResponse = co_await transport->send(std::move(configRequest), stop);
    ensureCurrent(self, generation, stop);

    QString apiKey;
    if (configResponse.status == 200) {
        try {
            apiKey = Config::fromCloudJson(std::string_view(configResponse.body.constData(),
                                                            static_cast<std::size_t>(configResponse.body.size())))
                         .apiKey;
        } catch (const JsonDecodingError&) {
            apiKey.clear();
        }
    }
    if (apiKey.isEmpty()) throw CloudError(kRegistrationUnavailable);

    const QString base = refresh ? configuration_.secureTokenURL + QStringLiteral("/v1/token")
                                 : configuration_.identityToolkitURL + QStringLiteral("/v1/") + path;
    QUrl url(base, QUrl::StrictMode);
    url.setQuery(QStringLiteral("key=") + QString::fromLatin1(QUrl::toPercentEncoding(apiKey)), QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty()) throw CloudError(kRegistrationUnavailable);

    HTTPRequest request;
    request.method = "POST";
    request.url = url;
    request.timeout = kIdentityTimeout;
    request.setHeader("Content-Type", "application/json");
    request.body = std::move(body);
    const HTTPResponse response = co_await transport->send(std::move(request), stop);
    ensureCurrent(self, generation, stop);

    if (response.status != 200) throw CloudError(kIdentityRefused);
    auto members = stringMembers(response.body);
    if (!members) throw CloudError(kIdentityRefused);
    co_return std::move(*members);
}


} // namespace tavelo
