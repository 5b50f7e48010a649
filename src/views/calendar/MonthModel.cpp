#include "views/calendar/MonthModel.h"

#include "stores/AppStore.h"
#include "stores/SceneState.h"
#include "support/CalendarMath.h"
#include "views/calendar/CalendarViewSupport.h"

#include <algorithm>

namespace tavelo {

namespace Support = CalendarViewSupport;

MonthModel::MonthModel(QObject* parent) : QObject(parent), days_(new DayListModel(this)) {}

QObject* MonthModel::store() const { return store_; }
QObject* MonthModel::scene() const { return scene_; }

void MonthModel::setStore(QObject* object) {
    AppStore* store = Support::appStore(object);
    if (!store_.follow(store)) return;
    store_.on({&AppStore::eventsChanged, &AppStore::calendarsChanged, &AppStore::preferencesChanged}, this, &MonthModel::rebuild);
    emit storeChanged();
    rebuild();
}

void MonthModel::setScene(QObject* object) {
    SceneState* scene = Support::sceneState(object);
    if (!scene_.follow(scene)) return;
    scene_.on(&SceneState::selectedDateChanged, this, &MonthModel::rebuild);
    emit sceneChanged();
    rebuild();
}

void MonthModel::setMaxItemsPerDay(int count) {
    count = std::max(1, count);
    if (count == maxItemsPerDay_) return;
    maxItemsPerDay_ = count;
    emit maxItemsPerDayChanged();
    rebuild();
}

void MonthModel::rebuild() {
    if (!store_) {
        gridDays_.clear();
        days_->setRows({});
        return;
    }
    const DateCalendar& calendar = store_->dateCalendar();
    const Date selected = scene_ ? scene_->selectedDate() : Date::now();
    gridDays_ = CalendarMath::monthGrid(selected, calendar);
    const auto shown = calendar.components(selected);
    const QString title = QStringLiteral("%1年%2月").arg(shown.year).arg(shown.month);
    if (title != titleText_) {
        titleText_ = title;
        emit titleTextChanged();
    }
    const auto gridEnd = gridDays_.empty() ? std::nullopt : calendar.adding(DateCalendar::Unit::day, 1, gridDays_.back());
    if (!gridEnd) {
        days_->setRows({});
        return;
    }
    const std::vector<DisplayedEvent> entries = Support::visibleEntries(*store_, {gridDays_.front(), *gridEnd});
    const auto colors = Support::calendarColors(*store_);
    const Date today = calendar.startOfDay(Date::now());
    const Date selectedDay = calendar.startOfDay(selected);

    std::vector<DayRow> rows;
    rows.reserve(gridDays_.size());
    for (std::size_t d = 0; d < gridDays_.size(); ++d) {
        const Date dayStart = gridDays_[d];
        const Date dayEnd = d + 1 < gridDays_.size() ? gridDays_[d + 1] : *gridEnd;
        DayRow row = Support::dayRow(dayStart, selectedDay, today, calendar);
        row.isInMonth = calendar.components(dayStart).month == shown.month;
        std::vector<const DisplayedEvent*> inDay;
        // Entries are in start order: none after the first that starts
        // past the day.
        for (std::size_t i = 0; i < entries.size(); ++i) {
            const CalendarEvent& event = entries[i].primary;
            if (!(event.start < dayEnd)) break;
            if (event.end > dayStart || (event.start == event.end && event.start >= dayStart)) inDay.push_back(&entries[i]);
        }
        // All-day entries first, then by start.
        std::stable_sort(inDay.begin(), inDay.end(), [](const DisplayedEvent* a, const DisplayedEvent* b) {
            return a->primary.isAllDay && !b->primary.isAllDay;
        });
        row.itemCount = static_cast<int>(inDay.size());
        const int shownCount = row.itemCount > maxItemsPerDay_ ? maxItemsPerDay_ - 1 : row.itemCount;
        for (int i = 0; i < shownCount; ++i) {
            const CalendarEvent& event = inDay[static_cast<std::size_t>(i)]->primary;
            const auto color = colors.find(event.calendarID);
            row.items.push_back(DayItem{inDay[static_cast<std::size_t>(i)]->id(), event.title,
                                        event.isAllDay ? QString() : Support::clockText(std::max(event.start, dayStart), calendar),
                                        color == colors.end() ? QString() : color->second, event.isAllDay,
                                        event.isGeneratedBusyBlock, false,
                                        static_cast<int>(std::max<std::size_t>(1, inDay[static_cast<std::size_t>(i)]->calendarIDs.size()))});
        }
        if (shownCount < row.itemCount)
            row.overflowText = QStringLiteral("他 %1 件").arg(row.itemCount - shownCount);
        rows.push_back(std::move(row));
    }
    days_->setRows(std::move(rows));
}

void MonthModel::openDetail(const QString& eventId, int dayIndex) {
    const auto id = UUID::fromString(eventId);
    if (!id || !scene_ || !store_ || dayIndex < 0 || dayIndex >= static_cast<int>(gridDays_.size())) return;
    scene_->selectEvent({*id, EventPopoverAnchor::Month{gridDays_[static_cast<std::size_t>(dayIndex)]}}, store_->events());
}

bool MonthModel::isDetailPresented(const QString& eventId, int dayIndex) const {
    const auto id = UUID::fromString(eventId);
    if (!id || !scene_ || dayIndex < 0 || dayIndex >= static_cast<int>(gridDays_.size())) return false;
    return scene_->isEventDetailPresented({*id, EventPopoverAnchor::Month{gridDays_[static_cast<std::size_t>(dayIndex)]}});
}

void MonthModel::createOnDay(int dayIndex) {
    if (!scene_ || !store_ || dayIndex < 0 || dayIndex >= static_cast<int>(gridDays_.size())) return;
    EventDraft draft;
    draft.isAllDay = true;
    draft.start = gridDays_[static_cast<std::size_t>(dayIndex)];
    draft.end = draft.start; // all-day drafts count their last day inclusively
    for (const CalendarSource& calendar : store_->calendars())
        if (calendar.isVisible) {
            draft.calendarIDs.push_back(calendar.id);
            break;
        }
    scene_->setPendingEventDraft(std::move(draft));
    scene_->setEditorPresentation(EditorPresentation::create());
}

void MonthModel::selectDay(int dayIndex) {
    if (!scene_ || dayIndex < 0 || dayIndex >= static_cast<int>(gridDays_.size())) return;
    scene_->setSelectedDate(gridDays_[static_cast<std::size_t>(dayIndex)]);
}

void MonthModel::moveSelection(int days) {
    if (!scene_ || !store_) return;
    if (const auto date = store_->dateCalendar().adding(DateCalendar::Unit::day, days, scene_->selectedDate()))
        scene_->setSelectedDate(*date);
}

} // namespace tavelo
