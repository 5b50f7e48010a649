#include "views/shell/CalendarListModel.h"

#include "stores/AppStore.h"
#include "views/support/RowDiff.h"
#include "views/shell/ShellTasks.h"

namespace tavelo::shell {

CalendarListModel::CalendarListModel(QObject* parent) : QAbstractListModel(parent) {}

QObject* CalendarListModel::storeObject() const { return store_.get(); }

void CalendarListModel::setStoreObject(QObject* object) {
    auto* store = qobject_cast<AppStore*>(object);
    if (!store_.follow(store)) return;
    store_.on(&AppStore::calendarsChanged, this, &CalendarListModel::refresh);
    store_.on(&AppStore::accountsChanged, this, &CalendarListModel::refresh);
    refresh();
    emit storeChanged();
}

std::vector<CalendarListModel::Row> CalendarListModel::rowsFor(const AppStore& store) {
    std::vector<Row> rows;
    auto rowOf = [](const CalendarSource& calendar, const QString& accountName) {
        return Row{calendar.id.toString(), calendar.name, calendar.colorHex, calendar.isVisible, accountName,
                   calendar.receivesBusyBlocks};
    };
    const auto& accounts = store.accounts();
    auto hasAccount = [&](const CalendarSource& calendar) {
        return calendar.accountID && std::any_of(accounts.begin(), accounts.end(),
                                                 [&](const Account& a) { return a.id == *calendar.accountID; });
    };
    for (const CalendarSource& calendar : store.calendars())
        if (!hasAccount(calendar)) rows.push_back(rowOf(calendar, QStringLiteral("このコンピューター")));
    for (const Account& account : accounts) {
        const QString title = account.email.isEmpty() ? account.name : account.email;
        for (const CalendarSource& calendar : store.calendars())
            if (calendar.accountID == account.id) rows.push_back(rowOf(calendar, title));
    }
    return rows;
}

void CalendarListModel::refresh() {
    RowDiff::replaceRows(*this, rows_, store_ ? rowsFor(*store_) : std::vector<Row>{}, [](const Row& r) { return r.calendarID; });
}

int CalendarListModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(rows_.size());
}

QVariant CalendarListModel::data(const QModelIndex& index, int role) const {
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid)) return {};
    const Row& row = rows_[static_cast<std::size_t>(index.row())];
    switch (role) {
    case Qt::DisplayRole:
    case NameRole: return row.name;
    case CalendarIDRole: return row.calendarID;
    case ColorRole: return row.color;
    case VisibleRole: return row.isVisible;
    case AccountNameRole: return row.accountName;
    case ReceivesBusyBlocksRole: return row.receivesBusyBlocks;
    default: return {};
    }
}

QHash<int, QByteArray> CalendarListModel::roleNames() const {
    return {{CalendarIDRole, "calendarID"}, {NameRole, "name"},           {ColorRole, "calendarColor"},
            {VisibleRole, "isVisible"},     {AccountNameRole, "accountName"}, {ReceivesBusyBlocksRole, "receivesBusyBlocks"}};
}

void CalendarListModel::toggleVisibility(int row) {
    if (!store_ || row < 0 || row >= rowCount()) return;
    const auto id = UUID::fromString(rows_[static_cast<std::size_t>(row)].calendarID);
    if (!id) return;
    launch(store_->toggleCalendarVisibility(*id), this);
}

} // namespace tavelo::shell
