#include "stores/AppStore.h"
#include "stores/AppStoreInternal.h"

#include <QLoggingCategory>
#include <QThreadPool>

#include <QCoro/QCoroTimer>

#include "support/Observable.h"

#include "stores/EventAccessPolicy.h"
#include "stores/EventEquality.h"
#include "stores/EventMutationEngine.h"
#include "support/TextFolding.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iterator>
#include <set>
#include <utility>

namespace tavelo {

Q_LOGGING_CATEGORY(lcAppStore, "tavelo.appstore")

AppStore::AppStore(std::shared_ptr<CalendarService> service, std::shared_ptr<GoogleAccountService> googleAccountService,
                   QString googleOAuthConfigurationPath, QObject* parent)
    : AppStore(std::move(service), std::move(googleAccountService), std::move(googleOAuthConfigurationPath),
               DateCalendar::current(), parent) {}

AppStore::AppStore(std::shared_ptr<CalendarService> service, std::shared_ptr<GoogleAccountService> googleAccountService,
                   QString googleOAuthConfigurationPath, DateCalendar dateCalendar, QObject* parent)
    : QObject(parent),
      service_(std::move(service)),
      googleAccountService_(std::move(googleAccountService)),
      googleOAuthConfigurationPath_(std::move(googleOAuthConfigurationPath)),
      dateCalendar_(std::move(dateCalendar)) {}

AppStore::~AppStore() {
    // A question still waiting for its answer ends with `loading`.
    availabilityQuestion_.request_stop();
}


namespace appstore {

void releaseInBackground(std::vector<CalendarEvent>&& events) {
    constexpr std::size_t kLarge = 512;
    if (events.size() < kLarge) {
        std::vector<CalendarEvent>().swap(events);
        return;
    }
    auto doomed = std::make_shared<std::vector<CalendarEvent>>(std::move(events));
    QThreadPool::globalInstance()->start([doomed]() mutable { doomed.reset(); });
}


} // namespace appstore

using appstore::releaseInBackground;


// --- Snapshot ------------------------------------------------------------

AppSnapshot AppStore::snapshot() const {
    return AppSnapshot(snapshotVersion_, accounts_, calendars_, events_, tags_, preferences_, googleSyncStates_);
}

void AppStore::apply(AppSnapshot&& snapshot) {
    setSnapshotVersion(snapshot.version);
    setAccounts(std::move(snapshot.accounts));
    setCalendars(std::move(snapshot.calendars));
    setEvents(std::move(snapshot.events));
    setTags(std::move(snapshot.tags));
    setPreferences(std::move(snapshot.preferences));
    setGoogleSyncStates(normalizedSyncStates(snapshot.googleSyncStates));
}

void AppStore::apply(const AppSnapshot& snapshot) {
    setSnapshotVersion(snapshot.version);
    setAccounts(snapshot.accounts);
    setCalendars(snapshot.calendars);
    setEvents(snapshot.events);
    setTags(snapshot.tags);
    setPreferences(snapshot.preferences);
    setGoogleSyncStates(normalizedSyncStates(snapshot.googleSyncStates));
}

// --- Persistence transaction ---------------------------------------------

QCoro::Task<bool> AppStore::acquirePersistenceTransaction(bool cancellationAware, std::stop_token token) {
    return persistenceTransaction_.acquire(cancellationAware, std::move(token));
}

QCoro::Task<std::unique_ptr<AppStore::TransactionHold>> AppStore::holdTransaction() {
    QPointer<AppStore> self(this);
    co_await acquirePersistenceTransaction(false);
    std::unique_ptr<TransactionHold> hold;
    if (self) hold = std::make_unique<TransactionHold>(this);
    co_return hold;
}

void AppStore::releasePersistenceTransaction() {
    persistenceTransaction_.release();
}

// --- Loading -------------------------------------------------------------

QCoro::Task<void> AppStore::load(std::stop_token token) {
    QPointer<AppStore> self(this);
    if (!co_await acquirePersistenceTransaction(true, token)) co_return;
    if (!self) co_return;
    TransactionHold hold(this);
    if (token.stop_requested() || didLoad_) co_return;

    std::exception_ptr failure;
    try {
        const auto warning = co_await reloadSnapshotFromService();
        if (!self) co_return;
        didLoad_ = true;
        co_await refreshGoogleState();
        if (!self) co_return;
        setRetryOperation(std::nullopt);
        setLastError(warning ? warning->errorDescription() : std::nullopt);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self) co_return;
    // A cancelled load ends silently; the next caller of `load` tries again.
    if (failure && !isCancellation(failure)) recordFailure(localizedDescription(failure), StoreRetryOperation::load());
}

QCoro::Task<std::optional<CalendarServiceWarning>> AppStore::reloadSnapshotFromService() {
    QPointer<AppStore> self(this);
    const auto service = service_;
    auto loaded = co_await service->load();
    auto accounts = co_await service->fetchAccounts();
    auto calendars = co_await service->fetchCalendars(std::nullopt);
    // A named query: g++ 12 destroys a braced temporary inside a co_await
    // argument twice.
    const CalendarEventQuery everything{
        .calendarIDs = std::nullopt,
        .interval = std::nullopt,
        .includesGeneratedBusyBlocks = true,
    };
    auto events = co_await service->fetchEvents(everything);
    if (!self) throw CancellationError();
    const AppSnapshot& base = loaded.snapshot;
    apply(AppSnapshot(base.version, std::move(accounts), std::move(calendars), std::move(events), base.tags,
                      base.preferences, base.googleSyncStates));
    // The load's own copy of the events is not needed.
    releaseInBackground(std::move(loaded.snapshot.events));
    co_return std::move(loaded.warning);
}

QCoro::Task<void> AppStore::refreshGoogleState() {
    QPointer<AppStore> self(this);
    const auto google = googleAccountService_;
    if (!google) {
        setGoogleSyncStatuses({});
        setGoogleSyncWarnings({});
        co_return;
    }

    std::vector<UUID> ids;
    for (const auto& account : accounts_)
        if (account.googleSubject) ids.push_back(account.id);
    const std::set<UUID> known(ids.begin(), ids.end());

    auto statuses = googleSyncStatuses_;
    auto warnings = googleSyncWarnings_;
    std::erase_if(statuses, [&](const auto& entry) { return !known.contains(entry.first); });
    std::erase_if(warnings, [&](const auto& entry) { return !known.contains(entry.first); });
    setGoogleSyncStatuses(std::move(statuses));
    setGoogleSyncWarnings(std::move(warnings));

    for (const auto& id : ids) {
        const auto status = co_await google->googleSyncStatus(id);
        if (!self) co_return;
        auto accountWarnings = co_await google->googleSyncWarnings(id);
        if (!self) co_return;
        auto nextStatuses = googleSyncStatuses_;
        nextStatuses[id] = status;
        setGoogleSyncStatuses(std::move(nextStatuses));
        auto nextWarnings = googleSyncWarnings_;
        nextWarnings[id] = std::move(accountWarnings);
        setGoogleSyncWarnings(std::move(nextWarnings));
    }
}

// --- Persisting ----------------------------------------------------------

QCoro::Task<void> AppStore::persist() {
    QPointer<AppStore> self(this);
    // Not cancellation-aware: this always ends up owning the transaction.
    const auto hold = co_await holdTransaction();
    if (!hold) co_return;
    co_await persistHoldingTransaction();
}

QCoro::Task<AppSnapshot> AppStore::snapshotForSave() {
    QPointer<AppStore> self(this);
    // Copying 50,000 events at once holds the GUI thread for over 10 ms. The
    // caller holds the transaction, so no writer changes the lists between
    // slices.
    constexpr std::size_t kSlice = 4096;
    AppSnapshot copy(snapshotVersion_, accounts_, calendars_, {}, tags_, preferences_, googleSyncStates_);
    copy.events.reserve(events_.size());
    for (std::size_t from = 0; from < events_.size(); from += kSlice) {
        if (from > 0) {
            co_await QCoro::sleepFor(std::chrono::milliseconds(0));
            if (!self) throw CancellationError();
        }
        const auto to = static_cast<std::ptrdiff_t>(std::min(from + kSlice, events_.size()));
        copy.events.insert(copy.events.end(), events_.begin() + static_cast<std::ptrdiff_t>(from), events_.begin() + to);
    }
    co_return copy;
}

QCoro::Task<void> AppStore::persistHoldingTransaction() {
    QPointer<AppStore> self(this);
    const auto service = service_;
    std::exception_ptr failure;
    try {
        AppSnapshot current = co_await snapshotForSave();
        co_await service->save(std::move(current));
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self) {
        if (failure) std::rethrow_exception(failure);
        co_return;
    }
    if (!failure) {
        clearPersistenceMessage();
        co_return;
    }
    // The state in memory stays as it is, so that the retry writes it.
    if (!isCancellation(failure)) recordFailure(localizedDescription(failure), StoreRetryOperation::persist());
    std::rethrow_exception(failure);
}

AppStore::Undo AppStore::undoPoint() const {
    Undo undo;
    undo.rest = AppSnapshot(snapshotVersion_, accounts_, calendars_, {}, tags_, preferences_, googleSyncStates_);
    return undo;
}

void AppStore::rollBack(Undo&& undo) {
    // A writer either shows a group anew or edits events where they stand,
    // so the places of one kind are not moved by the other.
    if (undo.groupID) restoreGroup(*undo.groupID, undo.group);
    if (!undo.edited.empty()) {
        for (auto& [place, event] : undo.edited)
            if (place < events_.size()) events_[place] = std::move(event);
        emit eventsChanged();
    }
    AppSnapshot& rest = undo.rest;
    setSnapshotVersion(rest.version);
    setAccounts(std::move(rest.accounts));
    setCalendars(std::move(rest.calendars));
    setTags(std::move(rest.tags));
    setPreferences(std::move(rest.preferences));
    googleSyncStates_ = normalizedSyncStates(rest.googleSyncStates);
}

QCoro::Task<bool> AppStore::persistOrRollBack(Undo undo, std::optional<StoreRetryOperation> retry) {
    QPointer<AppStore> self(this);
    const auto service = service_;
    std::exception_ptr failure;
    try {
        AppSnapshot current = co_await snapshotForSave();
        co_await service->save(std::move(current));
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self) co_return false;
    if (!failure) {
        clearPersistenceMessage();
        co_return true;
    }
    // The user's change did not reach the store: take it back on screen and
    // offer it again.
    rollBack(std::move(undo));
    if (!isCancellation(failure)) recordFailure(localizedDescription(failure), std::move(retry));
    co_return false;
}

// --- Messages ------------------------------------------------------------

void AppStore::clearPersistenceMessage() {
    setLastError(std::nullopt);
    setRetryOperation(std::nullopt);
}

void AppStore::recordMessage(const QString& message) {
    recordFailure(message, std::nullopt);
}

void AppStore::recordMutationFailure(std::exception_ptr failure, std::optional<StoreRetryOperation> retry) {
    QString message;
    if (!googleAccountService_)
        message = localizedDescription(failure);
    else if (isCancellation(failure))
        message = QStringLiteral("変更をキャンセルしました。確認済みのデータは保持されています。");
    else
        message = QStringLiteral("予定の変更を完了できませんでした。接続を確認して、もう一度お試しください。");
    recordFailure(message, std::move(retry));
}

void AppStore::recordFailure(const QString& message, std::optional<StoreRetryOperation> retry) {
    setLastError(message);
    setRetryOperation(std::move(retry));
}

// --- Tasks, visibility, preferences --------------------------------------

QCoro::Task<bool> AppStore::setTaskCompletion(UUID eventID, bool isCompleted) {
    QPointer<AppStore> self(this);
    const auto service = service_;
    const auto hold = co_await holdTransaction();
    if (!hold) co_return false;

    const auto target = std::find_if(events_.begin(), events_.end(), [&](const CalendarEvent& e) { return e.id == eventID; });
    if (target == events_.end() || target->kind != EventKind::task || target->isGeneratedBusyBlock) {
        recordMessage(StoreOperationError::invalidEdit().message());
        co_return false;
    }

    // Edited where the copies stand; the undo keeps only those.
    Undo undo = undoPoint();
    const UUID groupID = target->groupID;
    std::vector<CalendarEvent> group;
    for (std::size_t i = 0; i < events_.size(); ++i) {
        CalendarEvent& event = events_[i];
        if (event.groupID != groupID) continue;
        if (event.kind == EventKind::task && !event.isGeneratedBusyBlock && event.isCompleted != isCompleted) {
            undo.edited.emplace_back(i, event);
            event.isCompleted = isCompleted;
        }
        group.push_back(event);
    }
    if (!undo.edited.empty()) emit eventsChanged();

    std::exception_ptr failure;
    std::vector<CalendarEvent> stored;
    try {
        stored = co_await service->updateEvents(groupID, std::move(group));
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self) co_return false;
    if (!failure) {
        setEvents(std::move(stored));
        clearPersistenceMessage();
        co_return true;
    }
    rollBack(std::move(undo));
    recordMutationFailure(failure, StoreRetryOperation::setTaskCompletion(eventID, isCompleted));
    co_return false;
}

QCoro::Task<bool> AppStore::toggleTaskCompletion(UUID eventID) {
    const auto event = std::find_if(events_.begin(), events_.end(), [&](const CalendarEvent& e) { return e.id == eventID; });
    // An unknown event still goes through the setter, which explains the refusal.
    const bool isCompleted = event == events_.end() || !event->isCompleted;
    co_return co_await setTaskCompletion(eventID, isCompleted);
}

QCoro::Task<bool> AppStore::setCalendarVisibility(UUID calendarID, bool isVisible) {
    QPointer<AppStore> self(this);
    const auto hold = co_await holdTransaction();
    if (!hold) co_return false;

    Undo undo = undoPoint();
    auto calendars = calendars_;
    const auto calendar = std::find_if(calendars.begin(), calendars.end(), [&](const CalendarSource& c) { return c.id == calendarID; });
    if (calendar == calendars.end()) co_return false;
    if (calendar->isVisible == isVisible) co_return true;
    calendar->isVisible = isVisible;
    setCalendars(std::move(calendars));
    co_return co_await persistOrRollBack(std::move(undo), StoreRetryOperation::setCalendarVisibility(calendarID, isVisible));
}

QCoro::Task<bool> AppStore::toggleCalendarVisibility(UUID calendarID) {
    const auto calendar = std::find_if(calendars_.begin(), calendars_.end(), [&](const CalendarSource& c) { return c.id == calendarID; });
    if (calendar == calendars_.end()) co_return false;
    co_return co_await setCalendarVisibility(calendarID, !calendar->isVisible);
}

QCoro::Task<bool> AppStore::setPastSearchResultsIncluded(bool isIncluded) {
    QPointer<AppStore> self(this);
    const auto hold = co_await holdTransaction();
    if (!hold) co_return false;

    if (preferences_.includePastSearchResults == isIncluded) co_return true;
    Undo undo = undoPoint();
    auto preferences = preferences_;
    preferences.includePastSearchResults = isIncluded;
    setPreferences(std::move(preferences));
    co_return co_await persistOrRollBack(std::move(undo), StoreRetryOperation::includePastSearchResults(isIncluded));
}

QCoro::Task<bool> AppStore::updatePreferencesNow(AppPreferences preferences) {
    QPointer<AppStore> self(this);
    const auto hold = co_await holdTransaction();
    if (!hold) co_return false;

    if (preferences_ == preferences) co_return true;
    Undo undo = undoPoint();
    setPreferences(preferences);
    co_return co_await persistOrRollBack(std::move(undo), StoreRetryOperation::updatePreferences(std::move(preferences)));
}

// --- Logout --------------------------------------------------------------

QCoro::Task<void> AppStore::prepareForLogout() {
    QPointer<AppStore> self(this);
    if (googleAuthenticationTask_) {
        auto authentication = *googleAuthenticationTask_;
        authentication.cancel();
        try {
            co_await authentication.result();
        } catch (...) {
            // Its outcome no longer matters; only that it has ended.
        }
        if (!self) co_return;
    }
    // Waiting behind every queued writer means none is cut off mid-save.
    co_await acquirePersistenceTransaction(false);
    if (!self) co_return;
    releasePersistenceTransaction();
}

// --- Setters -------------------------------------------------------------

void AppStore::setSnapshotVersion(int value) {
    if (assignIfChanged(snapshotVersion_, value)) emit snapshotVersionChanged();
}

void AppStore::setAccounts(std::vector<Account> value) {
    if (assignIfChanged(accounts_, std::move(value))) emit accountsChanged();
}

void AppStore::setCalendars(std::vector<CalendarSource> value) {
    if (assignIfChanged(calendars_, std::move(value))) emit calendarsChanged();
}

void AppStore::setEvents(std::vector<CalendarEvent> value) {
    // A service answers with the whole list, mostly equal to what is shown.
    if (EventEquality::same(events_, value)) {
        releaseInBackground(std::move(value));
        return;
    }
    std::swap(events_, value);
    releaseInBackground(std::move(value));
    emit eventsChanged();
}

void AppStore::setTags(std::vector<Tag> value) {
    if (assignIfChanged(tags_, std::move(value))) emit tagsChanged();
}

void AppStore::setPreferences(AppPreferences value) {
    if (assignIfChanged(preferences_, std::move(value))) emit preferencesChanged();
}

void AppStore::setLastError(std::optional<QString> value) {
    if (assignIfChanged(lastError_, std::move(value))) emit lastErrorChanged();
}

void AppStore::setRetryOperation(std::optional<StoreRetryOperation> value) {
    const bool couldRetry = retryOperation_.has_value();
    retryOperation_ = std::move(value);
    if (couldRetry != retryOperation_.has_value()) emit canRetryChanged();
}

void AppStore::setIsSyncing(bool value) {
    if (assignIfChanged(isSyncing_, value)) emit isSyncingChanged();
}

void AppStore::setIsGoogleAuthenticationPending(bool value) {
    if (assignIfChanged(isGoogleAuthenticationPending_, value)) emit isGoogleAuthenticationPendingChanged();
}

void AppStore::setGoogleAuthenticationMessage(std::optional<QString> value) {
    if (assignIfChanged(googleAuthenticationMessage_, std::move(value))) emit googleAuthenticationMessageChanged();
}

void AppStore::setGoogleSyncStatuses(std::map<UUID, GoogleSyncStatus> value) {
    if (assignIfChanged(googleSyncStatuses_, std::move(value))) emit googleSyncStatusesChanged();
}

void AppStore::setGoogleSyncStates(std::vector<GoogleCalendarSyncState> value) {
    if (assignIfChanged(googleSyncStates_, std::move(value))) emit googleSyncStatesChanged();
}

void AppStore::setGoogleSyncWarnings(std::map<UUID, std::vector<GoogleSyncWarning>> value) {
    if (assignIfChanged(googleSyncWarnings_, std::move(value))) emit googleSyncWarningsChanged();
}

} // namespace tavelo
