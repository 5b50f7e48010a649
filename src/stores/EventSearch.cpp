#include "stores/EventDerivations.h"
#include "stores/EventMerge.h"

#include "support/CalendarMath.h"
#include "support/TextFolding.h"

#include <QtGlobal>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <unordered_map>
#include <unordered_set>

namespace tavelo {

using namespace derivations;

namespace EventDerivations {

std::vector<DisplayedEvent> search(QStringView query, std::optional<UUID> accountID, Date now,
                                   const AppSnapshot& snapshot) {
    std::unordered_map<UUID, const CalendarSource*> calendars;
    for (const CalendarSource& calendar : snapshot.calendars) calendars.try_emplace(calendar.id, &calendar);
    const auto visible = visibleCalendarIDs(snapshot);
    const QString normalizedQuery = normalizedSearchText(query);
    const std::u16string_view needle(reinterpret_cast<const char16_t*>(normalizedQuery.utf16()),
                                     static_cast<std::size_t>(normalizedQuery.size()));

    SearchTextBuilder text;
    std::vector<EventRef> matches;
    const std::vector<CalendarEvent>& events = snapshot.events;
    for (std::size_t i = 0; i < events.size(); ++i) {
        const CalendarEvent& event = events[i];
        if (!visible.contains(event.calendarID)) continue;
        if (accountID) {
            const auto it = calendars.find(event.calendarID);
            if (it == calendars.end() || it->second->accountID != accountID) continue;
        }
        if (!snapshot.preferences.includePastSearchResults && !(event.end > now)) continue;
        if (!needle.empty()) {
            // The fields joined with blanks, so a query may span two of them.
            text.clear();
            text.append(event.title);
            text.append(event.location);
            text.append(event.notes);
            for (const Guest& guest : event.guests) {
                text.append(guest.name);
                text.append(guest.email);
            }
            if (text.text().find(needle) == std::u16string_view::npos) continue;
        }
        matches.push_back(&event);
    }
    return mergedDisplay(matches, snapshot.preferences.mergeDuplicates);
}

} // namespace EventDerivations

} // namespace tavelo
