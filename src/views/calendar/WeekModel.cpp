#include "views/calendar/WeekModel.h"

#include "ai/AICloudStore.h"
#include "stores/AppStore.h"
#include "stores/SceneState.h"
#include "support/CalendarMath.h"
#include "views/calendar/CalendarViewSupport.h"

#include <QCoro/QCoroTask>
#include <QSettings>

#include <algorithm>
#include <cmath>

namespace tavelo {

namespace Support = CalendarViewSupport;

namespace {

std::optional<UUID> uuidOf(const QString& text) { return UUID::fromString(text); }

// Index of the day in `days` holding `date`, or -1.
int dayIndexOf(Date date, const std::vector<Date>& days, const DateCalendar& calendar) {
    if (days.empty() || date < days.front()) return -1;
    for (std::size_t i = days.size(); i-- > 0;)
        if (date >= days[i]) {
            if (i + 1 == days.size()) {
                const auto end = calendar.adding(DateCalendar::Unit::day, 1, days[i]);
                if (!end || date >= *end) return -1;
            }
            return static_cast<int>(i);
        }
    return -1;
}

} // namespace

WeekModel::WeekModel(QObject* parent)
    : QObject(parent), days_(new DayListModel(this)), allDayItems_(new CalendarItemModel(this)),
      timedItems_(new CalendarItemModel(this)), aiItems_(new CalendarItemModel(this)) {
    const QSettings settings;
    hours_.firstHour = std::clamp(settings.value(QStringLiteral("firstHour"), 0).toInt(), 0, 23);
    hours_.lastHour = std::clamp(settings.value(QStringLiteral("lastHour"), 24).toInt(), hours_.firstHour + 1, 24);
    initialScrollHour_ = std::clamp(settings.value(QStringLiteral("initialScrollHour"), 8).toInt(), 0, 23);
}

WeekModel::~WeekModel() = default;

QObject* WeekModel::store() const { return store_; }
QObject* WeekModel::scene() const { return scene_; }
QObject* WeekModel::cloud() const { return cloud_; }

void WeekModel::setStore(QObject* object) {
    AppStore* store = Support::appStore(object);
    if (!store_.follow(store)) return;
    store_.on({&AppStore::eventsChanged, &AppStore::calendarsChanged, &AppStore::preferencesChanged}, this, &WeekModel::rebuild);
    emit storeChanged();
    rebuild();
}

void WeekModel::setScene(QObject* object) {
    SceneState* scene = Support::sceneState(object);
    if (!scene_.follow(scene)) return;
    scene_.on(&SceneState::selectedDateChanged, this, &WeekModel::rebuild);
    emit sceneChanged();
    rebuild();
}

void WeekModel::setCloud(QObject* object) {
    AICloudStore* cloud = Support::cloudStore(object);
    if (!cloud_.follow(cloud)) return;
    cloud_.on(&AICloudStore::stateChanged, this, &WeekModel::rebuildAIItems);
    emit cloudChanged();
    rebuildAIItems();
}

void WeekModel::setDayWidth(double width) {
    if (width == dayWidth_ || !(width > 0)) return;
    dayWidth_ = width;
    emit dayWidthChanged();
}

void WeekModel::setFirstHour(int hour) {
    hour = std::clamp(hour, 0, hours_.lastHour - 1);
    if (hour == hours_.firstHour) return;
    hours_.firstHour = hour;
    emit hoursChanged();
    rebuild();
}

void WeekModel::setLastHour(int hour) {
    hour = std::clamp(hour, hours_.firstHour + 1, 24);
    if (hour == hours_.lastHour) return;
    hours_.lastHour = hour;
    emit hoursChanged();
    rebuild();
}

TimeGridGeometry WeekModel::geometry() const {
    return TimeGridGeometry(weekDays_, dayWidth_, store_ ? store_->dateCalendar() : DateCalendar::current(), hours_);
}

void WeekModel::rebuild() {
    if (!store_) {
        weekDays_.clear();
        days_->setRows({});
        allDayItems_->setRows({});
        timedItems_->setRows({});
        aiItems_->setRows({});
        return;
    }
    const DateCalendar& calendar = store_->dateCalendar();
    const Date selected = scene_ ? scene_->selectedDate() : Date::now();
    weekDays_ = CalendarMath::daysInWeek(selected, calendar);
    const Date today = calendar.startOfDay(Date::now());
    const Date selectedDay = calendar.startOfDay(selected);

    std::vector<DayRow> dayRows;
    for (Date day : weekDays_) dayRows.push_back(Support::dayRow(day, selectedDay, today, calendar));
    days_->setRows(std::move(dayRows));

    QString range;
    std::optional<Date> weekEnd;
    if (!weekDays_.empty()) {
        weekEnd = calendar.adding(DateCalendar::Unit::day, 1, weekDays_.back());
        const auto first = calendar.components(weekDays_.front());
        const auto last = calendar.components(weekDays_.back());
        range = first.month == last.month
                    ? QStringLiteral("%1年%2月%3日 – %4日").arg(first.year).arg(first.month).arg(first.day).arg(last.day)
                    : QStringLiteral("%1年%2月%3日 – %4月%5日").arg(first.year).arg(first.month).arg(first.day).arg(last.month).arg(last.day);
    }
    if (range != rangeText_) {
        rangeText_ = range;
        emit rangeTextChanged();
    }
    if (!weekEnd) {
        allDayItems_->setRows({});
        timedItems_->setRows({});
    } else {
        rebuildTimedAndAllDay(Support::visibleEntries(*store_, {weekDays_.front(), *weekEnd}));
    }
    rebuildAIItems();
    refreshNow();
}

void WeekModel::rebuildTimedAndAllDay(const std::vector<DisplayedEvent>& entries) {
    const DateCalendar& calendar = store_->dateCalendar();
    const auto colors = Support::calendarColors(*store_);
    const Date now = Date::now();
    const auto colorOf = [&](const CalendarEvent& event) {
        const auto found = colors.find(event.calendarID);
        return found == colors.end() ? QString() : found->second;
    };
    std::vector<Date> dayEnds;
    for (Date day : weekDays_) dayEnds.push_back(calendar.adding(DateCalendar::Unit::day, 1, day).value_or(day));

    // All-day bars, stacked in rows first come first served.
    std::vector<CalendarItemRow> allDay;
    std::vector<int> rowEnds; // last day index taken in each stacking row
    std::vector<std::vector<const DisplayedEvent*>> perDay(weekDays_.size());
    for (const DisplayedEvent& entry : entries) {
        const CalendarEvent& event = entry.primary;
        int first = -1, last = -1;
        for (std::size_t d = 0; d < weekDays_.size(); ++d) {
            if (event.start < dayEnds[d] && (event.end > weekDays_[d] || (event.end == event.start && event.start == weekDays_[d]))) {
                if (first < 0) first = static_cast<int>(d);
                last = static_cast<int>(d);
            }
        }
        if (first < 0) continue;
        if (!event.isAllDay) {
            for (int d = first; d <= last; ++d) perDay[static_cast<std::size_t>(d)].push_back(&entry);
            continue;
        }
        int stack = 0;
        while (stack < static_cast<int>(rowEnds.size()) && rowEnds[static_cast<std::size_t>(stack)] >= first) ++stack;
        if (stack == static_cast<int>(rowEnds.size())) rowEnds.push_back(last);
        else rowEnds[static_cast<std::size_t>(stack)] = last;
        CalendarItemRow row;
        row.eventID = entry.id();
        row.dayIndex = first;
        row.dayCount = last - first + 1;
        row.lane = stack;
        row.title = event.title;
        row.timeText = Support::timeRangeText(event, calendar);
        row.colorHex = colorOf(event);
        row.start = event.start;
        row.end = event.end;
        row.calendarCount = static_cast<int>(std::max<std::size_t>(1, entry.calendarIDs.size()));
        row.isAllDay = true;
        row.isBusyBlock = event.isGeneratedBusyBlock;
        row.isPast = !(event.end > now);
        allDay.push_back(std::move(row));
    }
    allDayItems_->setRows(std::move(allDay));
    const int stackRows = static_cast<int>(rowEnds.size());
    if (stackRows != allDayRowCount_) {
        allDayRowCount_ = stackRows;
        emit allDayRowCountChanged();
    }

    // Timed entries: lanes per day column, clipped to the shown hours.
    std::vector<CalendarItemRow> timed;
    std::vector<DisplayedEvent> dayEntries;
    for (std::size_t d = 0; d < weekDays_.size(); ++d) {
        const auto grid = hours_.interval(weekDays_[d], calendar);
        if (!grid) continue;
        dayEntries.clear();
        for (const DisplayedEvent* entry : perDay[d])
            if (entry->primary.start < grid->end && entry->primary.end > grid->start) dayEntries.push_back(*entry);
        for (EventLayout& layout : EventLayout::lanes(dayEntries)) {
            const CalendarEvent& event = layout.event.primary;
            const Date top = std::max(event.start, grid->start);
            const Date bottom = std::min(event.end, grid->end);
            CalendarItemRow row;
            row.eventID = layout.event.id();
            row.dayIndex = static_cast<int>(d);
            row.lane = layout.lane;
            row.laneCount = layout.laneCount;
            row.laneSpan = layout.laneSpan;
            row.top = top.secondsSince(grid->start) / 60.0 * TimeGridMetrics::hourHeight / 60.0;
            row.height = bottom.secondsSince(top) / 60.0 * TimeGridMetrics::hourHeight / 60.0;
            row.title = event.title;
            row.timeText = Support::timeRangeText(event, calendar);
            row.colorHex = colorOf(event);
            row.start = event.start;
            row.end = event.end;
            row.calendarCount = static_cast<int>(std::max<std::size_t>(1, layout.event.calendarIDs.size()));
            row.isBusyBlock = event.isGeneratedBusyBlock;
            row.isPast = !(event.end > now);
            timed.push_back(std::move(row));
        }
    }
    timedItems_->setRows(std::move(timed));
}

std::vector<CalendarItemRow> WeekModel::aiRows(const AICloudState& state, const std::vector<Date>& days,
                                               TimeGridHours hours, const DateCalendar& calendar) {
    std::vector<CalendarItemRow> rows;
    for (std::size_t d = 0; d < days.size(); ++d) {
        const auto grid = hours.interval(days[d], calendar);
        if (!grid) continue;
        int ordinal = 0;
        for (const AIOccurrence& occurrence : state.occurrences(days[d], calendar)) {
            if (occurrence.date < grid->start || !(occurrence.date < grid->end)) continue;
            CalendarItemRow row;
            row.eventID = occurrence.schedule.id;
            row.dayIndex = static_cast<int>(d);
            row.lane = ordinal++;
            row.top = occurrence.date.secondsSince(grid->start) / 60.0 * TimeGridMetrics::hourHeight / 60.0;
            row.height = TimeGridMetrics::snapMinutes * TimeGridMetrics::hourHeight / 60.0;
            row.title = occurrence.schedule.title;
            row.timeText = Support::clockText(occurrence.date, calendar);
            row.start = occurrence.date;
            row.end = occurrence.date;
            row.isAIOccurrence = true;
            // A paused schedule shows faded.
            row.isPast = occurrence.schedule.isPaused;
            rows.push_back(std::move(row));
        }
    }
    return rows;
}

void WeekModel::rebuildAIItems() {
    if (cloud_ && store_) aiItems_->setRows(aiRows(cloud_->state(), weekDays_, hours_, store_->dateCalendar()));
    else aiItems_->setRows({});
}

void WeekModel::refreshNow() {
    int index = -1;
    double y = 0;
    if (store_) {
        const DateCalendar& calendar = store_->dateCalendar();
        const Date now = Date::now();
        index = dayIndexOf(now, weekDays_, calendar);
        if (index >= 0) {
            const auto grid = hours_.interval(weekDays_[static_cast<std::size_t>(index)], calendar);
            if (grid && now >= grid->start && now < grid->end)
                y = now.secondsSince(grid->start) / 60.0 * TimeGridMetrics::hourHeight / 60.0;
            else
                index = -1;
        }
    }
    if (index == nowDayIndex_ && y == nowY_) return;
    nowDayIndex_ = index;
    nowY_ = y;
    emit nowChanged();
}

std::optional<Date> WeekModel::slotDate(double x, double y) const { return geometry().slotDate({x, y}); }

const CalendarEvent* WeekModel::storedEvent(const UUID& id) const {
    if (!store_) return nullptr;
    for (const CalendarEvent& event : store_->events())
        if (event.id == id) return &event;
    return nullptr;
}

QString WeekModel::dragKind() const {
    if (!drag_.drag()) return {};
    switch (drag_.drag()->value.index()) {
    case 0: return QStringLiteral("create");
    case 1: return QStringLiteral("move");
    default: return QStringLiteral("resize");
    }
}

QString WeekModel::dragEventId() const {
    const auto id = drag_.drag() ? drag_.drag()->eventID() : std::nullopt;
    return id ? id->toString() : QString();
}

void WeekModel::setDragState(std::optional<TimeGridDrag> drag) {
    const bool wasActive = drag_.drag().has_value();
    const bool same = drag_.drag() == drag;
    drag_.setDrag(std::move(drag));
    Preview preview;
    if (drag_.drag() && store_) {
        const DateCalendar& calendar = store_->dateCalendar();
        const DateInterval interval = drag_.drag()->interval();
        preview.dayIndex = dayIndexOf(interval.start, weekDays_, calendar);
        if (preview.dayIndex >= 0) {
            if (const auto grid = hours_.interval(weekDays_[static_cast<std::size_t>(preview.dayIndex)], calendar)) {
                const Date top = std::max(interval.start, grid->start);
                const Date bottom = std::min(interval.end, grid->end);
                preview.top = top.secondsSince(grid->start) / 60.0 * TimeGridMetrics::hourHeight / 60.0;
                preview.height = std::max(0.0, bottom.secondsSince(top) / 60.0 * TimeGridMetrics::hourHeight / 60.0);
            }
        }
        preview.timeText = Support::clockText(interval.start, calendar) + QStringLiteral(" – ") +
                           Support::clockText(interval.end, calendar);
    }
    if (same && wasActive == drag_.drag().has_value() && preview == preview_) return;
    preview_ = std::move(preview);
    emit dragChanged();
}

void WeekModel::beginCreate(double x, double y) {
    const auto anchor = slotDate(x, y);
    if (!anchor) return;
    setDragState(TimeGridDrag{TimeGridDrag::Create{*anchor, TimeGridDragMath::createInterval(*anchor, *anchor)}});
}

void WeekModel::updateCreate(double x, double y) {
    const auto* create = drag_.drag() ? std::get_if<TimeGridDrag::Create>(&drag_.drag()->value) : nullptr;
    if (!create) return;
    const auto current = slotDate(x, y);
    if (!current) return;
    setDragState(TimeGridDrag{TimeGridDrag::Create{create->anchor, TimeGridDragMath::createInterval(create->anchor, *current)}});
}

bool WeekModel::finishCreate() {
    TimeGridDragState state = drag_;
    const auto interval = state.finishCreate();
    if (!interval) return false;
    setDragState(std::nullopt);
    if (!scene_ || !store_) return false;
    EventDraft draft;
    draft.start = interval->start;
    draft.end = interval->end;
    // The first visible calendar that is not a generated copy target; the
    // editor lets the user choose others.
    for (const CalendarSource& calendar : store_->calendars())
        if (calendar.isVisible) {
            draft.calendarIDs.push_back(calendar.id);
            break;
        }
    scene_->setPendingEventDraft(std::move(draft));
    scene_->setEditorPresentation(EditorPresentation::create());
    return true;
}

bool WeekModel::beginMove(const QString& eventId) {
    const auto id = uuidOf(eventId);
    const CalendarEvent* event = id ? storedEvent(*id) : nullptr;
    if (!event || event->isGeneratedBusyBlock || event->isAllDay) return false;
    dragOrigin_ = {event->start, event->end};
    setDragState(TimeGridDrag{TimeGridDrag::Move{*id, dragOrigin_}});
    return true;
}

void WeekModel::updateMove(double dx, double dy) {
    const auto* move = drag_.drag() ? std::get_if<TimeGridDrag::Move>(&drag_.drag()->value) : nullptr;
    if (!move || !store_) return;
    const auto moved = TimeGridDragMath::movedInterval(dragOrigin_, {dx, dy}, dayWidth_, store_->dateCalendar());
    if (!moved) return;
    setDragState(TimeGridDrag{TimeGridDrag::Move{move->eventID, *moved}});
}

bool WeekModel::beginResize(const QString& eventId) {
    const auto id = uuidOf(eventId);
    const CalendarEvent* event = id ? storedEvent(*id) : nullptr;
    if (!event || event->isGeneratedBusyBlock || event->isAllDay) return false;
    dragOrigin_ = {event->start, event->end};
    setDragState(TimeGridDrag{TimeGridDrag::Resize{*id, dragOrigin_}});
    return true;
}

void WeekModel::updateResize(double dy) {
    const auto* resize = drag_.drag() ? std::get_if<TimeGridDrag::Resize>(&drag_.drag()->value) : nullptr;
    if (!resize) return;
    setDragState(TimeGridDrag{TimeGridDrag::Resize{resize->eventID, TimeGridDragMath::resizedInterval(dragOrigin_, {0, dy})}});
}

bool WeekModel::finishDrag() {
    if (!drag_.drag()) return false;
    const auto id = drag_.drag()->eventID();
    if (!id) return false;
    const bool isResize = std::holds_alternative<TimeGridDrag::Resize>(drag_.drag()->value);
    const DateInterval interval = drag_.drag()->interval();
    TimeGridDragState state = drag_;
    setDragState(std::nullopt);
    // An unchanged interval is no edit.
    if (interval == dragOrigin_) return false;
    return state.commit(*id, [this, isResize](UUID eventID, DateInterval target) {
        if (isResize) saveResize(eventID, target);
        else saveMove(eventID, target);
    });
}

void WeekModel::cancelDrag() { setDragState(std::nullopt); }

void WeekModel::saveMove(UUID eventID, DateInterval interval) {
    if (!store_) return;
    QCoro::connect(store_->moveEvent(eventID, interval), this, [this](bool saved) { emit dragSaved(saved); });
}

void WeekModel::saveResize(UUID eventID, DateInterval interval) {
    const CalendarEvent* event = storedEvent(eventID);
    if (!event) return;
    std::vector<UUID> calendarIDs;
    for (const CalendarEvent& member : store_->events())
        if (member.groupID == event->groupID && !member.isGeneratedBusyBlock) calendarIDs.push_back(member.calendarID);
    EventDraft draft = EventDraft::fromEvent(*event, std::move(calendarIDs), store_->dateCalendar());
    draft.start = interval.start;
    draft.end = interval.end;
    QCoro::connect(store_->saveEvent(std::move(draft), eventID), this, [this](bool saved) { emit dragSaved(saved); });
}

void WeekModel::openDetail(const QString& eventId, const QString& surface, int dayIndex, int lane) {
    const auto id = uuidOf(eventId);
    if (!id || !scene_ || !store_ || dayIndex < 0 || dayIndex >= static_cast<int>(weekDays_.size())) return;
    const Date day = weekDays_[static_cast<std::size_t>(dayIndex)];
    EventPopoverAnchor anchor{*id, surface == QLatin1String("weekAllDay")
                                       ? EventPopoverAnchor::Surface(EventPopoverAnchor::WeekAllDay{day})
                                       : EventPopoverAnchor::Surface(EventPopoverAnchor::WeekTimed{day, lane})};
    scene_->selectEvent(anchor, store_->events());
}

bool WeekModel::isDetailPresented(const QString& eventId, const QString& surface, int dayIndex, int lane) const {
    const auto id = uuidOf(eventId);
    if (!id || !scene_ || dayIndex < 0 || dayIndex >= static_cast<int>(weekDays_.size())) return false;
    const Date day = weekDays_[static_cast<std::size_t>(dayIndex)];
    const EventPopoverAnchor anchor{*id, surface == QLatin1String("weekAllDay")
                                             ? EventPopoverAnchor::Surface(EventPopoverAnchor::WeekAllDay{day})
                                             : EventPopoverAnchor::Surface(EventPopoverAnchor::WeekTimed{day, lane})};
    return scene_->isEventDetailPresented(anchor);
}

void WeekModel::moveSelection(int days) {
    if (!scene_ || !store_) return;
    if (const auto date = store_->dateCalendar().adding(DateCalendar::Unit::day, days, scene_->selectedDate()))
        scene_->setSelectedDate(*date);
}

void WeekModel::selectDay(int dayIndex) {
    if (!scene_ || dayIndex < 0 || dayIndex >= static_cast<int>(weekDays_.size())) return;
    scene_->setSelectedDate(weekDays_[static_cast<std::size_t>(dayIndex)]);
}

} // namespace tavelo
