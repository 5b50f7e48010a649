#include "stores/EventDerivations.h"

#include "StoreTestSupport.h"

#include <gtest/gtest.h>

#include <functional>

using namespace tavelo;
using namespace tavelo::test;
using namespace tavelo::EventDerivations;

namespace {

// `hour`:`minute`, `days` after Monday 5 January 2026, in Tokyo.
Date at(int days, int hour, int minute = 0) { return on(tokyo(), 1, 5).addingSeconds(((days * 24 + hour) * 60 + minute) * 60); }

CalendarEvent timed(int id, Date start, Date end, std::optional<UUID> tag = std::nullopt,
                    const std::function<void(CalendarEvent&)>& change = {}) {
    auto e = event(id, start, end);
    e.tagID = tag;
    if (change) change(e);
    return e;
}
Tag tag(int id, const QString& name, int sortOrder) { return Tag{uuid(id), name, "#57606A", sortOrder, std::nullopt, false, {}}; }
// The same meeting as `e` on another calendar.
CalendarEvent copy(CalendarEvent e, int id) { e.id = uuid(id); e.calendarID = uuid(0xCA2); return e; }

} // namespace

TEST(TimeTotalsTest, OnlyBusyTimedRealAndFinishedTimeCountsClippedAndTruncated) {
    const auto task = [](CalendarEvent& e) { e.kind = EventKind::task; };
    const std::vector<CalendarEvent> events = {
        timed(1, at(0, 10), at(0, 11), {}, [](auto& e) { e.availability = Availability::free; }),
        timed(2, at(0, 0), at(1, 0), {}, [](auto& e) { e.isAllDay = true; }),
        timed(3, at(0, 10), at(0, 11), {}, [](auto& e) { e.isGeneratedBusyBlock = true; }),
        timed(4, at(0, 10), at(0, 11), {}, task),
        timed(5, at(0, 10), at(0, 11), {}, [&](auto& e) {
            task(e);
            e.isCompleted = true;
        }),
        timed(6, at(0, 12), at(0, 12).addingSeconds(59)),
        timed(7, at(0, 12), at(0, 12).addingSeconds(179)),
        timed(8, at(0, 16, 30), at(0, 18)), // over the end
        timed(11, at(0, 8, 45), at(0, 9, 15)),
    };
    std::vector<std::tuple<UUID, Date, Date, int>> durations;
    for (const auto& d : includedDurations(events, {at(0, 9), at(0, 17)})) durations.emplace_back(d.event.id, d.start, d.end, d.minutes);
    EXPECT_EQ(durations, (std::vector<std::tuple<UUID, Date, Date, int>>{{uuid(5), at(0, 10), at(0, 11), 60},
                                                                         {uuid(7), at(0, 12), at(0, 12).addingSeconds(179), 2},
                                                                         {uuid(8), at(0, 16, 30), at(0, 17), 30},
                                                                         {uuid(11), at(0, 9), at(0, 9, 15), 15}}));
}

TEST(TimeTotalsTest, ReportSplitsTagsDaysFocusAndComparesWithTheWeekBefore) {
    const Tag meeting = tag(1, "定例会議メモ", 2); // never focus time
    const Tag deepWork = tag(2, "Deep work", 1), lunch = tag(3, "Lunch", 0);
    const UUID deleted = uuid(4);
    const auto completedTask = [](CalendarEvent& e) {
        e.kind = EventKind::task;
        e.isCompleted = true;
    };
    const auto focus = timed(13, at(1, 9), at(1, 10), deepWork.id);
    const std::vector<CalendarEvent> events = {
        timed(10, at(-2, 22, 10), at(-1, 0, 10)),                   // Sunday 10 minutes, 110 the week before
        timed(11, at(0, 10), at(0, 12), meeting.id),
        timed(12, at(0, 13), at(0, 15), deepWork.id, completedTask),         // tasks are never focus time
        focus, copy(focus, 14),
        timed(15, at(1, 13), at(1, 13, 59)),                         // too short for focus
        timed(16, at(2, 14), at(2, 14, 30)),
        timed(17, at(3, 12), at(3, 14), lunch.id),
        timed(18, at(4, 10), at(4, 11), deleted),                            // counts as untagged, apart
        timed(19, at(2, 9), at(2, 10), meeting.id, [](auto& e) { e.availability = Availability::free; }),
        timed(20, at(-6, 9), at(-6, 10)),                                    // the week before
    };
    const TimeReport r = report(events, {at(-1, 0), at(6, 0)}, std::vector{meeting, deepWork, lunch}, tokyo());
    EXPECT_EQ(r.totalMinutes, 10 + 120 + 120 + 60 + 59 + 30 + 120 + 60);
    EXPECT_EQ(r.focusMinutes, 10 + 60 + 120 + 60);
    std::vector<std::pair<std::optional<Tag>, int>> tagTotals;
    for (const auto& t : r.tagTotals) tagTotals.emplace_back(t.tag, t.minutes);
    EXPECT_EQ(tagTotals, (std::vector<std::pair<std::optional<Tag>, int>>{
                             {deepWork, 180}, {lunch, 120}, {meeting, 120}, {std::nullopt, 99}, {std::nullopt, 60}}));
    std::vector<std::tuple<Date, std::optional<Tag>, int>> daily;
    for (const auto& t : r.dailyTotals) daily.emplace_back(t.day, t.tag, t.minutes);
    EXPECT_EQ(daily, (std::vector<std::tuple<Date, std::optional<Tag>, int>>{
                         {at(-1, 0), std::nullopt, 10}, {at(0, 0), deepWork, 120}, {at(0, 0), meeting, 120},
                         {at(1, 0), deepWork, 60}, {at(1, 0), std::nullopt, 59}, {at(2, 0), std::nullopt, 30},
                         {at(3, 0), lunch, 120}, {at(4, 0), std::nullopt, 60}}));
    ASSERT_TRUE(r.changeFromPrevious);
    EXPECT_DOUBLE_EQ(*r.changeFromPrevious, (579.0 - 170) / 170 * 100);
    // Nothing before: no change, even with minutes now.
    EXPECT_FALSE(report(std::vector{events[1]}, {at(-1, 0), at(6, 0)}, {}, tokyo()).changeFromPrevious);
}

TEST(TimeTotalsTest, DailyTotalsSplitAtLocalMidnightTruncatingEachPart) {
    struct Case { const char* name; const DateCalendar& calendar; Date start, end; int total; std::vector<int> daily; };
    const Case cases[] = {
        {"over midnight", tokyo(), on(tokyo(), 1, 5, 23, 30), on(tokyo(), 1, 6, 0, 30), 60, {30, 30}},
        {"91 seconds over midnight", tokyo(), on(tokyo(), 1, 5, 23, 59, 30), on(tokyo(), 1, 6, 0, 1, 1), 1, {1}},
        {"23-hour day", newYork(), on(newYork(), 3, 7, 22), on(newYork(), 3, 9, 2), 27 * 60, {120, 23 * 60, 120}},
        {"25-hour day", newYork(), on(newYork(), 10, 31, 23), on(newYork(), 11, 2, 1), 27 * 60, {60, 25 * 60, 60}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const TimeReport r = report(std::vector{timed(1, c.start, c.end)}, {on(c.calendar, 1, 1), on(c.calendar, 12, 31)}, {}, c.calendar);
        EXPECT_EQ(r.totalMinutes, c.total);
        std::vector<int> daily;
        for (const auto& total : r.dailyTotals) {
            daily.push_back(total.minutes);
            EXPECT_EQ(c.calendar.startOfDay(total.day), total.day);
        }
        EXPECT_EQ(daily, c.daily);
    }
}

TEST(TimeTotalsTest, WeeklyMinutesCountTheSundayWeekOfTheTagOnce) {
    const DateCalendar berlin(QStringLiteral("Europe/Berlin"), QStringLiteral("de_DE")); // Monday-first locale
    const auto local = [&](int day, int hour) { return on(berlin, 1, day, hour); };
    const UUID focus = uuid(1), other = uuid(2);
    const auto sunday = timed(10, local(4, 10), local(4, 11), focus);
    const std::vector<CalendarEvent> events = {
        sunday, copy(sunday, 11),
        timed(12, local(10, 23), local(11, 1), focus),  // Saturday night: one hour inside
        timed(13, local(11, 10), local(11, 11), focus), // next Sunday
        timed(14, local(6, 10), local(6, 12), other),
        timed(15, local(3, 10), local(3, 11), focus),   // Saturday before
    };
    EXPECT_EQ(weeklyMinutes(focus, local(7, 12), events, berlin), 120);
    EXPECT_EQ(weeklyMinutes(other, local(10, 23), events, berlin), 120);
}
