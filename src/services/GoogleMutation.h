#pragma once

// A change of one group of events that fans out to several Google calendars,
// and what is left of it when it reached only some of them.

#include "models/CalendarEvent.h"
#include "support/EnumNames.h"
#include "support/UUID.h"

#include <compare>
#include <vector>

namespace tavelo {

enum class GoogleMutationOperation { create, update, remove };
// The raw values are the words of the operation; `delete` is a keyword in
// C++, so that case is spelled `remove` in code.
TAVELO_STRING_ENUM(GoogleMutationOperation, "create", "update", "delete")

enum class GoogleMutationFailureCause { requestFailure, cancellation };

// One copy of a group on one Google calendar.
struct GoogleMutationDestination {
    UUID accountID;
    UUID calendarID;
    UUID eventID;

    bool operator==(const GoogleMutationDestination&) const = default;
    auto operator<=>(const GoogleMutationDestination&) const = default;
};

// A mutation that reached only some of its calendars, kept so that the retry
// sends it to the rest only.
struct PendingGoogleMutation {
    GoogleMutationOperation operation = GoogleMutationOperation::create;
    UUID groupID;
    // The whole group as it shall stand, not only the missing copies.
    std::vector<CalendarEvent> completeDesiredEvents;
    std::vector<GoogleMutationDestination> remainingDestinations;

    bool operator==(const PendingGoogleMutation&) const = default;
};

// How a caller reads a failure that may be a mutation cut short half-way,
// without knowing the service's own error type.
class GoogleMutationPartialFailure {
public:
    virtual ~GoogleMutationPartialFailure() = default;

    // False for every failure that is not a partial mutation; the other
    // answers mean nothing then.
    virtual bool isPartialMutation() const = 0;
    virtual GoogleMutationOperation operation() const = 0;
    // The copies still to be sent, conflicts included.
    virtual const std::vector<GoogleMutationDestination>& remainingDestinations() const = 0;
    // The copies where Google's newer version was kept instead of the edit.
    virtual const std::vector<GoogleMutationDestination>& conflictingDestinations() const = 0;
    virtual GoogleMutationFailureCause cause() const = 0;
};

} // namespace tavelo
