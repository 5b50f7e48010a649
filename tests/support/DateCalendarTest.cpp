#include "support/DateCalendar.h"

#include <gtest/gtest.h>

using namespace tavelo;

namespace {
Date iso(const char* text) { return *Date::fromIsoString(text); }
} // namespace

TEST(DateCalendarTest, DaysFollowTheZoneIncludingDaylightSavingChanges) {
    const DateCalendar tokyo(QStringLiteral("Asia/Tokyo"), QStringLiteral("ja_JP"));
    // 2026-01-05 08:00 in Tokyo is 2026-01-04T23:00Z; its day starts at 2026-01-04T15:00Z.
    EXPECT_EQ(tokyo.startOfDay(iso("2026-01-04T23:00:00Z")), iso("2026-01-04T15:00:00Z"));

    const DateCalendar newYork(QStringLiteral("America/New_York"), QStringLiteral("en_US"));
    // 8 March 2026 springs forward: the day lasts 23 hours.
    const auto springDay = newYork.interval(DateCalendar::Unit::day, iso("2026-03-08T17:00:00Z"));
    ASSERT_TRUE(springDay);
    EXPECT_EQ(springDay->start, iso("2026-03-08T05:00:00Z"));
    EXPECT_DOUBLE_EQ(springDay->duration(), 23 * 3600.0);
    // 1 November 2026 falls back: 25 hours.
    const auto fallDay = newYork.interval(DateCalendar::Unit::day, iso("2026-11-01T12:00:00Z"));
    ASSERT_TRUE(fallDay);
    EXPECT_DOUBLE_EQ(fallDay->duration(), 25 * 3600.0);

    // Adding a day keeps the wall-clock time across the change.
    const auto next = newYork.adding(DateCalendar::Unit::day, 1, iso("2026-03-07T14:00:00Z")); // 09:00 EST
    ASSERT_TRUE(next);
    EXPECT_EQ(*next, iso("2026-03-08T13:00:00Z")); // 09:00 EDT
    const auto c = newYork.components(*next);
    EXPECT_EQ(c.hour, 9);
    EXPECT_EQ(c.day, 8);
    EXPECT_EQ(c.weekday, 1); // Sunday
}

TEST(DateCalendarTest, WeeksStartOnTheChosenWeekdayAndMonthsOnTheFirst) {
    const DateCalendar tokyo(QStringLiteral("Asia/Tokyo"), QStringLiteral("ja_JP"), 1);
    // Wednesday 2026-01-07 (Tokyo).
    const Date wednesday = iso("2026-01-07T03:00:00Z");
    const auto sundayWeek = tokyo.interval(DateCalendar::Unit::weekOfYear, wednesday);
    ASSERT_TRUE(sundayWeek);
    EXPECT_EQ(sundayWeek->start, iso("2026-01-03T15:00:00Z")); // Sunday 4 January, 00:00 JST
    EXPECT_DOUBLE_EQ(sundayWeek->duration(), 7 * 86400.0);

    const auto mondayWeek = tokyo.withFirstWeekday(2).interval(DateCalendar::Unit::weekOfYear, wednesday);
    ASSERT_TRUE(mondayWeek);
    EXPECT_EQ(mondayWeek->start, iso("2026-01-04T15:00:00Z"));
    EXPECT_EQ(tokyo.firstWeekday(), 1); // the copy did not change the original

    const auto february = tokyo.interval(DateCalendar::Unit::month, iso("2028-02-10T00:00:00Z"));
    ASSERT_TRUE(february);
    EXPECT_EQ(february->start, iso("2028-01-31T15:00:00Z"));
    EXPECT_DOUBLE_EQ(february->duration(), 29 * 86400.0); // leap year

    // Month arithmetic clamps to the end of the shorter month.
    const auto jan31 = tokyo.date(2026, 1, 31, 9);
    ASSERT_TRUE(jan31);
    const auto feb = tokyo.adding(DateCalendar::Unit::month, 1, *jan31);
    ASSERT_TRUE(feb);
    EXPECT_EQ(tokyo.components(*feb).day, 28);
    EXPECT_FALSE(tokyo.date(2026, 2, 30).has_value());
}
