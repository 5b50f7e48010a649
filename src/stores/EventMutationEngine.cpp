#include "stores/EventMutationEngine.h"

#include "support/TextFolding.h"

#include <algorithm>
#include <iterator>

namespace tavelo {

namespace {

// A title rule matches when its text is not blank and occurs in the title,
// ignoring case and diacritics, with no locale.
bool titleMatches(const QString& title, const QString& text) {
    return !text.trimmed().isEmpty() && containsIgnoringCaseAndDiacritics(title, text);
}

std::optional<UUID> matchRules(const QString& title, const UUID& calendarID, const std::vector<Tag>& sortedTags) {
    for (const Tag& tag : sortedTags) {
        for (const TagRule& rule : tag.rules) {
            if (const auto* condition = rule.condition.asCalendarEquals()) {
                if (condition->calendarID == calendarID) return tag.id;
            } else if (const auto* condition = rule.condition.asTitleContains()) {
                if (titleMatches(title, condition->text)) return tag.id;
            }
        }
    }
    return std::nullopt;
}

// A copy of the event on `calendarID` with every draft field set; the tag
// is left to the caller.
CalendarEvent copyFromDraft(const EventDraft& draft, const UUID& groupID, const UUID& calendarID) {
    CalendarEvent event{.id = UUID::random(), .groupID = groupID, .calendarID = calendarID};
    draft.applyTo(event);
    event.tagID = std::nullopt;
    return event;
}

CalendarEvent busyBlock(const EventDraft& draft, const UUID& groupID, const UUID& sourceEventID,
                        const UUID& calendarID) {
    return CalendarEvent{
        .id = UUID::random(),
        .groupID = groupID,
        .sourceEventID = sourceEventID,
        .kind = EventKind::event,
        .title = EventMutationEngine::busyBlockTitle(),
        .start = draft.start,
        .end = draft.end,
        .isAllDay = draft.isAllDay,
        .recurrence = draft.recurrence,
        .calendarID = calendarID,
        .availability = Availability::busy,
        .visibility = EventVisibility::privateDetails,
        .isCompleted = false,
        .isGeneratedBusyBlock = true,
    };
}

// The normalised draft and its usable destinations, validated.
std::vector<UUID> prepare(const EventDraft& normalized, const std::vector<UUID>& requestedIDs, const AppSnapshot& snapshot) {
    auto ids = EventMutationEngine::uniqueCalendarIDs(requestedIDs, snapshot);
    EventMutationEngine::validate(normalized, ids);
    return ids;
}

} // namespace

QString EventMutationEngine::busyBlockTitle() { return QStringLiteral("予定あり"); }

std::vector<CalendarEvent> EventMutationEngine::create(const EventDraft& draft, const std::vector<UUID>& calendarIDs,
                                                       const AppSnapshot& snapshot, const DateCalendar& calendar) {
    EventDraft normalized = draft.normalizedForMutation(calendar);
    const auto ids = prepare(normalized, calendarIDs, snapshot);
    const UUID groupID = UUID::random();
    const auto tags = stableSortedTags(snapshot.tags);

    std::vector<CalendarEvent> events;
    events.reserve(ids.size());
    for (const UUID& calendarID : ids) {
        CalendarEvent event = copyFromDraft(normalized, groupID, calendarID);
        event.tagID = normalized.tagID ? normalized.tagID : matchRules(normalized.title, calendarID, tags);
        events.push_back(std::move(event));
    }

    const UUID primaryID = events.front().id;
    const std::set<UUID> destinations(ids.begin(), ids.end());
    for (const UUID& target : busyBlockCalendarIDs(normalized, destinations, snapshot))
        events.push_back(busyBlock(normalized, groupID, primaryID, target));
    return events;
}

std::vector<CalendarEvent> EventMutationEngine::update(const UUID& groupID, const EventDraft& draft,
                                                       const AppSnapshot& snapshot, const DateCalendar& calendar) {
    EventDraft normalized = draft.normalizedForMutation(calendar);
    std::vector<CalendarEvent> primaries;
    std::vector<CalendarEvent> blocks;
    for (const CalendarEvent& event : snapshot.events) {
        if (event.groupID != groupID) continue;
        (event.isGeneratedBusyBlock ? blocks : primaries).push_back(event);
    }
    const auto ids = prepare(normalized, normalized.calendarIDs, snapshot);
    const auto existingPrimaries = eventsByCalendar(primaries);
    const auto existingBlocks = eventsByCalendar(blocks);
    const auto tags = stableSortedTags(snapshot.tags);

    std::vector<CalendarEvent> events;
    events.reserve(ids.size());
    for (const UUID& calendarID : ids) {
        CalendarEvent event = copyFromDraft(normalized, groupID, calendarID);
        const auto existing = existingPrimaries.find(calendarID);
        if (existing != existingPrimaries.end()) {
            const CalendarEvent& kept = existing->second;
            event.id = kept.id;
            event.sourceEventID = kept.sourceEventID;
            event.googleEventID = kept.googleEventID;
            event.googleETag = kept.googleETag;
            event.googleUpdatedAt = kept.googleUpdatedAt;
            if (!event.externalUID) event.externalUID = kept.externalUID;
            event.tagID = normalized.tagID ? normalized.tagID
                          : kept.tagID     ? kept.tagID
                                           : matchRules(normalized.title, calendarID, tags);
        } else {
            event.tagID = normalized.tagID ? normalized.tagID : matchRules(normalized.title, calendarID, tags);
        }
        events.push_back(std::move(event));
    }

    const UUID primaryID = events.front().id;
    const std::set<UUID> destinations(ids.begin(), ids.end());
    for (const UUID& target : busyBlockCalendarIDs(normalized, destinations, snapshot)) {
        CalendarEvent block = busyBlock(normalized, groupID, primaryID, target);
        const auto existing = existingBlocks.find(target);
        if (existing != existingBlocks.end()) {
            block.id = existing->second.id;
            block.googleEventID = existing->second.googleEventID;
            block.googleETag = existing->second.googleETag;
            block.googleUpdatedAt = existing->second.googleUpdatedAt;
        }
        events.push_back(std::move(block));
    }
    return events;
}

std::vector<CalendarEvent> EventMutationEngine::remove(const UUID& groupID, const AppSnapshot& snapshot) {
    std::vector<CalendarEvent> events;
    events.reserve(snapshot.events.size());
    std::copy_if(snapshot.events.begin(), snapshot.events.end(), std::back_inserter(events),
                 [&](const CalendarEvent& event) { return event.groupID != groupID; });
    return events;
}

void EventMutationEngine::validate(const EventDraft& draft, const std::vector<UUID>& calendarIDs) {
    const bool onlyLocalCalendar = calendarIDs.size() == 1 && calendarIDs.front() == CalendarSource::tavelo().id;
    if (draft.title.trimmed().isEmpty() && !onlyLocalCalendar) throw EventValidationError::blankTitle();
    if (!(draft.end > draft.start)) throw EventValidationError::invalidDateRange();
    if (calendarIDs.empty()) throw EventValidationError::noCalendars();
}

std::vector<UUID> EventMutationEngine::uniqueCalendarIDs(const std::vector<UUID>& ids, const AppSnapshot& snapshot) {
    std::set<UUID> known;
    for (const auto& source : snapshot.calendars) known.insert(source.id);
    std::set<UUID> seen;
    std::vector<UUID> result;
    for (const UUID& id : ids)
        if (known.contains(id) && seen.insert(id).second) result.push_back(id);
    return result;
}

std::vector<UUID> EventMutationEngine::busyBlockCalendarIDs(const EventDraft& draft, const std::set<UUID>& excluding,
                                                            const AppSnapshot& snapshot) {
    const AppPreferences& preferences = snapshot.preferences;
    if (excluding.contains(CalendarSource::tavelo().id) || draft.availability != Availability::busy ||
        !preferences.automaticBusyBlocks)
        return {};

    const auto admits = [&](const CalendarSource& source) {
        switch (preferences.busyBlockScope) {
        case BusyBlockScope::all: return true;
        case BusyBlockScope::custom: return preferences.customBusyBlockCalendarIDs.contains(source.id);
        case BusyBlockScope::workOnly: {
            if (!source.accountID) return false;
            const auto account = std::find_if(snapshot.accounts.begin(), snapshot.accounts.end(),
                                              [&](const Account& a) { return a.id == *source.accountID; });
            return account != snapshot.accounts.end() && account->kind == AccountKind::work;
        }
        }
        return false;
    };

    std::vector<UUID> targets;
    for (const CalendarSource& source : snapshot.calendars)
        if (source.receivesBusyBlocks && !excluding.contains(source.id) && admits(source)) targets.push_back(source.id);
    return targets;
}

std::vector<Tag> EventMutationEngine::stableSortedTags(std::vector<Tag> tags) {
    std::stable_sort(tags.begin(), tags.end(), [](const Tag& a, const Tag& b) { return a.sortOrder < b.sortOrder; });
    return tags;
}

std::optional<UUID> EventMutationEngine::ruleTagID(const QString& title, const UUID& calendarID,
                                                   const std::vector<Tag>& sortedTags) {
    return matchRules(title, calendarID, sortedTags);
}

std::unordered_map<UUID, CalendarEvent> EventMutationEngine::eventsByCalendar(const std::vector<CalendarEvent>& events) {
    std::unordered_map<UUID, CalendarEvent> byCalendar;
    for (const CalendarEvent& event : events) byCalendar.try_emplace(event.calendarID, event);
    return byCalendar;
}

} // namespace tavelo
