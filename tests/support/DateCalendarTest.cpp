#include "support/DateCalendar.h"

#include <gtest/gtest.h>

#include <tuple>

using namespace tavelo;

namespace {
Date iso(const char* text) { return *Date::fromIsoString(text); }
DateInterval span(const char* start, const char* end) { return {iso(start), iso(end)}; }
} // namespace

TEST(DateCalendarTest, DaysFollowTheZoneIncludingDaylightSavingChanges) {
    // 2026-01-05 08:00 in Tokyo is 2026-01-04T23:00Z; its day starts at 2026-01-04T15:00Z.
    EXPECT_EQ(DateCalendar("Asia/Tokyo", "ja_JP").startOfDay(iso("2026-01-04T23:00:00Z")), iso("2026-01-04T15:00:00Z"));

    const DateCalendar newYork("America/New_York", "en_US");
    // 8 March 2026 springs forward: 23 hours; 1 November falls back: 25 hours.
    EXPECT_EQ(newYork.interval(DateCalendar::Unit::day, iso("2026-03-08T17:00:00Z")),
              span("2026-03-08T05:00:00Z", "2026-03-09T04:00:00Z"));
    EXPECT_EQ(newYork.interval(DateCalendar::Unit::day, iso("2026-11-01T12:00:00Z")),
              span("2026-11-01T04:00:00Z", "2026-11-02T05:00:00Z"));
    // Adding a day keeps the wall-clock time across the change: 09:00 EST, then 09:00 EDT on a Sunday.
    const auto next = newYork.adding(DateCalendar::Unit::day, 1, iso("2026-03-07T14:00:00Z"));
    ASSERT_EQ(next, iso("2026-03-08T13:00:00Z"));
    const auto c = newYork.components(*next);
    EXPECT_EQ(std::tuple(c.year, c.month, c.day, c.hour, c.weekday), std::tuple(2026, 3, 8, 9, 1));
}

TEST(DateCalendarTest, WeeksStartOnTheChosenWeekdayAndMonthsOnTheFirst) {
    const DateCalendar tokyo("Asia/Tokyo", "ja_JP", 1);
    const Date wednesday = iso("2026-01-07T03:00:00Z");
    // From Sunday 4 January, 00:00 JST, or from Monday 5 January with a copy.
    EXPECT_EQ(tokyo.interval(DateCalendar::Unit::weekOfYear, wednesday),
              span("2026-01-03T15:00:00Z", "2026-01-10T15:00:00Z"));
    EXPECT_EQ(tokyo.withFirstWeekday(2).interval(DateCalendar::Unit::weekOfYear, wednesday)->start,
              iso("2026-01-04T15:00:00Z"));
    // February of a leap year.
    EXPECT_EQ(tokyo.interval(DateCalendar::Unit::month, iso("2028-02-10T00:00:00Z")),
              span("2028-01-31T15:00:00Z", "2028-02-29T15:00:00Z"));
    // Month arithmetic clamps to the end of the shorter month; fields out of range give nothing.
    EXPECT_EQ(tokyo.adding(DateCalendar::Unit::month, 1, *tokyo.date(2026, 1, 31, 9)), tokyo.date(2026, 2, 28, 9));
    EXPECT_EQ(tokyo.difference(DateCalendar::Unit::month, *tokyo.date(2026, 3, 31), *tokyo.date(2026, 1, 31)), -2);
    EXPECT_FALSE(tokyo.date(2026, 2, 30).has_value());
}
