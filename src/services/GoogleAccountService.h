#pragma once

#include "models/AppSnapshot.h"
#include "services/GoogleMutation.h"
#include "support/EnumNames.h"
#include "support/UUID.h"

#include <QCoro/QCoroTask>

#include <stop_token>
#include <variant>
#include <vector>

namespace tavelo {

enum class GoogleSyncStatus { idle, syncing, connected, reconnectRequired, failed };
TAVELO_STRING_ENUM(GoogleSyncStatus, "idle", "syncing", "connected", "reconnectRequired", "failed")

// Something a sync passed over. Warnings never become an error message; they
// only change the status text of the account.
struct GoogleSyncWarning {
    struct SkippedCalendars {
        UUID accountID;
        int count = 0;
        bool operator==(const SkippedCalendars&) const = default;
    };
    struct SkippedEvents {
        UUID calendarID;
        int count = 0;
        bool operator==(const SkippedEvents&) const = default;
    };
    struct CalendarFailed {
        UUID calendarID;
        bool operator==(const CalendarFailed&) const = default;
    };

    std::variant<SkippedCalendars, SkippedEvents, CalendarFailed> value;

    static GoogleSyncWarning skippedCalendars(UUID accountID, int count) { return {SkippedCalendars{accountID, count}}; }
    static GoogleSyncWarning skippedEvents(UUID calendarID, int count) { return {SkippedEvents{calendarID, count}}; }
    static GoogleSyncWarning calendarFailed(UUID calendarID) { return {CalendarFailed{calendarID}}; }

    bool operator==(const GoogleSyncWarning&) const = default;
};

// What the store asks of the Google side beyond the calendar contract:
// connecting, reconnecting, disconnecting and syncing accounts, and the status
// of each. The calendar service of a workspace with Google configured adopts
// it. Every operation may suspend; those that reach Google may fail and take
// the token that cancels them (the browser wait of a connection above all).
class GoogleAccountService {
public:
    virtual ~GoogleAccountService() = default;

    virtual QCoro::Task<Account> connectGoogleAccount(std::stop_token token) = 0;
    virtual QCoro::Task<void> syncGoogleAccount(UUID accountID, std::stop_token token) = 0;
    virtual QCoro::Task<void> syncAllGoogleAccounts(std::stop_token token) = 0;
    virtual QCoro::Task<Account> reconnectGoogleAccount(UUID accountID, std::stop_token token) = 0;
    virtual QCoro::Task<void> disconnectGoogleAccount(UUID accountID, std::stop_token token) = 0;

    // Sends a mutation that reached only some of its calendars once more, to
    // `remainingDestinations` only; every other copy stays exactly as stored.
    // Answers with all stored events; a new partial failure is thrown as a
    // GoogleMutationPartialFailure again.
    virtual QCoro::Task<std::vector<CalendarEvent>> retryMutation(
        GoogleMutationOperation operation, UUID groupID, std::vector<CalendarEvent> completeDesiredEvents,
        std::vector<GoogleMutationDestination> remainingDestinations) = 0;

    virtual QCoro::Task<GoogleSyncStatus> googleSyncStatus(UUID accountID) = 0;
    virtual QCoro::Task<std::vector<GoogleSyncWarning>> googleSyncWarnings(UUID accountID) = 0;
};

} // namespace tavelo
