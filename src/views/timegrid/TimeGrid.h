#pragma once

// The logic of the week view's time grid without its drawing: lanes of
// overlapping events in a day column, the hours a column shows, the time
// under a point, and the intervals a drag produces.

#include "stores/EventDerivations.h"
#include "support/Date.h"
#include "support/DateCalendar.h"
#include "support/UUID.h"

#include <functional>
#include <optional>
#include <span>
#include <variant>
#include <vector>

namespace tavelo {

// Fixed measures of the grid, in points and seconds.
namespace TimeGridMetrics {
inline constexpr double hourHeight = 60.0;
inline constexpr double gutterWidth = 60.0;
inline constexpr int snapMinutes = 15;
inline constexpr double snapSeconds = 900.0;
} // namespace TimeGridMetrics

struct GridPoint {
    double x = 0;
    double y = 0;
};

struct GridSize {
    double width = 0;
    double height = 0;
};

// One event's place in a day column.
struct EventLayout {
    DisplayedEvent event;
    int lane = 0;
    int laneCount = 1;
    // Lanes it may fill from `lane` to the right; at least 1.
    int laneSpan = 1;

    // The layouts of one day's events, in the order of the input.
    static std::vector<EventLayout> lanes(std::span<const DisplayedEvent> events);
};

// The hours a day column shows.
struct TimeGridHours {
    int firstHour = 0;
    int lastHour = 24;

    // From `firstHour` on the day holding `date` to `lastHour`, or to the next
    // midnight when `lastHour` is 24 or more, so a day with a clock change
    // still ends at midnight.
    std::optional<DateInterval> interval(Date date, const DateCalendar& calendar) const;
    // Start included, end excluded.
    bool contains(Date date, Date day, const DateCalendar& calendar) const;
};

struct TimeGridGeometry {
    TimeGridGeometry(std::vector<Date> days, double dayWidth, DateCalendar calendar, TimeGridHours hours)
        : days(std::move(days)), dayWidth(dayWidth), calendar(std::move(calendar)), hours(hours) {}

    std::vector<Date> days;
    double dayWidth = 0;
    DateCalendar calendar;
    TimeGridHours hours;

    // The top of the 15-minute slot under `point` (grid coordinates, the time
    // gutter included). Points beside the grid fall on the nearest day, points
    // above or below it on its first or last slot.
    std::optional<Date> slotDate(GridPoint point) const;
};

namespace TimeGridDragMath {
// From the earlier of the two slot tops to the end of the later slot.
DateInterval createInterval(Date anchor, Date current);
// The end moves by whole steps toward zero; never closer than one step to
// the start, which stays.
DateInterval resizedInterval(DateInterval interval, GridSize translation);
// The event moved by the nearest whole day and the nearest 15 minutes, in
// calendar components; the duration stays. Nothing when the calendar cannot
// form the new start.
std::optional<DateInterval> movedInterval(DateInterval interval, GridSize translation, double dayWidth,
                                          const DateCalendar& calendar);
} // namespace TimeGridDragMath

// The drag under way.
struct TimeGridDrag {
    struct Create {
        Date anchor;
        DateInterval interval;
        bool operator==(const Create&) const = default;
    };
    struct Move {
        UUID eventID;
        DateInterval interval;
        bool operator==(const Move&) const = default;
    };
    struct Resize {
        UUID eventID;
        DateInterval interval;
        bool operator==(const Resize&) const = default;
    };
    std::variant<Create, Move, Resize> value;

    const DateInterval& interval() const;
    // The event moved or resized; nothing for a create.
    std::optional<UUID> eventID() const;
    bool operator==(const TimeGridDrag&) const = default;
};

// Holds at most one drag and ends it.
class TimeGridDragState {
public:
    using OnMove = std::function<void(UUID eventID, DateInterval interval)>;

    const std::optional<TimeGridDrag>& drag() const { return drag_; }
    void setDrag(std::optional<TimeGridDrag> drag) { drag_ = std::move(drag); }
    void cancel() { drag_.reset(); }

    // Ends the move or resize of `eventID`: hands its interval to `onMove`
    // and clears the drag. Does nothing when the drag under way is for
    // another event or is a create. Answers whether it committed.
    bool commit(const UUID& eventID, const OnMove& onMove);
    // Ends a create drag, giving its interval; nothing for other drags.
    std::optional<DateInterval> finishCreate();

private:
    std::optional<TimeGridDrag> drag_;
};

} // namespace tavelo
