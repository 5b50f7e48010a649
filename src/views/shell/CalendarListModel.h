#pragma once

#include <QAbstractListModel>
#include "views/support/SourceBinding.h"
#include <QtQml/qqmlregistration.h>

#include <vector>

namespace tavelo {
class RowDiff;
class AppStore;
}

namespace tavelo::shell {

// The sidebar's calendars, grouped by account (calendars without an account
// first, under "このコンピューター"), each with its visibility toggle.
class CalendarListModel : public QAbstractListModel {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QObject* store READ storeObject WRITE setStoreObject NOTIFY storeChanged)

public:
    enum Role { CalendarIDRole = Qt::UserRole + 1, NameRole, ColorRole, VisibleRole, AccountNameRole, ReceivesBusyBlocksRole };

    struct Row {
        QString calendarID;
        QString name;
        QString color;
        bool isVisible = true;
        QString accountName;
        bool receivesBusyBlocks = false;
        bool operator==(const Row&) const = default;
    };

    explicit CalendarListModel(QObject* parent = nullptr);

    QObject* storeObject() const;
    void setStoreObject(QObject* store);

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    // Shows or hides the calendar of `row` through the store.
    Q_INVOKABLE void toggleVisibility(int row);

    // The rows the store's state gives, in display order.
    static std::vector<Row> rowsFor(const AppStore& store);

signals:
    void storeChanged();

private:
    void refresh();
    friend class tavelo::RowDiff;

    SourceBinding<AppStore> store_;
    std::vector<Row> rows_;
};

} // namespace tavelo::shell
