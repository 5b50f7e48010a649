#pragma once

#include "models/AppSnapshot.h"
#include "services/CalendarService.h"
#include "stores/EventDraft.h"
#include "support/DateCalendar.h"
#include "support/UUID.h"

#include <QCoro/QCoroTask>
#include <QString>

#include <memory>
#include <optional>
#include <set>
#include <stop_token>
#include <variant>
#include <vector>

namespace tavelo {

enum class EventAvailabilityScope { allConnectedAccounts, selectedDestinations };

struct AccountAvailability {
    UUID accountID;
    bool isAvailable = false;

    bool operator==(const AccountAvailability&) const = default;
};

// Whether the draft's time is free, per account, in the order of the
// snapshot's accounts. A calendar with no account is asked but has no row.
struct EventAvailabilityAssessment {
    EventAvailabilityScope scope = EventAvailabilityScope::selectedDestinations;
    std::vector<AccountAvailability> accounts;

    // The one-line result shown above the rows.
    QString summary() const;
    // Nothing (not false) for an account without a row.
    std::optional<bool> isAccountAvailable(const UUID& accountID) const;

    bool operator==(const EventAvailabilityAssessment&) const = default;
};

// What the editor shows while and after checking.
class EventAvailabilityState {
public:
    struct Loading {
        bool operator==(const Loading&) const = default;
    };
    struct Failure {
        bool operator==(const Failure&) const = default;
    };
    struct Success {
        EventAvailabilityAssessment assessment;
        bool operator==(const Success&) const = default;
    };

    static EventAvailabilityState loading() { return EventAvailabilityState(Loading{}); }
    static EventAvailabilityState failure() { return EventAvailabilityState(Failure{}); }
    static EventAvailabilityState success(EventAvailabilityAssessment assessment) {
        return EventAvailabilityState(Success{std::move(assessment)});
    }

    bool isLoading() const { return std::holds_alternative<Loading>(value_); }
    bool isFailure() const { return std::holds_alternative<Failure>(value_); }
    // The assessment of a success, else nothing.
    const EventAvailabilityAssessment* assessment() const;
    // The status line: a progress text, a failure text or the summary.
    QString text() const;

    bool operator==(const EventAvailabilityState&) const = default;

private:
    explicit EventAvailabilityState(std::variant<Loading, Failure, Success> value) : value_(std::move(value)) {}
    std::variant<Loading, Failure, Success> value_;
};

// The identity of one check: when it changes, the editor cancels the running
// check and starts a new one.
struct AvailabilityRequest {
    EventDraft draft;
    bool crossAccountAvailability = false;

    bool operator==(const AvailabilityRequest&) const = default;
};

class AvailabilityPolicy {
public:
    AvailabilityPolicy() = delete;

    // The calendars to ask. With cross-account availability on: every
    // calendar with no account or a connected account, hidden ones included,
    // whatever the destinations. Off: the destinations that still exist.
    static std::set<UUID> calendarIDs(const std::set<UUID>& destinationCalendarIDs, const AppSnapshot& snapshot);

    // One row per account (in snapshot order) owning an asked calendar; the
    // account is available when none of its asked calendars is busy.
    static EventAvailabilityAssessment assessment(const AppSnapshot& snapshot, const std::set<UUID>& calendarIDs,
                                                  const std::set<UUID>& busyCalendarIDs);

    // One check of the draft's time against `service`. Never fails: a
    // cancelled check (the service's CancellationError, or `token` stopped
    // around the query) gives `loading`, any other failure `failure`. A draft
    // whose stored end is not after its start is free everywhere without a
    // query. The draft's own group never counts as busy. The task keeps
    // `service` alive; the other arguments are copied before it suspends.
    static QCoro::Task<EventAvailabilityState> eventAvailability(std::shared_ptr<CalendarService> service,
                                                                 const EventDraft& draft,
                                                                 const AppSnapshot& snapshot,
                                                                 const DateCalendar& calendar,
                                                                 std::stop_token token = {});
};

} // namespace tavelo
