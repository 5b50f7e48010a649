#include "views/timegrid/TimeGrid.h"

#include <gtest/gtest.h>

using namespace tavelo;

namespace {

class TimeGridTest : public ::testing::Test {
protected:
    DateCalendar tokyo{"Asia/Tokyo", "ja_JP", 1};

    Date at(int day, int hour, int minute = 0) const { return *tokyo.date(2026, 3, day, hour, minute); }

    DisplayedEvent event(const char* title, Date start, Date end) const {
        DisplayedEvent displayed;
        displayed.primary.id = UUID::random();
        displayed.primary.title = QString::fromUtf8(title);
        displayed.primary.start = start;
        displayed.primary.end = end;
        return displayed;
    }

    struct Place {
        int lane, laneCount, laneSpan;
        bool operator==(const Place&) const = default;
    };
    static std::vector<Place> places(const std::vector<EventLayout>& layouts) {
        std::vector<Place> result;
        for (const auto& layout : layouts) result.push_back({layout.lane, layout.laneCount, layout.laneSpan});
        return result;
    }
};

} // namespace

TEST_F(TimeGridTest, LanesShareColumnsAndWidenOnlyUpToTheFirstOverlap) {
    EXPECT_TRUE(EventLayout::lanes({}).empty());

    // Touching events: one lane, two groups.
    const std::vector<DisplayedEvent> touching{event("a", at(2, 9), at(2, 10)), event("b", at(2, 10), at(2, 11))};
    EXPECT_EQ(places(EventLayout::lanes(touching)), (std::vector<Place>{{0, 1, 1}, {0, 1, 1}}));

    const std::vector<DisplayedEvent> abc{event("A", at(2, 9), at(2, 11)), event("B", at(2, 9), at(2, 10)),
                                          event("C", at(2, 10), at(2, 11))};
    EXPECT_EQ(places(EventLayout::lanes(abc)), (std::vector<Place>{{0, 2, 1}, {1, 2, 1}, {1, 2, 1}}));

    // C reuses lane 0 but cannot widen over B.
    const std::vector<DisplayedEvent> blocked{event("A", at(2, 9), at(2, 10)), event("B", at(2, 9), at(2, 12)),
                                              event("C", at(2, 11), at(2, 12))};
    EXPECT_EQ(places(EventLayout::lanes(blocked)), (std::vector<Place>{{0, 2, 1}, {1, 2, 1}, {0, 2, 1}}));

    // D in lane 0 widens over the free lane 1 and stops at lane 2, though
    // lane 3 is free for it.
    const std::vector<DisplayedEvent> widening{
        event("A", at(2, 9), at(2, 10)), event("B", at(2, 9), at(2, 10, 30)), event("C", at(2, 9), at(2, 12)),
        event("E", at(2, 9), at(2, 10, 15)), event("D", at(2, 10, 30), at(2, 11))};
    const auto layouts = EventLayout::lanes(widening);
    EXPECT_EQ(places(layouts), (std::vector<Place>{{0, 4, 1}, {1, 4, 1}, {2, 4, 1}, {3, 4, 1}, {0, 4, 2}}));
    // A widens nowhere: B beside it overlaps. E, the last lane, spans 1.
    EXPECT_EQ(layouts[4].event.primary.title, QStringLiteral("D"));
}

TEST_F(TimeGridTest, LanesKeepInputOrder) {
    // Input out of start order: results stand at their input places.
    const std::vector<DisplayedEvent> shuffled{event("late", at(2, 13), at(2, 14)), event("early", at(2, 9), at(2, 14)),
                                               event("mid", at(2, 10), at(2, 11))};
    const auto layouts = EventLayout::lanes(shuffled);
    ASSERT_EQ(layouts.size(), 3u);
    EXPECT_EQ(layouts[0].event.primary.title, QStringLiteral("late"));
    EXPECT_EQ(places(layouts), (std::vector<Place>{{1, 2, 1}, {0, 2, 1}, {1, 2, 1}}));
}

TEST_F(TimeGridTest, HoursEndAtMidnightAcrossClockChanges) {
    const TimeGridHours working{8, 20};
    const auto day = working.interval(at(2, 15), tokyo);
    ASSERT_TRUE(day);
    EXPECT_EQ(day->start, at(2, 8));
    EXPECT_EQ(day->end, at(2, 20));
    EXPECT_TRUE(working.contains(at(2, 8), at(2, 1), tokyo));
    EXPECT_FALSE(working.contains(at(2, 20), at(2, 1), tokyo));
    EXPECT_FALSE(working.contains(at(3, 9), at(2, 1), tokyo));

    // 8 March 2026 has 23 hours in New York; the full day still ends at the
    // next midnight.
    const DateCalendar newYork{"America/New_York", "en_US", 1};
    const auto shortDay = TimeGridHours{0, 24}.interval(*newYork.date(2026, 3, 8, 12), newYork);
    ASSERT_TRUE(shortDay);
    EXPECT_EQ(shortDay->end, *newYork.date(2026, 3, 9));
    EXPECT_DOUBLE_EQ(shortDay->duration(), 23 * 3600.0);
}

TEST_F(TimeGridTest, SlotDateClampsToTheGridAndSnapsDown) {
    const TimeGridGeometry geometry{{at(2, 0), at(3, 0), at(4, 0)}, 100, tokyo, TimeGridHours{0, 24}};
    EXPECT_EQ(geometry.slotDate({60 + 150, 9 * 60 + 14}), at(3, 9));
    EXPECT_EQ(geometry.slotDate({60 + 150, 9 * 60 + 15}), at(3, 9, 15));
    // Left of the gutter: the first day; right of the grid: the last day.
    EXPECT_EQ(geometry.slotDate({-40, 0}), at(2, 0));
    EXPECT_EQ(geometry.slotDate({5000, -30}), at(4, 0));
    // Below the grid: the last slot of the day, never past it.
    EXPECT_EQ(geometry.slotDate({70, 24 * 60 + 500}), at(2, 23, 45));

    const TimeGridGeometry offset{{at(2, 0)}, 100, tokyo, TimeGridHours{7, 19}};
    EXPECT_EQ(offset.slotDate({70, 30}), at(2, 7, 30));
}

TEST_F(TimeGridTest, DragMathSnapsMovesToNearestAndResizesTowardZero) {
    using namespace TimeGridDragMath;
    EXPECT_EQ(createInterval(at(2, 9), at(2, 9)), (DateInterval{at(2, 9), at(2, 9, 15)}));
    EXPECT_EQ(createInterval(at(2, 11), at(2, 9, 30)), (DateInterval{at(2, 9, 30), at(2, 11, 15)}));

    const DateInterval meeting{at(2, 9), at(2, 10)};
    // A small pull on the edge does nothing; 29 points is one step.
    EXPECT_EQ(resizedInterval(meeting, {0, 14}), meeting);
    EXPECT_EQ(resizedInterval(meeting, {0, 29}), (DateInterval{at(2, 9), at(2, 10, 15)}));
    EXPECT_EQ(resizedInterval(meeting, {0, -29}), (DateInterval{at(2, 9), at(2, 9, 45)}));
    // Never inverted.
    EXPECT_EQ(resizedInterval(meeting, {0, -600}), (DateInterval{at(2, 9), at(2, 9, 15)}));

    // A small push on the event may move it: 8 points is past half a step.
    EXPECT_EQ(movedInterval(meeting, {0, 8}, 100, tokyo), (DateInterval{at(2, 9, 15), at(2, 10, 15)}));
    EXPECT_EQ(movedInterval(meeting, {0, 7}, 100, tokyo), meeting);
    EXPECT_EQ(movedInterval(meeting, {150, 0}, 100, tokyo), (DateInterval{at(4, 9), at(4, 10)}));

    // Days are calendar days: across the New York spring change the wall
    // clock stays.
    const DateCalendar newYork{"America/New_York", "en_US", 1};
    const DateInterval evening{*newYork.date(2026, 3, 7, 18), *newYork.date(2026, 3, 7, 19)};
    const auto moved = movedInterval(evening, {100, 0}, 100, newYork);
    ASSERT_TRUE(moved);
    EXPECT_EQ(moved->start, *newYork.date(2026, 3, 8, 18));
    EXPECT_DOUBLE_EQ(moved->duration(), 3600.0);
}
