#include "views/calendar/CalendarItemModel.h"

#include "views/calendar/CalendarViewSupport.h"

namespace tavelo {

int CalendarItemModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(rows_.size());
}

QVariant CalendarItemModel::data(const QModelIndex& index, int role) const {
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid)) return {};
    const CalendarItemRow& row = rows_[static_cast<std::size_t>(index.row())];
    switch (role) {
    case Qt::DisplayRole:
    case TitleRole: return row.title;
    case EventIDRole: return row.eventID.toString();
    case DayIndexRole: return row.dayIndex;
    case DayCountRole: return row.dayCount;
    case LaneRole: return row.lane;
    case LaneCountRole: return row.laneCount;
    case LaneSpanRole: return row.laneSpan;
    case TopRole: return row.top;
    case HeightRole: return row.height;
    case TimeTextRole:
        if (row.timeText.isEmpty() && textCalendar_)
            return CalendarViewSupport::timeRangeText(row.start, row.end, row.isAllDay, *textCalendar_);
        return row.timeText;
    case ColorRole: return row.colorHex;
    case SectionRole:
        if (row.section.isEmpty() && textCalendar_)
            return CalendarViewSupport::longDateText(textCalendar_->startOfDay(row.start), *textCalendar_);
        return row.section;
    case StartRole: return row.start.unixSeconds();
    case EndRole: return row.end.unixSeconds();
    case CalendarCountRole: return row.calendarCount;
    case IsAllDayRole: return row.isAllDay;
    case IsBusyBlockRole: return row.isBusyBlock;
    case IsAIOccurrenceRole: return row.isAIOccurrence;
    case IsPastRole: return row.isPast;
    default: return {};
    }
}

QHash<int, QByteArray> CalendarItemModel::roleNames() const {
    return {
        {EventIDRole, "eventId"},       {DayIndexRole, "dayIndex"},
        {DayCountRole, "dayCount"},     {LaneRole, "lane"},
        {LaneCountRole, "laneCount"},   {LaneSpanRole, "laneSpan"},
        {TopRole, "itemTop"},               {HeightRole, "itemHeight"},
        {TitleRole, "title"},           {TimeTextRole, "timeText"},
        {ColorRole, "colorHex"},        {SectionRole, "section"},
        {StartRole, "start"},           {EndRole, "end"},
        {CalendarCountRole, "calendarCount"}, {IsAllDayRole, "isAllDay"},
        {IsBusyBlockRole, "isBusyBlock"}, {IsAIOccurrenceRole, "isAIOccurrence"},
        {IsPastRole, "isPast"},
    };
}

void CalendarItemModel::setRows(std::vector<CalendarItemRow> rows) {
    replaceRows(rows_, std::move(rows), [](const CalendarItemRow& row) { return row.key(); });
}

const CalendarItemRow* CalendarItemModel::find(const UUID& eventID) const {
    for (const CalendarItemRow& row : rows_)
        if (row.eventID == eventID) return &row;
    return nullptr;
}

} // namespace tavelo
