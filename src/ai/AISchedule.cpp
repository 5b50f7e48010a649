#include "ai/AISchedule.h"

#include "ai/CloudJson.h"
#include "support/JsonRecord.h"
#include "support/DateCalendar.h"

#include <QTextBoundaryFinder>

#include <unicode/timezone.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <memory>

namespace tavelo {

namespace {

// Characters as the user sees them (grapheme clusters), so that an emoji
// or a letter with a combining mark counts once.
qsizetype visibleLength(const QString& text) {
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype count = 0;
    while (finder.toNextBoundary() != -1) ++count;
    return count;
}

// True when `text` has more than `limit` visible characters. A text of at
// most `limit` UTF-16 units cannot, which spares the count on every keystroke.
bool exceeds(const QString& text, qsizetype limit) {
    return text.size() > limit && visibleLength(text) > limit;
}

bool isKnownTimeZone(const QString& id) {
    if (id.isEmpty()) return false;
    const icu::UnicodeString name(reinterpret_cast<const UChar*>(id.utf16()), static_cast<int32_t>(id.size()));
    std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createTimeZone(name));
    if (!zone) return false;
    icu::UnicodeString resolved;
    zone->getID(resolved);
    return resolved != icu::UnicodeString(UCAL_UNKNOWN_ZONE_ID);
}

DateCalendar::Unit unitOf(EventRecurrence recurrence) {
    switch (recurrence) {
    case EventRecurrence::daily: return DateCalendar::Unit::day;
    case EventRecurrence::weekly: return DateCalendar::Unit::weekOfYear;
    case EventRecurrence::monthly: return DateCalendar::Unit::month;
    }
    return DateCalendar::Unit::day;
}

} // namespace

std::optional<QString> AISchedule::validationMessage() const {
    if (title.trimmed().isEmpty()) return QStringLiteral("タイトルを入力してください");
    if (prompt.trimmed().isEmpty()) return QStringLiteral("AIへの指示を入力してください");
    if (exceeds(title, kMaxTitleLength) || exceeds(prompt, kMaxPromptLength))
        return QStringLiteral("タイトルは200文字、指示は16,000文字以内にしてください");
    if (!isKnownTimeZone(timeZoneID)) return QStringLiteral("有効なタイムゾーンを選択してください");
    if (!std::isfinite(firstRun.unixSeconds())) return QStringLiteral("実行日時を確認してください");
    return std::nullopt;
}

std::vector<Date> AISchedule::occurrences(const DateInterval& interval) const {
    if (validationMessage()) return {};
    if (!(interval.end > firstRun)) return {};
    if (!recurrence) {
        if (firstRun >= interval.start && firstRun < interval.end) return {firstRun};
        return {};
    }
    if (!std::isfinite(interval.start.unixSeconds()) || !std::isfinite(interval.end.unixSeconds())) return {};

    // Repeats are counted in the schedule's own zone, so 9:00 in Tokyo stays
    // 9:00 in Tokyo whatever the user's zone and its daylight-saving rules.
    const DateCalendar calendar(timeZoneID, QStringLiteral("en_US_POSIX"));
    const auto unit = unitOf(*recurrence);
    const auto elapsed = calendar.difference(unit, firstRun, interval.start);
    if (!elapsed) return {}; // further than the calendar can count
    // One unit of slack, so that the first hit is never skipped.
    long long n = std::max(0, *elapsed - 1);

    std::vector<Date> dates;
    int stepsBeforeInterval = 0;
    for (; n <= INT_MAX; ++n) {
        // Always from `firstRun`, so that a 31st doesn't drift to the 28th.
        const auto date = calendar.adding(unit, static_cast<int>(n), firstRun);
        if (!date || !(*date < interval.end)) break;
        if (*date >= interval.start) {
            dates.push_back(*date);
        } else if (++stepsBeforeInterval > 64) {
            // The calendar's count and its addition disagree (dates at the
            // edge of its range); give up rather than walk unit by unit.
            break;
        }
    }
    return dates;
}

namespace {

// Dates on the wire are seconds since 1970.
struct UnixDateCodec {
    static void read(const JsonValue& value, Date& out) { out = cloudjson::readUnixDate(value); }
    static void write(JsonWriter& w, Date date) { w.number(date.unixSeconds()); }
};

} // namespace

TAVELO_JSON_RECORD(AISchedule,
                   jsonField("id", &AISchedule::id),
                   jsonField("title", &AISchedule::title),
                   jsonField("prompt", &AISchedule::prompt),
                   jsonField<UnixDateCodec>("firstRun", &AISchedule::firstRun),
                   jsonField("timeZoneID", &AISchedule::timeZoneID),
                   jsonField("recurrence", &AISchedule::recurrence),
                   jsonField("isPaused", &AISchedule::isPaused))

AISchedule AISchedule::fromCloudJson(std::string_view text) { return decodeJson<AISchedule>(text); }

QString AIRun::statusLabel() const {
    if (status == QLatin1String("complete")) return QStringLiteral("完了");
    if (status == QLatin1String("running")) return QStringLiteral("実行中");
    if (status == QLatin1String("queued")) return QStringLiteral("実行待ち");
    if (status == QLatin1String("missed")) return QStringLiteral("未実行");
    if (status == QLatin1String("interrupted")) return QStringLiteral("中断");
    if (status == QLatin1String("cancelled")) return QStringLiteral("キャンセル");
    return QStringLiteral("失敗");
}

TAVELO_JSON_RECORD(AIRun,
                   jsonField("id", &AIRun::id),
                   jsonField("scheduleID", &AIRun::scheduleID),
                   jsonField<UnixDateCodec>("scheduledAt", &AIRun::scheduledAt),
                   jsonField<UnixDateCodec>("startedAt", &AIRun::startedAt),
                   jsonField<UnixDateCodec>("endedAt", &AIRun::endedAt),
                   jsonField("status", &AIRun::status),
                   jsonField("output", &AIRun::output),
                   jsonField("error", &AIRun::error))

std::optional<AIRun> AICloudState::latestRun(const UUID& id, std::optional<Date> at) const {
    for (const auto& run : runs) {
        if (run.scheduleID != id) continue;
        if (!at || std::fabs(run.scheduledAt.secondsSince(*at)) < 1.0) return run;
    }
    return std::nullopt;
}

std::vector<AIOccurrence> AICloudState::occurrences(Date day, const DateCalendar& calendar) const {
    const Date start = calendar.startOfDay(day);
    const Date end = calendar.adding(DateCalendar::Unit::day, 1, start).value_or(start.addingSeconds(86400));
    std::vector<AIOccurrence> result;
    for (const auto& schedule : schedules)
        for (const auto& date : schedule.occurrences(DateInterval{start, end}))
            result.push_back(AIOccurrence{schedule, date});
    std::stable_sort(result.begin(), result.end(),
                     [](const AIOccurrence& a, const AIOccurrence& b) { return a.date < b.date; });
    return result;
}

TAVELO_JSON_RECORD(AICloudState,
                   jsonField("schedules", &AICloudState::schedules),
                   jsonField("runs", &AICloudState::runs))

AICloudState AICloudState::fromCloudJson(std::string_view text) { return decodeJson<AICloudState>(text); }

} // namespace tavelo
