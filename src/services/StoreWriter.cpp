// Writing the SQLite calendar store: which event rows a save touches.

#include "services/StoreDatabase.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>
#include <unordered_set>

namespace tavelo::storedb {

// --- write ----------------------------------------------------------------------

[[noreturn]] static void duplicateEvent(const UUID& id) {
    // Two events with one id would share a row and the file would no longer
    // read back; refuse the save rather than store that.
    throw SQLitePersistenceError(Kind::operation, "two events share the id " + id.toStdString());
}

// Upserts every event of `current` that is new or differs from its value in
// `old`, and deletes the rows of events that are gone.
void writeEventChanges(const std::vector<CalendarEvent>& old, const std::vector<CalendarEvent>& current,
                       EventRows& rows) {
    // Most saves keep the order of the events, so pair them by position
    // first and look up by id only what is left over.
    std::vector<bool> oldPaired(old.size(), false);
    std::vector<std::size_t> leftOver;
    const auto common = std::min(old.size(), current.size());
    for (std::size_t i = 0; i < common; ++i) {
        if (old[i].id != current[i].id) {
            leftOver.push_back(i);
            continue;
        }
        oldPaired[i] = true;
        if (!(old[i] == current[i])) rows.upsert(current[i]);
    }
    for (std::size_t i = common; i < current.size(); ++i) leftOver.push_back(i);

    if (!leftOver.empty()) {
        std::unordered_map<UUID, std::size_t> oldIndex;
        oldIndex.reserve(old.size());
        for (std::size_t k = 0; k < old.size(); ++k) oldIndex.try_emplace(old[k].id, k);
        std::unordered_set<UUID> seen;
        seen.reserve(leftOver.size());
        for (const auto i : leftOver) {
            const auto& event = current[i];
            if (!seen.insert(event.id).second) duplicateEvent(event.id);
            const auto found = oldIndex.find(event.id);
            if (found != oldIndex.end()) {
                // Already paired by position: the id is in `current` twice.
                if (oldPaired[found->second]) duplicateEvent(event.id);
                oldPaired[found->second] = true;
                if (old[found->second] == event) continue;
            }
            rows.upsert(event);
        }
    }

    std::vector<std::size_t> gone;
    for (std::size_t k = 0; k < old.size(); ++k)
        if (!oldPaired[k]) gone.push_back(k);
    if (gone.empty()) return;
    // Checked against every current id, so that a row is never deleted
    // while an event still uses it, nor deleted twice.
    std::unordered_set<UUID> kept;
    kept.reserve(current.size() + gone.size());
    for (const auto& event : current) kept.insert(event.id);
    for (const auto k : gone)
        if (kept.insert(old[k].id).second) rows.remove(old[k].id);
}

// An id as two integers: looking one up among a few others then costs a
// couple of compares rather than calls to memcmp, which counts when every
// event of a large list is looked up.
using IDKey = std::pair<std::uint64_t, std::uint64_t>;
static IDKey idKey(const UUID& id) {
    IDKey key;
    std::memcpy(&key.first, id.bytes().data(), sizeof key.first);
    std::memcpy(&key.second, id.bytes().data() + sizeof key.first, sizeof key.second);
    return key;
}

// Writes the rows of an edit that put current[begin, end) where the
// `replaced` events stood: the same rows as comparing the whole lists, as
// long as no two events of the old list share an id (with nothing replaced,
// even then), and the same refusal of an id used twice.
void writeEditedRows(const std::vector<CalendarEvent>& current, std::size_t begin, std::size_t end,
                     const std::vector<std::pair<std::size_t, CalendarEvent>>& replaced, EventRows& rows) {
    std::vector<IDKey> added;
    added.reserve(end - begin);
    for (std::size_t i = begin; i < end; ++i) added.push_back(idKey(current[i].id));
    std::sort(added.begin(), added.end());
    const auto isAdded = [&](const UUID& id) { return std::binary_search(added.begin(), added.end(), idKey(id)); };

    if (!added.empty()) {
        // A new event may not take the id of an event that stays.
        std::vector<IDKey> taken;
        const auto collect = [&](std::size_t from, std::size_t to) {
            for (std::size_t i = from; i < to; ++i)
                if (isAdded(current[i].id)) taken.push_back(idKey(current[i].id));
        };
        collect(0, begin);
        collect(end, current.size());
        std::sort(taken.begin(), taken.end());
        std::unordered_set<UUID> seen;
        seen.reserve(end - begin);
        for (std::size_t i = begin; i < end; ++i) {
            const UUID& id = current[i].id;
            if (!seen.insert(id).second || std::binary_search(taken.begin(), taken.end(), idKey(id)))
                duplicateEvent(id);
        }
    }

    // The replaced events by id, to find the old value of a kept one.
    std::vector<std::pair<IDKey, std::size_t>> old;
    old.reserve(replaced.size());
    for (std::size_t k = 0; k < replaced.size(); ++k) old.emplace_back(idKey(replaced[k].second.id), k);
    std::sort(old.begin(), old.end());
    for (std::size_t i = begin; i < end; ++i) {
        const auto& event = current[i];
        const IDKey key = idKey(event.id);
        const auto found = std::lower_bound(old.begin(), old.end(), std::pair(key, std::size_t{0}));
        if (found != old.end() && found->first == key && replaced[found->second].second == event) continue;
        rows.upsert(event);
    }
    for (const auto& [place, event] : replaced)
        if (!isAdded(event.id)) rows.remove(event.id);
}


} // namespace tavelo::storedb
