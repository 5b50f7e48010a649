#pragma once

#include "models/CalendarEvent.h"
#include "support/UUID.h"

#include <optional>
#include <vector>

namespace tavelo {

// Which event the user acts on when they pick one on screen. A generated busy
// block is never edited itself: picking it means the event it mirrors.
struct EventAccessPolicy {
    // The picked event when it is not a generated busy block. For a block: the
    // event named by its `sourceEventID` unless that is generated too, else
    // the first non-generated event of the block's group. Nothing when the id
    // is unknown or a block leads nowhere.
    static std::optional<CalendarEvent> detailEvent(const UUID& eventID, const std::vector<CalendarEvent>& events);
};

} // namespace tavelo
