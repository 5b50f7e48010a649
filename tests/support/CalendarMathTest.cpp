#include "support/CalendarMath.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

using namespace tavelo;

namespace {

// Consecutive local midnights from a Sunday: the weekday of day i is
// i % 7 + 1 (1 = Sunday), and each day follows the last after 23 to 25 hours.
void expectSundayFirstDays(const std::vector<Date>& days, const DateCalendar& calendar) {
    for (std::size_t i = 0; i < days.size(); ++i) {
        EXPECT_EQ(calendar.startOfDay(days[i]), days[i]) << "day " << i;
        EXPECT_EQ(calendar.components(days[i]).weekday, static_cast<int>(i % 7) + 1) << "day " << i;
        if (i > 0) {
            EXPECT_NEAR(days[i].secondsSince(days[i - 1]), 24 * 3600.0, 3600.0) << "day " << i;
        }
    }
}

} // namespace

TEST(CalendarMathTest, MonthGridsHaveSixSundayFirstWeeksHoldingTheMonth) {
    for (const auto& calendar : {DateCalendar("Asia/Tokyo", "ja_JP"), DateCalendar("America/New_York", "en_US"),
                                 DateCalendar("Europe/Berlin", "de_DE"), // Berlin's locale starts on Monday
                                 DateCalendar("America/Santiago", "es_CL")}) { // 6 September 2026 has no midnight
        for (int year : {2024, 2026}) {
            for (int month = 1; month <= 12; ++month) {
                SCOPED_TRACE(calendar.timeZoneID().toStdString() + " " + std::to_string(year) + "-" + std::to_string(month));
                const auto grid = CalendarMath::monthGrid(*calendar.date(year, month, 15, 18, 30), calendar);
                ASSERT_EQ(grid.size(), 42u);
                EXPECT_LT(std::find(grid.begin(), grid.end(), *calendar.date(year, month, 1)) - grid.begin(), 7);
                expectSundayFirstDays(grid, calendar);
            }
        }
    }
}

TEST(CalendarMathTest, WeeksStartOnSundayWhateverTheLocale) {
    const DateCalendar berlin("Europe/Berlin", "de_DE");
    const DateCalendar newYork("America/New_York", "en_US", 2);
    const DateCalendar santiago("America/Santiago", "es_CL");
    const std::tuple<const DateCalendar*, Date, Date> cases[] = {
        // Wednesday 7 January 2026 -> Sunday 4 January.
        {&berlin, *berlin.date(2026, 1, 7, 12), *berlin.date(2026, 1, 4)},
        // Saturday just before midnight still belongs to the week before.
        {&berlin, *berlin.date(2026, 1, 10, 23, 59, 59), *berlin.date(2026, 1, 4)},
        // The week that springs forward in New York has a 23-hour Sunday.
        {&newYork, *newYork.date(2026, 3, 11, 9), *newYork.date(2026, 3, 8)},
        // Santiago's Sunday 6 September 2026 has no midnight and begins at
        // 01:00; the days after it still begin at their own midnight.
        {&santiago, *santiago.date(2026, 9, 9, 12), santiago.startOfDay(*santiago.date(2026, 9, 6, 12))},
    };
    for (const auto& [calendar, date, first] : cases) {
        SCOPED_TRACE(date.isoString());
        const auto days = CalendarMath::daysInWeek(date, *calendar);
        ASSERT_EQ(days.size(), 7u);
        EXPECT_EQ(days.front(), first);
        expectSundayFirstDays(days, *calendar);
    }
}
