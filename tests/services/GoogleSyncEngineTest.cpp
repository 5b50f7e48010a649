#include "services/GoogleSyncEngine.h"

#include "google/GoogleCalendarMapper.h"
#include "google/StableUUID.h"
#include "support/DateCalendar.h"
#include "support/FailureOf.h"
#include "support/JsonReader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

using namespace tavelo;
namespace Engine = tavelo::GoogleSyncEngine;

void PrintTo(const QString& text, std::ostream* out) { *out << '"' << text.toStdString() << '"'; }

namespace {

Date at(const char* iso) { return *Date::fromIsoString(iso); }

const UUID kAccountID = UUID::literal("AAAAAAAA-0000-4000-8000-00000000000A");
const UUID kOtherAccountID = UUID::literal("AAAAAAAA-0000-4000-8000-00000000000B");
const UUID kTagID = UUID::literal("7A000000-0000-4000-8000-000000000001");

// A readable record; keys in `extra` come first and so win over the defaults.
GoogleEventDTO dto(const std::string& id, const std::string& extra = "") {
    return decodeGoogleEvent(R"({"id": ")" + id + "\", " + (extra.empty() ? "" : extra + ", ") +
                             R"("etag": "\"1\"", "summary": "Event )" + id +
                             R"(", "start": {"dateTime": "2026-01-05T09:00:00Z"}, "end": {"dateTime": "2026-01-05T10:00:00Z"}})");
}

GoogleEventPage lastPage(std::vector<GoogleEventDTO> events, std::vector<QString> deleted = {},
                         QString syncToken = "sync-1") {
    GoogleEventPage page;
    page.events = std::move(events);
    page.deletedEventIDs = std::move(deleted);
    page.nextSyncToken = syncToken;
    return page;
}

class GoogleSyncEngineTest : public ::testing::Test {
protected:
    DateCalendar zone = GoogleCalendarMapper::calendarForTimeZone("Asia/Tokyo");
    CalendarSource calendar{stableUUID(kAccountID, "work@example.com"), kAccountID, "Work", "#4285F4", true, false,
                            QString("work@example.com"), QString("Asia/Tokyo")};
    CalendarSource otherCalendar{stableUUID(kAccountID, "team@example.com"), kAccountID, "Team", "#4285F4", true,
                                 false, QString("team@example.com"), std::nullopt};
    AppSnapshot snapshot;

    void SetUp() override { snapshot.calendars = {calendar, otherCalendar}; }

    GoogleSyncMergeResult merge(std::vector<GoogleEventPage> pages, GoogleSyncMode mode = GoogleSyncMode::full,
                                Date completedAt = at("2026-01-06T00:00:00Z")) {
        return Engine::mergingEventPages(pages, calendar, zone, mode, completedAt, snapshot);
    }

    // The event of `googleID` on the synced calendar.
    const CalendarEvent* find(const AppSnapshot& s, const QString& googleID) {
        auto it = std::find_if(s.events.begin(), s.events.end(), [&](const CalendarEvent& e) {
            return e.googleEventID == googleID && e.calendarID == calendar.id;
        });
        return it == s.events.end() ? nullptr : &*it;
    }

    CalendarEvent localEvent(const QString& title, const UUID& calendarID, std::optional<QString> googleID) {
        const UUID id = UUID::random();
        return CalendarEvent{.id = id, .groupID = id, .title = title, .start = at("2026-01-07T09:00:00Z"),
                             .end = at("2026-01-07T10:00:00Z"), .calendarID = calendarID, .googleEventID = std::move(googleID)};
    }
};

} // namespace

TEST_F(GoogleSyncEngineTest, IncompleteListingsChangeNothing) {
    snapshot.googleSyncStates = {{calendar.id, QString("old"), at("2026-01-01T00:00:00Z")}};
    auto expectError = [&](std::vector<GoogleEventPage> pages, GoogleSyncEngineError::Kind kind) {
        const auto error = tavelo::testing::failureOf<GoogleSyncEngineError>([&] { merge(std::move(pages)); });
        EXPECT_EQ(error ? std::optional(error->kind()) : std::nullopt, kind);
    };
    using Kind = GoogleSyncEngineError::Kind;
    expectError({}, Kind::incompletePagination);
    auto first = lastPage({dto("a")});
    first.nextSyncToken.reset();
    expectError({first, lastPage({dto("b")})}, Kind::incompletePagination); // first page lacks a page token
    first.nextPageToken = "p2";
    expectError({first}, Kind::incompletePagination);                          // last page still has one
    expectError({first, lastPage({dto("b")}, {}, "   ")}, Kind::missingSyncToken);

    const auto result = merge({first, lastPage({dto("b")}, {}, "sync-2")});
    EXPECT_EQ(result.snapshot.events.size(), 2u);
    EXPECT_EQ(result.snapshot.googleSyncStates,
              (std::vector<GoogleCalendarSyncState>{{calendar.id, QString("sync-2"), at("2026-01-06T00:00:00Z")}}));
}

TEST_F(GoogleSyncEngineTest, FullSyncReplacesIncrementalSyncAdds) {
    const auto pending = localEvent("Not yet at Google", calendar.id, std::nullopt);
    const auto elsewhere = localEvent("Other calendar, same Google id", otherCalendar.id, QString("gone"));
    snapshot.events = {pending, elsewhere, localEvent("Deleted at Google", calendar.id, QString("gone")),
                       localEvent("Kept", calendar.id, QString("kept"))};

    // An incremental listing removes only what it names as deleted.
    auto incremental = merge({lastPage({dto("new")}, {" gone "})}, GoogleSyncMode::incremental).snapshot;
    EXPECT_EQ(incremental.events.size(), 4u);
    EXPECT_EQ(find(incremental, "gone"), nullptr);
    EXPECT_NE(find(incremental, "kept"), nullptr);

    auto full = merge({lastPage({dto("new"), dto(" kept ")})}).snapshot;
    ASSERT_EQ(full.events.size(), 4u);
    EXPECT_EQ(full.events[0], pending);
    EXPECT_EQ(full.events[1], elsewhere); // another calendar is never touched
    EXPECT_EQ(full.events[2].googleEventID, "kept");
    EXPECT_EQ(full.events[2].id, snapshot.events[3].id); // updated in place, under its old id
    EXPECT_EQ(full.events[3].id, stableUUID(calendar.id, "new"));
    EXPECT_EQ(full.events[3].groupID, full.events[3].id);
}

TEST_F(GoogleSyncEngineTest, AppOwnedStateSurvivesGoogleChanges) {
    const CalendarEvent stored{
        .id = UUID::random(), .groupID = UUID::literal("6A000000-0000-4000-8000-000000000001"),
        .sourceEventID = UUID::literal("5A000000-0000-4000-8000-000000000001"), .kind = EventKind::task, .title = "Before",
        .start = at("2026-01-07T09:00:00Z"), .end = at("2026-01-07T10:00:00Z"), .calendarID = calendar.id, .tagID = kTagID,
        .isCompleted = true, .isGeneratedBusyBlock = true, .googleEventID = QString("g")};
    snapshot.events = {stored};

    // Google knows none of the program's links: all stay.
    auto s = merge({lastPage({dto("g", R"("summary": "After")")})}).snapshot;
    ASSERT_EQ(s.events.size(), 1u);
    const auto& e = s.events[0];
    EXPECT_EQ(e.title, "After");
    EXPECT_EQ(std::tuple(e.id, e.kind, e.isCompleted, e.tagID, e.groupID, e.sourceEventID, e.isGeneratedBusyBlock),
              std::tuple(stored.id, EventKind::task, true, kTagID, stored.groupID, stored.sourceEventID, true));

    // Links rewritten on another machine win, even where they now say "none".
    s = merge({lastPage({dto("g", R"("extendedProperties": {"private": {"taveloGroupID": "not a uuid",)"
                                  R"( "taveloParentEventID": "", "taveloGeneratedBusyBlock": "false",)"
                                  R"( "taveloTagIDs": "8a000000-0000-4000-8000-000000000001"}})")})})
            .snapshot;
    EXPECT_EQ(s.events[0].groupID, stored.id);
    EXPECT_FALSE(s.events[0].sourceEventID);
    EXPECT_FALSE(s.events[0].isGeneratedBusyBlock);
    EXPECT_EQ(s.events[0].tagID, UUID::literal("8A000000-0000-4000-8000-000000000001"));
}

// A listing taken in page by page, each page dropped once added, merges to
// exactly what the whole listing merges to in the zone its pages end with:
// wall-clock and all-day times read in a zone that a later page replaces, a
// time that zone skips, repeats across pages, deletions and damage.
TEST_F(GoogleSyncEngineTest, ListingsTakenPageByPageMergeAsWholeListings) {
    const auto unreadable = localEvent("Stored", calendar.id, QString("bad"));
    snapshot.events = {localEvent("Stored", calendar.id, QString("gone")), localEvent("Stored", calendar.id, QString("b")),
                       unreadable};
    std::vector<GoogleEventPage> pages(3);
    pages[0].timeZone = QString("Asia/Tokyo");
    pages[0].events = {dto("a", R"("start": {"dateTime": "2026-03-29T09:00:00"}, "end": {"dateTime": "2026-03-29T10:00:00"})"),
                       dto("gap", R"("start": {"dateTime": "2026-03-29T02:30:00"}, "end": {"dateTime": "2026-03-29T03:15:00"})"),
                       dto("b"), dto("day", R"("start": {"date": "2026-03-29"}, "end": {"date": "2026-03-30"})")};
    pages[0].nextPageToken = "p1";
    pages[1].timeZone = QString("Europe/Berlin");
    pages[1].events = {dto("b", R"("summary": "Again")"), dto("bad", R"("start": {"date": "x"})")};
    pages[1].deletedEventIDs = {" gone "};
    pages[1].nextPageToken = "p2";
    pages[2].timeZone = QString("Not/AZone");
    pages[2].nextSyncToken = "s";

    auto listing = GoogleEventListing::followingPageZones(calendar, "Asia/Tokyo", snapshot);
    for (const auto& page : pages) {
        GoogleEventPage received = page; // dropped once added, as pages arriving are
        listing.add(received);
    }
    EXPECT_EQ(listing.statedTimeZone(), QString("Europe/Berlin"));
    const auto completedAt = at("2026-04-01T00:00:00Z");
    const auto streamed = Engine::mergingListing(std::move(listing), GoogleSyncMode::incremental, completedAt, snapshot);
    const auto berlin = GoogleCalendarMapper::calendarForTimeZone("Europe/Berlin");
    EXPECT_EQ(streamed, Engine::mergingEventPages(pages, calendar, berlin, GoogleSyncMode::incremental, completedAt, snapshot));
    const auto& s = streamed.snapshot;
    ASSERT_NE(find(s, "a"), nullptr);
    EXPECT_EQ(find(s, "a")->start, at("2026-03-29T07:00:00Z"));
    EXPECT_EQ(find(s, "b")->title, "Again");
    EXPECT_EQ(*find(s, "bad"), unreadable) << "an unreadable record leaves the stored copy alone";
    EXPECT_EQ(find(s, "gone"), nullptr);
    EXPECT_EQ(find(s, "day")->start, at("2026-03-28T23:00:00Z"));
}

// --- accounts and calendars -------------------------------------------------------

TEST(GoogleSyncEngineAccountsTest, MergingCalendars) {
    auto entries = decodeGoogleCalendarListPage(R"({"items": [
        {"id": " primary@example.com ", "summary": "Me", "summaryOverride": "  ", "backgroundColor": " #9fe1e7 ",
         "selected": true, "timeZone": "Asia/Tokyo"},
        {"id": "team", "summary": " ", "summaryOverride": " Team ", "backgroundColor": "#abc", "timeZone": "Nowhere/City"},
        {"id": "holidays", "backgroundColor": "#GGGGGG"},
        {"id": "  "}
      ]})").calendars;
    auto result = Engine::mergingCalendars(entries, kAccountID, 0, AppSnapshot());
    auto& calendars = result.snapshot.calendars;
    ASSERT_EQ(calendars.size(), 3u);
    EXPECT_EQ(calendars[0], (CalendarSource{stableUUID(kAccountID, "primary@example.com"), kAccountID, "Me", "#9FE1E7",
                                            true, false, QString("primary@example.com"), QString("Asia/Tokyo")}));

    // The user's choices survive; Google's fields are replaced; a calendar
    // Google no longer lists stays.
    const UUID keptID = UUID::random();
    calendars[0].id = keptID;
    calendars[0].isVisible = false;
    calendars[0].receivesBusyBlocks = true;
    entries[0].summary = "Renamed";
    result = Engine::mergingCalendars({entries[0]}, kAccountID, 0, result.snapshot);
    ASSERT_EQ(result.snapshot.calendars.size(), 3u);
    EXPECT_EQ(result.snapshot.calendars[0].id, keptID);
    EXPECT_EQ(result.snapshot.calendars[0].name, "Renamed");
    EXPECT_FALSE(result.snapshot.calendars[0].isVisible);
    EXPECT_TRUE(result.snapshot.calendars[0].receivesBusyBlocks);

    // The same Google calendar on another account is another calendar; an
    // entry listed twice is one calendar.
    result = Engine::mergingCalendars({entries[0], entries[0]}, kOtherAccountID, 0, result.snapshot);
    ASSERT_EQ(result.snapshot.calendars.size(), 4u);
    EXPECT_EQ(result.snapshot.calendars[3].accountID, kOtherAccountID);
    EXPECT_NE(result.snapshot.calendars[3].id, keptID);
}
