#pragma once

#include "views/calendar/RowListModel.h"

#include "support/Date.h"
#include "support/UUID.h"

#include <QString>
#include <qqmlintegration.h>

#include <vector>

namespace tavelo {

// An entry shown inside a month cell.
struct DayItem {
    UUID eventID;
    QString title;
    QString timeText;
    QString colorHex;
    bool isAllDay = false;
    bool isBusyBlock = false;
    bool isAIOccurrence = false;
    int calendarCount = 1;
    bool operator==(const DayItem&) const = default;
};

// One day of a week header or of the month grid.
struct DayRow {
    Date date;
    int dayNumber = 1;
    int weekday = 1; // 1 = Sunday
    QString weekdayText;
    QString accessibleText;
    bool isToday = false;
    bool isSelected = false;
    bool isInMonth = true;
    std::vector<DayItem> items;
    // "他 N 件" when entries were left out, else empty.
    QString overflowText;
    int itemCount = 0;

    bool operator==(const DayRow&) const = default;
};

class DayListModel : public RowListModel {
    Q_OBJECT
    QML_ANONYMOUS

public:
    enum Role {
        DateRole = Qt::UserRole + 1,
        DayNumberRole,
        WeekdayRole,
        WeekdayTextRole,
        AccessibleTextRole,
        IsTodayRole,
        IsSelectedRole,
        IsInMonthRole,
        ItemsRole,
        OverflowTextRole,
        ItemCountRole,
    };

    using RowListModel::RowListModel;

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    const std::vector<DayRow>& rows() const { return rows_; }
    void setRows(std::vector<DayRow> rows);

private:
    std::vector<DayRow> rows_;
};

} // namespace tavelo
