#include "google/GoogleCalendarAPIClient.h"

#include "google/GoogleAccessTokenProvider.h"
#include "google/GoogleLog.h"
#include "support/HTTPTransport.h"
#include "support/JsonReader.h"
#include "support/JsonWriter.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace tavelo {

using Kind = GoogleCalendarAPIError::Kind;

std::optional<QString> GoogleCalendarAPIError::errorDescription() const {
    switch (kind_) {
    case Kind::httpFailure: return QStringLiteral("The Google Calendar request failed.");
    case Kind::reconnectRequired: return QStringLiteral("The Google account must be reconnected.");
    case Kind::authorizationFailure: return QStringLiteral("Google Calendar authorization could not be completed.");
    case Kind::unauthorized: return QStringLiteral("Google Calendar authorization is no longer valid.");
    case Kind::insufficientScope:
        return QStringLiteral("Google Calendar access does not include the required permission.");
    case Kind::quotaExceeded: return QStringLiteral("Google Calendar quota has been exceeded.");
    case Kind::rateLimited: return QStringLiteral("Google Calendar is temporarily rate limited.");
    case Kind::permissionDenied: return QStringLiteral("Google Calendar denied this operation.");
    case Kind::partialFreeBusyFailure:
        return QStringLiteral("Google Calendar could not determine availability for every calendar.");
    case Kind::syncTokenExpired: return QStringLiteral("Google Calendar synchronization must restart.");
    case Kind::preconditionFailed: return QStringLiteral("The Google Calendar event changed remotely.");
    case Kind::invalidResponse: return QStringLiteral("Google Calendar returned an invalid response.");
    case Kind::transportFailure: return QStringLiteral("Google Calendar is unavailable.");
    }
    return std::nullopt;
}

namespace {

constexpr QByteArrayView kUnreserved = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";

QByteArray encodeComponent(const QString& text) {
    const QByteArray utf8 = text.toUtf8();
    QByteArray out;
    out.reserve(utf8.size());
    static const char hex[] = "0123456789ABCDEF";
    for (const char c : utf8) {
        if (kUnreserved.contains(c)) {
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

QString isoUTC(Date date) { return QString::fromStdString(date.isoString()); }

[[noreturn]] void fail(Kind kind) { throw GoogleCalendarAPIError(kind); }

std::optional<QString> nonEmptyTrimmed(const std::optional<QString>& text) {
    if (!text) return std::nullopt;
    QString trimmed = text->trimmed();
    if (trimmed.isEmpty()) return std::nullopt;
    return trimmed;
}

template <class Encodable>
QByteArray encodeBody(const Encodable& value) {
    std::string out;
    JsonWriter writer(out);
    value.encode(writer);
    return QByteArray::fromStdString(out);
}

// A decoded event that must name itself.
GoogleEventDTO identifiedEvent(const QByteArray& body) {
    GoogleEventDTO event;
    try {
        event = decodeGoogleEvent(std::string_view(body.constData(), body.size()));
    } catch (const std::exception&) {
        fail(Kind::invalidResponse);
    }
    if (!nonEmptyTrimmed(event.id)) fail(Kind::invalidResponse);
    return event;
}

GoogleEventPage eventPage(const QByteArray& body) {
    try {
        return decodeGoogleEventPage(std::string_view(body.constData(), body.size()));
    } catch (const std::exception&) {
        fail(Kind::invalidResponse);
    }
}

bool touchesAttendees(const GoogleEventPatchDTO& patch) {
    return !patch.summary.isOmitted() || !patch.description.isOmitted() || !patch.location.isOmitted() ||
           !patch.start.isOmitted() || !patch.end.isOmitted() || !patch.recurrence.isOmitted() ||
           !patch.attendees.isOmitted() || !patch.conferenceData.isOmitted();
}

void setIfMatch(HTTPRequest& request, const std::optional<QString>& etag) {
    if (auto trimmed = nonEmptyTrimmed(etag)) request.setHeader("If-Match", trimmed->toUtf8());
}

void setJSONBody(HTTPRequest& request, QByteArray body) {
    request.body = std::move(body);
    request.setHeader("Content-Type", "application/json");
}

// Whether an insert's outcome at Google is unknown, so that reading the
// event back is the way to learn it.
bool isUnclearInsertFailure(const GoogleCalendarAPIError& error) {
    switch (error.kind()) {
    case Kind::invalidResponse:
    case Kind::transportFailure: return true;
    case Kind::httpFailure: return error.statusCode() == 409 || (error.statusCode() >= 500 && error.statusCode() <= 599);
    default: return false;
    }
}

} // namespace

QUrl GoogleCalendarAPIClient::defaultBaseURL() { return QUrl(QStringLiteral("https://www.googleapis.com/calendar/v3")); }

double GoogleCalendarAPIClient::randomJitter() {
    static thread_local std::mt19937_64 generator{std::random_device{}()};
    constexpr std::uint64_t kScale = std::uint64_t(1) << 53;
    std::uniform_int_distribution<std::uint64_t> distribution(0, kScale);
    return static_cast<double>(distribution(generator)) / static_cast<double>(kScale);
}

double GoogleCalendarAPIClient::retryDelaySeconds(int attempt, double jitter) {
    const double factor = jitter > 0 ? 0.5 + 0.5 * std::min(jitter, 1.0) : 0.5;
    return std::ldexp(1.0, attempt - 1) * factor;
}

GoogleCalendarAPIClient::GoogleCalendarAPIClient(std::shared_ptr<GoogleAccessTokenProviding> tokenProvider,
                                                 std::shared_ptr<HTTPTransport> transport, SleepFunction retryDelay,
                                                 Jitter jitter, QUrl baseURL)
    : tokenProvider_(std::move(tokenProvider)), transport_(std::move(transport)), retryDelay_(std::move(retryDelay)),
      jitter_(std::move(jitter)), baseURL_(std::move(baseURL)) {}

HTTPRequest GoogleCalendarAPIClient::makeRequest(const QByteArray& method, const std::vector<QString>& pathSegments,
                                                 const Query& query) const {
    QByteArray address = baseURL_.toEncoded(QUrl::StripTrailingSlash);
    for (const auto& segment : pathSegments) address += '/' + encodeComponent(segment);
    for (std::size_t i = 0; i < query.size(); ++i) {
        address += i == 0 ? '?' : '&';
        address += encodeComponent(query[i].first) + '=' + encodeComponent(query[i].second);
    }
    HTTPRequest request;
    request.method = method;
    request.url = QUrl::fromEncoded(address, QUrl::StrictMode);
    if (!request.url.isValid() || request.url.scheme().isEmpty()) fail(Kind::invalidResponse);
    request.timeout = 60.0;
    request.setHeader("Accept", "application/json");
    return request;
}

QCoro::Task<QString> GoogleCalendarAPIClient::accessToken(std::optional<QString> rejectedAccessToken,
                                                          std::stop_token stop) const {
    QString token;
    try {
        token = co_await tokenProvider_->accessToken(rejectedAccessToken, stop);
    } catch (const CancellationError&) {
        throw;
    } catch (const GoogleCalendarAPIError&) {
        throw;
    } catch (const GoogleAccessTokenProviderError& error) {
        qCCritical(googleSyncLog, "Token provider failed: %s", qUtf8Printable(localizedDescription(error)));
        if (error.kind() == GoogleAccessTokenProviderError::Kind::reconnectRequired) fail(Kind::reconnectRequired);
        fail(Kind::authorizationFailure);
    } catch (const std::exception& other) {
        qCCritical(googleSyncLog, "Token provider failed: %s", qUtf8Printable(localizedDescription(other)));
        fail(Kind::authorizationFailure);
    } catch (...) {
        fail(Kind::authorizationFailure);
    }
    if (token.trimmed().isEmpty()) fail(Kind::authorizationFailure);
    co_return token;
}

QCoro::Task<QByteArray> GoogleCalendarAPIClient::successfulData(HTTPRequest request, Operation operation,
                                                                std::vector<int> additionalSuccessStatusCodes,
                                                                bool allowsBackendRetry, std::stop_token stop) const {
    int attempt = 1;
    bool refreshed = false;
    std::optional<QString> rejected;
    for (;;) {
        const QString token = co_await accessToken(rejected, stop);
        rejected.reset();
        checkCancellation(stop);
        request.setHeader("Authorization", "Bearer " + token.toUtf8());

        HTTPResponse response;
        std::exception_ptr sendFailure;
        try {
            response = co_await transport_->send(request, stop);
        } catch (...) {
            sendFailure = std::current_exception();
        }
        if (sendFailure) {
            if (isCancellation(sendFailure)) std::rethrow_exception(sendFailure);
            checkCancellation(stop);
            fail(Kind::transportFailure);
        }
        if (!response.status) {
            checkCancellation(stop);
            fail(Kind::transportFailure);
        }

        const int status = *response.status;
        if (response.body.size() > maximumResponseBytes_) {
            qCWarning(googleSyncLog, "Google Calendar reply of %lld bytes refused", qlonglong(response.body.size()));
            fail(Kind::invalidResponse);
        }
        if ((status >= 200 && status <= 299) ||
            std::find(additionalSuccessStatusCodes.begin(), additionalSuccessStatusCodes.end(), status) !=
                additionalSuccessStatusCodes.end())
            co_return response.body;

        const auto reason = googleErrorReason(std::string_view(response.body.constData(), response.body.size()));
        const auto reasonIs = [&](std::initializer_list<const char*> names) {
            if (!reason) return false;
            return std::any_of(names.begin(), names.end(), [&](const char* n) { return *reason == QLatin1String(n); });
        };

        bool retryAfterWait = false;
        if (status == 412) {
            fail(Kind::preconditionFailed);
        } else if (status == 410) {
            if (operation == Operation::incrementalListing) fail(Kind::syncTokenExpired);
            throw GoogleCalendarAPIError::httpFailure(410);
        } else if (status == 401) {
            if (refreshed) fail(Kind::unauthorized);
            refreshed = true;
            rejected = token;
            continue;
        } else if (status == 403) {
            if (reasonIs({"rateLimitExceeded", "userRateLimitExceeded"})) {
                if (attempt >= kMaximumAttempts) fail(Kind::rateLimited);
                retryAfterWait = true;
            } else if (reasonIs({"insufficientPermissions", "insufficient_scope"})) {
                fail(Kind::insufficientScope);
            } else if (reasonIs({"dailyLimitExceeded", "quotaExceeded"})) {
                fail(Kind::quotaExceeded);
            } else {
                fail(Kind::permissionDenied);
            }
        } else if (status == 429) {
            if (attempt >= kMaximumAttempts) fail(Kind::rateLimited);
            retryAfterWait = true;
        } else if (status == 500 && allowsBackendRetry && reasonIs({"backendError"})) {
            if (attempt >= kMaximumAttempts) throw GoogleCalendarAPIError::httpFailure(500);
            retryAfterWait = true;
        } else {
            throw GoogleCalendarAPIError::httpFailure(status);
        }

        if (retryAfterWait) {
            const double seconds = retryDelaySeconds(attempt, jitter_ ? jitter_() : 0.0);
            co_await retryDelay_(seconds, stop);
            checkCancellation(stop);
            ++attempt;
        }
    }
}

QCoro::Task<GoogleCalendarListPage> GoogleCalendarAPIClient::listCalendars(std::optional<QString> pageToken,
                                                                           std::stop_token stop) const {
    Query query{{QStringLiteral("maxResults"), QStringLiteral("250")}};
    if (pageToken) query.emplace_back(QStringLiteral("pageToken"), *pageToken);
    HTTPRequest request = makeRequest("GET", {QStringLiteral("users"), QStringLiteral("me"), QStringLiteral("calendarList")}, query);
    const QByteArray body = co_await successfulData(std::move(request), Operation::other, std::vector<int>(), true, stop);
    try {
        co_return decodeGoogleCalendarListPage(std::string_view(body.constData(), body.size()));
    } catch (const std::exception&) {
        fail(Kind::invalidResponse);
    }
}

QCoro::Task<GoogleEventPage> GoogleCalendarAPIClient::listEvents(QString calendarID, std::optional<QString> syncToken,
                                                                 std::optional<QString> pageToken,
                                                                 std::stop_token stop) const {
    Query query{{QStringLiteral("maxResults"), QStringLiteral("250")},
                {QStringLiteral("showDeleted"), QStringLiteral("true")},
                {QStringLiteral("singleEvents"), QStringLiteral("true")}};
    if (syncToken) query.emplace_back(QStringLiteral("syncToken"), *syncToken);
    if (pageToken) query.emplace_back(QStringLiteral("pageToken"), *pageToken);
    HTTPRequest request = makeRequest("GET", {QStringLiteral("calendars"), calendarID, QStringLiteral("events")}, query);
    const Operation operation = syncToken ? Operation::incrementalListing : Operation::other;
    const QByteArray body = co_await successfulData(std::move(request), operation, std::vector<int>(), true, stop);
    co_return eventPage(body);
}

QCoro::Task<GoogleEventPage> GoogleCalendarAPIClient::listEvents(QString calendarID, Date timeMin, Date timeMax,
                                                                 std::optional<QString> pageToken,
                                                                 std::stop_token stop) const {
    if (!(timeMin < timeMax)) fail(Kind::invalidResponse);
    Query query{{QStringLiteral("maxResults"), QStringLiteral("250")},
                {QStringLiteral("singleEvents"), QStringLiteral("true")},
                {QStringLiteral("timeMin"), isoUTC(timeMin)},
                {QStringLiteral("timeMax"), isoUTC(timeMax)}};
    if (pageToken) query.emplace_back(QStringLiteral("pageToken"), *pageToken);
    HTTPRequest request = makeRequest("GET", {QStringLiteral("calendars"), calendarID, QStringLiteral("events")}, query);
    const QByteArray body = co_await successfulData(std::move(request), Operation::other, std::vector<int>(), true, stop);
    co_return eventPage(body);
}

QCoro::Task<GoogleEventDTO> GoogleCalendarAPIClient::getEvent(QString calendarID, QString eventID,
                                                              std::stop_token stop) const {
    HTTPRequest request =
        makeRequest("GET", {QStringLiteral("calendars"), calendarID, QStringLiteral("events"), eventID}, {});
    const QByteArray body = co_await successfulData(std::move(request), Operation::other, std::vector<int>(), true, stop);
    co_return identifiedEvent(body);
}

QCoro::Task<GoogleEventDTO> GoogleCalendarAPIClient::insertEvent(QString calendarID, GoogleEventInsertDTO event,
                                                                 std::stop_token stop) const {
    Query query{{QStringLiteral("sendUpdates"), QStringLiteral("all")}};
    if (event.conferenceData) query.emplace_back(QStringLiteral("conferenceDataVersion"), QStringLiteral("1"));
    HTTPRequest request = makeRequest("POST", {QStringLiteral("calendars"), calendarID, QStringLiteral("events")}, query);
    setJSONBody(request, encodeBody(event));

    std::optional<GoogleCalendarAPIError> unclear;
    try {
        const QByteArray body = co_await successfulData(std::move(request), Operation::other, std::vector<int>(), false, stop);
        co_return identifiedEvent(body);
    } catch (const GoogleCalendarAPIError& error) {
        if (!isUnclearInsertFailure(error)) throw;
        unclear = error;
    }
    qCInfo(googleSyncLog, "Insert outcome unclear (%s); reading the event back",
           qUtf8Printable(localizedDescription(*unclear)));
    GoogleEventDTO existing = co_await getEvent(calendarID, event.id, stop);
    co_return existing;
}

QCoro::Task<GoogleEventDTO> GoogleCalendarAPIClient::updateEvent(QString calendarID, QString eventID,
                                                                 GoogleEventPatchDTO patch, std::stop_token stop) const {
    Query query;
    if (touchesAttendees(patch)) query.emplace_back(QStringLiteral("sendUpdates"), QStringLiteral("all"));
    if (!patch.conferenceData.isOmitted())
        query.emplace_back(QStringLiteral("conferenceDataVersion"), QStringLiteral("1"));
    HTTPRequest request =
        makeRequest("PATCH", {QStringLiteral("calendars"), calendarID, QStringLiteral("events"), eventID}, query);
    setIfMatch(request, patch.etag);
    setJSONBody(request, encodeBody(patch));
    const QByteArray body = co_await successfulData(std::move(request), Operation::other, std::vector<int>(), false, stop);
    co_return identifiedEvent(body);
}

QCoro::Task<void> GoogleCalendarAPIClient::deleteEvent(QString calendarID, QString eventID,
                                                       std::optional<QString> etag, std::stop_token stop) const {
    HTTPRequest request = makeRequest("DELETE", {QStringLiteral("calendars"), calendarID, QStringLiteral("events"), eventID},
                                      {{QStringLiteral("sendUpdates"), QStringLiteral("all")}});
    setIfMatch(request, etag);
    std::vector<int> goneIsSuccess{404, 410};
    co_await successfulData(std::move(request), Operation::other, goneIsSuccess, true, stop);
}

QCoro::Task<GoogleFreeBusyResponseDTO> GoogleCalendarAPIClient::freeBusy(std::vector<QString> calendarIDs, Date timeMin,
                                                                         Date timeMax, QString timeZone,
                                                                         std::stop_token stop) const {
    if (!(timeMin < timeMax)) fail(Kind::invalidResponse);
    FreeBusyRequest body{isoUTC(timeMin), isoUTC(timeMax), timeZone, calendarIDs};
    HTTPRequest request = makeRequest("POST", {QStringLiteral("freeBusy")}, {});
    setJSONBody(request, encodeBody(body));
    const QByteArray reply = co_await successfulData(std::move(request), Operation::other, std::vector<int>(), true, stop);

    GoogleFreeBusyResponseDTO response;
    try {
        response = decodeGoogleFreeBusyResponse(std::string_view(reply.constData(), reply.size()));
    } catch (const std::exception&) {
        fail(Kind::invalidResponse);
    }
    for (const auto& id : calendarIDs) {
        if (!response.calendars) fail(Kind::partialFreeBusyFailure);
        const auto entry = response.calendars->find(id);
        if (entry == response.calendars->end() || !entry->second.busy ||
            (entry->second.errors && !entry->second.errors->empty()))
            fail(Kind::partialFreeBusyFailure);
    }
    co_return response;
}

} // namespace tavelo
