#pragma once

// Qt first: moc cannot parse the standard library's <concepts> unless the Qt
// headers have set up its macros beforehand.
#include <QObject>

#include "models/AppSnapshot.h"
#include "services/CalendarService.h"
#include "services/GoogleAccountService.h"
#include "stores/AvailabilityPolicy.h"
#include "stores/EventDraft.h"
#include "stores/StoreTypes.h"
#include "support/Async.h"
#include "support/Date.h"
#include "support/DateCalendar.h"
#include "support/UUID.h"

#include <QCoro/QCoroTask>
#include <QPointer>
#include <QString>

#include <cstddef>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stop_token>
#include <utility>
#include <vector>

namespace tavelo {

// The observable in-memory copy of one workspace's calendar state, and the
// only path by which the screens change it.
//
// Every change follows one discipline: take a snapshot for rollback, change
// the observable state at once so that the screen answers immediately, then
// persist through the service inside the persistence transaction, and on a
// failure roll back, show a message and offer a retry. `lastError` is the one
// channel for user messages; the retry action exists exactly when
// `retryOperation` holds a case.
//
// Everything here belongs to the main thread. The coroutines suspend only in
// the service and in the transaction queue; after each suspension they check
// that the store still exists before they touch it.
class AppStore : public QObject {
    Q_OBJECT
    Q_PROPERTY(int snapshotVersion READ snapshotVersion NOTIFY snapshotVersionChanged)
    Q_PROPERTY(std::vector<tavelo::Account> accounts READ accounts NOTIFY accountsChanged)
    Q_PROPERTY(std::vector<tavelo::CalendarSource> calendars READ calendars NOTIFY calendarsChanged)
    Q_PROPERTY(std::vector<tavelo::CalendarEvent> events READ events NOTIFY eventsChanged)
    Q_PROPERTY(std::vector<tavelo::Tag> tags READ tags NOTIFY tagsChanged)
    Q_PROPERTY(tavelo::AppPreferences preferences READ preferences NOTIFY preferencesChanged)
    // The message bar: its text (empty while there is none), whether there is
    // one, and whether it offers a retry.
    Q_PROPERTY(QString lastError READ lastErrorText NOTIFY lastErrorChanged)
    Q_PROPERTY(bool hasLastError READ hasLastError NOTIFY lastErrorChanged)
    Q_PROPERTY(bool canRetry READ canRetry NOTIFY canRetryChanged)
    Q_PROPERTY(bool isSyncing READ isSyncing NOTIFY isSyncingChanged)
    Q_PROPERTY(bool isGoogleAuthenticationPending READ isGoogleAuthenticationPending NOTIFY
                   isGoogleAuthenticationPendingChanged)
    Q_PROPERTY(QString googleAuthenticationMessage READ googleAuthenticationMessageText NOTIFY
                   googleAuthenticationMessageChanged)

public:
    // `service` is the calendar back end. `googleAccountService` is null when
    // the OAuth configuration is missing; with Google configured it is the
    // same object as `service`, seen through its other contract. Both are
    // shared so that a save still under way keeps its service alive even when
    // the workspace drops the store in the meantime.
    // Event edits do their day arithmetic in `dateCalendar`; without one the
    // store uses the user's zone and locale.
    AppStore(std::shared_ptr<CalendarService> service, std::shared_ptr<GoogleAccountService> googleAccountService,
             QString googleOAuthConfigurationPath, QObject* parent = nullptr);
    AppStore(std::shared_ptr<CalendarService> service, std::shared_ptr<GoogleAccountService> googleAccountService,
             QString googleOAuthConfigurationPath, DateCalendar dateCalendar, QObject* parent = nullptr);
    ~AppStore() override;

    // --- State -------------------------------------------------------------

    int snapshotVersion() const { return snapshotVersion_; }
    const std::vector<Account>& accounts() const { return accounts_; }
    const std::vector<CalendarSource>& calendars() const { return calendars_; }
    const std::vector<CalendarEvent>& events() const { return events_; }
    const std::vector<Tag>& tags() const { return tags_; }
    const AppPreferences& preferences() const { return preferences_; }
    const std::vector<GoogleCalendarSyncState>& googleSyncStates() const { return googleSyncStates_; }

    const std::optional<QString>& lastError() const { return lastError_; }
    QString lastErrorText() const { return lastError_.value_or(QString()); }
    bool hasLastError() const { return lastError_.has_value(); }
    const std::optional<StoreRetryOperation>& retryOperation() const { return retryOperation_; }
    bool canRetry() const { return retryOperation_.has_value(); }

    bool didLoad() const { return didLoad_; }
    bool isSyncing() const { return isSyncing_; }
    bool isGoogleAuthenticationPending() const { return isGoogleAuthenticationPending_; }
    const std::optional<QString>& googleAuthenticationMessage() const { return googleAuthenticationMessage_; }
    QString googleAuthenticationMessageText() const { return googleAuthenticationMessage_.value_or(QString()); }
    const std::map<UUID, GoogleSyncStatus>& googleSyncStatuses() const { return googleSyncStatuses_; }
    const std::map<UUID, std::vector<GoogleSyncWarning>>& googleSyncWarnings() const { return googleSyncWarnings_; }

    bool hasGoogleAccountService() const { return googleAccountService_ != nullptr; }
    const QString& googleOAuthConfigurationPath() const { return googleOAuthConfigurationPath_; }
    const DateCalendar& dateCalendar() const { return dateCalendar_; }

    // The persisted state as it stands in memory, sync states normalised.
    AppSnapshot snapshot() const;
    // The inverse of `snapshot`: assigns every field through its comparing
    // setter, so only what really changed is announced.
    void apply(const AppSnapshot& snapshot);
    void apply(AppSnapshot&& snapshot);

    // --- Persistence transaction -------------------------------------------
    //
    // One lock per store that keeps two writers of the snapshot from
    // interleaving across suspensions: first come, first served, with direct
    // hand-over. It is not reentrant. Whoever gets true must release exactly
    // once; whoever gets false must not release and simply ends.

    QCoro::Task<bool> acquirePersistenceTransaction(bool cancellationAware, std::stop_token token = {});
    void releasePersistenceTransaction();
    bool isPersistenceTransactionActive() const { return persistenceTransaction_.isActive(); }
    std::size_t persistenceTransactionWaiterCount() const { return persistenceTransaction_.waiterCount(); }

    // --- Operations --------------------------------------------------------

    // The first load from the service. Later calls do nothing. A failure
    // leaves the store unloaded and offers `load` again.
    QCoro::Task<void> load(std::stop_token token = {});
    // Saves the current state under the transaction. A failure keeps the state
    // in memory, offers `persist` again and is passed on.
    QCoro::Task<void> persist();
    // Runs what `retryOperation` holds; nothing when it holds nothing.
    QCoro::Task<void> retryLastOperation();

    QCoro::Task<bool> setTaskCompletion(UUID eventID, bool isCompleted);
    QCoro::Task<bool> toggleTaskCompletion(UUID eventID);
    QCoro::Task<bool> setCalendarVisibility(UUID calendarID, bool isVisible);
    QCoro::Task<bool> toggleCalendarVisibility(UUID calendarID);
    QCoro::Task<bool> setPastSearchResultsIncluded(bool isIncluded);
    // How a settings screen changes the preferences.
    QCoro::Task<bool> updatePreferencesNow(AppPreferences preferences);

    // Ends a running browser authentication and waits until no writer of this
    // store is running, so that the workspace can be dropped safely.
    QCoro::Task<void> prepareForLogout();

    // --- Messages ----------------------------------------------------------

    void clearPersistenceMessage();
    // A message without a retry.
    void recordMessage(const QString& message);
    // The message of a failed event mutation, with the given retry offer.
    // With Google configured the user sees one of two fixed texts instead of
    // the failure's own.
    void recordMutationFailure(std::exception_ptr failure, std::optional<StoreRetryOperation> retry);

    // --- Events ------------------------------------------------------------
    //
    // Each operation queues on the transaction, changes the screen at once and
    // then asks the service; a refusal is a message without a retry, a failed
    // service call restores the earlier state.

    // The editor's message for `draft`, or nothing when it may be saved. Every
    // calendar with a Google id counts as a provider calendar.
    std::optional<QString> eventValidationMessage(const EventDraft& draft) const;
    // Creates the draft's group (no `groupID`) or updates it. An update needs
    // `editingEventID` to name a non-generated event of the draft's group.
    QCoro::Task<bool> saveEvent(EventDraft draft, std::optional<UUID> editingEventID);
    // New times from a drag: the group keeps its calendars and everything
    // else. Dragging a generated busy block, or an unknown id, does nothing
    // and says nothing.
    QCoro::Task<bool> moveEvent(UUID eventID, DateInterval interval);
    // Deletes the event's whole group, busy blocks included.
    QCoro::Task<bool> deleteEvent(UUID eventID);

    // An event on the built-in local calendar for a meeting note without an
    // invitation; the calendar is added when missing. Nothing on failure.
    QCoro::Task<std::optional<CalendarEvent>> createStandaloneMeeting(QString title, Date start, Date end);
    // Renames or retimes such an event. False, without a message, for an event
    // that is not on the built-in local calendar.
    QCoro::Task<bool> updateStandaloneMeeting(UUID eventID, QString title, Date start, Date end);

    // Whether the draft's time is free, per account. Never fails. A newer
    // question makes every older one void: an older question still waiting
    // for its answer gets `loading`, never its stale result.
    QCoro::Task<EventAvailabilityState> eventAvailability(EventDraft draft, DateCalendar calendar);

    // --- Tags --------------------------------------------------------------

    // The tag is stored with its name trimmed. A blank name, or one equal to
    // another tag's when case and diacritics are ignored, is refused with a
    // message.
    QCoro::Task<bool> addTag(Tag tag);
    QCoro::Task<bool> updateTag(Tag tag);
    // Removes the tag and clears it from every event that carried it.
    QCoro::Task<bool> deleteTag(UUID tagID);
    // Moves the tags at `fromOffsets` so that they stand, in their present
    // order, before the tag now at `toOffset` (the count: at the end). Offsets
    // outside the list are passed over.
    QCoro::Task<bool> moveTags(std::set<int> fromOffsets, int toOffset);
    // Puts the tags named in `tagIDs` first, in that order; the rest follow in
    // their present order. Unknown and repeated ids are passed over.
    QCoro::Task<bool> setTagOrder(std::vector<UUID> tagIDs);

    // The message for naming a tag `name`, or nothing when the name is usable.
    // The tag with the id `excluding` (the one being renamed) is not compared.
    std::optional<QString> validatedTagName(const QString& name, const std::optional<UUID>& excluding) const;
    // Sets each tag's `sortOrder` to its position, from 0.
    static void normalizeTagOrder(std::vector<Tag>& tags);

    // --- Google accounts ---------------------------------------------------
    //
    // Every action answers true when it ran to its end and false when it did
    // not start (no Google service, another action under way) or failed; a
    // failure is already in the message bar with its retry. While one action
    // or a browser authentication runs, `isSyncing` is true and every further
    // action answers false at once.

    // The automatic refresh: does nothing (false) within 300 seconds of the
    // last attempt, failed or not; otherwise records `now` and refreshes.
    QCoro::Task<bool> refreshGoogleAccountsIfNeeded(Date now, std::stop_token token = {});
    // Loads if needed and syncs every Google account. True without doing
    // anything when there is no Google account.
    QCoro::Task<bool> refreshGoogleAccounts(std::stop_token token = {});
    QCoro::Task<bool> syncAllGoogleAccounts(std::stop_token token = {});
    QCoro::Task<bool> syncGoogleAccount(UUID accountID, std::stop_token token = {});
    // Erases the account's local copy; nothing changes at Google.
    QCoro::Task<bool> disconnectGoogleAccount(UUID accountID, std::stop_token token = {});
    // Connects a new account or reconnects one through the browser. Nothing
    // when it does not start: another authentication or action under way, or
    // no Google service. The task answers whether it succeeded; after a
    // success the account's first sync starts on its own.
    std::optional<BackgroundTask<bool>> beginGoogleAuthentication(GoogleAuthenticationRequest request);
    // Gives up the browser authentication under way: the store is free for a
    // new one at once, and whatever the old one brings back later is void.
    void cancelGoogleAuthentication();

    // What to show for an account.
    GoogleSyncStatus googleSyncStatus(const UUID& accountID) const;
    QString googleStatusMessage(const UUID& accountID) const;
    // When the account's calendars last synced completely; announced through
    // `accountsChanged`. Per calendar: `googleSyncStates`.
    std::optional<Date> googleLastSync(const UUID& accountID) const;
    // Present exactly when Google is not configured: where to put the OAuth
    // settings.
    std::optional<QString> googleConfigurationMessage() const;
    const std::optional<Date>& lastAutomaticGoogleRefresh() const { return lastAutomaticGoogleRefresh_; }

signals:
    void snapshotVersionChanged();
    void accountsChanged();
    void calendarsChanged();
    void eventsChanged();
    void tagsChanged();
    void preferencesChanged();
    void lastErrorChanged();
    void canRetryChanged();
    void isSyncingChanged();
    void isGoogleAuthenticationPendingChanged();
    void googleAuthenticationMessageChanged();
    void googleSyncStatusesChanged();
    void googleSyncWarningsChanged();
    void googleSyncStatesChanged();

private:
    // Holds the transaction for one operation and releases it exactly once,
    // at `release` or at the end of the scope. Once the store is gone there is
    // nothing left to release.
    class TransactionHold {
    public:
        explicit TransactionHold(AppStore* store) : store_(store) {}
        TransactionHold(const TransactionHold&) = delete;
        TransactionHold& operator=(const TransactionHold&) = delete;
        ~TransactionHold() { release(); }
        void release() {
            if (held_ && store_) store_->releasePersistenceTransaction();
            held_ = false;
        }

    private:
        QPointer<AppStore> store_;
        bool held_ = true;
    };

    // The prologue of every writer: waits for the transaction (not
    // cancellation-aware) and holds it until the answer is destroyed. Empty
    // when the store went away meanwhile; a CancellationError when the store
    // was dropped while this waited in the queue.
    QCoro::Task<std::unique_ptr<TransactionHold>> holdTransaction();

    // Reads everything back from the service and applies it. Returns the
    // load's warning. Used by `load` and, later, after Google actions.
    QCoro::Task<std::optional<CalendarServiceWarning>> reloadSnapshotFromService();
    // Brings the per-account Google status and warnings in line with
    // `accounts` and the Google service.
    QCoro::Task<void> refreshGoogleState();
    struct Undo;
    // Saves the current snapshot for a caller that holds the transaction. On a
    // failure `undo` takes the change back and `retry` is offered.
    QCoro::Task<bool> persistOrRollBack(Undo undo, std::optional<StoreRetryOperation> retry);
    // The body of `persist`, for a caller that holds the transaction.
    QCoro::Task<void> persistHoldingTransaction();
    // `snapshot()` for a caller that holds the transaction, the events copied
    // a slice at a time so that the event loop turns in between.
    QCoro::Task<AppSnapshot> snapshotForSave();

    // The events of one group with their places in `events`, as they stood
    // before an edit: enough to undo the edit without a copy of the list.
    struct GroupPlaces {
        std::vector<std::pair<std::size_t, CalendarEvent>> events;
    };
    GroupPlaces groupPlaces(const UUID& groupID) const;
    // Shows `group` in place of the group `groupID`, where the group's first
    // event stood (at the end for a new group): the order the service keeps,
    // so that nothing moves when its answer arrives. Edits the list in place,
    // as copying a large workspace would cost more than the whole edit.
    // Answers whether the list changed.
    bool showGroup(const UUID& groupID, const std::vector<CalendarEvent>& group);
    // Undoes `showGroup`: the group's events as they were, at their places.
    void restoreGroup(const UUID& groupID, const GroupPlaces& before);
    // How every writer takes back a change it could not save: the small
    // parts of the snapshot as they were, and of the events only the ones
    // the change touched, with their places, never a copy of the whole list.
    struct Undo {
        // Everything but the events.
        AppSnapshot rest;
        // A group shown anew (`showGroup`, or appended when new): its
        // members are taken out and `group` goes back in their places.
        std::optional<UUID> groupID;
        GroupPlaces group;
        // Events changed where they stand, each with its value before.
        std::vector<std::pair<std::size_t, CalendarEvent>> edited;
    };
    // An undo of nothing yet, holding the current small parts.
    Undo undoPoint() const;
    void rollBack(Undo&& undo);
    // The end of an event mutation whose service call has returned `stored`
    // or failed with `failure`: on success the stored events are shown and
    // the message clears; on a failure (the caller has put the screen back as
    // it was before the change) it is reported without a retry, unless it
    // reached some Google calendars, when the rest is offered. The caller
    // holds the transaction.
    QCoro::Task<bool> concludeEventMutation(std::vector<CalendarEvent> stored, std::exception_ptr failure, UUID groupID,
                                            std::vector<CalendarEvent> desiredGroup);
    // What the store keeps of a mutation that reached only some of its
    // Google calendars.
    struct PartialMutationReport {
        GoogleMutationOperation operation = GoogleMutationOperation::create;
        std::vector<GoogleMutationDestination> remainingDestinations;
        std::size_t conflictingCount = 0;
    };
    // The report carried by `failure`, when it is a partial mutation.
    static std::optional<PartialMutationReport> partialMutationReport(std::exception_ptr failure);
    // Shows what the service truly holds after a mutation that reached only
    // some of its calendars, and offers the rest as a targeted retry. The
    // caller holds the transaction and has already taken back what it showed
    // ahead of the service (the screen is at the state before the change).
    QCoro::Task<void> handlePartialGoogleMutation(PartialMutationReport report, UUID groupID,
                                                  std::vector<CalendarEvent> completeDesiredEvents);
    // The body of the tag operations: shows `tags` in their new order and
    // saves, rolling back on a failure. Unchanged tags are saved all the same.
    QCoro::Task<bool> commitTags(std::vector<Tag> tags);

    // The frame of every Google action: mutual exclusion through
    // `isSyncing`, the statuses shown meanwhile, the transaction, and after
    // the service's answer the reload, the refreshed statuses and the
    // message of a failure.
    using GoogleOperation = std::function<QCoro::Task<void>(GoogleAccountService&, std::stop_token)>;
    QCoro::Task<bool> performGoogleAction(GoogleStoreAction action, std::vector<UUID> accountIDs, bool ownsTransaction,
                                          GoogleOperation operation, std::stop_token token);
    // The body of the authentication task.
    QCoro::Task<bool> runGoogleAuthentication(UUID generation, GoogleAuthenticationRequest request,
                                              std::map<UUID, GoogleSyncStatus> previousStatuses, std::stop_token token);
    // The end of an authentication; nothing when `generation` is no longer
    // the current one. `account` is the result of a success.
    void completeGoogleAuthentication(const UUID& generation, const GoogleAuthenticationRequest& request,
                                      const std::map<UUID, GoogleSyncStatus>& previousStatuses,
                                      std::exception_ptr providerError, bool ownsPersistenceTransaction,
                                      const std::optional<Account>& account);
    void restoreAuthenticationStatuses(const std::map<UUID, GoogleSyncStatus>& previousStatuses,
                                       bool onlyWhenStillSyncing);
    // The message and retry offer of a failed Google action.
    void recordGoogleActionFailure(std::exception_ptr failure, GoogleStoreAction action,
                                   const std::vector<UUID>& accountIDs);
    // Starts a sync of one account that nobody awaits.
    void startBackgroundGoogleSync(UUID accountID);

    // Retry seams of the Google cases.
    QCoro::Task<void> retrySyncGoogleAccount(UUID accountID);
    QCoro::Task<void> retrySyncAllGoogleAccounts();
    // `reconnectAccountID` is nothing for a new connection.
    QCoro::Task<void> retryGoogleAuthentication(std::optional<UUID> reconnectAccountID);
    QCoro::Task<void> retryGoogleMutation(PendingGoogleMutation mutation);

    void recordFailure(const QString& message, std::optional<StoreRetryOperation> retry);

    // Comparing setters: each announces only a real change.
    void setSnapshotVersion(int value);
    void setAccounts(std::vector<Account> value);
    void setCalendars(std::vector<CalendarSource> value);
    void setEvents(std::vector<CalendarEvent> value);
    void setTags(std::vector<Tag> value);
    void setPreferences(AppPreferences value);
    void setLastError(std::optional<QString> value);
    void setRetryOperation(std::optional<StoreRetryOperation> value);
    void setIsSyncing(bool value);
    void setIsGoogleAuthenticationPending(bool value);
    void setGoogleAuthenticationMessage(std::optional<QString> value);
    void setGoogleSyncStatuses(std::map<UUID, GoogleSyncStatus> value);
    void setGoogleSyncWarnings(std::map<UUID, std::vector<GoogleSyncWarning>> value);
    void setGoogleSyncStates(std::vector<GoogleCalendarSyncState> value);

    std::shared_ptr<CalendarService> service_;
    std::shared_ptr<GoogleAccountService> googleAccountService_;
    QString googleOAuthConfigurationPath_;
    DateCalendar dateCalendar_;
    // Stops the availability question asked last, when a newer one comes.
    std::stop_source availabilityQuestion_;

    AsyncFifoLock persistenceTransaction_;
    bool didLoad_ = false;
    std::optional<StoreRetryOperation> retryOperation_;
    std::vector<GoogleCalendarSyncState> googleSyncStates_;
    // The browser authentication under way, if any.
    std::optional<BackgroundTask<bool>> googleAuthenticationTask_;
    // Identity of that authentication: a newer one makes an older result void.
    std::optional<UUID> googleAuthenticationGeneration_;
    std::optional<Date> lastAutomaticGoogleRefresh_;
    // What the authentication under way is for and the statuses it replaced.
    GoogleAuthenticationRequest googleAuthenticationRequest_;
    std::map<UUID, GoogleSyncStatus> googleAuthenticationPreviousStatuses_;
    // The sync started after a successful authentication.
    std::optional<BackgroundTask<bool>> googleBackgroundSync_;

    int snapshotVersion_ = AppSnapshot::kCurrentVersion;
    std::vector<Account> accounts_;
    std::vector<CalendarSource> calendars_;
    std::vector<CalendarEvent> events_;
    std::vector<Tag> tags_;
    AppPreferences preferences_ = AppPreferences::defaults();
    std::optional<QString> lastError_;
    bool isSyncing_ = false;
    bool isGoogleAuthenticationPending_ = false;
    std::optional<QString> googleAuthenticationMessage_;
    std::map<UUID, GoogleSyncStatus> googleSyncStatuses_;
    std::map<UUID, std::vector<GoogleSyncWarning>> googleSyncWarnings_;
};

} // namespace tavelo
