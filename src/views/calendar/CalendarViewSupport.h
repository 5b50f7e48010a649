#pragma once

// What the calendar view models share: reaching the store, the visible
// entries of an interval, and the texts of dates.

#include "stores/EventDerivations.h"
#include "support/Date.h"
#include "support/DateCalendar.h"
#include "support/UUID.h"

#include <QString>

#include <unordered_map>
#include <vector>

class QObject;

namespace tavelo {

class AppStore;
class SceneState;
class AICloudStore;
struct DayRow;

namespace CalendarViewSupport {

AppStore* appStore(QObject* object);
SceneState* sceneState(QObject* object);
AICloudStore* cloudStore(QObject* object);

// Entries of visible calendars overlapping `interval`, merged as the
// preferences say, in start order. Looks at each stored event once and
// copies only those in the interval.
std::vector<DisplayedEvent> visibleEntries(const AppStore& store, DateInterval interval);

// Calendar colours by id.
std::unordered_map<UUID, QString> calendarColors(const AppStore& store);

// "09:30".
QString clockText(Date date, const DateCalendar& calendar);
// "09:30 – 10:00", or "終日" for all-day entries.
QString timeRangeText(const CalendarEvent& event, const DateCalendar& calendar);
QString timeRangeText(Date start, Date end, bool isAllDay, const DateCalendar& calendar);
// "日" ... "土" for 1 = Sunday ... 7 = Saturday.
QString weekdayText(int weekday);
// "2026年3月2日 (月)".
QString longDateText(Date date, const DateCalendar& calendar);
// A day row for `day`, without entries.
DayRow dayRow(Date day, Date selectedDay, Date today, const DateCalendar& calendar);

} // namespace CalendarViewSupport
} // namespace tavelo
