#pragma once

#include <QAbstractItemModel>

#include "support/UUID.h"

#include <unordered_map>
#include <vector>

namespace tavelo {

// The key of an entry that may stand more than once in one list, such as an
// event on each day it covers.
struct RowKey {
    UUID id;
    int part = 0;
    bool operator==(const RowKey&) const = default;
};

} // namespace tavelo

template <>
struct std::hash<tavelo::RowKey> {
    std::size_t operator()(const tavelo::RowKey& key) const noexcept {
        return std::hash<tavelo::UUID>{}(key.id) ^ (static_cast<std::size_t>(key.part) * 0x9E3779B97F4A7C15ULL);
    }
};

namespace tavelo {

// Brings a list model's rows in line with a new list by value: the new rows
// are compared with the old ones by key, and only the rows that left,
// arrived or changed are announced, so views keep their delegates and scroll
// position. A row whose place changed among the kept ones leaves and comes
// back as an insertion. Linear in the number of rows.
//
// The model grants access to its protected row notifications by declaring
// `friend class tavelo::RowDiff;`.
class RowDiff {
public:
    static constexpr int kMaxScatteredRuns = 48;

    // `keyOf(row)` must give each row a distinct, hashable key. Returns true
    // when the number of rows changed.
    template <class Model, class Row, class KeyOf>
    static bool replaceRows(Model& model, std::vector<Row>& rows, std::vector<Row> next, KeyOf keyOf);
};

template <class Model, class Row, class KeyOf>
bool RowDiff::replaceRows(Model& model, std::vector<Row>& rows, std::vector<Row> next, KeyOf keyOf) {
    using Key = std::decay_t<decltype(keyOf(next.front()))>;
    const int countBefore = static_cast<int>(rows.size());

    std::unordered_map<Key, int> nextIndex;
    nextIndex.reserve(next.size());
    for (int i = 0; i < static_cast<int>(next.size()); ++i) nextIndex.emplace(keyOf(next[i]), i);

    // 1. Drop the rows that are gone, and those that would stand out of
    // order among the remaining ones (they come back as insertions), in
    // contiguous runs from the back.
    std::vector<char> keep(rows.size(), 0);
    int lastKept = -1;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const auto found = nextIndex.find(keyOf(rows[i]));
        if (found != nextIndex.end() && found->second > lastKept) {
            keep[i] = 1;
            lastKept = found->second;
        }
    }
    // A change scattered over many places (a new search term) would cost a
    // vector shift per place; past a few dozen, all rows leave at once and
    // the new ones arrive at once.
    std::unordered_map<Key, char> kept;
    int runs = 0;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        if (keep[i]) kept.emplace(keyOf(rows[i]), 1);
        else if (i == 0 || keep[i - 1]) ++runs;
    }
    for (std::size_t i = 0; i < next.size(); ++i)
        if (!kept.contains(keyOf(next[i])) && (i == 0 || kept.contains(keyOf(next[i - 1])))) ++runs;
    if (runs > kMaxScatteredRuns) {
        if (!rows.empty()) {
            model.beginRemoveRows(QModelIndex(), 0, static_cast<int>(rows.size()) - 1);
            rows.clear();
            model.endRemoveRows();
        }
        if (!next.empty()) {
            model.beginInsertRows(QModelIndex(), 0, static_cast<int>(next.size()) - 1);
            rows = std::move(next);
            model.endInsertRows();
        }
        return static_cast<int>(rows.size()) != countBefore;
    }

    for (int i = static_cast<int>(rows.size()) - 1; i >= 0;) {
        if (keep[static_cast<std::size_t>(i)]) {
            --i;
            continue;
        }
        int first = i;
        while (first > 0 && !keep[static_cast<std::size_t>(first - 1)]) --first;
        model.beginRemoveRows(QModelIndex(), first, i);
        rows.erase(rows.begin() + first, rows.begin() + i + 1);
        model.endRemoveRows();
        i = first - 1;
    }

    // 2. Walk the new rows: kept rows are compared, missing ones inserted in
    // contiguous runs.
    std::size_t position = 0;
    while (position < next.size()) {
        if (position < rows.size() && keyOf(rows[position]) == keyOf(next[position])) {
            if (!(rows[position] == next[position])) {
                rows[position] = std::move(next[position]);
                const QModelIndex changed = model.index(static_cast<int>(position), 0);
                emit model.dataChanged(changed, changed);
            }
            ++position;
            continue;
        }
        std::size_t end = position + 1;
        while (end < next.size() && (position >= rows.size() || keyOf(rows[position]) != keyOf(next[end]))) ++end;
        model.beginInsertRows(QModelIndex(), static_cast<int>(position), static_cast<int>(end - 1));
        rows.insert(rows.begin() + static_cast<std::ptrdiff_t>(position), std::make_move_iterator(next.begin() + static_cast<std::ptrdiff_t>(position)),
                    std::make_move_iterator(next.begin() + static_cast<std::ptrdiff_t>(end)));
        model.endInsertRows();
        position = end;
    }
    return static_cast<int>(rows.size()) != countBefore;
}

} // namespace tavelo
