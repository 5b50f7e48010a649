#pragma once

// A workspace as a person who has used Tavelo for a while would have it:
// three accounts with several calendars, overlapping meetings, all-day and
// multi-day events, busy blocks, duplicates across accounts, tags with
// targets and a week before for the report, Japanese and long titles. Used to
// render the screens and to measure them.

#include "models/AppSnapshot.h"
#include "support/Date.h"
#include "support/DateCalendar.h"

namespace tavelo::shell {

// The seeded state around the week (Sunday first) holding `today`. With
// `fillerEvents`, that many further events spread over two years around it.
AppSnapshot seededSnapshot(Date today, const DateCalendar& calendar, int fillerEvents = 0);

} // namespace tavelo::shell
