#include "stores/SceneState.h"

#include "stores/EventAccessPolicy.h"
#include "support/Observable.h"

namespace tavelo {

QString EditorPresentation::id() const {
    return editedEventID ? QStringLiteral("edit-") + editedEventID->toString() : QStringLiteral("create");
}

SceneState::SceneState(Date selectedDate, QObject* parent) : QObject(parent), selectedDate_(selectedDate) {}

void SceneState::setNavigation(NavigationItem item) { if (assignIfChanged(navigation_, item)) emit navigationChanged(); }

void SceneState::setCalendarNavigation(NavigationItem item) {
    if (assignIfChanged(calendarNavigation_, item)) emit calendarNavigationChanged();
}

void SceneState::setSettingsSection(SettingsSection section) {
    if (assignIfChanged(settingsSection_, section)) emit settingsSectionChanged();
}

void SceneState::setSelectedDate(Date date) { if (assignIfChanged(selectedDate_, date)) emit selectedDateChanged(); }

void SceneState::setSelectedEventID(std::optional<UUID> id) {
    if (assignIfChanged(selectedEventID_, id)) emit selectedEventIDChanged();
}

void SceneState::setSelectedEventAnchor(std::optional<EventPopoverAnchor> anchor) {
    if (assignIfChanged(selectedEventAnchor_, std::move(anchor))) emit selectedEventAnchorChanged();
}

void SceneState::setEditorPresentation(std::optional<EditorPresentation> presentation) {
    if (assignIfChanged(editorPresentation_, std::move(presentation))) emit editorPresentationChanged();
}

void SceneState::setPendingEventDraft(std::optional<EventDraft> draft) {
    if (assignIfChanged(pendingEventDraft_, std::move(draft))) emit pendingEventDraftChanged();
}

void SceneState::selectNavigation(NavigationItem item) {
    setNavigation(item);
    if (item == NavigationItem::week || item == NavigationItem::month) setCalendarNavigation(item);
    closeEventDetail();
}

void SceneState::selectEvent(const EventPopoverAnchor& anchor, const std::vector<CalendarEvent>& events) {
    const auto target = EventAccessPolicy::detailEvent(anchor.eventID, events);
    setSelectedEventID(target ? std::optional<UUID>(target->id) : std::nullopt);
    setSelectedEventAnchor(anchor);
}

void SceneState::closeEventDetail() {
    setSelectedEventID(std::nullopt);
    setSelectedEventAnchor(std::nullopt);
}

bool SceneState::isEventDetailPresented(const EventPopoverAnchor& anchor) const {
    return selectedEventID_.has_value() && selectedEventAnchor_ == anchor;
}

void SceneState::moveSelectedDate(int by, const DateCalendar& calendar) {
    const auto unit = navigation_ == NavigationItem::month ? DateCalendar::Unit::month : DateCalendar::Unit::weekOfYear;
    if (auto moved = calendar.adding(unit, by, selectedDate_)) setSelectedDate(*moved);
}

} // namespace tavelo
