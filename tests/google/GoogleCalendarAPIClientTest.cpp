#include "google/GoogleCalendarAPIClient.h"
#include "google/GoogleCalendarStandIn.h"
#include "google/GoogleTestSupport.h"
#include "support/FailureOf.h"

#include "google/GoogleAccessTokenProvider.h"
#include "support/HTTPTransport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <deque>

namespace tavelo::testing {
namespace {

using APIKind = GoogleCalendarAPIError::Kind;

const QString kPrimary = QStringLiteral("hanako@example.com");
const QString kTeam = QStringLiteral("team#1@group.calendar.google.com");

// Hands out scripted tokens: the first call gets `tokens.front()`, each call
// with a rejected token moves to the next one.
class ScriptedTokenProvider final : public GoogleAccessTokenProviding {
public:
    QCoro::Task<QString> accessToken(std::optional<QString> rejected, std::stop_token) override {
        calls.push_back(rejected);
        if (failure) std::rethrow_exception(failure);
        if (rejected && tokens.size() > 1) tokens.pop_front();
        QString token = tokens.front();
        co_return token;
    }

    std::deque<QString> tokens{QStringLiteral("token-1")};
    std::vector<std::optional<QString>> calls;
    std::exception_ptr failure;
};

QJsonObject timedEvent(const QString& id, const QString& summary, const QString& start, const QString& end) {
    return QJsonObject{{"id", id},
                       {"summary", summary},
                       {"start", QJsonObject{{"dateTime", start}, {"timeZone", "Asia/Tokyo"}}},
                       {"end", QJsonObject{{"dateTime", end}, {"timeZone", "Asia/Tokyo"}}}};
}

GoogleEventInsertDTO insertion(const QString& id, const QString& summary) {
    GoogleEventInsertDTO event;
    event.id = id;
    event.summary = summary;
    event.start.dateTime = QStringLiteral("2026-12-01T10:00:00+09:00");
    event.end.dateTime = QStringLiteral("2026-12-01T11:00:00+09:00");
    event.reminders.useDefault = true;
    event.extendedProperties.privateProperties = std::map<QString, QString>{{QStringLiteral("tavelo"), QStringLiteral("1")}};
    return event;
}

Date at(const char* iso) { return *Date::fromIsoString(iso); }

class GoogleCalendarAPIClientTest : public ::testing::Test {
protected:
    GoogleCalendarAPIClientTest() {
        google.acceptToken(QStringLiteral("token-1"));
        google.addCalendar(kPrimary, QStringLiteral("Hanako"), true);
        google.addCalendar(kTeam, QStringLiteral("Team"), false, QStringLiteral("writer"));
    }

    GoogleCalendarAPIClient client() {
        GoogleCalendarAPIClient c(
            tokens, transport,
            [this](double seconds, std::stop_token) -> QCoro::Task<void> {
                waits.push_back(seconds);
                if (onWait) onWait();
                co_return;
            },
            [this] { return jitter; }, google.baseURL());
        return c;
    }

    template <class Body>
    std::optional<GoogleCalendarAPIError> failureOf(Body body) {
        return tavelo::testing::failureOf<GoogleCalendarAPIError>(body);
    }

    std::vector<RecordedRequest> requestsTo(const QByteArray& method) const {
        std::vector<RecordedRequest> out;
        for (const auto& r : const_cast<GoogleCalendarStandIn&>(google).server().requests())
            if (r.method == method) out.push_back(r);
        return out;
    }

    GoogleCalendarStandIn google;
    std::shared_ptr<ScriptedTokenProvider> tokens = std::make_shared<ScriptedTokenProvider>();
    std::shared_ptr<NetworkHTTPTransport> transport = std::make_shared<NetworkHTTPTransport>();
    std::vector<double> waits;
    std::function<void()> onWait;
    double jitter = 0.5;
};

TEST_F(GoogleCalendarAPIClientTest, RequestsCarryTheirPathQueryAndHeadersInOrder) {
    auto api = client();
    // The stand-in never issued this token, so the listing ends in a restart.
    EXPECT_EQ(failureOf([&] { syncWait(api.listEvents(kTeam, QStringLiteral("tok/en+1 ="), QStringLiteral("p~1"))); }),
              GoogleCalendarAPIError(APIKind::httpFailure, 400));
    const auto listing = google.server().requests().back();
    EXPECT_EQ(listing.path, "/calendar/v3/calendars/team%231%40group.calendar.google.com/events");
    EXPECT_EQ(listing.query, "maxResults=250&showDeleted=true&singleEvents=true&syncToken=tok%2Fen%2B1%20%3D&pageToken=p~1");
    EXPECT_EQ(listing.header("accept"), "application/json");
    EXPECT_EQ(listing.header("authorization"), "Bearer token-1");

    syncWait(api.listEvents(kPrimary, at("2026-12-01T00:00:00Z"), at("2026-12-08T00:00:00Z"), std::nullopt));
    EXPECT_EQ(google.server().requests().back().query,
              "maxResults=250&singleEvents=true&timeMin=2026-12-01T00%3A00%3A00Z&timeMax=2026-12-08T00%3A00%3A00Z");

    // An empty or reversed range never reaches the network.
    const auto sent = google.server().requests().size();
    auto empty = failureOf([&] { syncWait(api.listEvents(kPrimary, at("2026-12-01T00:00:00Z"), at("2026-12-01T00:00:00Z"), std::nullopt)); });
    auto reversed = failureOf([&] {
        syncWait(api.freeBusy({kPrimary}, at("2026-12-02T00:00:00Z"), at("2026-12-01T00:00:00Z"), QStringLiteral("Asia/Tokyo")));
    });
    EXPECT_EQ(empty, GoogleCalendarAPIError(APIKind::invalidResponse));
    EXPECT_EQ(reversed, GoogleCalendarAPIError(APIKind::invalidResponse));
    EXPECT_EQ(google.server().requests().size(), sent);
}

TEST_F(GoogleCalendarAPIClientTest, CalendarListComesInPagesOf250) {
    for (int i = 0; i < 258; ++i)
        google.addCalendar(QStringLiteral("c%1@group.calendar.google.com").arg(i), QStringLiteral("C%1").arg(i));
    auto api = client();
    GoogleCalendarListPage first = syncWait(api.listCalendars());
    ASSERT_EQ(first.calendars.size(), 250u);
    ASSERT_TRUE(first.nextPageToken);
    EXPECT_EQ(first.calendars[0].id, kPrimary);
    EXPECT_EQ(first.calendars[0].primary, true);
    GoogleCalendarListPage second = syncWait(api.listCalendars(first.nextPageToken));
    EXPECT_EQ(second.calendars.size(), 10u);
    EXPECT_FALSE(second.nextPageToken);
    EXPECT_EQ(google.server().requests().back().query, "maxResults=250&pageToken=" + first.nextPageToken->toUtf8());
}

TEST_F(GoogleCalendarAPIClientTest, RateLimitsAreRetriedTwiceWithGrowingJitteredDelays) {
    auto api = client();
    for (int i = 0; i < 3; ++i)
        google.failNext("GET", GoogleCalendarStandIn::googleError(403, "rateLimitExceeded", "Rate Limit Exceeded"));
    auto limited = failureOf([&] { syncWait(api.listCalendars()); });
    EXPECT_EQ(limited, GoogleCalendarAPIError(APIKind::rateLimited));
    EXPECT_EQ(waits, (std::vector<double>{0.75, 1.5}));
    EXPECT_EQ(google.countOf("GET"), 3);
    // Every resend asks for a token again.
    EXPECT_EQ(tokens->calls.size(), 3u);

    // 429 with Retry-After: the server's delay is not ours; the retry succeeds.
    waits.clear();
    jitter = 0;
    google.failNext("GET", CannedResponse{429, {{"Retry-After", "120"}}, "{}"});
    google.failNext("GET", GoogleCalendarStandIn::googleError(403, "userRateLimitExceeded", "User Rate Limit Exceeded"));
    EXPECT_EQ(syncWait(api.listCalendars()).calendars.size(), 2u);
    EXPECT_EQ(waits, (std::vector<double>{0.5, 1.0}));

    // A jitter beyond 1 is clamped.
    waits.clear();
    jitter = 5;
    google.failNext("GET", CannedResponse{429, {}, {}});
    syncWait(api.listCalendars());
    EXPECT_EQ(waits, std::vector<double>{1.0});

    // A refused insert changed nothing, so it is retried too.
    waits.clear();
    google.failNext("POST", CannedResponse{429, {}, {}});
    GoogleEventDTO inserted = syncWait(api.insertEvent(kPrimary, insertion(QStringLiteral("abc123"), QStringLiteral("Plan"))));
    EXPECT_EQ(inserted.id, QStringLiteral("abc123"));
    EXPECT_EQ(waits.size(), 1u);
}

TEST_F(GoogleCalendarAPIClientTest, BackendErrorsAreRetriedOnlyWhereRepeatingIsSafe) {
    auto api = client();
    google.failNext("GET", GoogleCalendarStandIn::googleError(500, "backendError", "Backend Error"));
    EXPECT_EQ(syncWait(api.listCalendars()).calendars.size(), 2u);
    EXPECT_EQ(waits.size(), 1u);

    for (int i = 0; i < 3; ++i) google.failNext("GET", GoogleCalendarStandIn::googleError(500, "backendError", "Backend Error"));
    EXPECT_EQ(failureOf([&] { syncWait(api.listCalendars()); }), GoogleCalendarAPIError::httpFailure(500));

    waits.clear();
    google.failNext("GET", GoogleCalendarStandIn::googleError(503, "backendError", "Service Unavailable"));
    EXPECT_EQ(failureOf([&] { syncWait(api.listCalendars()); }), GoogleCalendarAPIError::httpFailure(503));
    // A 410 means restart only for a listing by sync token; otherwise it is a failed request.
    google.failNext("GET", GoogleCalendarStandIn::googleError(410, "fullSyncRequired", "Gone"));
    auto gone = failureOf([&] { syncWait(api.listEvents(kPrimary, std::nullopt, std::nullopt)); });
    EXPECT_EQ(gone, GoogleCalendarAPIError::httpFailure(410));
    EXPECT_TRUE(waits.empty());

    // An insert is not resent; its fate is asked for by reading the id back,
    // and here it never arrived.
    const int postsBefore = google.countOf("POST");
    google.failNext("POST", GoogleCalendarStandIn::googleError(500, "backendError", "Backend Error"));
    auto lost = failureOf([&] { syncWait(api.insertEvent(kPrimary, insertion(QStringLiteral("lost01"), QStringLiteral("Lost")))); });
    EXPECT_EQ(lost, GoogleCalendarAPIError::httpFailure(404));
    EXPECT_EQ(google.countOf("POST"), postsBefore + 1);
    EXPECT_TRUE(waits.empty());
    EXPECT_EQ(requestsTo("GET").back().path, "/calendar/v3/calendars/hanako%40example.com/events/lost01");
}

TEST_F(GoogleCalendarAPIClientTest, InsertWhoseReplyWasLostReturnsTheStoredEvent) {
    auto api = client();
    GoogleEventDTO first = syncWait(api.insertEvent(kPrimary, insertion(QStringLiteral("dup001"), QStringLiteral("Standup"))));
    // The same insert again, as after a reply that never arrived: Google says 409.
    GoogleEventDTO again = syncWait(api.insertEvent(kPrimary, insertion(QStringLiteral("dup001"), QStringLiteral("Standup"))));
    EXPECT_EQ(again.etag, first.etag);
    EXPECT_EQ(google.liveEventCount(kPrimary), 1);
    EXPECT_EQ(requestsTo("POST").front().query, "sendUpdates=all");

    // A garbled success reply is resolved the same way.
    google.failNext("POST", CannedResponse::json(200, R"({"id": 42})"));
    auto third = insertion(QStringLiteral("dup002"), QStringLiteral("Review"));
    // The garbled reply stands in for a stored event whose answer was damaged.
    google.putEvent(kPrimary, timedEvent(QStringLiteral("dup002"), QStringLiteral("Review"), "2026-12-01T10:00:00+09:00",
                                         "2026-12-01T11:00:00+09:00"));
    EXPECT_EQ(syncWait(api.insertEvent(kPrimary, third)).summary, QStringLiteral("Review"));

    // A bad request is not unclear: no read-back.
    const int getsBefore = google.countOf("GET");
    google.failNext("POST", GoogleCalendarStandIn::googleError(400, "invalid", "Invalid"));
    EXPECT_EQ(failureOf([&] { syncWait(api.insertEvent(kPrimary, insertion(QStringLiteral("bad001"), QStringLiteral("x")))); }),
              GoogleCalendarAPIError::httpFailure(400));
    EXPECT_EQ(google.countOf("GET"), getsBefore);
}

TEST_F(GoogleCalendarAPIClientTest, ExpiredTokenIsRefreshedOnceEvenOnTheLastAttempt) {
    google.revokeToken(QStringLiteral("token-1"));
    google.acceptToken(QStringLiteral("token-2"));
    tokens->tokens = {QStringLiteral("token-1"), QStringLiteral("token-2")};
    auto api = client();
    // Two rate-limit refusals use up the retries; the third send meets a 401
    // and still gets its one refresh.
    google.failNext("GET", CannedResponse{429, {}, {}});
    google.failNext("GET", CannedResponse{429, {}, {}});
    EXPECT_EQ(syncWait(api.listCalendars()).calendars.size(), 2u);
    EXPECT_EQ(google.countOf("GET"), 4);
    EXPECT_EQ(tokens->calls.back(), QStringLiteral("token-1"));

    // A second 401 after the refresh is final, without a third send.
    google.revokeToken(QStringLiteral("token-2"));
    tokens->tokens = {QStringLiteral("token-2"), QStringLiteral("token-3")};
    const int before = google.countOf("GET");
    EXPECT_EQ(failureOf([&] { syncWait(api.listCalendars()); }), GoogleCalendarAPIError(APIKind::unauthorized));
    EXPECT_EQ(google.countOf("GET"), before + 2);
}

TEST_F(GoogleCalendarAPIClientTest, TokenProviderFailuresAreClassifiedBeforeAnyRequest) {
    auto api = client();
    using ProviderKind = GoogleAccessTokenProviderError::Kind;
    const std::vector<std::pair<std::exception_ptr, APIKind>> cases{
        {std::make_exception_ptr(GoogleAccessTokenProviderError(ProviderKind::reconnectRequired)), APIKind::reconnectRequired},
        {std::make_exception_ptr(GoogleAccessTokenProviderError(ProviderKind::refreshFailed)), APIKind::authorizationFailure},
        {std::make_exception_ptr(std::runtime_error("keyring locked")), APIKind::authorizationFailure},
    };
    for (const auto& [failure, expected] : cases) {
        tokens->failure = failure;
        EXPECT_EQ(failureOf([&] { syncWait(api.listCalendars()); }), GoogleCalendarAPIError(expected));
    }
    tokens->failure = nullptr;
    tokens->tokens = {QStringLiteral("   ")};
    EXPECT_EQ(failureOf([&] { syncWait(api.listCalendars()); }), GoogleCalendarAPIError(APIKind::authorizationFailure));
    EXPECT_TRUE(google.server().requests().empty());
}

TEST_F(GoogleCalendarAPIClientTest, ForbiddenRepliesAreClassifiedByReason) {
    auto api = client();
    const std::vector<std::pair<const char*, GoogleCalendarAPIError>> cases{
        {"insufficientPermissions", GoogleCalendarAPIError(APIKind::insufficientScope)},
        {"insufficient_scope", GoogleCalendarAPIError(APIKind::insufficientScope)},
        {"dailyLimitExceeded", GoogleCalendarAPIError(APIKind::quotaExceeded)},
        {"quotaExceeded", GoogleCalendarAPIError(APIKind::quotaExceeded)},
        {"forbiddenForNonOrganizer", GoogleCalendarAPIError(APIKind::permissionDenied)},
    };
    for (const auto& [reason, expected] : cases) {
        google.failNext("GET", GoogleCalendarStandIn::googleError(403, reason, "Forbidden"));
        EXPECT_EQ(failureOf([&] { syncWait(api.listCalendars()); }), expected) << reason;
    }
    google.failNext("GET", CannedResponse{403, {}, "<html>Forbidden</html>"});
    EXPECT_EQ(failureOf([&] { syncWait(api.listCalendars()); }), GoogleCalendarAPIError(APIKind::permissionDenied));
    EXPECT_TRUE(waits.empty());
}

TEST_F(GoogleCalendarAPIClientTest, PatchAndDeleteAreGuardedByTheEtag) {
    auto api = client();
    GoogleEventDTO created = syncWait(api.insertEvent(kPrimary, insertion(QStringLiteral("plan01"), QStringLiteral("Plan"))));
    ASSERT_TRUE(created.etag);
    // Adding a Meet conference patches with the data version.
    const GoogleConferenceDataRequestDTO meet{
        GoogleConferenceCreateRequestDTO{QStringLiteral("req-2"), GoogleConferenceSolutionKeyDTO{QStringLiteral("hangoutsMeet")}}};
    GoogleEventPatchDTO conference;
    conference.conferenceData = GooglePatchValue<GoogleConferenceDataRequestDTO>::value(meet);
    syncWait(api.updateEvent(kPrimary, QStringLiteral("plan01"), conference));
    EXPECT_EQ(requestsTo("PATCH").back().query, "sendUpdates=all&conferenceDataVersion=1");
    created.etag = google.event(kPrimary, QStringLiteral("plan01"))->value("etag").toString();

    GoogleEventPatchDTO quiet;
    quiet.etag = QStringLiteral("  ") + *created.etag + QStringLiteral(" ");
    quiet.transparency = GooglePatchValue<QString>::value(QStringLiteral("transparent"));
    GoogleEventDTO patched = syncWait(api.updateEvent(kPrimary, QStringLiteral("plan01"), quiet));
    auto patchRequest = requestsTo("PATCH").back();
    EXPECT_EQ(patchRequest.query, "");
    EXPECT_EQ(patchRequest.header("if-match"), created.etag->toUtf8());
    EXPECT_FALSE(patchRequest.body.contains("etag"));
    EXPECT_EQ(patched.transparency, QStringLiteral("transparent"));

    // The old etag is stale now.
    GoogleEventPatchDTO stale;
    stale.etag = created.etag;
    stale.summary = GooglePatchValue<QString>::value(QStringLiteral("Renamed"));
    EXPECT_EQ(failureOf([&] { syncWait(api.updateEvent(kPrimary, QStringLiteral("plan01"), stale)); }),
              GoogleCalendarAPIError(APIKind::preconditionFailed));
    EXPECT_EQ(requestsTo("PATCH").back().query, "sendUpdates=all");

    // An etag of spaces sends no If-Match at all.
    stale.etag = QStringLiteral("   ");
    EXPECT_EQ(syncWait(api.updateEvent(kPrimary, QStringLiteral("plan01"), stale)).summary, QStringLiteral("Renamed"));
    EXPECT_FALSE(requestsTo("PATCH").back().header("if-match"));

    EXPECT_EQ(failureOf([&] { syncWait(api.deleteEvent(kPrimary, QStringLiteral("plan01"), patched.etag)); }),
              GoogleCalendarAPIError(APIKind::preconditionFailed));
    EXPECT_EQ(google.liveEventCount(kPrimary), 1);
    const auto current = google.event(kPrimary, QStringLiteral("plan01"))->value("etag").toString();
    syncWait(api.deleteEvent(kPrimary, QStringLiteral("plan01"), current));
    EXPECT_EQ(requestsTo("DELETE").back().query, "sendUpdates=all");
    EXPECT_EQ(google.liveEventCount(kPrimary), 0);
    // Deleting what is gone (410) or was never there (404) succeeds.
    syncWait(api.deleteEvent(kPrimary, QStringLiteral("plan01"), std::nullopt));
    syncWait(api.deleteEvent(kPrimary, QStringLiteral("never1"), std::nullopt));
    EXPECT_EQ(google.countOf("DELETE"), 4);
}

// Which items of a listing are kept is the wire records' rule; here a reply
// that is not a listing at all, or too big, fails the request.
TEST_F(GoogleCalendarAPIClientTest, HostileListingsAreInvalidResponses) {
    auto api = client();
    for (QByteArray body : {QByteArray(R"({"items": {"id": "x"}})"), QByteArray(R"({"items": [{"id": "a"}, )"),
                            QByteArray("[]"), QByteArray("<html>502</html>")}) {
        google.failNext("GET", CannedResponse::json(200, body));
        EXPECT_EQ(failureOf([&] { syncWait(api.listEvents(kPrimary, std::nullopt, std::nullopt)); }),
                  GoogleCalendarAPIError(APIKind::invalidResponse))
            << body.toStdString();
    }

    // A reply beyond the size cap is refused unread.
    api.setMaximumResponseBytes(4096);
    QByteArray gigantic = R"({"items": [)";
    for (int i = 0; i < 100; ++i) gigantic += R"({"id": "e)" + QByteArray::number(i) + R"(", "summary": "padding padding"},)";
    gigantic += R"({"id": "last"}]})";
    google.failNext("GET", CannedResponse::json(200, gigantic));
    EXPECT_EQ(failureOf([&] { syncWait(api.listEvents(kPrimary, std::nullopt, std::nullopt)); }),
              GoogleCalendarAPIError(APIKind::invalidResponse));
}

TEST_F(GoogleCalendarAPIClientTest, FreeBusyIsAllOrNothing) {
    google.putEvent(kPrimary, timedEvent("fb1", "Busy", "2026-12-01T09:00:00Z", "2026-12-01T10:00:00Z"));
    auto free = timedEvent("fb2", "Free", "2026-12-01T11:00:00Z", "2026-12-01T12:00:00Z");
    free.insert("transparency", "transparent");
    google.putEvent(kPrimary, free);
    google.putEvent(kTeam, timedEvent("fb3", "Team", "2026-12-01T23:00:00Z", "2026-12-02T01:00:00Z"));
    auto api = client();

    const Date day = at("2026-12-01T00:00:00Z");
    const Date nextDay = at("2026-12-02T00:00:00Z");
    GoogleFreeBusyResponseDTO busy = syncWait(api.freeBusy({kPrimary, kTeam}, day, nextDay, QStringLiteral("Asia/Tokyo")));
    const auto body = QJsonDocument::fromJson(requestsTo("POST").back().body).object();
    EXPECT_EQ(body.value("timeMin").toString(), "2026-12-01T00:00:00Z");
    EXPECT_EQ(body.value("timeZone").toString(), "Asia/Tokyo");
    EXPECT_EQ(body.value("items").toArray().at(1).toObject().value("id").toString(), kTeam);
    ASSERT_TRUE(busy.calendars);
    EXPECT_EQ(busy.calendars->at(kPrimary).busy->size(), 1u);
    ASSERT_EQ(busy.calendars->at(kTeam).busy->size(), 1u);
    EXPECT_EQ(busy.calendars->at(kTeam).busy->front().end, "2026-12-02T00:00:00Z");

    // An unknown calendar (Google's own answer), one left out of the reply,
    // and one without a busy list each fail the whole request.
    const std::vector<std::pair<std::vector<QString>, QByteArray>> partial{
        {{kPrimary, QStringLiteral("nobody@example.com")}, {}},
        {{kPrimary, kTeam}, R"({"calendars": {"hanako@example.com": {"busy": []}}})"},
        {{kPrimary}, R"({"calendars": {"hanako@example.com": {}}})"},
    };
    for (const auto& [calendars, reply] : partial) {
        SCOPED_TRACE(reply.toStdString());
        if (!reply.isEmpty()) google.failNext("POST", CannedResponse::json(200, reply));
        EXPECT_EQ(failureOf([&] { syncWait(api.freeBusy(calendars, day, nextDay, QStringLiteral("UTC"))); }),
                  GoogleCalendarAPIError(APIKind::partialFreeBusyFailure));
    }
}

TEST_F(GoogleCalendarAPIClientTest, CancellationDuringABackoffWaitStopsTheCall) {
    auto api = client();
    std::stop_source source;
    onWait = [&] { source.request_stop(); };
    google.failNext("GET", CannedResponse{429, {}, {}});
    EXPECT_THROW(syncWait(api.listCalendars(std::nullopt, source.get_token())), CancellationError);
    EXPECT_EQ(google.countOf("GET"), 1);
}

TEST_F(GoogleCalendarAPIClientTest, UnreachableServerIsATransportFailure) {
    GoogleCalendarAPIClient api(tokens, transport, eventLoopSleep(), [] { return 0.0; },
                                QUrl(QStringLiteral("http://127.0.0.1:1/calendar/v3")));
    EXPECT_EQ(failureOf([&] { syncWait(api.listCalendars()); }), GoogleCalendarAPIError(APIKind::transportFailure));
}

} // namespace
} // namespace tavelo::testing
