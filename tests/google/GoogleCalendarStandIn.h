#pragma once

// A stand-in for Google's Calendar REST interface (v3) on 127.0.0.1, written
// after Google's published documentation:
// - the calendar list on one page; events listings in pages ("maxResults",
//   at most 2500 events a page, "nextPageToken"); the last page of a full
//   listing carries "nextSyncToken";
// - incremental listings by "syncToken" return only what changed since,
//   deleted events as "cancelled" items; a sync token that has expired is
//   answered 410 (reason "fullSyncRequired"); listings by time range are
//   refused;
// - every stored change gives the event a new ETag; a PATCH or DELETE whose
//   If-Match names an older one is answered 412 ("conditionNotMet");
// - insert with a client-chosen id, 409 ("duplicate") for an id that exists;
//   delete of a deleted event is 410;
// - Meet conferences asked for with conferenceDataVersion=1 start "pending"
//   and complete at the next read;
// - private/shared extended properties merged key by key on PATCH;
// - freeBusy over the calendars it keeps;
// - tokens: a request without an accepted bearer token is a 401 ("authError").
// Faults (403 rate limits, 429 with Retry-After, 5xx, hostile bodies) are
// queued by the test for the next requests of one method.

#include "support/LocalHttpServer.h"

#include <QJsonObject>
#include <QString>
#include <QUrl>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <vector>

namespace tavelo::testing {

class GoogleCalendarStandIn {
public:
    static constexpr const char* kBasePath = "/calendar/v3";
    static constexpr int kMaximumEventPageSize = 2500;

    GoogleCalendarStandIn();

    LocalHttpServer& server() { return server_; }
    // The REST root to give the client.
    QUrl baseURL() const;

    void acceptToken(const QString& token) { tokens_.insert(token); }
    void revokeToken(const QString& token) { tokens_.erase(token); }
    // Tokens issued elsewhere (by the OAuth stand-in) are accepted while this holds.
    void setTokenValidator(std::function<bool(const QString&)> validator) { validator_ = std::move(validator); }

    void addCalendar(const QString& id, const QString& summary, bool primary = false,
                     const QString& accessRole = QStringLiteral("owner"),
                     const QString& timeZone = QStringLiteral("Asia/Tokyo"));
    // An event created or replaced outside the app (say, in the web UI).
    // Returns the stored event with its new etag.
    QJsonObject putEvent(const QString& calendarID, QJsonObject event);
    // An event deleted outside the app.
    void cancelEvent(const QString& calendarID, const QString& eventID);
    std::optional<QJsonObject> event(const QString& calendarID, const QString& eventID) const;
    // Events that are not cancelled.
    int liveEventCount(const QString& calendarID) const;

    // Every sync token issued so far is answered 410 from now on.
    void expireSyncTokens();
    // The next request with this method gets `response` (queued in order).
    void failNext(const QByteArray& method, CannedResponse response);
    // The next request with this method whose path and query ("path?query",
    // as sent, percent-encoded) contain `fragment` gets `response`.
    void failNextAt(const QByteArray& method, const QByteArray& fragment, CannedResponse response) {
        pathFaults_.push_back({method, fragment, std::move(response)});
    }
    // Requests with this method whose path and query contain `fragment` are
    // held unanswered (as a reply that never comes) until cleared.
    void holdAt(const QByteArray& method, const QByteArray& fragment) { holds_.push_back({method, fragment}); }
    void clearHolds() { holds_.clear(); }
    // A Google error body with one reason.
    static CannedResponse googleError(int status, const char* reason, const char* message);

    int countOf(const QByteArray& method) const;

private:
    struct StoredEvent {
        QJsonObject body;
        std::int64_t sequence = 0;
        bool conferencePending = false; // ready at the next read
    };
    struct Calendar {
        QJsonObject entry;
        std::map<QString, StoredEvent> events;
    };
    struct Cursor {
        QString calendarID;
        std::vector<QString> ids;
        std::size_t offset = 0;
        std::int64_t snapshot = 0;
    };

    std::optional<CannedResponse> handle(const RecordedRequest& request);
    CannedResponse listCalendars();
    CannedResponse listEvents(const QString& calendarID, const std::map<QString, QString>& query);
    CannedResponse insertEvent(const QString& calendarID, const RecordedRequest& request,
                               const std::map<QString, QString>& query);
    CannedResponse readEvent(const QString& calendarID, const QString& eventID);
    CannedResponse patchEvent(const QString& calendarID, const QString& eventID, const RecordedRequest& request,
                              const std::map<QString, QString>& query);
    CannedResponse deleteEvent(const QString& calendarID, const QString& eventID, const RecordedRequest& request);
    CannedResponse freeBusy(const RecordedRequest& request);

    void stamp(StoredEvent& stored);
    static bool matchesETag(const RecordedRequest& request, const StoredEvent& stored);
    static void startConference(QJsonObject& body, const QJsonObject& asked, StoredEvent& stored);
    void advanceConference(StoredEvent& stored);
    static bool startsConference(const QJsonObject& body, const std::map<QString, QString>& query);
    QJsonObject listedForm(const StoredEvent& stored) const;

    LocalHttpServer server_;
    std::set<QString> tokens_;
    std::function<bool(const QString&)> validator_;
    std::map<QString, Calendar> calendars_;
    std::vector<QString> calendarOrder_;
    std::map<QString, Cursor> cursors_;
    std::map<QString, std::pair<QString, std::int64_t>> syncTokens_;
    std::map<QByteArray, std::deque<CannedResponse>> faults_;
    struct PathFault {
        QByteArray method;
        QByteArray fragment;
        CannedResponse response;
    };
    std::vector<PathFault> pathFaults_;
    std::vector<std::pair<QByteArray, QByteArray>> holds_;
    std::int64_t sequence_ = 1000;
    std::uint64_t tokenCounter_ = 0;
};

} // namespace tavelo::testing
