#pragma once

#include "models/AppSnapshot.h"
#include "models/CalendarEvent.h"
#include "models/Tag.h"
#include "support/Date.h"
#include "support/DateCalendar.h"
#include "support/UUID.h"

#include <QString>
#include <QStringView>

#include <optional>
#include <span>
#include <vector>

namespace tavelo {

// One entry on screen: a meeting present on several calendars shows once.
struct DisplayedEvent {
    // The copy whose text and times are shown.
    CalendarEvent primary;
    // Calendars the entry stands on, in the order met. Never holds the
    // calendar of a generated busy block.
    std::vector<UUID> calendarIDs;

    const UUID& id() const { return primary.id; }
    bool operator==(const DisplayedEvent&) const = default;
};

// Minutes of one event inside an interval.
struct EventDuration {
    CalendarEvent event;
    Date start; // clipped to the interval
    Date end;   // clipped to the interval
    int minutes = 0;

    bool operator==(const EventDuration&) const = default;
};

struct DailyTagTotal {
    Date day; // start of the day
    std::optional<Tag> tag;
    int minutes = 0;

    // "<seconds since 2001 of the day>-<tag UUID>" or "...-untagged".
    QString id() const;
    bool operator==(const DailyTagTotal&) const = default;
};

struct TagTotal {
    std::optional<Tag> tag;
    int minutes = 0;

    // The tag's UUID, or "untagged".
    QString id() const;
    bool operator==(const TagTotal&) const = default;
};

struct TimeReport {
    int totalMinutes = 0;
    int focusMinutes = 0;
    std::vector<DailyTagTotal> dailyTotals;
    std::vector<TagTotal> tagTotals;
    // Percent change of the total against the previous interval; nothing
    // when the previous interval has no minutes.
    std::optional<double> changeFromPrevious;

    bool operator==(const TimeReport&) const = default;
};

// What the calendar screens show, derived from a snapshot. Pure functions:
// no state, no caching, safe on any thread (a DateCalendar instance is not
// shared between threads, though).
namespace EventDerivations {

// The events of visible calendars, by start; equal starts keep stored order.
std::vector<CalendarEvent> visibleEvents(const AppSnapshot& snapshot);

// One entry per event, or with `mergeDuplicates` one entry per meeting: copies
// sharing a group id, or an external UID with equal start and end, fall
// together. Entries are in start order.
std::vector<DisplayedEvent> mergedEvents(std::span<const CalendarEvent> events, bool mergeDuplicates);

// Visible events that overlap `interval` (touching an end point is not
// overlapping), merged as the preferences say.
std::vector<DisplayedEvent> mergedEvents(const AppSnapshot& snapshot, DateInterval interval);

// Visible events matching `query` in title, location, notes and guests,
// ignoring case, diacritics, width and spacing; restricted to the calendars
// of `accountID` when given, and to events not yet ended at `now` unless the
// preferences include past results. Merged as the preferences say.
std::vector<DisplayedEvent> search(QStringView query, std::optional<UUID> accountID, Date now,
                                   const AppSnapshot& snapshot);

// The busy, timed, real (not generated), not open-task parts of `events`
// inside `interval`, of at least one whole minute.
std::vector<EventDuration> includedDurations(std::span<const CalendarEvent> events, DateInterval interval);

// Minutes of the tag in the Sunday-first week holding `date`, each meeting
// counted once.
int weeklyMinutes(UUID tagID, Date date, std::span<const CalendarEvent> events, const DateCalendar& calendar);

// Totals of `interval` per tag and per day, focus time, and the change
// against the previous interval. Each meeting counts once.
TimeReport report(std::span<const CalendarEvent> events, DateInterval interval, std::span<const Tag> tags,
                  const DateCalendar& calendar);

// The month before `interval` when it is exactly a calendar month, else the
// week before it; ends where `interval` starts.
DateInterval previousReportInterval(DateInterval interval, const DateCalendar& calendar);

} // namespace EventDerivations

} // namespace tavelo
