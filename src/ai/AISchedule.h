#pragma once

#include "models/CalendarEvent.h"
#include "support/Date.h"
#include "support/UUID.h"

#include <QString>

#include <optional>
#include <string_view>
#include <vector>

namespace tavelo {

class DateCalendar;
class JsonValue;
class JsonWriter;

// Fixed texts of the schedule screens.
namespace AIScheduleTexts {
inline constexpr const char* saveNeedsConnection = "AI Cloudに接続すると予定を保存できます。";
inline constexpr const char* deleteTitle = "AI Scheduleを削除しますか？";
inline constexpr const char* deleteMessage = "以降の定期実行を停止します。すでに実行中の処理は完了まで続きます。";
inline constexpr const char* notRunYet = "まだ実行されていません。指定時刻になるとクラウドで実行します。";
} // namespace AIScheduleTexts

// An AI task placed on the calendar: a prompt that the cloud runs at
// `firstRun` and, with a recurrence, every day, week or month after it,
// counted in the schedule's own time zone. On the wire and in the cache,
// dates are seconds since 1970.
struct AISchedule {
    static constexpr int kMaxTitleLength = 200;
    static constexpr int kMaxPromptLength = 16000;

    UUID id;
    QString title;
    QString prompt;
    Date firstRun;
    QString timeZoneID;
    std::optional<EventRecurrence> recurrence;
    bool isPaused = false;

    bool operator==(const AISchedule&) const = default;

    // The editor's complaint about the schedule; nothing when it may be saved.
    std::optional<QString> validationMessage() const;
    // Every run time in the half-open `interval`, in order. An invalid
    // schedule has none; pausing does not change them.
    std::vector<Date> occurrences(const DateInterval& interval) const;

    static AISchedule decode(const JsonValue& value);
    void encode(JsonWriter& w) const;
    static AISchedule fromCloudJson(std::string_view text);
};

// One execution of a schedule on the cloud.
struct AIRun {
    QString id;
    UUID scheduleID;
    Date scheduledAt;
    std::optional<Date> startedAt;
    std::optional<Date> endedAt;
    QString status;
    QString output;
    std::optional<QString> error;

    bool operator==(const AIRun&) const = default;

    // The status as the user reads it; an unknown status reads as a failure.
    QString statusLabel() const;

    static AIRun decode(const JsonValue& value);
    void encode(JsonWriter& w) const;
};

// One run time of a schedule, for the calendar strip. Never stored.
struct AIOccurrence {
    AISchedule schedule;
    Date date;

    bool operator==(const AIOccurrence&) const = default;
};

// The schedules and runs as the cloud last reported them.
struct AICloudState {
    std::vector<AISchedule> schedules;
    std::vector<AIRun> runs;

    bool operator==(const AICloudState&) const = default;

    // The first run of schedule `id` in `runs` order; with a date, the first
    // whose `scheduledAt` is less than a second away from it.
    std::optional<AIRun> latestRun(const UUID& id, std::optional<Date> at = std::nullopt) const;
    // The occurrences of every schedule on the day holding `day` in
    // `calendar` (the user's), sorted by date.
    std::vector<AIOccurrence> occurrences(Date day, const DateCalendar& calendar) const;

    static AICloudState decode(const JsonValue& value);
    void encode(JsonWriter& w) const;
    static AICloudState fromCloudJson(std::string_view text);
};

} // namespace tavelo
