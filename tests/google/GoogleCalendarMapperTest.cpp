#include "google/GoogleCalendarMapper.h"
#include "google/StableUUID.h"
#include "support/DateCalendar.h"
#include "support/JsonReader.h"
#include "support/JsonWriter.h"

#include <gtest/gtest.h>

using namespace tavelo;
namespace M = tavelo::GoogleCalendarMapper;

void PrintTo(const QString& text, std::ostream* out) { *out << '"' << text.toStdString() << '"'; }

namespace {

const UUID kLocalID = UUID::literal("AAAAAAAA-1111-4111-8111-000000000001");
const UUID kCalendarID = UUID::literal("CCCCCCCC-1111-4111-8111-000000000001");

Date at(const char* iso) { return *Date::fromIsoString(iso); }

class GoogleCalendarMapperTest : public ::testing::Test {
protected:
    DateCalendar tokyo = M::calendarForTimeZone("Asia/Tokyo");

    std::optional<CalendarEvent> map(const std::string& json) {
        return M::event(decodeGoogleEvent(json), kLocalID, kCalendarID, tokyo);
    }
    // A timed event record with extra fields spliced in.
    std::optional<CalendarEvent> timed(const std::string& extra) {
        return map(R"({"id": " g1 ", "start": {"dateTime": "2026-01-05T09:00:00+09:00"},)"
                   R"( "end": {"dateTime": "2026-01-05T10:00:00+09:00"})" +
                   (extra.empty() ? "" : ", " + extra) + "}");
    }
};

} // namespace

TEST_F(GoogleCalendarMapperTest, RecordsThatCannotBeShownAreSkipped) {
    EXPECT_TRUE(timed(""));
    EXPECT_FALSE(timed(R"("status": "cancelled", "summary": "full data")"));
    EXPECT_FALSE(map(R"({"id": "  ", "start": {"date": "2026-01-05"}, "end": {"date": "2026-01-06"}})"));
    EXPECT_FALSE(map(R"({"id": "g", "start": {"date": "2026-01-05"}})"));
    // An all-day end equal to the start, and an end before the start.
    EXPECT_FALSE(map(R"({"id": "g", "start": {"date": "2026-01-05"}, "end": {"date": "2026-01-05"}})"));
    EXPECT_FALSE(map(R"({"id": "g", "start": {"dateTime": "2026-01-05T10:00:00Z"}, "end": {"dateTime": "2026-01-05T09:00:00Z"}})"));
}

TEST_F(GoogleCalendarMapperTest, DatesAreReadInTheRightZone) {
    auto allDay = map(R"({"id": "g", "start": {"date": "2026-01-05"}, "end": {"date": "2026-01-06"}})");
    ASSERT_TRUE(allDay);
    EXPECT_TRUE(allDay->isAllDay);
    EXPECT_EQ(allDay->start, at("2026-01-04T15:00:00Z")); // midnight in Tokyo
    EXPECT_EQ(allDay->end, at("2026-01-05T15:00:00Z"));

    auto offset = map(R"({"id": "g", "start": {"dateTime": "2026-01-05T09:00:00.5-05:00"},)"
                      R"( "end": {"dateTime": "2026-01-05T15:00:00Z"}})");
    ASSERT_TRUE(offset);
    EXPECT_EQ(offset->start, at("2026-01-05T14:00:00Z").addingSeconds(0.5));

    // Without an offset: the record's own zone, else the calendar's.
    auto ownZone = map(R"({"id": "g", "start": {"dateTime": "2026-07-01T09:00:00", "timeZone": " Europe/Berlin "},)"
                       R"( "end": {"dateTime": "2026-07-01T10:00:00.250000", "timeZone": "Europe/Berlin"}})");
    ASSERT_TRUE(ownZone);
    EXPECT_EQ(ownZone->start, at("2026-07-01T07:00:00Z"));
    EXPECT_EQ(ownZone->end, at("2026-07-01T08:00:00Z").addingSeconds(0.25));

    auto updated = timed(R"("updated": "2026-01-04T10:00:00.987Z")");
    EXPECT_EQ(updated->googleUpdatedAt, at("2026-01-04T10:00:00Z"));
}

TEST_F(GoogleCalendarMapperTest, FieldsFollowGoogle) {
    // What a round trip cannot show: trimming, dropped reminders, damaged
    // links and the iCalendar id.
    auto e = timed(R"("summary": "  Review  ", "iCalUID": "u@google.com",)"
                   R"( "reminders": {"useDefault": true, "overrides": [{"method": "popup", "minutes": 10},)"
                   R"(   {"method": "email", "minutes": -5}, {"method": "popup", "minutes": 0}]},)"
                   R"( "extendedProperties": {"private": {"taveloParentEventID": "not-a-uuid",)"
                   R"(   "taveloTagIDs": ", junk , dddddddd-1111-4111-8111-000000000001,eeeeeeee-1111-4111-8111-000000000001"}})");
    ASSERT_TRUE(e);
    EXPECT_EQ(e->title, "Review");
    EXPECT_EQ(e->notifications, (std::vector<int>{10, 0}));
    EXPECT_FALSE(e->sourceEventID);
    EXPECT_EQ(e->tagID, UUID::literal("DDDDDDDD-1111-4111-8111-000000000001"));
    EXPECT_EQ(e->googleEventID, "g1");
    EXPECT_EQ(e->externalUID, "u@google.com");

    // Values Google may add later read as the defaults, never as failures.
    auto plain = timed(R"("summary": "   ", "visibility": "secret", "transparency": "translucent",)"
                       R"( "status": "archived")");
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->title, "予定あり");
    EXPECT_EQ(plain->groupID, kLocalID); // made elsewhere: its own group
    EXPECT_EQ(plain->availability, Availability::busy);
    EXPECT_EQ(plain->visibility, EventVisibility::normal);
}

TEST_F(GoogleCalendarMapperTest, GuestsRecurrenceAndMeetLinks) {
    auto e = timed(R"("attendees": [{"email": " Ann@Example.com ", "displayName": " ", "responseStatus": "accepted"},)"
                   R"( {"displayName": "No mail"}, {"email": "  "}, {"email": "ann@example.com", "responseStatus": "needsAction"},)"
                   R"( {"id": "xyz", "email": "bob@example.com", "displayName": " Bob ", "responseStatus": "maybe"}])");
    ASSERT_EQ(e->guests.size(), 3u);
    EXPECT_EQ(e->guests[0].name, "Ann@Example.com");
    EXPECT_EQ(e->guests[0].status, GuestStatus::accepted);
    EXPECT_EQ(e->guests[0].id, e->guests[1].id); // one person, one id, whatever the case
    EXPECT_EQ(e->guests[1].status, GuestStatus::pending);
    EXPECT_EQ(e->guests[2].id, stableUUID(kLocalID, "xyz"));
    EXPECT_EQ(e->guests[2].name, "Bob");

    auto recurrence = [&](const std::string& lines, const std::string& extra = "") {
        return timed(R"("recurrence": )" + lines + extra)->recurrence;
    };
    EXPECT_EQ(recurrence(R"(["EXDATE:20260105", "rrule:freq=daily;count=3"])"), EventRecurrence::daily);
    EXPECT_EQ(recurrence(R"(["RRULE:FREQ=WEEKLY"])", R"(, "recurringEventId": "master")"), std::nullopt);

    EXPECT_EQ(timed(R"("hangoutLink": "https://meet.google.com/a")")->meetURL, QUrl("https://meet.google.com/a"));
    auto fromEntry = timed(R"("hangoutLink": "not a link", "conferenceData": {"entryPoints": [)"
                           R"({"entryPointType": "phone", "uri": "tel:+1-555"}, {"entryPointType": "video", "uri": ""},)"
                           R"({"entryPointType": "video", "uri": "https://zoom.us/j/1"}]})");
    EXPECT_EQ(fromEntry->meetURL, QUrl("https://zoom.us/j/1"));
}

TEST_F(GoogleCalendarMapperTest, InsertRequestHasItsExactForm) {
    CalendarEvent e;
    e.id = UUID::literal("0A1B2C3D-4E5F-4A6B-8C7D-8E9F0A1B2C3D");
    e.groupID = UUID::literal("BBBBBBBB-1111-4111-8111-000000000001");
    e.title = " 定例 ";
    e.start = at("2026-01-05T00:00:00Z");
    e.end = at("2026-01-05T01:30:00Z");
    e.recurrence = EventRecurrence::weekly;
    e.calendarID = kCalendarID;
    e.notes = "  ";
    e.location = " Room ";
    e.guests = {Guest{kLocalID, " Ann ", "ann@example.com", GuestStatus::pending}, Guest{kLocalID, "", "b@x", GuestStatus::declined}};
    e.notifications = {15};
    e.visibility = EventVisibility::privateTitle;
    e.tagID = UUID::literal("DDDDDDDD-1111-4111-8111-000000000001");

    EXPECT_EQ(encodeJson(M::insertRequest(e, tokyo, QString("req"))), std::string(
        R"({"id":"0a1b2c3d4e5f4a6b8c7d8e9f0a1b2c3d","summary":" 定例 ","location":"Room",)"
        R"("start":{"dateTime":"2026-01-05T09:00:00+09:00","timeZone":"Asia/Tokyo"},)"
        R"("end":{"dateTime":"2026-01-05T10:30:00+09:00","timeZone":"Asia/Tokyo"},)"
        R"("recurrence":["RRULE:FREQ=WEEKLY"],"transparency":"opaque","visibility":"private",)"
        R"("attendees":[{"email":"ann@example.com","displayName":"Ann","responseStatus":"needsAction"},)"
        R"({"email":"b@x","responseStatus":"declined"}],)"
        R"("reminders":{"useDefault":false,"overrides":[{"method":"popup","minutes":15}]},)"
        R"("conferenceData":{"createRequest":{"requestId":"req","conferenceSolutionKey":{"type":"hangoutsMeet"}}},)"
        R"("extendedProperties":{"private":{"taveloGeneratedBusyBlock":"false","taveloGroupID":"bbbbbbbb-1111-4111-8111-000000000001",)"
        R"("taveloTagIDs":"dddddddd-1111-4111-8111-000000000001"}}})"));

    // A zone west of UTC writes a negative offset.
    e.start = at("2026-07-01T12:00:00Z");
    EXPECT_EQ(M::insertRequest(e, M::calendarForTimeZone("America/St_Johns"), std::nullopt).start.dateTime,
              "2026-07-01T09:30:00-02:30");
}

TEST_F(GoogleCalendarMapperTest, WhatGoesOutComesBackTheSame) {
    CalendarEvent e;
    e.id = kLocalID;
    e.groupID = UUID::literal("BBBBBBBB-1111-4111-8111-000000000001");
    e.sourceEventID = UUID::literal("EEEEEEEE-1111-4111-8111-000000000001");
    e.title = "Sync";
    e.start = at("2026-03-29T00:30:00Z"); // across Berlin's change to summer time
    e.end = at("2026-03-29T02:30:00Z");
    e.recurrence = EventRecurrence::monthly;
    e.calendarID = kCalendarID;
    e.tagID = UUID::literal("DDDDDDDD-1111-4111-8111-000000000001");
    e.location = "Room";
    e.notes = "Agenda";
    e.notifications = {30, 5};
    e.availability = Availability::free;
    e.visibility = EventVisibility::privateDetails;
    e.isGeneratedBusyBlock = true;
    e.guests = {Guest{stableUUID(kLocalID, "ann@example.com"), "Ann", "ann@example.com", GuestStatus::tentative}};

    for (const char* zoneID : {"Europe/Berlin", "Asia/Tokyo", "Pacific/Kiritimati"}) {
        const auto zone = M::calendarForTimeZone(zoneID);
        std::string body = encodeJson(M::insertRequest(e, zone, std::nullopt));
        // Google echoes the record with an id and an etag of its own.
        body.insert(body.size() - 1, R"(,"etag":"\"1\"")");
        const auto back = M::event(decodeGoogleEvent(body), kLocalID, kCalendarID, zone);
        ASSERT_TRUE(back) << zoneID;
        CalendarEvent expected = e;
        expected.googleEventID = "aaaaaaaa111141118111000000000001";
        expected.googleETag = "\"1\"";
        EXPECT_EQ(*back, expected) << zoneID << "\n" << body;

        CalendarEvent allDay = e;
        allDay.isAllDay = true;
        allDay.start = *zone.date(2026, 3, 28);
        allDay.end = *zone.date(2026, 3, 30);
        auto backAllDay = M::event(decodeGoogleEvent(encodeJson(M::insertRequest(allDay, zone, std::nullopt))),
                                   kLocalID, kCalendarID, zone);
        ASSERT_TRUE(backAllDay);
        EXPECT_EQ(backAllDay->start, allDay.start);
        EXPECT_EQ(backAllDay->end, allDay.end);
        EXPECT_TRUE(backAllDay->isAllDay);
    }
}

TEST_F(GoogleCalendarMapperTest, PatchCarriesOnlyTheChangedFields) {
    CalendarEvent e;
    e.id = kLocalID;
    e.groupID = kLocalID;
    e.title = "T";
    e.start = at("2026-01-05T00:00:00Z");
    e.end = at("2026-01-06T00:00:00Z");
    e.googleETag = "\"7\"";
    e.meetURL = QUrl("https://meet.google.com/x");

    const auto none = M::patch(e, tokyo, {}, QString("req"));
    EXPECT_TRUE(none.isEmpty());

    using F = GoogleEventPatchField;
    const auto p = M::patch(e, tokyo, {F::description, F::location, F::recurrence, F::linkage, F::conference, F::timing},
                            std::nullopt);
    EXPECT_TRUE(p.summary.isOmitted());
    EXPECT_TRUE(p.attendees.isOmitted());
    EXPECT_TRUE(p.location.isClear());
    EXPECT_TRUE(p.recurrence.isClear());
    EXPECT_TRUE(p.conferenceData.isOmitted()); // a link exists and no new one is asked for
    EXPECT_NE(encodeJson(p).find(R"("end":{"date":null,"dateTime":"2026-01-06T09:00:00+09:00","timeZone":"Asia/Tokyo"})"),
              std::string::npos);
    const std::string body = encodeJson(p);
    EXPECT_NE(body.find(R"("description":null)"), std::string::npos) << body;
    EXPECT_NE(body.find(R"("taveloTagIDs":null)"), std::string::npos) << body;
    EXPECT_NE(body.find(R"("taveloParentEventID":null)"), std::string::npos) << body;
    EXPECT_EQ(body.find("etag"), std::string::npos) << body;

    // Timed to all-day sends the day form, and erases the time Google holds.
    e.isAllDay = true;
    e.meetURL.reset();
    e.notes = " kept ";
    const auto q = M::patch(e, tokyo, {F::timing, F::conference, F::description}, std::nullopt);
    EXPECT_NE(encodeJson(q).find(R"("start":{"date":"2026-01-05","dateTime":null,"timeZone":null})"), std::string::npos)
        << encodeJson(q);
    EXPECT_TRUE(q.conferenceData.isClear());
    EXPECT_EQ(*q.description.get(), "kept");
}

TEST(StableUUIDTest, IsAFixedFunctionOfTheName) {
    const UUID accountNamespace = UUID::literal("6B9AF26E-6156-4E2E-8FA8-857369DBA923");
    // Computed independently; these values identify stored objects.
    EXPECT_EQ(stableUUID(accountNamespace, "109876543210987654321").toString(),
              "A5BAF805-9B19-58D3-8517-94CA97047F69");
    const UUID ns = UUID::literal("11111111-1111-4111-8111-111111111111");
    EXPECT_EQ(stableUUID(ns, "Ünïcode@Example.com").toString(), "6E32999B-809D-52F6-9F0D-B0C7219BE594");
    EXPECT_EQ(stableUUID(ns, "ÜNÏCODE@EXAMPLE.COM"), stableUUID(ns, "ünïcode@example.com"));
}

TEST(GoogleCalendarMapperInstantTest, ParsesGoogleInstants) {
    EXPECT_EQ(M::parseInstant(u"2026-01-05T09:00:00+0900"), at("2026-01-05T00:00:00Z"));
    EXPECT_EQ(M::parseInstant(u"2024-02-29T23:59:59-00:30"), at("2024-03-01T00:29:59Z"));
    for (const char16_t* bad : {u"2026-01-05T09:00:00", u"2026-01-05 09:00:00Z", u"2025-02-29T00:00:00Z",
                                u"2026-01-05T09:00:00.Z", u"2026-01-05T09:00:00+9", u"2026-01-05T09:00:00Zjunk"})
        EXPECT_FALSE(M::parseInstant(bad)) << QString::fromUtf16(bad).toStdString();
}
