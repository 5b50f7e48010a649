#include "stores/EventDerivations.h"
#include "stores/EventMerge.h"

#include "support/CalendarMath.h"
#include "support/TextFolding.h"

#include <QtGlobal>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <unordered_map>
#include <unordered_set>

namespace tavelo {

namespace derivations {

std::vector<EventRef> refsOf(std::span<const CalendarEvent> events) {
    std::vector<EventRef> refs;
    refs.reserve(events.size());
    for (const CalendarEvent& event : events) refs.push_back(&event);
    return refs;
}

namespace {

// ---------------------------------------------------------------------------
// Start order and merging

// The bits of a date as an unsigned integer that orders like the date; -0 is 0.
std::uint64_t orderedBits(Date date) {
    const double seconds = date.referenceSeconds();
    const auto bits = std::bit_cast<std::uint64_t>(seconds == 0.0 ? 0.0 : seconds);
    return bits >> 63 ? ~bits : bits | (std::uint64_t{1} << 63);
}

struct SortKey {
    std::uint64_t start;
    std::uint32_t position;
    bool operator<(const SortKey& other) const {
        return start != other.start ? start < other.start : position < other.position;
    }
};

// Positions 0..<count in start order, into `order`: ascending by start alone,
// equal starts in input order. Sorting (start, position) pairs keeps the
// large events out of the comparisons.
template <class StartOf>
void stableStartOrder(std::size_t count, StartOf startOf, std::vector<SortKey>& keys,
                      std::vector<std::uint32_t>& order) {
    keys.clear();
    for (std::size_t i = 0; i < count; ++i) keys.push_back({orderedBits(startOf(i)), static_cast<std::uint32_t>(i)});
    std::sort(keys.begin(), keys.end());
    order.clear();
    for (const SortKey& key : keys) order.push_back(key.position);
}

std::vector<EventRef> stableStartSort(const std::vector<EventRef>& events) {
    std::vector<SortKey> keys;
    std::vector<std::uint32_t> order;
    stableStartOrder(events.size(), [&](std::size_t i) { return events[i]->start; }, keys, order);
    std::vector<EventRef> sorted;
    sorted.reserve(events.size());
    for (std::uint32_t i : order) sorted.push_back(events[i]);
    return sorted;
}


std::uint64_t mix(std::uint64_t h, std::uint64_t value) {
    h = (h ^ value) * 0xBF58476D1CE4E5B9ULL;
    return h ^ (h >> 31);
}

std::uint64_t hashOf(QStringView text) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.utf16());
    std::size_t length = static_cast<std::size_t>(text.size()) * sizeof(char16_t);
    std::uint64_t h = mix(0x9E3779B97F4A7C15ULL, length);
    for (; length >= 8; bytes += 8, length -= 8) {
        std::uint64_t word;
        std::memcpy(&word, bytes, 8);
        h = mix(h, word);
    }
    std::uint64_t tail = 0;
    if (length > 0) std::memcpy(&tail, bytes, length);
    return mix(h, tail);
}

// What the merge reads of one event, packed so that the walk in start order
// stays in one small array instead of visiting the large events.
struct MergeItem {
    UUID groupID;
    UUID calendarID;
    // The duplicate key: two copies of one external event have the same UID
    // (compared exactly), start and end. Without a UID, or with an empty
    // one, there is no key.
    QStringView uid;
    Date start;
    Date end;
    std::uint64_t keyHash = 0;
    EventRef event = nullptr;
    bool hasKey = false;
    // A copy that shows less than the real thing and gives way to it as
    // primary.
    bool weak = false;
    bool block = false;
};

MergeItem mergeItem(EventRef event) {
    MergeItem item;
    item.groupID = event->groupID;
    item.calendarID = event->calendarID;
    item.start = event->start;
    item.end = event->end;
    item.event = event;
    item.block = event->isGeneratedBusyBlock;
    item.weak = event->isGeneratedBusyBlock || event->visibility == EventVisibility::privateDetails;
    if (event->externalUID && !event->externalUID->isEmpty()) {
        item.hasKey = true;
        item.uid = *event->externalUID;
        item.keyHash = mix(mix(hashOf(item.uid), orderedBits(item.start)), orderedBits(item.end));
    }
    return item;
}

struct GroupKey {
    static std::uint64_t hash(const MergeItem& item) { return std::hash<UUID>{}(item.groupID); }
    static bool equal(const MergeItem& a, const MergeItem& b) { return a.groupID == b.groupID; }
};

struct DuplicateKey {
    static std::uint64_t hash(const MergeItem& item) { return item.keyHash; }
    static bool equal(const MergeItem& a, const MergeItem& b) {
        return a.start == b.start && a.end == b.end && a.uid == b.uid;
    }
};

struct IndexSlot {
    std::uint64_t hash = 0;
    std::uint32_t item;
    std::uint32_t entry;
};

// Maps one kind of merge key to entry indices, by open addressing in `table`.
// A key is kept as the item it came from. Each item enters at most one key,
// so a table sized for the items hardly ever grows. A removed key keeps its
// slot with no entry, which reads as absent.
template <class Key>
class EntryIndex {
public:
    static constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();

    EntryIndex(const std::vector<MergeItem>& items, std::size_t keys, std::vector<IndexSlot>& table)
        : items_(items), bits_(std::max(4, static_cast<int>(std::bit_width(keys + keys / 2)))), slots_(table) {
        slots_.assign(std::size_t{1} << bits_, IndexSlot{0, kNone, kNone});
    }

    // The entry under the key of `item`, or kNone.
    std::uint32_t find(std::uint32_t item) const {
        const std::uint64_t hash = Key::hash(items_[item]);
        for (std::size_t i = home(hash);; i = next(i)) {
            const IndexSlot& slot = slots_[i];
            if (slot.item == kNone) return kNone;
            if (slot.hash == hash && Key::equal(items_[slot.item], items_[item])) return slot.entry;
        }
    }

    // The entry under the key of `item`, kNone if just made.
    std::uint32_t& operator[](std::uint32_t item) {
        const std::uint64_t hash = Key::hash(items_[item]);
        for (std::size_t i = home(hash);; i = next(i)) {
            IndexSlot& slot = slots_[i];
            if (slot.item == kNone) {
                if ((used_ + 1) * 4 > slots_.size() * 3) {
                    grow();
                    return (*this)[item];
                }
                ++used_;
                slot = {hash, item, kNone};
                return slot.entry;
            }
            if (slot.hash == hash && Key::equal(items_[slot.item], items_[item])) return slot.entry;
        }
    }

    void eraseIfAt(std::uint32_t item, std::uint32_t entry) {
        std::uint32_t& stored = (*this)[item];
        if (stored == entry) stored = kNone;
    }

    void enterSmaller(std::uint32_t item, std::uint32_t entry) {
        std::uint32_t& stored = (*this)[item];
        stored = std::min(stored, entry);
    }

private:
    std::size_t home(std::uint64_t hash) const { return (hash * 0x9E3779B97F4A7C15ULL) >> (64 - bits_); }
    std::size_t next(std::size_t i) const { return (i + 1) & (slots_.size() - 1); }

    void grow() {
        std::vector<IndexSlot> old(std::size_t{1} << ++bits_, IndexSlot{0, kNone, kNone});
        old.swap(slots_);
        for (const IndexSlot& slot : old) {
            if (slot.item == kNone) continue;
            std::size_t i = home(slot.hash);
            while (slots_[i].item != kNone) i = next(i);
            slots_[i] = slot;
        }
    }

    const std::vector<MergeItem>& items_;
    int bits_;
    std::vector<IndexSlot>& slots_;
    std::size_t used_ = 0;
};

struct MergeEntry {
    EventRef primary;
    std::uint32_t primaryItem;
    DateInterval primaryTimes; // saves a visit to the primary when filtering
    std::vector<UUID> calendarIDs; // doubles as the set of counted calendars
};

// Working memory of one merge.
struct MergeScratch {
    std::vector<MergeItem> items;
    std::vector<SortKey> keys;
    std::vector<std::uint32_t> order;
    std::vector<IndexSlot> groupSlots;
    std::vector<IndexSlot> keySlots;
    std::vector<MergeEntry> entries;
};

// Merges `events`, given in input order, walking them in start order.
// Without `withCalendars` only the primaries are worked out.
std::vector<MergeEntry> mergeEntries(const std::vector<EventRef>& events, bool mergeDuplicates,
                                      bool withCalendars = true) {
    MergeScratch scratch;
    std::vector<MergeItem>& items = scratch.items;
    items.clear();
    std::size_t keyed = 0;
    for (std::size_t i = 0; i < events.size(); ++i) {
        items.push_back(mergeItem(events[i]));
        keyed += items.back().hasKey;
    }
    stableStartOrder(items.size(), [&](std::size_t i) { return items[i].start; }, scratch.keys, scratch.order);

    auto newEntry = [&](std::uint32_t i) {
        MergeEntry entry{items[i].event, i, {items[i].start, items[i].end}, {}};
        if (withCalendars && !items[i].block) entry.calendarIDs.push_back(items[i].calendarID);
        return entry;
    };
    std::vector<MergeEntry>& entries = scratch.entries;
    entries.clear();
    if (!mergeDuplicates) {
        for (std::uint32_t i : scratch.order) entries.push_back(newEntry(i));
        return std::move(entries);
    }

    constexpr std::uint32_t kNone = EntryIndex<GroupKey>::kNone;
    EntryIndex<GroupKey> byGroup(items, items.size(), scratch.groupSlots);
    EntryIndex<DuplicateKey> byKey(items, keyed, scratch.keySlots);

    for (std::uint32_t i : scratch.order) {
        const MergeItem& item = items[i];
        const std::uint32_t groupMatch = byGroup.find(i);
        const std::uint32_t keyMatch = item.hasKey ? byKey.find(i) : kNone;

        if (groupMatch == kNone && keyMatch == kNone) {
            const auto index = static_cast<std::uint32_t>(entries.size());
            entries.push_back(newEntry(i));
            byGroup[i] = index;
            if (item.hasKey) byKey[i] = index;
            continue;
        }

        // A group match and a key match on two entries do not join them: the
        // event goes to the earlier one.
        const std::uint32_t index = std::min(groupMatch, keyMatch);
        MergeEntry& entry = entries[index];
        if (withCalendars && !item.block &&
            std::find(entry.calendarIDs.begin(), entry.calendarIDs.end(), item.calendarID) == entry.calendarIDs.end())
            entry.calendarIDs.push_back(item.calendarID);

        if (!items[entry.primaryItem].weak || item.weak) continue;

        // Takeover: the maps follow the new primary. The old primary's group
        // and key stop leading here, so a later copy that matches only them
        // opens an entry of its own.
        const std::uint32_t old = entry.primaryItem;
        entry.primary = item.event;
        entry.primaryItem = i;
        entry.primaryTimes = {item.start, item.end};
        byGroup.eraseIfAt(old, index);
        if (items[old].hasKey) byKey.eraseIfAt(old, index);
        byGroup.enterSmaller(i, index);
        if (item.hasKey) byKey.enterSmaller(i, index);
    }
    return std::move(entries);
}

std::vector<DisplayedEvent> displayed(std::vector<MergeEntry>&& entries) {
    std::vector<DisplayedEvent> result;
    result.reserve(entries.size());
    for (MergeEntry& entry : entries) result.push_back({*entry.primary, std::move(entry.calendarIDs)});
    return result;
}


} // namespace

std::vector<DisplayedEvent> mergedDisplay(const std::vector<EventRef>& events, bool mergeDuplicates) {
    return displayed(mergeEntries(events, mergeDuplicates));
}

// Each merged meeting once, by its primary, keeping those that overlap one
// of `intervals`.
std::vector<EventRef> mergedPrimaries(std::span<const CalendarEvent> events,
                                      std::initializer_list<DateInterval> intervals) {
    const std::vector<MergeEntry>& entries = mergeEntries(refsOf(events), true, false);
    std::vector<EventRef> primaries;
    for (const MergeEntry& entry : entries) {
        const DateInterval times = entry.primaryTimes;
        if (std::any_of(intervals.begin(), intervals.end(), [&](const DateInterval& interval) {
                return times.start < interval.end && times.end > interval.start;
            }))
            primaries.push_back(entry.primary);
    }
    return primaries;
}

std::unordered_set<UUID> visibleCalendarIDs(const AppSnapshot& snapshot) {
    std::unordered_set<UUID> ids;
    for (const CalendarSource& calendar : snapshot.calendars)
        if (calendar.isVisible) ids.insert(calendar.id);
    return ids;
}

} // namespace derivations

using namespace derivations;

namespace EventDerivations {


std::vector<CalendarEvent> visibleEvents(const AppSnapshot& snapshot) {
    const auto visible = visibleCalendarIDs(snapshot);
    std::vector<EventRef> refs;
    for (const CalendarEvent& event : snapshot.events)
        if (visible.contains(event.calendarID)) refs.push_back(&event);
    std::vector<CalendarEvent> result;
    result.reserve(refs.size());
    for (EventRef event : stableStartSort(refs)) result.push_back(*event);
    return result;
}

std::vector<DisplayedEvent> mergedEvents(std::span<const CalendarEvent> events, bool mergeDuplicates) {
    return displayed(mergeEntries(refsOf(events), mergeDuplicates));
}

std::vector<DisplayedEvent> mergedEvents(const AppSnapshot& snapshot, DateInterval interval) {
    const auto visible = visibleCalendarIDs(snapshot);
    std::vector<EventRef> refs;
    for (const CalendarEvent& event : snapshot.events)
        if (event.start < interval.end && event.end > interval.start && visible.contains(event.calendarID))
            refs.push_back(&event);
    return displayed(mergeEntries(refs, snapshot.preferences.mergeDuplicates));
}

} // namespace EventDerivations

} // namespace tavelo
