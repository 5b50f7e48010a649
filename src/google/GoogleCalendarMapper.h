#pragma once

// Pure translation between Google's event records and `CalendarEvent`. The
// program's own links between events (group, parent, busy-block flag, tag)
// travel in private extended properties, so another machine can rebuild
// them from Google alone.

#include "google/GoogleWireRecords.h"
#include "models/CalendarEvent.h"

#include <QString>

#include <optional>
#include <set>

namespace tavelo {

class DateCalendar;

enum class GoogleEventPatchField {
    summary,
    timing,
    description,
    location,
    recurrence,
    attendees,
    reminders,
    availability,
    visibility,
    linkage,
    conference,
};

namespace GoogleCalendarMapper {

// Private extended property keys.
const QString& groupIDKey();             // "taveloGroupID"
const QString& parentEventIDKey();       // "taveloParentEventID"
const QString& generatedBusyBlockKey();  // "taveloGeneratedBusyBlock"
const QString& tagIDsKey();              // "taveloTagIDs"

// The title of an event that Google gives without one.
QString untitledEventTitle();

// A Gregorian calendar in `timeZoneID` with the locale "en_US_POSIX", the
// form every `timeZone` argument below expects. Build it once per calendar:
// it is not cheap.
DateCalendar calendarForTimeZone(const QString& timeZoneID);

struct GoogleEventTimes {
    Date start;
    Date end;
    bool isAllDay = false;
};

// When a record's event starts and ends, read in `timeZone` where the record
// leaves the zone open; nothing when the times are unreadable or empty.
std::optional<GoogleEventTimes> eventTimes(const GoogleEventDateTimeDTO& start, const GoogleEventDateTimeDTO& end,
                                          const DateCalendar& timeZone);

// Whether the calendar's zone takes part in reading the record's times: all-day
// dates, or a wall-clock time without a zone of its own. Records stating
// instants read the same in every zone.
bool timesDependOnCalendarZone(const GoogleEventDTO& dto);

// The event a Google record describes, or nothing when the record is to be
// skipped (cancelled, without an id, or with unreadable or empty dates).
// `timeZone` is the zone of the calendar the record comes from.
std::optional<CalendarEvent> event(const GoogleEventDTO& dto, const UUID& localID, const UUID& calendarID,
                                   const DateCalendar& timeZone);

GoogleEventInsertDTO insertRequest(const CalendarEvent& event, const DateCalendar& timeZone,
                                   const std::optional<QString>& conferenceRequestID);

// A patch carrying exactly the fields named in `changes`; every other field
// stays omitted.
GoogleEventPatchDTO patch(const CalendarEvent& event, const DateCalendar& timeZone,
                          const std::set<GoogleEventPatchField>& changes,
                          const std::optional<QString>& conferenceRequestID);

// The trimmed identifier when it names a time zone the system knows.
std::optional<QString> normalizedTimeZoneIdentifier(const std::optional<QString>& identifier);

// Instants as Google writes them: ISO 8601 with an offset or "Z", with or
// without a fraction of a second.
std::optional<Date> parseInstant(QStringView text);

} // namespace GoogleCalendarMapper

} // namespace tavelo
