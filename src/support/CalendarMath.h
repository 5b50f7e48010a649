#pragma once

#include "support/Date.h"
#include "support/DateCalendar.h"

#include <vector>

namespace tavelo::CalendarMath {

// The seven days (their starts) of the week holding `date`. Weeks begin on
// Sunday here whatever the calendar's locale says. Empty when the calendar
// cannot tell the week.
std::vector<Date> daysInWeek(Date date, const DateCalendar& calendar);

// The 42 days (six rows of a week) of the month view holding `date`, from
// the Sunday of the week holding the first of the month. Empty when the
// calendar cannot tell the month.
std::vector<Date> monthGrid(Date date, const DateCalendar& calendar);

} // namespace tavelo::CalendarMath
