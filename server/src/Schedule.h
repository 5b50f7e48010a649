#pragma once

// Schedule rules shared with the desktop client: validation with the same
// texts, the occurrences of a schedule counted in its own time zone, and the
// JSON form (dates as seconds since 1970).

#include "Storage.h"

#include <boost/json/fwd.hpp>

#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace tavelo::cloud {

// The user-facing complaint about a schedule; nothing when it may be saved.
std::optional<std::string> validationMessage(const ScheduleRecord& schedule);

// Every occurrence in [start, end), in order. Invalid schedules have none.
std::vector<double> occurrences(const ScheduleRecord& schedule, double start, double end);
// The first occurrence strictly after `after`; nothing when there is none
// (a one-time schedule that has passed).
std::optional<double> nextOccurrence(const ScheduleRecord& schedule, double after);

// Decodes a schedule from a request body. Gives the error text on a missing
// key, a wrong type or an id that is no UUID.
std::variant<ScheduleRecord, std::string> decodeSchedule(const boost::json::object& object);
boost::json::object encode(const ScheduleRecord& schedule);
boost::json::object encode(const RunRecord& run);

// "8-4-4-4-12" hexadecimal, any case; gives it in lower case.
std::optional<std::string> canonicalUUID(std::string_view text);

} // namespace tavelo::cloud
