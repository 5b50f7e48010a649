#include "stores/EventAccessPolicy.h"

#include <algorithm>

namespace tavelo {

std::optional<CalendarEvent> EventAccessPolicy::detailEvent(const UUID& eventID,
                                                            const std::vector<CalendarEvent>& events) {
    const auto withID = [&](const UUID& id) {
        return std::find_if(events.begin(), events.end(), [&](const CalendarEvent& e) { return e.id == id; });
    };
    const auto picked = withID(eventID);
    if (picked == events.end()) return std::nullopt;
    if (!picked->isGeneratedBusyBlock) return *picked;

    if (picked->sourceEventID) {
        const auto source = withID(*picked->sourceEventID);
        if (source != events.end() && !source->isGeneratedBusyBlock) return *source;
    }
    const UUID groupID = picked->groupID;
    const auto sibling = std::find_if(events.begin(), events.end(), [&](const CalendarEvent& e) {
        return e.groupID == groupID && !e.isGeneratedBusyBlock;
    });
    if (sibling == events.end()) return std::nullopt;
    return *sibling;
}

} // namespace tavelo
