#include "google/GoogleWireRecords.h"
#include "support/JsonReader.h"

#include <gtest/gtest.h>

using namespace tavelo;

TEST(GoogleWireRecordsTest, HostileEventsFailAsAWholeWithAPath) {
    // Wrong types, required keys of nested records, damaged syntax.
    const char* bad[] = {
        R"({"id": "a", "summary": 5})",
        R"({"id": "a", "start": "2026-01-05"})",
        R"({"id": "a", "reminders": {"overrides": []}})",
        R"({"id": "a", "attendees": {"email": "x"}})",
        R"({"id": "a", "attendees": [{"email": "a@x"}, {"email": false}]})",
        R"({"id": "a", "summary": "trunc)",
        R"(["id", "a"])",
    };
    for (const char* json : bad) EXPECT_THROW(decodeGoogleEvent(json), JsonDecodingError) << json;

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
    EXPECT_EQ(page.skippedItemCount, 4);
    EXPECT_EQ(page.nextPageToken, "p2");
}
