#pragma once

// The one gate to Google's Calendar REST interface for one account: builds
// each request, attaches a token, retries what may be retried and turns every
// failure into a GoogleCalendarAPIError. Listings are decoded item by item, so
// one damaged event never loses its page.

#include "google/GoogleWireRecords.h"
#include "support/Async.h"
#include "support/Date.h"
#include "support/Error.h"

#include <QCoro/QCoroTask>
#include <QString>
#include <QUrl>

#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <utility>
#include <vector>

namespace tavelo {

class GoogleAccessTokenProviding;
class HTTPTransport;
struct HTTPRequest;

// Protocol-level failures of the Calendar interface; the texts are English.
class GoogleCalendarAPIError final : public Error {
public:
    enum class Kind {
        httpFailure,
        reconnectRequired,
        authorizationFailure,
        unauthorized,
        insufficientScope,
        quotaExceeded,
        rateLimited,
        permissionDenied,
        partialFreeBusyFailure,
        syncTokenExpired,
        preconditionFailed,
        invalidResponse,
        transportFailure,
    };

    explicit GoogleCalendarAPIError(Kind kind, int statusCode = 0)
        : kind_(kind), statusCode_(kind == Kind::httpFailure ? statusCode : 0) {}
    static GoogleCalendarAPIError httpFailure(int statusCode) { return GoogleCalendarAPIError(Kind::httpFailure, statusCode); }

    Kind kind() const { return kind_; }
    // The HTTP status of an httpFailure; 0 for every other case.
    int statusCode() const { return statusCode_; }

    std::optional<QString> errorDescription() const override;
    const char* domain() const override { return "GoogleCalendarAPIError"; }
    int code() const override { return static_cast<int>(kind_); }

    bool operator==(const GoogleCalendarAPIError& other) const {
        return kind_ == other.kind_ && statusCode_ == other.statusCode_;
    }

private:
    Kind kind_;
    int statusCode_;
};

class GoogleCalendarAPIClient {
public:
    using Jitter = std::function<double()>;

    // Google's Calendar REST root.
    static QUrl defaultBaseURL();
    // Replies longer than this are refused before they are parsed: a page of
    // 2500 large events stays well below it.
    static constexpr qsizetype kDefaultMaximumResponseBytes = 64 * 1024 * 1024;
    // Sends per call for rate-limit and backend reasons.
    static constexpr int kMaximumAttempts = 3;

    // A uniform value in [0, 1]: a random integer from 0 to 2^53 inclusive,
    // divided by 2^53.
    static double randomJitter();
    // Seconds to wait before the retry that follows `attempt`.
    static double retryDelaySeconds(int attempt, double jitter);

    GoogleCalendarAPIClient(std::shared_ptr<GoogleAccessTokenProviding> tokenProvider,
                            std::shared_ptr<HTTPTransport> transport, SleepFunction retryDelay = eventLoopSleep(),
                            Jitter jitter = &GoogleCalendarAPIClient::randomJitter, QUrl baseURL = defaultBaseURL());

    QCoro::Task<GoogleCalendarListPage> listCalendars(std::optional<QString> pageToken = std::nullopt,
                                                      std::stop_token stop = {}) const;
    // The full or incremental listing, with deleted events.
    QCoro::Task<GoogleEventPage> listEvents(QString calendarID, std::optional<QString> syncToken,
                                            std::optional<QString> pageToken, std::stop_token stop = {}) const;
    // The expanded events of a time range, without deleted ones.
    QCoro::Task<GoogleEventPage> listEvents(QString calendarID, Date timeMin, Date timeMax,
                                            std::optional<QString> pageToken, std::stop_token stop = {}) const;
    QCoro::Task<GoogleEventDTO> getEvent(QString calendarID, QString eventID, std::stop_token stop = {}) const;
    // Idempotent: the id is the client's, so an unclear failure is resolved
    // by reading the event back.
    QCoro::Task<GoogleEventDTO> insertEvent(QString calendarID, GoogleEventInsertDTO event,
                                            std::stop_token stop = {}) const;
    QCoro::Task<GoogleEventDTO> updateEvent(QString calendarID, QString eventID, GoogleEventPatchDTO patch,
                                            std::stop_token stop = {}) const;
    // An event that is already gone counts as deleted.
    QCoro::Task<void> deleteEvent(QString calendarID, QString eventID, std::optional<QString> etag,
                                  std::stop_token stop = {}) const;
    // All or nothing: every calendar asked for has its busy list.
    QCoro::Task<GoogleFreeBusyResponseDTO> freeBusy(std::vector<QString> calendarIDs, Date timeMin, Date timeMax,
                                                    QString timeZone, std::stop_token stop = {}) const;

    void setMaximumResponseBytes(qsizetype bytes) { maximumResponseBytes_ = bytes; }

    enum class Operation { other, incrementalListing };
    // Sends with token, retries and classification; the body of a success.
    QCoro::Task<QByteArray> successfulData(HTTPRequest request, Operation operation,
                                           std::vector<int> additionalSuccessStatusCodes, bool allowsBackendRetry,
                                           std::stop_token stop) const;

private:
    using Query = std::vector<std::pair<QString, QString>>;
    HTTPRequest makeRequest(const QByteArray& method, const std::vector<QString>& pathSegments,
                            const Query& query) const;
    QCoro::Task<QString> accessToken(std::optional<QString> rejectedAccessToken, std::stop_token stop) const;

    std::shared_ptr<GoogleAccessTokenProviding> tokenProvider_;
    std::shared_ptr<HTTPTransport> transport_;
    SleepFunction retryDelay_;
    Jitter jitter_;
    QUrl baseURL_;
    qsizetype maximumResponseBytes_ = kDefaultMaximumResponseBytes;
};

} // namespace tavelo
