#include "views/timegrid/TimeGrid.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace tavelo {

namespace {

struct GroupMember {
    std::size_t index;
    const DisplayedEvent* event;
    int lane;
};

bool overlaps(const CalendarEvent& a, const CalendarEvent& b) {
    return a.start < b.end && b.start < a.end;
}

void finishGroup(const std::vector<GroupMember>& group, int laneCount, std::vector<std::optional<EventLayout>>& placed) {
    for (const GroupMember& member : group) {
        int span = 1;
        for (int lane = member.lane + 1; lane < laneCount; ++lane) {
            const bool blocked = std::any_of(group.begin(), group.end(), [&](const GroupMember& other) {
                return other.lane == lane && overlaps(other.event->primary, member.event->primary);
            });
            if (blocked) break;
            ++span;
        }
        placed[member.index] = EventLayout{*member.event, member.lane, laneCount, span};
    }
}

} // namespace

std::vector<EventLayout> EventLayout::lanes(std::span<const DisplayedEvent> events) {
    std::vector<std::size_t> order(events.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return events[a].primary.start < events[b].primary.start;
    });

    std::vector<std::optional<EventLayout>> placed(events.size());
    std::vector<Date> laneEnds;
    std::vector<GroupMember> group;
    std::optional<Date> groupEnd;

    for (std::size_t index : order) {
        const CalendarEvent& event = events[index].primary;
        if (groupEnd && event.start >= *groupEnd) {
            finishGroup(group, static_cast<int>(laneEnds.size()), placed);
            laneEnds.clear();
            group.clear();
            groupEnd.reset();
        }
        const auto free = std::find_if(laneEnds.begin(), laneEnds.end(), [&](Date end) { return end <= event.start; });
        int lane;
        if (free != laneEnds.end()) {
            *free = event.end;
            lane = static_cast<int>(free - laneEnds.begin());
        } else {
            laneEnds.push_back(event.end);
            lane = static_cast<int>(laneEnds.size()) - 1;
        }
        group.push_back({index, &events[index], lane});
        groupEnd = groupEnd ? std::max(*groupEnd, event.end) : event.end;
    }
    finishGroup(group, static_cast<int>(laneEnds.size()), placed);

    std::vector<EventLayout> result;
    result.reserve(placed.size());
    for (auto& slot : placed) result.push_back(std::move(*slot));
    return result;
}

std::optional<DateInterval> TimeGridHours::interval(Date date, const DateCalendar& calendar) const {
    const Date dayStart = calendar.startOfDay(date);
    const auto end = lastHour < 24 ? calendar.adding(DateCalendar::Unit::hour, lastHour, dayStart)
                                   : calendar.adding(DateCalendar::Unit::day, 1, dayStart);
    const auto start = calendar.adding(DateCalendar::Unit::hour, firstHour, dayStart);
    if (!start || !end) return std::nullopt;
    return DateInterval{*start, *end};
}

bool TimeGridHours::contains(Date date, Date day, const DateCalendar& calendar) const {
    const auto range = interval(day, calendar);
    return range && date >= range->start && date < range->end;
}

std::optional<Date> TimeGridGeometry::slotDate(GridPoint point) const {
    if (days.empty()) return std::nullopt;
    const int last = static_cast<int>(days.size()) - 1;
    int index = 0;
    if (dayWidth > 0) {
        const double raw = std::trunc((point.x - TimeGridMetrics::gutterWidth) / dayWidth);
        index = static_cast<int>(std::clamp(raw, 0.0, static_cast<double>(last)));
    }
    const auto range = hours.interval(days[static_cast<std::size_t>(index)], calendar);
    if (!range) return std::nullopt;

    const double limit = range->duration() / 60.0 - TimeGridMetrics::snapMinutes;
    double minutes = point.y / TimeGridMetrics::hourHeight * 60.0;
    if (minutes <= 0) minutes = 0;
    if (minutes > limit) minutes = std::max(limit, 0.0);
    const double snapped = std::floor(minutes / TimeGridMetrics::snapMinutes) * TimeGridMetrics::snapMinutes;
    return range->start.addingSeconds(snapped * 60.0);
}

namespace TimeGridDragMath {

DateInterval createInterval(Date anchor, Date current) {
    return {std::min(anchor, current), std::max(anchor, current).addingSeconds(TimeGridMetrics::snapSeconds)};
}

DateInterval resizedInterval(DateInterval interval, GridSize translation) {
    const double steps = std::trunc(translation.height / TimeGridMetrics::hourHeight * 60.0 / TimeGridMetrics::snapMinutes);
    const Date end = interval.end.addingSeconds(steps * TimeGridMetrics::snapSeconds);
    return {interval.start, std::max(end, interval.start.addingSeconds(TimeGridMetrics::snapSeconds))};
}

std::optional<DateInterval> movedInterval(DateInterval interval, GridSize translation, double dayWidth,
                                          const DateCalendar& calendar) {
    // std::round rounds halves away from zero.
    const int days = dayWidth > 0 ? static_cast<int>(std::round(translation.width / dayWidth)) : 0;
    const int minutes = static_cast<int>(std::round(translation.height / TimeGridMetrics::hourHeight * 60.0 /
                                                    TimeGridMetrics::snapMinutes)) *
                        TimeGridMetrics::snapMinutes;
    const auto shiftedDay = calendar.adding(DateCalendar::Unit::day, days, interval.start);
    if (!shiftedDay) return std::nullopt;
    const auto start = calendar.adding(DateCalendar::Unit::minute, minutes, *shiftedDay);
    if (!start) return std::nullopt;
    return DateInterval{*start, start->addingSeconds(interval.duration())};
}

} // namespace TimeGridDragMath

const DateInterval& TimeGridDrag::interval() const {
    return std::visit([](const auto& drag) -> const DateInterval& { return drag.interval; }, value);
}

std::optional<UUID> TimeGridDrag::eventID() const {
    if (const auto* move = std::get_if<Move>(&value)) return move->eventID;
    if (const auto* resize = std::get_if<Resize>(&value)) return resize->eventID;
    return std::nullopt;
}

bool TimeGridDragState::commit(const UUID& eventID, const OnMove& onMove) {
    if (!drag_ || drag_->eventID() != eventID) return false;
    const DateInterval interval = drag_->interval();
    drag_.reset();
    if (onMove) onMove(eventID, interval);
    return true;
}

std::optional<DateInterval> TimeGridDragState::finishCreate() {
    if (!drag_ || !std::holds_alternative<TimeGridDrag::Create>(drag_->value)) return std::nullopt;
    const DateInterval interval = drag_->interval();
    drag_.reset();
    return interval;
}

} // namespace tavelo
