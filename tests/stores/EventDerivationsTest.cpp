#include "stores/EventDerivations.h"

#include "StoreTestSupport.h"

#include <gtest/gtest.h>

using namespace tavelo;
using namespace tavelo::test;

namespace {

const UUID calA = uuid(0xA01), calB = uuid(0xB01), calC = uuid(0xC01);
const QString kUID = "abc123@google.com";

// Event `id` of group `group` on `calendar`, from `from` to `to` o'clock.
CalendarEvent ev(int id, int group, UUID calendar, double from, double to) {
    return event(id, monday(from), monday(to), calendar, group);
}
CalendarEvent keyed(CalendarEvent e, QString uid = kUID) { e.externalUID = std::move(uid); return e; }
CalendarEvent hidden(CalendarEvent e, EventVisibility v = EventVisibility::privateDetails) { e.visibility = v; return e; }
CalendarEvent block(CalendarEvent e) { e.isGeneratedBusyBlock = true; return hidden(e); }
CalendarEvent titled(CalendarEvent e, QString title) { e.title = std::move(title); return e; }

struct Entry { int primary; std::vector<UUID> calendarIDs; };
void expectEntries(const std::vector<DisplayedEvent>& actual, const std::vector<Entry>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(actual[i].id(), uuid(expected[i].primary)) << "entry " << i;
        EXPECT_EQ(actual[i].calendarIDs, expected[i].calendarIDs) << "entry " << i;
    }
}
std::vector<int> idsOf(const std::vector<DisplayedEvent>& entries) {
    std::vector<int> ids;
    for (const auto& entry : entries) ids.push_back(entry.id().bytes()[15]);
    return ids;
}
CalendarSource calendar(UUID id, bool visible, std::optional<UUID> account = {}) {
    return CalendarSource{id, account, "calendar", "#57606A", visible, false, std::nullopt, std::nullopt};
}

} // namespace

TEST(EventDerivationsTest, MergeFollowsGroupsKeysAndWeakCopies) {
    struct Case { const char* name; std::vector<CalendarEvent> events; bool mergeDuplicates; std::vector<Entry> expected; };
    const Case cases[] = {
        {"copies of one group", {ev(1, 1, calA, 9, 10), ev(2, 1, calB, 9, 10)}, true, {{1, {calA, calB}}}},
        {"merging off", {ev(1, 1, calA, 9, 10), ev(2, 1, calB, 9, 10)}, false, {{1, {calA}}, {2, {calB}}}},
        {"start order picks the primary", {ev(1, 1, calA, 10, 11), ev(2, 1, calB, 9, 10)}, true, {{2, {calB, calA}}}},
        {"same UID, start and end", {keyed(ev(1, 1, calA, 9, 10)), keyed(ev(2, 2, calB, 9, 10))}, true, {{1, {calA, calB}}}},
        {"empty UIDs never match", {keyed(ev(1, 1, calA, 9, 10), ""), keyed(ev(2, 2, calB, 9, 10), "")}, true,
         {{1, {calA}}, {2, {calB}}}},
        {"a block gives way to the real copy", {block(ev(1, 1, calC, 9, 10)), ev(2, 1, calA, 9, 10)}, true, {{2, {calA}}}},
        {"a block alone stands on no calendar", {block(ev(1, 1, calC, 9, 10))}, true, {{1, {}}}},
        {"private details give way, calendars in meeting order", {hidden(ev(1, 1, calA, 9, 10)), ev(2, 1, calB, 9, 10)},
         true, {{2, {calA, calB}}}},
        {"a normal copy never gives way", {ev(1, 1, calA, 9, 10), hidden(ev(2, 1, calB, 9, 10))}, true, {{1, {calA, calB}}}},
        {"group and key on two entries: the earlier one takes the event",
         {keyed(ev(1, 1, calA, 9, 10)), ev(2, 2, calB, 9, 10), keyed(ev(3, 2, calC, 9, 10))}, true,
         {{1, {calA, calC}}, {2, {calB}}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        expectEntries(EventDerivations::mergedEvents(c.events, c.mergeDuplicates), c.expected);
    }
}

TEST(EventDerivationsTest, VisibleEventsAndIntervalsKeepVisibleCalendarsInStableStartOrder) {
    AppSnapshot snapshot;
    snapshot.calendars = {calendar(calA, true), calendar(calB, true), calendar(calC, false)};
    snapshot.events = {
        ev(1, 1, calA, 9, 10),   // ends at the interval's start
        ev(2, 2, calA, 11, 12),  // starts at the interval's end
        ev(3, 3, calA, 9.5, 11), // same start as 4 after it, longer: input order stays
        ev(4, 4, calA, 9.5, 10.5),
        ev(5, 5, calA, 10, 10),  // zero length at the interval's start
        ev(6, 6, calA, 8, 13),
        ev(7, 7, calC, 10, 11),  // hidden calendar
        ev(8, 6, calB, 8, 13),   // copy of 6
        ev(9, 9, uuid(0xDEAD), 10, 11), // unknown calendar
        block(ev(10, 10, calA, 10.5, 10.5)), // zero length inside; blocks are not filtered here
    };
    std::vector<UUID> visible;
    for (const auto& e : EventDerivations::visibleEvents(snapshot)) visible.push_back(e.id);
    EXPECT_EQ(visible, (std::vector{uuid(6), uuid(8), uuid(1), uuid(3), uuid(4), uuid(5), uuid(10), uuid(2)}));

    const DateInterval interval{monday(10), monday(11)};
    expectEntries(EventDerivations::mergedEvents(snapshot, interval), {{6, {calA, calB}}, {3, {calA}}, {4, {calA}}, {10, {}}});
    snapshot.preferences.mergeDuplicates = false;
    EXPECT_EQ(idsOf(EventDerivations::mergedEvents(snapshot, interval)), (std::vector{6, 8, 3, 4, 10}));
}

TEST(EventDerivationsTest, SearchFiltersByVisibilityAccountTimeAndFoldedText) {
    const UUID work = uuid(0x77), personal = uuid(0x88), hiddenCalendar = uuid(0xD01), local = uuid(0xE01);
    AppSnapshot snapshot;
    snapshot.calendars = {calendar(calA, true, work), calendar(calB, true, personal), calendar(hiddenCalendar, false, work),
                          calendar(local, true)};
    auto budget = titled(ev(2, 2, calB, 15, 16), "Budget");
    budget.location = "Room 5";
    budget.guests = {{uuid(0x501), "Álex Kim", "alex@example.com", GuestStatus::accepted}};
    auto notes = ev(5, 5, local, 13, 14);
    notes.notes = "bring the café review notes";
    snapshot.events = {budget, titled(ev(1, 1, calA, 13, 14), "Café  Review"),
                       titled(ev(3, 3, calA, 11, 12), "Cafe review (old)"), // ends exactly now
                       titled(ev(4, 4, hiddenCalendar, 13, 14), "Cafe review"), notes,
                       titled(ev(6, 1, calB, 13, 14), "café review")};      // second copy of the review

    struct Case { std::u16string_view query; std::optional<UUID> account; bool includePast; std::vector<Entry> expected; };
    const Case cases[] = {
        {u"ＣＡＦＥ\u3000ｒｅｖｉｅｗ", std::nullopt, false, {{1, {calA, calB}}, {5, {local}}}},
        {u"cafe review", std::nullopt, true, {{3, {calA}}, {1, {calA, calB}}, {5, {local}}}},
        {u"cafe review", work, false, {{1, {calA}}}},
        {u"budget room", std::nullopt, false, {{2, {calB}}}},      // spans title and location
        {u"5 alex kim alex@", std::nullopt, false, {{2, {calB}}}}, // location into the guest
        {u"  ", personal, false, {{6, {calB}}, {2, {calB}}}},
    };
    for (const auto& c : cases) {
        const QString query = QString::fromUtf16(c.query.data(), static_cast<qsizetype>(c.query.size()));
        SCOPED_TRACE(query.toStdString());
        snapshot.preferences.includePastSearchResults = c.includePast;
        expectEntries(EventDerivations::search(query, c.account, monday(12), snapshot), c.expected);
    }
    snapshot.preferences.mergeDuplicates = false;
    snapshot.preferences.includePastSearchResults = false;
    EXPECT_EQ(idsOf(EventDerivations::search(u"", std::nullopt, monday(12), snapshot)), (std::vector{1, 5, 6, 2}));
}
