#include "views/calendar/CalendarViewSupport.h"

#include "ai/AICloudStore.h"
#include "stores/AppStore.h"
#include "stores/SceneState.h"
#include "views/calendar/DayListModel.h"

#include <unordered_set>

namespace tavelo::CalendarViewSupport {

AppStore* appStore(QObject* object) { return qobject_cast<AppStore*>(object); }
SceneState* sceneState(QObject* object) { return qobject_cast<SceneState*>(object); }
AICloudStore* cloudStore(QObject* object) { return qobject_cast<AICloudStore*>(object); }

std::vector<DisplayedEvent> visibleEntries(const AppStore& store, DateInterval interval) {
    std::unordered_set<UUID> visible;
    for (const CalendarSource& calendar : store.calendars())
        if (calendar.isVisible) visible.insert(calendar.id);
    std::vector<CalendarEvent> inside;
    for (const CalendarEvent& event : store.events())
        if (event.start < interval.end && event.end > interval.start && visible.contains(event.calendarID))
            inside.push_back(event);
    return EventDerivations::mergedEvents(inside, store.preferences().mergeDuplicates);
}

std::unordered_map<UUID, QString> calendarColors(const AppStore& store) {
    std::unordered_map<UUID, QString> colors;
    for (const CalendarSource& calendar : store.calendars()) colors.emplace(calendar.id, calendar.colorHex);
    return colors;
}

QString clockText(Date date, const DateCalendar& calendar) {
    const auto parts = calendar.components(date);
    return QStringLiteral("%1:%2").arg(parts.hour, 2, 10, QLatin1Char('0')).arg(parts.minute, 2, 10, QLatin1Char('0'));
}

QString timeRangeText(const CalendarEvent& event, const DateCalendar& calendar) {
    return timeRangeText(event.start, event.end, event.isAllDay, calendar);
}

QString timeRangeText(Date start, Date end, bool isAllDay, const DateCalendar& calendar) {
    if (isAllDay) return QStringLiteral("終日");
    return clockText(start, calendar) + QStringLiteral(" – ") + clockText(end, calendar);
}

QString weekdayText(int weekday) {
    static const char16_t* names[] = {u"日", u"月", u"火", u"水", u"木", u"金", u"土"};
    if (weekday < 1 || weekday > 7) return {};
    return QString::fromUtf16(names[weekday - 1]);
}

QString longDateText(Date date, const DateCalendar& calendar) {
    const auto parts = calendar.components(date);
    return QStringLiteral("%1年%2月%3日 (%4)").arg(parts.year).arg(parts.month).arg(parts.day).arg(weekdayText(parts.weekday));
}

DayRow dayRow(Date day, Date selectedDay, Date today, const DateCalendar& calendar) {
    const auto parts = calendar.components(day);
    DayRow row;
    row.date = day;
    row.dayNumber = parts.day;
    row.weekday = parts.weekday;
    row.weekdayText = weekdayText(parts.weekday);
    row.accessibleText = longDateText(day, calendar);
    row.isToday = day == today;
    row.isSelected = day == selectedDay;
    return row;
}

} // namespace tavelo::CalendarViewSupport
