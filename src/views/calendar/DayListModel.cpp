#include "views/calendar/DayListModel.h"

#include <QVariantList>
#include <QVariantMap>

namespace tavelo {

int DayListModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(rows_.size());
}

QVariant DayListModel::data(const QModelIndex& index, int role) const {
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid)) return {};
    const DayRow& row = rows_[static_cast<std::size_t>(index.row())];
    switch (role) {
    case Qt::DisplayRole:
    case AccessibleTextRole: return row.accessibleText;
    case DateRole: return row.date.unixSeconds();
    case DayNumberRole: return row.dayNumber;
    case WeekdayRole: return row.weekday;
    case WeekdayTextRole: return row.weekdayText;
    case IsTodayRole: return row.isToday;
    case IsSelectedRole: return row.isSelected;
    case IsInMonthRole: return row.isInMonth;
    case OverflowTextRole: return row.overflowText;
    case ItemCountRole: return row.itemCount;
    case ItemsRole: {
        QVariantList items;
        items.reserve(static_cast<qsizetype>(row.items.size()));
        for (const DayItem& item : row.items)
            items.push_back(QVariantMap{{"eventId", item.eventID.toString()},
                                        {"title", item.title},
                                        {"timeText", item.timeText},
                                        {"colorHex", item.colorHex},
                                        {"isAllDay", item.isAllDay},
                                        {"isBusyBlock", item.isBusyBlock},
                                        {"isAIOccurrence", item.isAIOccurrence},
                                        {"calendarCount", item.calendarCount}});
        return items;
    }
    default: return {};
    }
}

QHash<int, QByteArray> DayListModel::roleNames() const {
    return {{DateRole, "date"},
            {DayNumberRole, "dayNumber"},
            {WeekdayRole, "weekday"},
            {WeekdayTextRole, "weekdayText"},
            {AccessibleTextRole, "accessibleText"},
            {IsTodayRole, "isToday"},
            {IsSelectedRole, "isSelected"},
            {IsInMonthRole, "isInMonth"},
            {ItemsRole, "items"},
            {OverflowTextRole, "overflowText"},
            {ItemCountRole, "itemCount"}};
}

void DayListModel::setRows(std::vector<DayRow> rows) {
    replaceRows(rows_, std::move(rows), [](const DayRow& row) { return row.date; });
}

} // namespace tavelo
