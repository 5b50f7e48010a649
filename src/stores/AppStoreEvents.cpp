// AppStore: creating, editing, moving and deleting events, meetings without an invitation, availability.

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

using appstore::releaseInBackground;

// --- Events --------------------------------------------------------------

namespace {

const CalendarEvent* findEvent(const std::vector<CalendarEvent>& events, const UUID& id) {
    const auto found = std::find_if(events.begin(), events.end(), [&](const CalendarEvent& e) { return e.id == id; });
    return found == events.end() ? nullptr : &*found;
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

    // The built-in local calendar joins the calendar list the first time an
    // event is made on it, as it does for a standalone meeting; without it a
    // newcomer with no Google account could not make any event.
    const CalendarSource& local = CalendarSource::tavelo();
    if (isCreation && std::find(draft.calendarIDs.begin(), draft.calendarIDs.end(), local.id) != draft.calendarIDs.end() &&
        std::none_of(calendars_.begin(), calendars_.end(), [&](const CalendarSource& c) { return c.id == local.id; })) {
        Undo undo = undoPoint();
        auto calendars = calendars_;
        calendars.push_back(local);
        setCalendars(std::move(calendars));
        if (!co_await persistOrRollBack(std::move(undo), std::nullopt)) co_return false;
        if (!self) co_return false;
    }

    // The engine reads the accounts, calendars, tags and preferences, and of
    // the events only the group under edit; the rest of a large list is not
    // copied for it, nor for the rollback.
    Undo undo = undoPoint();
    if (!isCreation) undo.group = groupPlaces(*draft.groupID);
    AppSnapshot context = undo.rest;
    for (const auto& [place, event] : undo.group.events) context.events.push_back(event);
    std::vector<CalendarEvent> group;
    try {
        group = isCreation ? EventMutationEngine::create(draft, draft.calendarIDs, context, dateCalendar_)
                           : EventMutationEngine::update(*draft.groupID, draft, context, dateCalendar_);
    } catch (const EventValidationError& error) {
        recordMessage(error.message());
        co_return false;
    }
    const UUID groupID = isCreation ? group.front().groupID : *draft.groupID;
    undo.groupID = groupID;

    // On screen at once; the service's answer replaces it below. A new
    // group goes after everything else, where showing it would put it,
    // without looking through the whole list for members it cannot have.
    bool shown = true;
    if (isCreation) {
        events_.insert(events_.end(), group.begin(), group.end());
        emit eventsChanged();
    } else {
        shown = showGroup(groupID, group);
    }

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
    // The screen goes back to the state before the change before anything
    // else looks at it.
    if (failure && shown) rollBack(std::move(undo));
    co_return co_await concludeEventMutation(std::move(stored), failure, groupID, std::move(group));
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
    Undo undo = undoPoint();
    undo.groupID = groupID;
    undo.group = groupPlaces(groupID);
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
    if (failure) rollBack(std::move(undo));
    co_return co_await concludeEventMutation(std::move(stored), failure, groupID, std::move(desiredGroup));
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
                                                  UUID groupID,
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
    // A mutation that reached some of its Google calendars is not undone:
    // what the service holds is shown and the rest is offered.
    if (auto report = partialMutationReport(failure)) {
        co_await handlePartialGoogleMutation(std::move(*report), groupID, std::move(desiredGroup));
        co_return false;
    }
    recordMutationFailure(failure, std::nullopt);
    co_return false;
}

// --- Standalone meetings -------------------------------------------------

QCoro::Task<std::optional<CalendarEvent>> AppStore::createStandaloneMeeting(QString title, Date start, Date end) {
    QPointer<AppStore> self(this);
    const auto hold = co_await holdTransaction();
    if (!hold) co_return std::nullopt;

    const CalendarSource& local = CalendarSource::tavelo();
    Undo undo = undoPoint();
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
    // A new group: after everything else.
    undo.groupID = created.front().groupID;
    events_.insert(events_.end(), created.begin(), created.end());
    emit eventsChanged();

    if (!co_await persistOrRollBack(std::move(undo), std::nullopt)) co_return std::nullopt;
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

    // A real change, checked above; edited in place rather than by copying
    // the whole list.
    Undo undo = undoPoint();
    const auto place = static_cast<std::size_t>(meeting - events_.data());
    undo.edited.emplace_back(place, *meeting);
    CalendarEvent& changed = events_[place];
    changed.title = std::move(title);
    changed.start = start;
    changed.end = end;
    emit eventsChanged();
    co_return co_await persistOrRollBack(std::move(undo), std::nullopt);
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


} // namespace tavelo
