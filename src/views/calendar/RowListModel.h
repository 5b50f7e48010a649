#pragma once

#include <QAbstractListModel>

#include "views/support/RowDiff.h"

namespace tavelo {

// A list model whose rows are replaced by value (see `RowDiff`), with the
// row count as a property for the views.
class RowListModel : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(int count READ rowCountValue NOTIFY countChanged)

public:
    using QAbstractListModel::QAbstractListModel;
    int rowCountValue() const { return rowCount(); }

signals:
    void countChanged();

protected:
    template <class Row, class KeyOf>
    void replaceRows(std::vector<Row>& rows, std::vector<Row> next, KeyOf keyOf) {
        if (RowDiff::replaceRows(*this, rows, std::move(next), keyOf)) emit countChanged();
    }

private:
    friend class RowDiff;
};

} // namespace tavelo
