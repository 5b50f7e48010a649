#pragma once

#include "models/CalendarEvent.h"

#include <vector>

// Event equality exactly as CalendarEvent's == has it, made quick for lists
// compared with copies of themselves (shared texts are not read). Kept only
// because the GUI thread compares a workspace's events after every edit.
namespace tavelo::EventEquality {

bool same(const CalendarEvent& a, const CalendarEvent& b);
bool same(const std::vector<CalendarEvent>& a, const std::vector<CalendarEvent>& b);

} // namespace tavelo::EventEquality
