#include "google/GoogleCalendarAPIClient.h"
#include "google/GoogleCalendarStandIn.h"
#include "google/GoogleTestSupport.h"
#include "support/FailureOf.h"

#include "google/GoogleAccessTokenProvider.h"
#include "support/HTTPTransport.h"

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
}

TEST_F(GoogleCalendarAPIClientTest, RateLimitsAreRetriedTwiceWithGrowingJitteredDelays) {
    auto api = client();
    for (int i = 0; i < 3; ++i)
        google.failNext("GET", GoogleCalendarStandIn::googleError(403, "rateLimitExceeded", "Rate Limit Exceeded"));
    auto limited = failureOf([&] { syncWait(api.listCalendars()); });
    EXPECT_EQ(limited, GoogleCalendarAPIError(APIKind::rateLimited));
    EXPECT_EQ(waits, (std::vector<double>{0.75, 1.5}));
    EXPECT_EQ(google.countOf("GET"), 3);
}

TEST_F(GoogleCalendarAPIClientTest, BackendErrorsAreRetriedOnlyWhereRepeatingIsSafe) {
    auto api = client();
    google.failNext("GET", GoogleCalendarStandIn::googleError(500, "backendError", "Backend Error"));
    EXPECT_EQ(syncWait(api.listCalendars()).calendars.size(), 2u);
    EXPECT_EQ(waits.size(), 1u);
    waits.clear();

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

    // A garbled reply to an insert that was stored: read back, not sent again.
    google.putEvent(kPrimary, QJsonObject{{"id", "dup002"}, {"summary", "Review"}});
    google.failNext("POST", CannedResponse::json(200, R"({"id": 42})"));
    EXPECT_EQ(syncWait(api.insertEvent(kPrimary, insertion(QStringLiteral("dup002"), QStringLiteral("x")))).summary,
              QStringLiteral("Review"));
}

TEST_F(GoogleCalendarAPIClientTest, ARejectedTokenIsRefreshedOnceAndNoMore) {
    google.revokeToken(QStringLiteral("token-1"));
    tokens->tokens = {QStringLiteral("token-1"), QStringLiteral("token-2")};
    auto api = client();
    EXPECT_EQ(failureOf([&] { syncWait(api.listCalendars()); }), GoogleCalendarAPIError(APIKind::unauthorized));
    EXPECT_EQ(google.countOf("GET"), 2);
    EXPECT_EQ(tokens->calls.back(), QStringLiteral("token-1"));
}

TEST_F(GoogleCalendarAPIClientTest, TokenProviderFailuresAreClassifiedBeforeAnyRequest) {
    auto api = client();
    using ProviderKind = GoogleAccessTokenProviderError::Kind;
    const std::vector<std::pair<std::exception_ptr, APIKind>> cases{
        {std::make_exception_ptr(GoogleAccessTokenProviderError(ProviderKind::reconnectRequired)), APIKind::reconnectRequired},
        {std::make_exception_ptr(GoogleAccessTokenProviderError(ProviderKind::refreshFailed)), APIKind::authorizationFailure},
    };
    for (const auto& [failure, expected] : cases) {
        tokens->failure = failure;
        EXPECT_EQ(failureOf([&] { syncWait(api.listCalendars()); }), GoogleCalendarAPIError(expected));
    }
    EXPECT_TRUE(google.server().requests().empty());
}

TEST_F(GoogleCalendarAPIClientTest, ForbiddenRepliesAreClassifiedByReason) {
    auto api = client();
    const std::vector<std::pair<const char*, GoogleCalendarAPIError>> cases{
        {"insufficientPermissions", GoogleCalendarAPIError(APIKind::insufficientScope)},
        {"dailyLimitExceeded", GoogleCalendarAPIError(APIKind::quotaExceeded)},
        {"forbiddenForNonOrganizer", GoogleCalendarAPIError(APIKind::permissionDenied)},
    };
    for (const auto& [reason, expected] : cases) {
        google.failNext("GET", GoogleCalendarStandIn::googleError(403, reason, "Forbidden"));
        EXPECT_EQ(failureOf([&] { syncWait(api.listCalendars()); }), expected) << reason;
    }
    EXPECT_TRUE(waits.empty());
}

TEST_F(GoogleCalendarAPIClientTest, PatchAndDeleteAreGuardedByTheEtag) {
    auto api = client();
    GoogleEventDTO created = syncWait(api.insertEvent(kPrimary, insertion(QStringLiteral("plan01"), QStringLiteral("Plan"))));
    ASSERT_TRUE(created.etag);
    GoogleEventPatchDTO quiet;
    quiet.etag = created.etag;
    quiet.transparency = GooglePatchValue<QString>::value(QStringLiteral("transparent"));
    syncWait(api.updateEvent(kPrimary, QStringLiteral("plan01"), quiet));
    auto patchRequest = requestsTo("PATCH").back();
    EXPECT_EQ(patchRequest.query, "");
    EXPECT_EQ(patchRequest.header("if-match"), created.etag->toUtf8());

    // The old etag is stale now.
    GoogleEventPatchDTO stale;
    stale.etag = created.etag;
    stale.summary = GooglePatchValue<QString>::value(QStringLiteral("Renamed"));
    EXPECT_EQ(failureOf([&] { syncWait(api.updateEvent(kPrimary, QStringLiteral("plan01"), stale)); }),
              GoogleCalendarAPIError(APIKind::preconditionFailed));
    EXPECT_EQ(requestsTo("PATCH").back().query, "sendUpdates=all");

    EXPECT_EQ(failureOf([&] { syncWait(api.deleteEvent(kPrimary, QStringLiteral("plan01"), created.etag)); }),
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

// Damaged listings are failed by the store's and the service's tests; here a
// reply too big to read.
TEST_F(GoogleCalendarAPIClientTest, OversizedListingIsAnInvalidResponse) {
    auto api = client();
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
    auto api = client();
    const Date day = at("2026-12-01T00:00:00Z");
    const Date nextDay = at("2026-12-02T00:00:00Z");
    // A calendar left out of the reply, or one without a busy list, is not
    // free: the whole request fails.
    for (const QByteArray& reply : {QByteArray(R"({"calendars": {"hanako@example.com": {"busy": []}}})"),
                                   QByteArray(R"({"calendars": {"hanako@example.com": {}, "team#1@group.calendar.google.com": {"busy": []}}})")}) {
        google.failNext("POST", CannedResponse::json(200, reply));
        EXPECT_EQ(failureOf([&] { syncWait(api.freeBusy({kPrimary, kTeam}, day, nextDay, QStringLiteral("UTC"))); }),
                  GoogleCalendarAPIError(APIKind::partialFreeBusyFailure))
            << reply.toStdString();
    }
}

} // namespace
} // namespace tavelo::testing
