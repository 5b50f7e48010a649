#pragma once

#include "models/AppSnapshot.h"
#include "models/CalendarEvent.h"
#include "models/Tag.h"
#include "stores/EventDraft.h"
#include "support/DateCalendar.h"
#include "support/UUID.h"

#include <QString>

#include <optional>
#include <set>
#include <unordered_map>
#include <vector>

namespace tavelo {

// The pure core of every local change to a group of events. One logical
// event on several calendars is one CalendarEvent per calendar sharing a
// `groupID`; the engine also makes the private busy blocks that mirror the
// event onto other calendars. Nothing here keeps state or does I/O; the only
// side effect is drawing fresh UUIDs. Safe on any thread.
//
// Group invariant: at most one non-generated event and one generated block
// per calendar; every block's `sourceEventID` is the id of the group's first
// non-generated event.
class EventMutationEngine {
public:
    EventMutationEngine() = delete;

    // Title of every generated busy block.
    static QString busyBlockTitle();

    // The new group's events: one copy per usable destination in order, then
    // the busy blocks. Throws EventValidationError.
    static std::vector<CalendarEvent> create(const EventDraft& draft, const std::vector<UUID>& calendarIDs,
                                             const AppSnapshot& snapshot, const DateCalendar& calendar);

    // The group `groupID` as it shall stand after applying `draft`: copies
    // first, then blocks. Copies and blocks on calendars that stay keep their
    // ids and Google fields. An unknown group yields all-new copies carrying
    // `groupID`. Throws EventValidationError.
    static std::vector<CalendarEvent> update(const UUID& groupID, const EventDraft& draft,
                                             const AppSnapshot& snapshot, const DateCalendar& calendar);

    // The snapshot's whole event list without the group, blocks included,
    // stored order kept. (`delete` is a keyword.)
    static std::vector<CalendarEvent> remove(const UUID& groupID, const AppSnapshot& snapshot);

    // Throws the first failing check: blank title (unless the ids are exactly
    // the built-in local calendar), `end` not after `start`, no ids. Expects a
    // normalised draft and the ids of `uniqueCalendarIDs`.
    static void validate(const EventDraft& draft, const std::vector<UUID>& calendarIDs);

    // `ids` in order, without repeats and without ids no calendar of the
    // snapshot has.
    static std::vector<UUID> uniqueCalendarIDs(const std::vector<UUID>& ids, const AppSnapshot& snapshot);

    // The calendars, in stored order, that receive a busy block for `draft`
    // whose copies stand on `excluding`.
    static std::vector<UUID> busyBlockCalendarIDs(const EventDraft& draft, const std::set<UUID>& excluding,
                                                  const AppSnapshot& snapshot);

    // Tags in rule-evaluation order: `sortOrder` ascending, ties in list order.
    static std::vector<Tag> stableSortedTags(std::vector<Tag> tags);

    // The tag the rules give a copy titled `title` on `calendarID`, walking
    // `sortedTags` (as from `stableSortedTags`) and each tag's rules in order.
    static std::optional<UUID> ruleTagID(const QString& title, const UUID& calendarID,
                                         const std::vector<Tag>& sortedTags);

    // Events keyed by their calendar; where two share a calendar the first in
    // the given order stays.
    static std::unordered_map<UUID, CalendarEvent> eventsByCalendar(const std::vector<CalendarEvent>& events);
};

} // namespace tavelo
