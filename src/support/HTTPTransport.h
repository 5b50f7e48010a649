#pragma once

#include "support/Error.h"

#include <QByteArray>
#include <QCoro/QCoroTask>
#include <QString>
#include <QUrl>

#include <memory>
#include <optional>
#include <stop_token>
#include <utility>
#include <vector>

namespace tavelo {

using HTTPHeaders = std::vector<std::pair<QByteArray, QByteArray>>;

struct HTTPRequest {
    QByteArray method = "GET";
    QUrl url;
    HTTPHeaders headers;
    std::optional<QByteArray> body;
    // Seconds without progress after which the request fails.
    double timeout = 60.0;

    void setHeader(const QByteArray& name, const QByteArray& value);
    // The first header of that name, compared without regard to case.
    std::optional<QByteArray> header(const QByteArray& name) const;
};

struct HTTPResponse {
    // The HTTP status; nothing when the reply did not come over HTTP.
    std::optional<int> status;
    HTTPHeaders headers;
    QByteArray body;

    std::optional<QByteArray> header(const QByteArray& name) const;
};

// Failures of the transport itself: the request never produced a response.
// Protocol-level, so the texts are English.
class HTTPTransportError final : public Error {
public:
    enum class Kind { invalidResponse, timedOut, network };
    HTTPTransportError(Kind kind, QString detail = {});

    std::optional<QString> errorDescription() const override;
    const char* domain() const override { return "HTTPTransportError"; }
    int code() const override { return static_cast<int>(kind_); }
    Kind kind() const { return kind_; }

private:
    Kind kind_;
    QString detail_;
};

// The seam under every HTTP request of the application: one asynchronous
// operation from a request to the response. Any status code is a response,
// not a failure; only a request that gets no response at all fails. A stop
// request aborts the transfer and the operation throws CancellationError.
class HTTPTransport {
public:
    virtual ~HTTPTransport() = default;
    virtual QCoro::Task<HTTPResponse> send(HTTPRequest request, std::stop_token stop = {}) = 0;
};

// The production transport over one QNetworkAccessManager owned by the
// object: no cookies are stored or sent, nothing is cached, and a redirect is
// never followed, so that a bearer token cannot travel to another host — a
// 3xx comes back as the response. The per-request timeout is the manager's
// transfer timeout. Main thread only.
class NetworkHTTPTransport final : public HTTPTransport {
public:
    NetworkHTTPTransport();
    ~NetworkHTTPTransport() override;

    QCoro::Task<HTTPResponse> send(HTTPRequest request, std::stop_token stop = {}) override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace tavelo
