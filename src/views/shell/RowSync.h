#pragma once

// Brings a list model's rows in line with a new list by rows: removed rows
// are removed, new rows inserted, kept rows that changed announced. Rows are
// told apart by a key; a change of order that is not explained by removals
// and insertions is carried out as moves.

#include <QAbstractItemModel>

#include <algorithm>
#include <cstddef>
#include <vector>

namespace tavelo::shell {

// `Model` exposes the protected row signals through the `RowSync` friend
// functions below; `rows` is the model's storage, `next` the new list.
template <class Row, class KeyOf, class Model>
void syncRows(Model& model, std::vector<Row>& rows, std::vector<Row> next, KeyOf keyOf) {
    // Removals, from the back so that positions stay valid.
    for (int i = static_cast<int>(rows.size()) - 1; i >= 0; --i) {
        const auto key = keyOf(rows[static_cast<std::size_t>(i)]);
        const bool kept = std::any_of(next.begin(), next.end(), [&](const Row& r) { return keyOf(r) == key; });
        if (kept) continue;
        model.beginRemoveRows({}, i, i);
        rows.erase(rows.begin() + i);
        model.endRemoveRows();
    }
    for (int target = 0; target < static_cast<int>(next.size()); ++target) {
        const Row& wanted = next[static_cast<std::size_t>(target)];
        const auto key = keyOf(wanted);
        auto found = std::find_if(rows.begin() + target, rows.end(), [&](const Row& r) { return keyOf(r) == key; });
        if (found == rows.end()) {
            model.beginInsertRows({}, target, target);
            rows.insert(rows.begin() + target, wanted);
            model.endInsertRows();
            continue;
        }
        const int from = static_cast<int>(found - rows.begin());
        if (from != target) {
            model.beginMoveRows({}, from, from, {}, target);
            Row moved = std::move(*found);
            rows.erase(found);
            rows.insert(rows.begin() + target, std::move(moved));
            model.endMoveRows();
        }
        Row& current = rows[static_cast<std::size_t>(target)];
        if (!(current == wanted)) {
            current = wanted;
            const QModelIndex index = model.index(target, 0);
            emit model.dataChanged(index, index);
        }
    }
}

} // namespace tavelo::shell
