#pragma once

// The calendar service of a workspace with Google configured: the local store
// stays the only persistent copy, and this object keeps it in step with each
// connected Google account. Its operations run one whole transaction at a
// time through the transaction gate, because each suspends at every network
// call.

#include "google/GoogleIdentity.h"
#include "services/CalendarService.h"
#include "services/GoogleAccountService.h"
#include "services/GoogleCalendarServiceError.h"
#include "support/Async.h"

#include <QString>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stop_token>
#include <vector>

namespace tavelo {

class GoogleCalendarAPIClient;
class LocalCalendarService;
struct GoogleEventPage;
class GoogleEventListing;

// Makes whole transactions exclusive: first come, first served; the lock
// passes straight from the releaser to the oldest waiter. A waiter whose task
// is cancelled leaves the queue with CancellationError.
class GoogleCalendarTransactionGate {
public:
    QCoro::Task<void> acquire(std::stop_token stop = {});
    void release() { lock_.release(); }
    bool isLocked() const { return lock_.isActive(); }
    std::size_t waiterCount() const { return lock_.waiterCount(); }

private:
    AsyncFifoLock lock_;
};

struct AccountSyncOutcome {
    AppSnapshot snapshot;
    std::vector<GoogleSyncWarning> warnings;
    std::vector<UUID> failedCalendarIDs;
    std::map<UUID, QString> calendarTimeZones;
};

class GoogleCalendarService final : public CalendarService, public GoogleAccountService {
public:
    using ConnectIdentity = std::function<QCoro::Task<GoogleIdentity>(std::stop_token)>;
    using ReconnectIdentity = std::function<QCoro::Task<GoogleIdentity>(QString subject, std::stop_token)>;
    using DisconnectIdentity = std::function<QCoro::Task<void>(QString subject)>;
    // Throws when no client can be made for the subject.
    using MakeAPIClient = std::function<GoogleCalendarAPIClient(const QString& subject)>;

    struct Functions {
        ConnectIdentity connectGoogleIdentity;
        ReconnectIdentity reconnectGoogleIdentity;
        DisconnectIdentity disconnectGoogleIdentity;
        MakeAPIClient makeAPIClient;
        Clock now = systemClock();
    };

    GoogleCalendarService(std::shared_ptr<LocalCalendarService> localService, Functions functions);
    ~GoogleCalendarService() override;

    // CalendarService
    QCoro::Task<CalendarLoadResult> load() override;
    QCoro::Task<void> save(AppSnapshot snapshot) override;
    QCoro::Task<std::vector<Account>> fetchAccounts() override;
    QCoro::Task<std::vector<CalendarSource>> fetchCalendars(std::optional<std::set<UUID>> accountIDs) override;
    QCoro::Task<std::vector<CalendarEvent>> fetchEvents(CalendarEventQuery query) override;
    QCoro::Task<std::vector<CalendarEvent>> createEvents(std::vector<CalendarEvent> events) override;
    QCoro::Task<std::vector<CalendarEvent>> updateEvents(UUID groupID, std::vector<CalendarEvent> events) override;
    QCoro::Task<std::vector<CalendarEvent>> deleteEvents(UUID groupID) override;
    QCoro::Task<std::vector<CalendarBusyInterval>> freeBusy(std::set<UUID> calendarIDs, DateInterval interval,
                                                            std::optional<UUID> excludingGroupID) override;

    // GoogleAccountService
    QCoro::Task<Account> connectGoogleAccount(std::stop_token token) override;
    QCoro::Task<void> syncGoogleAccount(UUID accountID, std::stop_token token) override;
    QCoro::Task<void> syncAllGoogleAccounts(std::stop_token token) override;
    QCoro::Task<Account> reconnectGoogleAccount(UUID accountID, std::stop_token token) override;
    QCoro::Task<void> disconnectGoogleAccount(UUID accountID, std::stop_token token) override;
    QCoro::Task<GoogleSyncStatus> googleSyncStatus(UUID accountID) override;
    QCoro::Task<std::vector<GoogleSyncWarning>> googleSyncWarnings(UUID accountID) override;

    // The bodies of the three mutations, for a retry that targets only the
    // destinations that failed before (all of them when absent). Call them
    // only while holding the gate, as retryMutation does.
    QCoro::Task<std::vector<CalendarEvent>> createEventsUngated(
        std::vector<CalendarEvent> events, std::optional<std::vector<GoogleMutationDestination>> targeting);
    QCoro::Task<std::vector<CalendarEvent>> updateEventsUngated(
        UUID groupID, std::vector<CalendarEvent> events, std::optional<std::vector<GoogleMutationDestination>> targeting);
    QCoro::Task<std::vector<CalendarEvent>> deleteEventsUngated(
        UUID groupID, std::optional<std::vector<GoogleMutationDestination>> targeting);
    // A retry of a partial mutation, through the gate.
    QCoro::Task<std::vector<CalendarEvent>> retryMutation(GoogleMutationOperation operation, UUID groupID,
                                                          std::vector<CalendarEvent> completeDesiredEvents,
                                                          std::vector<GoogleMutationDestination> remainingDestinations) override;

    // One copy's work of a mutation; public for the helpers of its file.
    struct MutationRun;

    const std::map<UUID, QString>& calendarTimeZones() const { return calendarTimeZones_; }
    const GoogleCalendarTransactionGate& transactionGate() const { return gate_; }

    // What a save from the application may change of the stored snapshot:
    // Google's side of accounts, calendars and events stands as stored, and
    // only what the program owns comes from `incoming`.
    static AppSnapshot preservingProviderState(const AppSnapshot& stored, AppSnapshot incoming);

private:
    // Releases the gate on every way out of a transaction.
    class GateHold {
    public:
        explicit GateHold(GoogleCalendarTransactionGate& gate) : gate_(gate) {}
        ~GateHold() { gate_.release(); }
        GateHold(const GateHold&) = delete;
        GateHold& operator=(const GateHold&) = delete;

    private:
        GoogleCalendarTransactionGate& gate_;
    };

    QCoro::Task<void> syncGoogleAccountUngated(UUID accountID, std::stop_token stop);
    QCoro::Task<AccountSyncOutcome> synchronizeAccount(UUID accountID, AppSnapshot snapshot, std::stop_token stop);
    // Takes every page of a calendar's listing into `listing`, one page at a
    // time.
    QCoro::Task<void> fetchAllEventPages(const GoogleCalendarAPIClient& client, QString googleCalendarID,
                                         std::optional<QString> syncToken, GoogleEventListing& listing,
                                         std::stop_token stop);
    QCoro::Task<void> markAccountDisconnected(UUID accountID);

    QCoro::Task<void> upsertStep(MutationRun& run, CalendarEvent desired, GoogleMutationDestination destination,
                                 bool probeRemote);
    QCoro::Task<void> deleteStep(MutationRun& run, CalendarEvent stored, GoogleMutationDestination destination);
    void recordFailure(MutationRun& run, const GoogleMutationDestination& destination, std::exception_ptr error);
    QCoro::Task<std::vector<CalendarEvent>> finishMutation(MutationRun& run);

    std::shared_ptr<LocalCalendarService> local_;
    Functions functions_;
    GoogleCalendarTransactionGate gate_;
    std::map<UUID, GoogleSyncStatus> statuses_;
    std::map<UUID, std::vector<GoogleSyncWarning>> warnings_;
    std::map<UUID, QString> calendarTimeZones_;
};

} // namespace tavelo
