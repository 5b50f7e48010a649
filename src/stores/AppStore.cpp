#include "stores/AppStore.h"

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

namespace {

// Freeing a workspace's worth of events takes the GUI thread milliseconds;
// a large list goes to a pool thread to be freed there. Its texts are shared
// with copies on this thread only through atomic counts.
void releaseInBackground(std::vector<CalendarEvent>&& events) {
    constexpr std::size_t kLarge = 512;
    if (events.size() < kLarge) {
        std::vector<CalendarEvent>().swap(events);
        return;
    }
    auto doomed = std::make_shared<std::vector<CalendarEvent>>(std::move(events));
    QThreadPool::globalInstance()->start([doomed]() mutable { doomed.reset(); });
}


} // namespace

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
    googleSyncStates_ = normalizedSyncStates(snapshot.googleSyncStates);
}

void AppStore::apply(const AppSnapshot& snapshot) {
    setSnapshotVersion(snapshot.version);
    setAccounts(snapshot.accounts);
    setCalendars(snapshot.calendars);
    setEvents(snapshot.events);
    setTags(snapshot.tags);
    setPreferences(snapshot.preferences);
    googleSyncStates_ = normalizedSyncStates(snapshot.googleSyncStates);
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

QCoro::Task<void> AppStore::persistHoldingTransaction() {
    QPointer<AppStore> self(this);
    const auto service = service_;
    std::exception_ptr failure;
    try {
        co_await service->save(snapshot());
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

QCoro::Task<bool> AppStore::persistOrRollBack(AppSnapshot previous, std::optional<StoreRetryOperation> retry) {
    QPointer<AppStore> self(this);
    const auto service = service_;
    std::exception_ptr failure;
    try {
        co_await service->save(snapshot());
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
    apply(previous);
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

    const AppSnapshot previous = snapshot();
    const auto target = std::find_if(events_.begin(), events_.end(), [&](const CalendarEvent& e) { return e.id == eventID; });
    if (target == events_.end() || target->kind != EventKind::task || target->isGeneratedBusyBlock) {
        recordMessage(StoreOperationError::invalidEdit().message());
        co_return false;
    }

    const UUID groupID = target->groupID;
    auto events = events_;
    std::vector<CalendarEvent> group;
    for (auto& event : events) {
        if (event.groupID != groupID) continue;
        if (event.kind == EventKind::task && !event.isGeneratedBusyBlock) event.isCompleted = isCompleted;
        group.push_back(event);
    }
    setEvents(std::move(events));

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
    apply(previous);
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

    const AppSnapshot previous = snapshot();
    auto calendars = calendars_;
    const auto calendar = std::find_if(calendars.begin(), calendars.end(), [&](const CalendarSource& c) { return c.id == calendarID; });
    if (calendar == calendars.end()) co_return false;
    if (calendar->isVisible == isVisible) co_return true;
    calendar->isVisible = isVisible;
    setCalendars(std::move(calendars));
    co_return co_await persistOrRollBack(previous, StoreRetryOperation::setCalendarVisibility(calendarID, isVisible));
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
    const AppSnapshot previous = snapshot();
    auto preferences = preferences_;
    preferences.includePastSearchResults = isIncluded;
    setPreferences(std::move(preferences));
    co_return co_await persistOrRollBack(previous, StoreRetryOperation::includePastSearchResults(isIncluded));
}

QCoro::Task<bool> AppStore::updatePreferencesNow(AppPreferences preferences) {
    QPointer<AppStore> self(this);
    const auto hold = co_await holdTransaction();
    if (!hold) co_return false;

    if (preferences_ == preferences) co_return true;
    const AppSnapshot previous = snapshot();
    setPreferences(preferences);
    co_return co_await persistOrRollBack(previous, StoreRetryOperation::updatePreferences(std::move(preferences)));
}

// --- Events --------------------------------------------------------------

namespace {

const CalendarEvent* findEvent(const std::vector<CalendarEvent>& events, const UUID& id) {
    const auto found = std::find_if(events.begin(), events.end(), [&](const CalendarEvent& e) { return e.id == id; });
    return found == events.end() ? nullptr : &*found;
}

const QString& blankTagNameMessage() {
    static const QString text = QStringLiteral("タグ名を入力してください");
    return text;
}
const QString& duplicateTagNameMessage() {
    static const QString text = QStringLiteral("同じ名前のタグがあります");
    return text;
}

} // namespace

std::optional<QString> AppStore::eventValidationMessage(const EventDraft& draft) const {
    std::set<UUID> providerCalendarIDs;
    for (const CalendarSource& calendar : calendars_)
        if (calendar.googleCalendarID) providerCalendarIDs.insert(calendar.id);
    return draft.validationMessage(providerCalendarIDs, dateCalendar_);
}

QCoro::Task<bool> AppStore::saveEvent(EventDraft draft, std::optional<UUID> editingEventID) {
    QPointer<AppStore> self(this);
    const auto service = service_;
    const auto hold = co_await holdTransaction();
    if (!hold) co_return false;

    if (const auto message = eventValidationMessage(draft)) {
        recordMessage(*message);
        co_return false;
    }

    const bool isCreation = !draft.groupID;
    if (!isCreation) {
        const CalendarEvent* edited = editingEventID ? findEvent(events_, *editingEventID) : nullptr;
        if (!edited || edited->groupID != *draft.groupID) {
            recordMessage(StoreOperationError::invalidEdit().message());
            co_return false;
        }
        if (edited->isGeneratedBusyBlock) {
            recordMessage(StoreOperationError::managedBusyBlock().message());
            co_return false;
        }
    }

    // The engine reads the accounts, calendars, tags and preferences, and of
    // the events only the group under edit; the rest of a large list is not
    // copied for it, nor for the rollback.
    const GroupPlaces before = isCreation ? GroupPlaces() : groupPlaces(*draft.groupID);
    AppSnapshot context(snapshotVersion_, accounts_, calendars_, {}, tags_, preferences_, googleSyncStates_);
    for (const auto& [place, event] : before.events) context.events.push_back(event);
    std::vector<CalendarEvent> group;
    try {
        group = isCreation ? EventMutationEngine::create(draft, draft.calendarIDs, context, dateCalendar_)
                           : EventMutationEngine::update(*draft.groupID, draft, context, dateCalendar_);
    } catch (const EventValidationError& error) {
        recordMessage(error.message());
        co_return false;
    }
    const UUID groupID = isCreation ? group.front().groupID : *draft.groupID;

    // On screen at once; the service's answer replaces it below.
    const bool shown = showGroup(groupID, group);

    std::vector<CalendarEvent> stored;
    std::exception_ptr failure;
    try {
        if (isCreation)
            stored = co_await service->createEvents(group);
        else
            stored = co_await service->updateEvents(groupID, group);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self) co_return false;
    const auto operation = isCreation ? GoogleMutationOperation::create : GoogleMutationOperation::update;
    // The screen goes back to the state before the change before anything
    // else looks at it.
    if (failure && shown) restoreGroup(groupID, before);
    co_return co_await concludeEventMutation(std::move(stored), failure, operation, groupID, std::move(group));
}

QCoro::Task<bool> AppStore::moveEvent(UUID eventID, DateInterval interval) {
    // A busy block moves with the event it mirrors, never on its own.
    const CalendarEvent* picked = findEvent(events_, eventID);
    if (!picked || picked->isGeneratedBusyBlock) co_return false;
    const auto event = EventAccessPolicy::detailEvent(eventID, events_);
    if (!event) co_return false;

    std::vector<UUID> calendarIDs;
    for (const CalendarEvent& member : events_)
        if (member.groupID == event->groupID && !member.isGeneratedBusyBlock) calendarIDs.push_back(member.calendarID);
    EventDraft draft = EventDraft::fromEvent(*event, std::move(calendarIDs), dateCalendar_);
    draft.start = interval.start;
    draft.end = interval.end;
    const std::optional<UUID> editingEventID = event->id;
    co_return co_await saveEvent(std::move(draft), editingEventID);
}

QCoro::Task<bool> AppStore::deleteEvent(UUID eventID) {
    QPointer<AppStore> self(this);
    const auto service = service_;
    const auto hold = co_await holdTransaction();
    if (!hold) co_return false;

    const CalendarEvent* event = findEvent(events_, eventID);
    if (!event) {
        recordMessage(StoreOperationError::invalidEdit().message());
        co_return false;
    }
    if (event->isGeneratedBusyBlock) {
        recordMessage(StoreOperationError::managedBusyBlock().message());
        co_return false;
    }
    // The list EventMutationEngine::remove gives, edited in place.
    const UUID groupID = event->groupID;
    const GroupPlaces before = groupPlaces(groupID);
    showGroup(groupID, {});

    std::vector<CalendarEvent> stored;
    std::exception_ptr failure;
    try {
        stored = co_await service->deleteEvents(groupID);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self) co_return false;
    // Nothing of the group is meant to remain.
    std::vector<CalendarEvent> desiredGroup;
    if (failure) restoreGroup(groupID, before);
    co_return co_await concludeEventMutation(std::move(stored), failure, GoogleMutationOperation::remove, groupID,
                                             std::move(desiredGroup));
}

AppStore::GroupPlaces AppStore::groupPlaces(const UUID& groupID) const {
    GroupPlaces places;
    for (std::size_t i = 0; i < events_.size(); ++i)
        if (events_[i].groupID == groupID) places.events.emplace_back(i, events_[i]);
    return places;
}

bool AppStore::showGroup(const UUID& groupID, const std::vector<CalendarEvent>& group) {
    const auto inGroup = [&](const CalendarEvent& event) { return event.groupID == groupID; };
    const auto first = std::find_if(events_.begin(), events_.end(), inGroup);
    const auto members = static_cast<std::size_t>(std::count_if(first, events_.end(), inGroup));
    // Equal members in a row from the first one: the group stands as wanted.
    if (members == group.size() && std::equal(group.begin(), group.end(), first)) return false;
    const auto at = first - events_.begin();
    events_.erase(std::remove_if(first, events_.end(), inGroup), events_.end());
    events_.insert(events_.begin() + at, group.begin(), group.end());
    emit eventsChanged();
    return true;
}

void AppStore::restoreGroup(const UUID& groupID, const GroupPlaces& before) {
    std::erase_if(events_, [&](const CalendarEvent& event) { return event.groupID == groupID; });
    // Everything else kept its order, so putting each event back at its old
    // place, first place first, gives the old list exactly.
    for (const auto& [place, event] : before.events)
        events_.insert(events_.begin() + static_cast<std::ptrdiff_t>(std::min(place, events_.size())), event);
    emit eventsChanged();
}

QCoro::Task<bool> AppStore::concludeEventMutation(std::vector<CalendarEvent> stored, std::exception_ptr failure,
                                                  GoogleMutationOperation operation, UUID groupID,
                                                  std::vector<CalendarEvent> desiredGroup) {
    QPointer<AppStore> self(this);
    if (!failure) {
        // The answer is the whole list, nearly always what the screen shows
        // already. Comparing 50,000 events at once would hold the GUI thread
        // for milliseconds, so the comparison gives the event loop a turn
        // between slices; the transaction keeps other writers out meanwhile.
        constexpr std::size_t kSlice = 4096;
        bool unchanged = stored.size() == events_.size();
        for (std::size_t from = 0; unchanged && from < stored.size(); from += kSlice) {
            if (from > 0) {
                co_await QCoro::sleepFor(std::chrono::milliseconds(0));
                if (!self) co_return false;
                if (stored.size() != events_.size()) break;
            }
            const std::size_t to = std::min(from + kSlice, stored.size());
            for (std::size_t i = from; i < to && unchanged; ++i) unchanged = EventEquality::same(events_[i], stored[i]);
        }
        if (unchanged && stored.size() == events_.size())
            releaseInBackground(std::move(stored));
        else
            setEvents(std::move(stored));
        clearPersistenceMessage();
        co_return true;
    }
    AppSnapshot previous = snapshot();
    const bool recovered =
        co_await recoverPartialGoogleMutation(failure, operation, groupID, std::move(desiredGroup), std::move(previous));
    if (!self || recovered) co_return false;
    recordMutationFailure(failure, std::nullopt);
    co_return false;
}

// The Google service does not report partial mutations yet; every failure is
// a whole one.
QCoro::Task<bool> AppStore::recoverPartialGoogleMutation(std::exception_ptr, GoogleMutationOperation, UUID,
                                                         std::vector<CalendarEvent>, AppSnapshot) {
    co_return false;
}

// --- Standalone meetings -------------------------------------------------

QCoro::Task<std::optional<CalendarEvent>> AppStore::createStandaloneMeeting(QString title, Date start, Date end) {
    QPointer<AppStore> self(this);
    const auto hold = co_await holdTransaction();
    if (!hold) co_return std::nullopt;

    const CalendarSource& local = CalendarSource::tavelo();
    AppSnapshot previous = snapshot();
    auto calendars = calendars_;
    if (std::none_of(calendars.begin(), calendars.end(), [&](const CalendarSource& c) { return c.id == local.id; }))
        calendars.push_back(local);

    EventDraft draft;
    draft.title = std::move(title);
    draft.start = start;
    draft.end = end;
    draft.calendarIDs = {local.id};
    // A new group: the engine needs no events.
    const AppSnapshot context(snapshotVersion_, accounts_, calendars, {}, tags_, preferences_, googleSyncStates_);
    std::vector<CalendarEvent> created;
    try {
        created = EventMutationEngine::create(draft, draft.calendarIDs, context, dateCalendar_);
    } catch (const EventValidationError& error) {
        recordMessage(error.message());
        co_return std::nullopt;
    }
    setCalendars(std::move(calendars));
    showGroup(created.front().groupID, created);

    if (!co_await persistOrRollBack(std::move(previous), std::nullopt)) co_return std::nullopt;
    // No busy blocks come with an event on the local calendar: the first is
    // the meeting itself.
    co_return created.front();
}

QCoro::Task<bool> AppStore::updateStandaloneMeeting(UUID eventID, QString title, Date start, Date end) {
    QPointer<AppStore> self(this);
    const auto hold = co_await holdTransaction();
    if (!hold) co_return false;

    const CalendarEvent* meeting = findEvent(events_, eventID);
    if (!meeting || meeting->isGeneratedBusyBlock || meeting->calendarID != CalendarSource::tavelo().id)
        co_return false;
    if (meeting->title == title && meeting->start == start && meeting->end == end) co_return true;

    AppSnapshot previous = snapshot();
    // A real change, checked above; edited in place rather than by copying
    // the whole list.
    CalendarEvent& changed = events_[static_cast<std::size_t>(meeting - events_.data())];
    changed.title = std::move(title);
    changed.start = start;
    changed.end = end;
    emit eventsChanged();
    co_return co_await persistOrRollBack(std::move(previous), std::nullopt);
}

// --- Availability --------------------------------------------------------

QCoro::Task<EventAvailabilityState> AppStore::eventAvailability(EventDraft draft, DateCalendar calendar) {
    // Only the newest question may answer.
    availabilityQuestion_.request_stop();
    availabilityQuestion_ = std::stop_source();
    const std::stop_source question = availabilityQuestion_;
    const auto service = service_;

    // Which calendars to ask and how to word the answer need accounts,
    // calendars and preferences, not the events.
    AppSnapshot context;
    context.accounts = accounts_;
    context.calendars = calendars_;
    context.preferences = preferences_;
    auto state = co_await AvailabilityPolicy::eventAvailability(service, draft, context, calendar, question.get_token());
    // Asked again meanwhile: this answer is stale.
    if (question.stop_requested()) co_return EventAvailabilityState::loading();
    co_return state;
}

// --- Tags ----------------------------------------------------------------

std::optional<QString> AppStore::validatedTagName(const QString& name, const std::optional<UUID>& excluding) const {
    const QString trimmed = name.trimmed();
    if (trimmed.isEmpty()) return blankTagNameMessage();
    const QString folded = foldedIgnoringCaseAndDiacritics(trimmed, FoldingLocale::current);
    for (const Tag& tag : tags_) {
        if (excluding && tag.id == *excluding) continue;
        if (foldedIgnoringCaseAndDiacritics(tag.name.trimmed(), FoldingLocale::current) == folded)
            return duplicateTagNameMessage();
    }
    return std::nullopt;
}

void AppStore::normalizeTagOrder(std::vector<Tag>& tags) {
    for (std::size_t i = 0; i < tags.size(); ++i) tags[i].sortOrder = static_cast<int>(i);
}

QCoro::Task<bool> AppStore::addTag(Tag tag) {
    QPointer<AppStore> self(this);
    const auto hold = co_await holdTransaction();
    if (!hold) co_return false;

    if (const auto message = validatedTagName(tag.name, tag.id)) {
        recordMessage(*message);
        co_return false;
    }
    tag.name = tag.name.trimmed();
    auto tags = tags_;
    tags.push_back(std::move(tag));
    co_return co_await commitTags(std::move(tags));
}

QCoro::Task<bool> AppStore::updateTag(Tag tag) {
    QPointer<AppStore> self(this);
    const auto hold = co_await holdTransaction();
    if (!hold) co_return false;

    if (const auto message = validatedTagName(tag.name, tag.id)) {
        recordMessage(*message);
        co_return false;
    }
    auto tags = tags_;
    const auto existing = std::find_if(tags.begin(), tags.end(), [&](const Tag& t) { return t.id == tag.id; });
    if (existing == tags.end()) co_return false;
    tag.name = tag.name.trimmed();
    *existing = std::move(tag);
    co_return co_await commitTags(std::move(tags));
}

QCoro::Task<bool> AppStore::deleteTag(UUID tagID) {
    QPointer<AppStore> self(this);
    const auto hold = co_await holdTransaction();
    if (!hold) co_return false;

    if (std::none_of(tags_.begin(), tags_.end(), [&](const Tag& t) { return t.id == tagID; })) co_return false;
    AppSnapshot previous = snapshot();
    auto tags = previous.tags;
    std::erase_if(tags, [&](const Tag& t) { return t.id == tagID; });
    normalizeTagOrder(tags);
    auto events = previous.events;
    for (CalendarEvent& event : events)
        if (event.tagID == tagID) event.tagID.reset();
    setTags(std::move(tags));
    setEvents(std::move(events));
    co_return co_await persistOrRollBack(std::move(previous), std::nullopt);
}

QCoro::Task<bool> AppStore::moveTags(std::set<int> fromOffsets, int toOffset) {
    QPointer<AppStore> self(this);
    const auto hold = co_await holdTransaction();
    if (!hold) co_return false;

    std::vector<Tag> moved;
    std::vector<Tag> staying;
    std::size_t insertAt = 0; // staying tags that stand before `toOffset`
    for (std::size_t i = 0; i < tags_.size(); ++i) {
        if (fromOffsets.contains(static_cast<int>(i))) {
            moved.push_back(tags_[i]);
        } else {
            if (static_cast<long long>(i) < toOffset) ++insertAt;
            staying.push_back(tags_[i]);
        }
    }
    staying.insert(staying.begin() + static_cast<std::ptrdiff_t>(insertAt), std::make_move_iterator(moved.begin()),
                   std::make_move_iterator(moved.end()));
    co_return co_await commitTags(std::move(staying));
}

QCoro::Task<bool> AppStore::setTagOrder(std::vector<UUID> tagIDs) {
    QPointer<AppStore> self(this);
    const auto hold = co_await holdTransaction();
    if (!hold) co_return false;

    std::vector<Tag> ordered;
    ordered.reserve(tags_.size());
    std::vector<bool> placed(tags_.size(), false);
    for (const UUID& id : tagIDs) {
        for (std::size_t i = 0; i < tags_.size(); ++i) {
            if (placed[i] || tags_[i].id != id) continue;
            ordered.push_back(tags_[i]);
            placed[i] = true;
            break;
        }
    }
    for (std::size_t i = 0; i < tags_.size(); ++i)
        if (!placed[i]) ordered.push_back(tags_[i]);
    co_return co_await commitTags(std::move(ordered));
}

QCoro::Task<bool> AppStore::commitTags(std::vector<Tag> tags) {
    normalizeTagOrder(tags);
    // Saved even when nothing changed: every tag operation saves, and its
    // success clears an older message and its retry.
    AppSnapshot previous = snapshot();
    setTags(std::move(tags));
    co_return co_await persistOrRollBack(std::move(previous), std::nullopt);
}

// --- Retry ---------------------------------------------------------------

QCoro::Task<void> AppStore::retryLastOperation() {
    if (!retryOperation_) co_return;
    const StoreRetryOperation operation = *retryOperation_;
    using Kind = StoreRetryOperation::Kind;
    switch (operation.kind()) {
    case Kind::load:
        co_await load();
        break;
    case Kind::persist:
        try {
            co_await persist();
        } catch (const std::exception& error) {
            // Already on screen, with the same retry offer.
            qCInfo(lcAppStore) << "retried save failed again:" << error.what();
        }
        break;
    case Kind::setCalendarVisibility: {
        const auto& retry = *operation.as<StoreRetryOperation::SetCalendarVisibility>();
        co_await setCalendarVisibility(retry.id, retry.isVisible);
        break;
    }
    case Kind::updatePreferences:
        co_await updatePreferencesNow(operation.as<StoreRetryOperation::UpdatePreferences>()->preferences);
        break;
    case Kind::includePastSearchResults:
        co_await setPastSearchResultsIncluded(operation.as<StoreRetryOperation::IncludePastSearchResults>()->isIncluded);
        break;
    case Kind::setTaskCompletion: {
        const auto& retry = *operation.as<StoreRetryOperation::SetTaskCompletion>();
        co_await setTaskCompletion(retry.eventID, retry.isCompleted);
        break;
    }
    case Kind::syncGoogleAccount:
        co_await retrySyncGoogleAccount(operation.as<StoreRetryOperation::SyncGoogleAccount>()->accountID);
        break;
    case Kind::syncAllGoogleAccounts:
        co_await retrySyncAllGoogleAccounts();
        break;
    case Kind::reconnectGoogleAccount:
        co_await retryGoogleAuthentication(operation.as<StoreRetryOperation::ReconnectGoogleAccount>()->accountID);
        break;
    case Kind::connectGoogleAccount:
        co_await retryGoogleAuthentication(std::nullopt);
        break;
    case Kind::googleMutation:
        co_await retryGoogleMutation(operation.as<StoreRetryOperation::GoogleMutation>()->mutation);
        break;
    }
}

// The Google actions that these lead to arrive with the account operations.
QCoro::Task<void> AppStore::retrySyncGoogleAccount(UUID) {
    co_return;
}

QCoro::Task<void> AppStore::retrySyncAllGoogleAccounts() {
    co_return;
}

QCoro::Task<void> AppStore::retryGoogleAuthentication(std::optional<UUID>) {
    co_return;
}

QCoro::Task<void> AppStore::retryGoogleMutation(PendingGoogleMutation) {
    co_return;
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

void AppStore::setGoogleSyncWarnings(std::map<UUID, std::vector<GoogleSyncWarning>> value) {
    if (assignIfChanged(googleSyncWarnings_, std::move(value))) emit googleSyncWarningsChanged();
}

} // namespace tavelo
