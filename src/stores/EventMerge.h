#pragma once

// What the files of the event derivations share: the merge of duplicates,
// used by the week and month views, by search and by the totals. Internal
// to the stores layer.

#include "models/AppSnapshot.h"
#include "stores/EventDerivations.h"

#include <initializer_list>
#include <span>
#include <unordered_set>
#include <vector>

namespace tavelo::derivations {

using EventRef = const CalendarEvent*;

std::vector<EventRef> refsOf(std::span<const CalendarEvent> events);
// The displayed events of `events` (given in input order), merged when
// `mergeDuplicates`, in start order.
std::vector<DisplayedEvent> mergedDisplay(const std::vector<EventRef>& events, bool mergeDuplicates);
// Each merged meeting once, by its primary, keeping those that overlap one
// of `intervals`.
std::vector<EventRef> mergedPrimaries(std::span<const CalendarEvent> events,
                                      std::initializer_list<DateInterval> intervals);
std::unordered_set<UUID> visibleCalendarIDs(const AppSnapshot& snapshot);

} // namespace tavelo::derivations
