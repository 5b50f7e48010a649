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

using namespace derivations;

namespace {

// ---------------------------------------------------------------------------
// Totals

[[noreturn]] void integerOverflow() { qFatal("time totals: minutes outside the integer range"); }

int truncatedMinutes(double seconds) {
    const double minutes = std::trunc(seconds / 60.0);
    if (!(minutes >= static_cast<double>(std::numeric_limits<int>::min()) &&
          minutes <= static_cast<double>(std::numeric_limits<int>::max())))
        integerOverflow();
    return static_cast<int>(minutes);
}

void addMinutes(int& sum, int minutes) {
    if (__builtin_add_overflow(sum, minutes, &sum)) integerOverflow();
}

struct Duration {
    EventRef event;
    Date start;
    Date end;
    int minutes;
};

bool counts(const CalendarEvent& event) {
    return event.availability == Availability::busy && !event.isAllDay && !event.isGeneratedBusyBlock &&
           (event.kind != EventKind::task || event.isCompleted);
}

std::optional<Duration> durationOf(EventRef event, DateInterval interval) {
    if (!counts(*event)) return std::nullopt;
    if (!(event->start < interval.end && event->end > interval.start)) return std::nullopt;
    const Date start = std::max(interval.start, event->start);
    const Date end = std::min(interval.end, event->end);
    const int minutes = truncatedMinutes(end.secondsSince(start));
    if (minutes <= 0) return std::nullopt;
    return Duration{event, start, end, minutes};
}

std::vector<Duration> durationsOf(const std::vector<EventRef>& events, DateInterval interval) {
    std::vector<Duration> durations;
    for (EventRef event : events)
        if (auto duration = durationOf(event, interval)) durations.push_back(*duration);
    return durations;
}

int sumOfMinutes(const std::vector<Duration>& durations) {
    int sum = 0;
    for (const Duration& duration : durations) addMinutes(sum, duration.minutes);
    return sum;
}

struct DayTagKey {
    Date day;
    std::optional<UUID> tagID;
    bool operator==(const DayTagKey&) const = default;
};

struct DayTagKeyHash {
    std::size_t operator()(const DayTagKey& key) const noexcept {
        const std::size_t h = std::hash<Date>{}(key.day);
        return key.tagID ? h ^ (std::hash<UUID>{}(*key.tagID) + 0x9E3779B97F4A7C15ULL + (h << 6) + (h >> 2)) : h;
    }
};

// Sums keyed values, remembering the order in which keys were first met so
// that equal sort keys come out in a fixed order.
template <class Key, class Hash = std::hash<Key>>
class OrderedSums {
public:
    void add(const Key& key, int minutes) {
        auto [it, inserted] = index_.try_emplace(key, sums_.size());
        if (inserted) sums_.emplace_back(key, 0);
        addMinutes(sums_[it->second].second, minutes);
    }
    const std::vector<std::pair<Key, int>>& sums() const { return sums_; }

private:
    std::unordered_map<Key, std::size_t, Hash> index_;
    std::vector<std::pair<Key, int>> sums_;
};

class TagLookup {
public:
    explicit TagLookup(std::span<const Tag> tags) {
        for (const Tag& tag : tags) byID_.try_emplace(tag.id, &tag);
    }
    std::optional<Tag> tag(const std::optional<UUID>& id) const {
        if (!id) return std::nullopt;
        const auto it = byID_.find(*id);
        return it == byID_.end() ? std::nullopt : std::optional<Tag>(*it->second);
    }

private:
    std::unordered_map<UUID, const Tag*> byID_;
};

// An absent tag sorts after every tag.
int sortOrderOf(const std::optional<Tag>& tag) { return tag ? tag->sortOrder : std::numeric_limits<int>::max(); }

// Tags whose folded name holds the folded word for meeting; time with them is
// never focus time. The word is the same in every language.
std::unordered_set<UUID> meetingTagIDs(std::span<const Tag> tags) {
    const QString meeting = normalizedSearchText(u"会議");
    std::unordered_set<UUID> ids;
    for (const Tag& tag : tags)
        if (normalizedSearchText(tag.name).contains(meeting)) ids.insert(tag.id);
    return ids;
}

constexpr double kFocusThresholdSeconds = 3600.0;

int focusMinutesOf(const std::vector<Duration>& durations, const std::unordered_set<UUID>& meetingTags) {
    int sum = 0;
    for (const Duration& duration : durations) {
        const CalendarEvent& event = *duration.event;
        if (event.kind != EventKind::event) continue;
        if (event.tagID && meetingTags.contains(*event.tagID)) continue;
        if (event.end.secondsSince(event.start) < kFocusThresholdSeconds) continue;
        addMinutes(sum, duration.minutes);
    }
    return sum;
}

// Splits each duration at midnights; minutes are truncated per day.
std::vector<DailyTagTotal> dailyTotalsOf(const std::vector<Duration>& durations, const TagLookup& tags,
                                         const DateCalendar& calendar) {
    OrderedSums<DayTagKey, DayTagKeyHash> sums;
    for (const Duration& duration : durations) {
        Date cursor = duration.start;
        while (cursor < duration.end) {
            const Date day = calendar.startOfDay(cursor);
            const auto nextDay = calendar.adding(DateCalendar::Unit::day, 1, day);
            if (!nextDay) break;
            const Date segmentEnd = std::min(*nextDay, duration.end);
            if (!(segmentEnd > cursor)) break; // the calendar made no progress
            const int minutes = truncatedMinutes(segmentEnd.secondsSince(cursor));
            if (minutes > 0) sums.add({day, duration.event->tagID}, minutes);
            cursor = segmentEnd;
        }
    }
    std::vector<DailyTagTotal> totals;
    totals.reserve(sums.sums().size());
    for (const auto& [key, minutes] : sums.sums()) totals.push_back({key.day, tags.tag(key.tagID), minutes});
    std::stable_sort(totals.begin(), totals.end(), [](const DailyTagTotal& a, const DailyTagTotal& b) {
        if (a.day != b.day) return a.day < b.day;
        return sortOrderOf(a.tag) < sortOrderOf(b.tag);
    });
    return totals;
}

std::vector<TagTotal> tagTotalsOf(const std::vector<Duration>& durations, const TagLookup& tags) {
    OrderedSums<std::optional<UUID>> sums;
    for (const Duration& duration : durations) sums.add(duration.event->tagID, duration.minutes);
    std::vector<TagTotal> totals;
    totals.reserve(sums.sums().size());
    for (const auto& [tagID, minutes] : sums.sums()) totals.push_back({tags.tag(tagID), minutes});
    std::stable_sort(totals.begin(), totals.end(), [](const TagTotal& a, const TagTotal& b) {
        if (a.minutes != b.minutes) return a.minutes > b.minutes;
        return sortOrderOf(a.tag) < sortOrderOf(b.tag);
    });
    return totals;
}

QString tagText(const std::optional<Tag>& tag) { return tag ? tag->id.toString() : QStringLiteral("untagged"); }

// Seconds as a decimal with at least one fractional digit: "757350000.0".
QString secondsText(double seconds) {
    if (std::isfinite(seconds) && seconds == std::trunc(seconds) && std::fabs(seconds) < 1e16) {
        char buffer[32];
        std::snprintf(buffer, sizeof buffer, "%.1f", seconds);
        return QString::fromLatin1(buffer);
    }
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, seconds);
    return QString::fromLatin1(buffer, static_cast<qsizetype>(result.ptr - buffer));
}

} // namespace


QString DailyTagTotal::id() const {
    return secondsText(day.referenceSeconds()) + QLatin1Char('-') + tagText(tag);
}

QString TagTotal::id() const { return tagText(tag); }

namespace EventDerivations {

std::vector<EventDuration> includedDurations(std::span<const CalendarEvent> events, DateInterval interval) {
    std::vector<EventDuration> result;
    for (const CalendarEvent& event : events)
        if (const auto duration = durationOf(&event, interval))
            result.push_back({event, duration->start, duration->end, duration->minutes});
    return result;
}

int weeklyMinutes(UUID tagID, Date date, std::span<const CalendarEvent> events, const DateCalendar& calendar) {
    const std::vector<Date> days = CalendarMath::daysInWeek(date, calendar);
    if (days.empty()) return 0;
    const auto end = calendar.adding(DateCalendar::Unit::day, 7, days.front());
    if (!end) return 0;
    const DateInterval week{days.front(), *end};
    int sum = 0;
    for (EventRef event : mergedPrimaries(events, {week})) {
        if (event->tagID != tagID) continue;
        if (const auto duration = durationOf(event, week)) addMinutes(sum, duration->minutes);
    }
    return sum;
}

TimeReport report(std::span<const CalendarEvent> events, DateInterval interval, std::span<const Tag> tags,
                  const DateCalendar& calendar) {
    const DateInterval previousInterval = previousReportInterval(interval, calendar);
    const std::vector<EventRef> primaries = mergedPrimaries(events, {interval, previousInterval});
    const std::vector<Duration> durations = durationsOf(primaries, interval);
    const TagLookup lookup(tags);

    TimeReport result;
    result.totalMinutes = sumOfMinutes(durations);
    result.focusMinutes = focusMinutesOf(durations, meetingTagIDs(tags));
    result.dailyTotals = dailyTotalsOf(durations, lookup, calendar);
    result.tagTotals = tagTotalsOf(durations, lookup);

    const int previous = sumOfMinutes(durationsOf(primaries, previousInterval));
    if (previous != 0)
        result.changeFromPrevious =
            (static_cast<double>(result.totalMinutes) - previous) / previous * 100.0;
    return result;
}

DateInterval previousReportInterval(DateInterval interval, const DateCalendar& calendar) {
    const auto month = calendar.interval(DateCalendar::Unit::month, interval.start);
    const auto step = month && *month == interval ? DateCalendar::Unit::month : DateCalendar::Unit::weekOfYear;
    const auto start = calendar.adding(step, -1, interval.start);
    return {start.value_or(interval.start), interval.start};
}

} // namespace EventDerivations

} // namespace tavelo
