#pragma once

#include "views/calendar/RowListModel.h"

#include "support/Date.h"
#include "support/DateCalendar.h"
#include "support/UUID.h"

#include <QString>
#include <qqmlintegration.h>

#include <optional>
#include <vector>

namespace tavelo {

// One entry on a calendar surface: an event (or a merged meeting) on one
// day, an all-day bar, a search result, or a run of an AI schedule.
struct CalendarItemRow {
    UUID eventID;
    // Which day of the surface it stands on (week: 0...6), or the ordinal of
    // its piece when one event stands several times.
    int dayIndex = 0;
    // All-day bars: the number of days covered within the surface.
    int dayCount = 1;
    // All-day bars: the stacking row. Timed entries: the lane.
    int lane = 0;
    int laneCount = 1;
    int laneSpan = 1;
    // Timed entries: points from the top of the grid.
    double top = 0;
    double height = 0;
    QString title;
    QString timeText;
    QString colorHex;
    // Search: the day heading the entry is grouped under. Rows left without
    // these texts get them from the model's calendar when a view asks.
    QString section;
    Date start;
    Date end;
    int calendarCount = 1;
    bool isAllDay = false;
    bool isBusyBlock = false;
    bool isAIOccurrence = false;
    bool isPast = false;

    // An AI schedule may run several times a day: its lane tells the runs apart.
    RowKey key() const { return {eventID, dayIndex * 1024 + (isAIOccurrence ? lane : 0)}; }
    bool operator==(const CalendarItemRow&) const = default;
};

class CalendarItemModel : public RowListModel {
    Q_OBJECT
    QML_ANONYMOUS

public:
    enum Role {
        EventIDRole = Qt::UserRole + 1,
        DayIndexRole,
        DayCountRole,
        LaneRole,
        LaneCountRole,
        LaneSpanRole,
        TopRole,
        HeightRole,
        TitleRole,
        TimeTextRole,
        ColorRole,
        SectionRole,
        StartRole,
        EndRole,
        CalendarCountRole,
        IsAllDayRole,
        IsBusyBlockRole,
        IsAIOccurrenceRole,
        IsPastRole,
    };

    using RowListModel::RowListModel;

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    const std::vector<CalendarItemRow>& rows() const { return rows_; }
    void setRows(std::vector<CalendarItemRow> rows);
    const CalendarItemRow* find(const UUID& eventID) const;
    // With a calendar, the time text and the section are formed only for the
    // rows a view shows, so that long result lists stay cheap to replace.
    void setTextCalendar(std::optional<DateCalendar> calendar) { textCalendar_ = std::move(calendar); }

private:
    std::vector<CalendarItemRow> rows_;
    std::optional<DateCalendar> textCalendar_;
};

} // namespace tavelo
