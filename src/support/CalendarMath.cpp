#include "support/CalendarMath.h"

namespace tavelo::CalendarMath {

namespace {

constexpr int kSunday = 1;
constexpr int kDaysInWeek = 7;
constexpr int kDaysInMonthGrid = 42;

// The starts of `count` consecutive days from the day of `first`; a day the
// calendar cannot reach is left out. Each day begins at its own start: where
// a day has no midnight (a clock change at 00:00) it begins at 01:00 and the
// days after it at midnight again, not at the time of day of the first.
std::vector<Date> consecutiveDays(Date first, int count, const DateCalendar& calendar) {
    std::vector<Date> days;
    days.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
        if (const auto day = calendar.adding(DateCalendar::Unit::day, i, first)) days.push_back(calendar.startOfDay(*day));
    return days;
}

} // namespace

std::vector<Date> daysInWeek(Date date, const DateCalendar& calendar) {
    const DateCalendar sundayFirst = calendar.withFirstWeekday(kSunday);
    const auto week = sundayFirst.interval(DateCalendar::Unit::weekOfYear, date);
    if (!week) return {};
    return consecutiveDays(week->start, kDaysInWeek, sundayFirst);
}

std::vector<Date> monthGrid(Date date, const DateCalendar& calendar) {
    const auto month = calendar.interval(DateCalendar::Unit::month, date);
    if (!month) return {};
    const std::vector<Date> firstWeek = daysInWeek(month->start, calendar);
    if (firstWeek.empty()) return {};
    return consecutiveDays(firstWeek.front(), kDaysInMonthGrid, calendar);
}

} // namespace tavelo::CalendarMath
