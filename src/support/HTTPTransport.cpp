#include "support/HTTPTransport.h"

#include "support/Async.h"

#include <QNetworkAccessManager>
#include <QNetworkCookie>
#include <QNetworkCookieJar>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>

#include <cmath>

namespace tavelo {

namespace {

std::optional<QByteArray> findHeader(const HTTPHeaders& headers, const QByteArray& name) {
    for (const auto& [key, value] : headers)
        if (key.compare(name, Qt::CaseInsensitive) == 0) return value;
    return std::nullopt;
}

// A jar that keeps nothing and offers nothing.
class NoCookieJar final : public QNetworkCookieJar {
public:
    using QNetworkCookieJar::QNetworkCookieJar;
    QList<QNetworkCookie> cookiesForUrl(const QUrl&) const override { return {}; }
    bool setCookiesFromUrl(const QList<QNetworkCookie>&, const QUrl&) override { return false; }
};

// The standard verbs through their own calls, so that every scheme Qt knows
// (not only HTTP) can serve them; anything else as a custom request.
QNetworkReply* startRequest(QNetworkAccessManager& manager, const QNetworkRequest& request, const QByteArray& method,
                            const std::optional<QByteArray>& body) {
    if (method == "GET" && !body) return manager.get(request);
    if (method == "HEAD" && !body) return manager.head(request);
    if (method == "DELETE" && !body) return manager.deleteResource(request);
    if (method == "POST") return manager.post(request, body.value_or(QByteArray()));
    if (method == "PUT") return manager.put(request, body.value_or(QByteArray()));
    return body ? manager.sendCustomRequest(request, method, *body) : manager.sendCustomRequest(request, method);
}

struct ReplyDeleter {
    void operator()(QNetworkReply* reply) const {
        if (reply) reply->deleteLater();
    }
};

} // namespace

void HTTPRequest::setHeader(const QByteArray& name, const QByteArray& value) {
    for (auto& [key, existing] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0) {
            existing = value;
            return;
        }
    }
    headers.emplace_back(name, value);
}

std::optional<QByteArray> HTTPRequest::header(const QByteArray& name) const { return findHeader(headers, name); }

std::optional<QByteArray> HTTPResponse::header(const QByteArray& name) const { return findHeader(headers, name); }

HTTPTransportError::HTTPTransportError(Kind kind, QString detail) : kind_(kind), detail_(std::move(detail)) {}

std::optional<QString> HTTPTransportError::errorDescription() const {
    switch (kind_) {
    case Kind::invalidResponse: return QStringLiteral("The server returned an invalid HTTP response.");
    case Kind::timedOut: return QStringLiteral("The request timed out.");
    case Kind::network:
        if (detail_.isEmpty()) return QStringLiteral("The network connection failed.");
        return QStringLiteral("The network connection failed: %1").arg(detail_);
    }
    return std::nullopt;
}

struct NetworkHTTPTransport::Impl {
    QNetworkAccessManager manager;
};

NetworkHTTPTransport::NetworkHTTPTransport() : impl_(std::make_unique<Impl>()) {
    impl_->manager.setCookieJar(new NoCookieJar(&impl_->manager));
    impl_->manager.setRedirectPolicy(QNetworkRequest::ManualRedirectPolicy);
    impl_->manager.setAutoDeleteReplies(false);
}

NetworkHTTPTransport::~NetworkHTTPTransport() = default;

QCoro::Task<HTTPResponse> NetworkHTTPTransport::send(HTTPRequest request, std::stop_token stop) {
    checkCancellation(stop);

    QNetworkRequest networkRequest(request.url);
    networkRequest.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    networkRequest.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    networkRequest.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    networkRequest.setAttribute(QNetworkRequest::CookieLoadControlAttribute, QNetworkRequest::Manual);
    networkRequest.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
    if (std::isfinite(request.timeout) && request.timeout > 0)
        networkRequest.setTransferTimeout(std::max(1, static_cast<int>(std::lround(request.timeout * 1000.0))));
    for (const auto& [name, value] : request.headers) networkRequest.setRawHeader(name, value);

    std::unique_ptr<QNetworkReply, ReplyDeleter> reply(
        startRequest(impl_->manager, networkRequest, request.method, request.body));

    Continuation<bool> finished;
    QObject::connect(reply.get(), &QNetworkReply::finished, [finished]() mutable { finished.resume(true); });
    // The manager takes its replies with it when it goes.
    QObject::connect(reply.get(), &QObject::destroyed, [finished]() mutable { finished.resume(false); });
    QPointer<QNetworkReply> guard(reply.get());
    bool completed = false;
    {
        std::stop_callback onStop(stop, [guard] {
            postToMainThread([guard] {
                if (guard) guard->abort();
            });
        });
        completed = co_await finished;
    }
    if (!completed || !guard) {
        (void)reply.release(); // already gone with its manager
        throw CancellationError();
    }
    checkCancellation(stop);

    const QNetworkReply::NetworkError error = reply->error();
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (error == QNetworkReply::OperationCanceledError || error == QNetworkReply::TimeoutError)
        throw HTTPTransportError(HTTPTransportError::Kind::timedOut);
    // Qt reports some HTTP statuses as errors too (404 as ContentNotFoundError,
    // 407 as a proxy error); a reply with a status is a response unless the
    // connection itself broke.
    const int errorCode = static_cast<int>(error);
    if (errorCode > 0 && errorCode < 100) throw HTTPTransportError(HTTPTransportError::Kind::network, reply->errorString());
    if (!status.isValid() && error != QNetworkReply::NoError) {
        if (error > QNetworkReply::ProtocolUnknownError && error <= QNetworkReply::ProtocolFailure)
            throw HTTPTransportError(HTTPTransportError::Kind::invalidResponse);
        throw HTTPTransportError(HTTPTransportError::Kind::network, reply->errorString());
    }

    HTTPResponse response;
    if (status.isValid()) response.status = status.toInt();
    for (const auto& [name, value] : reply->rawHeaderPairs()) response.headers.emplace_back(name, value);
    response.body = reply->readAll();
    co_return response;
}

} // namespace tavelo
