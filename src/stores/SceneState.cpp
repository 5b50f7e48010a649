#include "stores/SceneState.h"

#include "stores/EventAccessPolicy.h"

namespace tavelo {

QString EditorPresentation::id() const {
    return editedEventID ? QStringLiteral("edit-") + editedEventID->toString() : QStringLiteral("create");
}

SceneState::SceneState(Date selectedDate, QObject* parent) : QObject(parent), selectedDate_(selectedDate) {}

namespace {

template <class T, class Signal>
void assignIfChanged(SceneState* self, T& field, T value, Signal signal) {
    if (field == value) return;
    field = std::move(value);
    emit(self->*signal)();
}

} // namespace

void SceneState::setNavigation(NavigationItem item) { assignIfChanged(this, navigation_, item, &SceneState::navigationChanged); }

void SceneState::setCalendarNavigation(NavigationItem item) {
    assignIfChanged(this, calendarNavigation_, item, &SceneState::calendarNavigationChanged);
}

void SceneState::setSettingsSection(SettingsSection section) {
    assignIfChanged(this, settingsSection_, section, &SceneState::settingsSectionChanged);
}

void SceneState::setSelectedDate(Date date) { assignIfChanged(this, selectedDate_, date, &SceneState::selectedDateChanged); }

void SceneState::setSelectedEventID(std::optional<UUID> id) {
    assignIfChanged(this, selectedEventID_, id, &SceneState::selectedEventIDChanged);
}

void SceneState::setSelectedEventAnchor(std::optional<EventPopoverAnchor> anchor) {
    assignIfChanged(this, selectedEventAnchor_, std::move(anchor), &SceneState::selectedEventAnchorChanged);
}

void SceneState::setEditorPresentation(std::optional<EditorPresentation> presentation) {
    assignIfChanged(this, editorPresentation_, std::move(presentation), &SceneState::editorPresentationChanged);
}

void SceneState::setPendingEventDraft(std::optional<EventDraft> draft) {
    assignIfChanged(this, pendingEventDraft_, std::move(draft), &SceneState::pendingEventDraftChanged);
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
