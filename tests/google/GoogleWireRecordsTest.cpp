#include "google/GoogleWireRecords.h"
#include "support/JsonReader.h"
#include "support/JsonWriter.h"

#include <gtest/gtest.h>

using namespace tavelo;

namespace {

const char* kFullEvent = R"({
  "kind": "calendar#event",
  "id": "evt1", "etag": "\"3391\"", "status": "confirmed", "summary": "Design review",
  "description": "Agenda", "location": "Room 4", "iCalUID": "evt1@google.com",
  "updated": "2026-01-04T10:00:00.123Z",
  "start": {"dateTime": "2026-01-05T09:00:00+09:00", "timeZone": "Asia/Tokyo"},
  "end": {"dateTime": "2026-01-05T10:00:00+09:00", "timeZone": "Asia/Tokyo"},
  "recurrence": ["RRULE:FREQ=WEEKLY"], "recurringEventId": "master",
  "originalStartTime": {"date": "2026-01-05"},
  "transparency": "transparent", "visibility": "private",
  "attendees": [{"email": "ann@example.com", "displayName": "Ann", "responseStatus": "accepted", "self": true}],
  "reminders": {"useDefault": false, "overrides": [{"method": "popup", "minutes": 10}]},
  "hangoutLink": "https://meet.google.com/abc-defg-hij",
  "conferenceData": {"entryPoints": [{"entryPointType": "video", "uri": "https://meet.google.com/abc-defg-hij"}],
                     "conferenceSolution": {"name": "Google Meet"}},
  "extendedProperties": {"private": {"taveloGroupID": "aaaaaaaa-0000-4000-8000-000000000001"},
                         "shared": {"x": "y"}},
  "organizer": {"email": "boss@example.com"}
})";

std::string encoded(const auto& record) { return encodeJson(record); }

} // namespace

TEST(GoogleWireRecordsTest, EventDecodesEveryFieldAndIgnoresUnknownKeys) {
    // What the mapper reads of a record is checked through it; here what only
    // the record holds.
    const auto e = decodeGoogleEvent(kFullEvent);
    ASSERT_TRUE(e.originalStartTime);
    EXPECT_EQ(e.originalStartTime->date, "2026-01-05");
    EXPECT_FALSE(e.originalStartTime->dateTime);
    ASSERT_TRUE(e.attendees);
    EXPECT_FALSE(e.attendees->at(0).id);
    ASSERT_NE(e.privateProperty("taveloGroupID"), nullptr);
    EXPECT_EQ(*e.privateProperty("taveloGroupID"), "aaaaaaaa-0000-4000-8000-000000000001");
    EXPECT_EQ(e.privateProperty("x"), nullptr); // shared properties are not private ones

    // Encoding and decoding again loses nothing the record knows.
    EXPECT_EQ(decodeGoogleEvent(encoded(e)), e);
}

TEST(GoogleWireRecordsTest, HostileEventsFailAsAWholeWithAPath) {
    // Wrong types, required keys of nested records, damaged syntax.
    const char* bad[] = {
        R"({"id": "a", "summary": 5})",
        R"({"id": "a", "start": "2026-01-05"})",
        R"({"id": "a", "reminders": {"overrides": []}})",
        R"({"id": "a", "attendees": {"email": "x"}})",
        R"({"id": "a", "summary": "trunc)",
        R"(["id", "a"])",
    };
    for (const char* json : bad) EXPECT_THROW(decodeGoogleEvent(json), JsonDecodingError) << json;

    try {
        decodeGoogleEvent(R"({"id": "a", "attendees": [{"email": "a@x"}, {"email": false}]})");
        FAIL() << "expected a decoding error";
    } catch (const JsonDecodingError& error) {
        EXPECT_NE(error.path().find("attendees"), std::string::npos) << error.path();
        EXPECT_EQ(error.kind(), JsonDecodingError::Kind::typeMismatch);
    }

    // Null is the same as absent.
    EXPECT_FALSE(decodeGoogleEvent(R"({"id": "a", "summary": null})").summary);
}

TEST(GoogleWireRecordsTest, EventPageKeepsWhatItCanRead) {
    const auto page = decodeGoogleEventPage(R"({
      "kind": "calendar#events", "nextSyncToken": "sync-2", "timeZone": "  ",
      "nextPageToken": 42,
      "items": [
        {"id": "ok1", "status": "confirmed", "start": {"date": "2026-01-05"}, "end": {"date": "2026-01-06"}},
        {"id": "broken", "summary": ["not", "text"]},
        "not an object",
        {"id": "  gone  ", "status": "cancelled"},
        {"status": "cancelled"},
        {"id": 17, "status": "cancelled"},
        {"id": "   ", "summary": "no usable id"},
        {"summary": "no id at all"},
        {"id": "ok2", "status": "tentative"}
      ]})");
    ASSERT_EQ(page.events.size(), 2u);
    EXPECT_EQ(page.events[0].id, "ok1");
    EXPECT_EQ(page.events[1].id, "ok2");
    EXPECT_EQ(page.deletedEventIDs, std::vector<QString>{"gone"});
    EXPECT_EQ(page.skippedItemCount, 6);
    EXPECT_EQ(page.nextSyncToken, "sync-2");
    EXPECT_FALSE(page.nextPageToken); // not a string
    EXPECT_FALSE(page.timeZone);      // empty after trimming

    for (const char* body : {R"({"items": {"id": "x"}})", R"([])", R"({"items": [{"id": "x"})", "", "null"})
        EXPECT_THROW(decodeGoogleEventPage(body), JsonDecodingError) << body;
}

TEST(GoogleWireRecordsTest, CalendarListPageSkipsEntriesWithoutUsableIds) {
    const auto page = decodeGoogleCalendarListPage(R"({
      "nextPageToken": "p2",
      "items": [
        {"id": "primary@example.com", "summary": "Me", "selected": true, "primary": true, "accessRole": "owner",
         "backgroundColor": "#9fe1e7", "timeZone": "Asia/Tokyo", "colorId": "14"},
        {"id": "team@group.calendar.google.com", "selected": "yes"},
        {"summary": "no id"},
        {"id": ""},
        3
      ]})");
    ASSERT_EQ(page.calendars.size(), 1u);
    EXPECT_EQ(page.calendars[0].primary, true);
    EXPECT_EQ(page.calendars[0].backgroundColor, "#9fe1e7");
    EXPECT_EQ(page.skippedItemCount, 4);
    EXPECT_EQ(page.nextPageToken, "p2");
}
