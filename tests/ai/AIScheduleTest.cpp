#include "ai/AISchedule.h"

#include "support/DateCalendar.h"
#include "support/JsonWriter.h"

#include <gtest/gtest.h>

#include <limits>

using namespace tavelo;

namespace {

const UUID kID = UUID::literal("6F1C2A9E-4B1D-4F0A-9C53-2E7D8B1A0C11");

Date local(const char* zone, int y, int m, int d, int h = 0, int mi = 0) {
    return *DateCalendar(zone, "en_US_POSIX").date(y, m, d, h, mi);
}
Date tokyo(int y, int m, int d, int h = 0, int mi = 0) { return local("Asia/Tokyo", y, m, d, h, mi); }
Date newYork(int m, int d, int h = 0) { return local("America/New_York", 2026, m, d, h); }

AISchedule schedule(Date firstRun, std::optional<EventRecurrence> recurrence, QString zone = "Asia/Tokyo") {
    return AISchedule{kID, "朝のまとめ", "昨日のメールを要約して", firstRun, zone, recurrence, false};
}

} // namespace

TEST(AIScheduleTest, ValidationNamesTheFirstBrokenRule) {
    const QString tooLong = "タイトルは200文字、指示は16,000文字以内にしてください";
    const std::pair<void (*)(AISchedule&), std::optional<QString>> cases[] = {
        {[](AISchedule&) {}, std::nullopt},
        {[](AISchedule& s) { s.title = " \n\t　", s.prompt = ""; }, "タイトルを入力してください"}, // ideographic space
        {[](AISchedule& s) { s.prompt = "\n  \n"; }, "AIへの指示を入力してください"},
        // Lengths count what the user sees: a skin-toned thumb is one character of four UTF-16 units.
        {[](AISchedule& s) { s.title = QString("👍🏽").repeated(200); }, std::nullopt},
        {[](AISchedule& s) { s.title = QString(201, QChar('a')); }, tooLong},
        {[](AISchedule& s) { s.prompt = QString(16001, QChar('x')); }, tooLong},
        {[](AISchedule& s) { s.timeZoneID = "Mars/Olympus"; }, "有効なタイムゾーンを選択してください"},
        {[](AISchedule& s) { s.firstRun = Date::fromUnixSeconds(std::numeric_limits<double>::infinity()); },
         "実行日時を確認してください"},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const auto& [edit, message] = cases[i];
        auto s = schedule(tokyo(2026, 1, 5, 9), EventRecurrence::daily);
        edit(s);
        EXPECT_EQ(s.validationMessage(), message) << "case " << i;
        // An invalid schedule never runs.
        EXPECT_EQ(s.occurrences({s.firstRun, s.firstRun.addingSeconds(1)}).empty(), message.has_value());
    }
}

TEST(AIScheduleTest, OccurrencesKeepTheScheduleZonesWallClockAndAnchor) {
    const Date at = tokyo(2026, 2, 1, 9);
    const auto once = schedule(at, std::nullopt);
    const auto monthly = schedule(tokyo(2026, 1, 31, 8, 30), EventRecurrence::monthly);
    // A week over New York's switch to daylight saving time: 9:00 in Tokyo
    // stays 9:00 in Tokyo, and 9:00 in New York moves in UTC.
    const DateInterval nyWeek{newYork(3, 5), newYork(3, 12)};
    std::vector<Date> tokyoNine, newYorkNine;
    for (int d = 6; d <= 12; ++d) tokyoNine.push_back(tokyo(2026, 3, d, 9));
    for (int d = 5; d <= 11; ++d) newYorkNine.push_back(newYork(3, d, 9));
    struct Case { const char* name; AISchedule schedule; DateInterval interval; std::vector<Date> expected; };
    const Case cases[] = {
        {"once, start included", once, {at, at.addingSeconds(60)}, {at}},
        {"once, end excluded", once, {at.addingSeconds(-60), at}, {}},
        {"daily in Tokyo", schedule(tokyo(2025, 12, 1, 9), EventRecurrence::daily), nyWeek, tokyoNine},
        {"daily in New York", schedule(newYork(3, 1, 9), EventRecurrence::daily, "America/New_York"), nyWeek, newYorkNine},
        // Months without a 31st fall on their last day; March is back on the 31st.
        {"monthly on the 31st", monthly, {tokyo(2026, 1, 1), tokyo(2026, 5, 1)},
         {tokyo(2026, 1, 31, 8, 30), tokyo(2026, 2, 28, 8, 30), tokyo(2026, 3, 31, 8, 30), tokyo(2026, 4, 30, 8, 30)}},
    };
    for (const auto& c : cases) EXPECT_EQ(c.schedule.occurrences(c.interval), c.expected) << c.name;
}

TEST(AIScheduleTest, WireFormatUsesSecondsSince1970AndStrictValues) {
    auto s = schedule(Date::fromUnixSeconds(1767225600.5), EventRecurrence::weekly);
    s.isPaused = true;
    EXPECT_EQ(AISchedule::fromCloudJson(encodeJson(s)), s);

    const auto state = AICloudState::fromCloudJson(R"({"schedules":[],"runs":[{"id":"r1",
        "scheduleID":"6f1c2a9e-4b1d-4f0a-9c53-2e7d8b1a0c11","scheduledAt":1767225600,"startedAt":null,
        "status":"complete","output":"ok","extra":1}]})");
    ASSERT_EQ(state.runs.size(), 1u);
    EXPECT_EQ(state.runs[0].scheduledAt, Date::fromUnixSeconds(1767225600));
    EXPECT_EQ(state.runs[0].startedAt, std::nullopt);

    for (const char* bad : {R"({"schedules":[]})", R"({"schedules":[],"runs":[{"id":"r"}]})",
                            R"({"schedules":[{"id":"x","title":"t","prompt":"p","firstRun":"2026-01-01T00:00:00Z",
                                "timeZoneID":"UTC","isPaused":false}],"runs":[]})",
                            R"({"schedules":[{"id":"6F1C2A9E-4B1D-4F0A-9C53-2E7D8B1A0C11","title":"t","prompt":"p",
                                "firstRun":0,"timeZoneID":"UTC","recurrence":"yearly","isPaused":false}],"runs":[]})",
                            "<html>busy</html>"})
        EXPECT_ANY_THROW(AICloudState::fromCloudJson(bad)) << bad;
}

TEST(AIScheduleTest, RunsAreMatchedToTheirOccurrence) {
    const Date at = Date::fromUnixSeconds(1767225600);
    AICloudState state;
    state.runs = {AIRun{.id = "other", .scheduleID = UUID::literal("00000000-0000-4000-8000-000000000001"), .scheduledAt = at},
                  AIRun{.id = "late", .scheduleID = kID, .scheduledAt = at.addingSeconds(1.0)},
                  AIRun{.id = "near", .scheduleID = kID, .scheduledAt = at.addingSeconds(-0.9)},
                  AIRun{.id = "exact", .scheduleID = kID, .scheduledAt = at}};
    EXPECT_EQ(state.latestRun(kID)->id, "late");
    EXPECT_EQ(state.latestRun(kID, at)->id, "near");
    EXPECT_EQ(state.latestRun(kID, at.addingSeconds(2.5)), std::nullopt);
    EXPECT_EQ(state.latestRun(UUID::literal("00000000-0000-4000-8000-000000000002")), std::nullopt);
}

TEST(AIScheduleTest, CalendarStripListsTheDaysOccurrencesInTheUsersCalendar) {
    auto evening = schedule(tokyo(2026, 1, 1, 20), EventRecurrence::daily);
    auto morning = schedule(tokyo(2026, 1, 1, 7), EventRecurrence::daily);
    morning.id = UUID::literal("00000000-0000-4000-8000-0000000000A0");
    morning.isPaused = true; // still shown
    // A user in London: their 10 January holds Tokyo's 20:00 of the 10th
    // (11:00 London) and Tokyo's 07:00 of the 11th (22:00 London).
    const auto strip = AICloudState{.schedules = {evening, morning}}.occurrences(
        local("Europe/London", 2026, 1, 10, 12), DateCalendar("Europe/London", "en_GB"));
    EXPECT_EQ(strip, (std::vector<AIOccurrence>{{evening, tokyo(2026, 1, 10, 20)}, {morning, tokyo(2026, 1, 11, 7)}}));
}
