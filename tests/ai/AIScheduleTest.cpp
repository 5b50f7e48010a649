#include "ai/AISchedule.h"

#include "support/DateCalendar.h"
#include "support/JsonWriter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace tavelo;

namespace {

AISchedule schedule(Date firstRun, std::optional<EventRecurrence> recurrence, QString zone = "Asia/Tokyo") {
    return AISchedule{
        .id = UUID::literal("6F1C2A9E-4B1D-4F0A-9C53-2E7D8B1A0C11"),
        .title = "朝のまとめ",
        .prompt = "昨日のメールを要約して",
        .firstRun = firstRun,
        .timeZoneID = zone,
        .recurrence = recurrence,
        .isPaused = false,
    };
}

Date local(const char* zone, int y, int m, int d, int h = 0, int mi = 0) {
    return *DateCalendar(zone, "en_US_POSIX").date(y, m, d, h, mi);
}

QString repeated(const QString& unit, int count) {
    QString out;
    for (int i = 0; i < count; ++i) out += unit;
    return out;
}

} // namespace

TEST(AIScheduleTest, ValidationNamesTheFirstBrokenRule) {
    const auto valid = schedule(local("Asia/Tokyo", 2026, 1, 5, 9), EventRecurrence::daily);
    EXPECT_EQ(valid.validationMessage(), std::nullopt);

    auto s = valid;
    s.title = " \n\t　"; // includes an ideographic space
    s.prompt = "";
    EXPECT_EQ(s.validationMessage(), QString("タイトルを入力してください"));

    s = valid;
    s.prompt = "\n  \n";
    EXPECT_EQ(s.validationMessage(), QString("AIへの指示を入力してください"));

    // Lengths count what the user sees: a skin-toned thumb is one character
    // of four UTF-16 units.
    s = valid;
    s.title = repeated("👍🏽", 200);
    EXPECT_EQ(s.validationMessage(), std::nullopt);
    s.title = repeated("a", 201);
    EXPECT_EQ(s.validationMessage(), QString("タイトルは200文字、指示は16,000文字以内にしてください"));
    s = valid;
    s.prompt = repeated("x", 16000);
    EXPECT_EQ(s.validationMessage(), std::nullopt);
    s.prompt += "y";
    EXPECT_EQ(s.validationMessage(), QString("タイトルは200文字、指示は16,000文字以内にしてください"));

    s = valid;
    for (const char* zone : {"", "Mars/Olympus", "Etc/Unknown"}) {
        s.timeZoneID = zone;
        EXPECT_EQ(s.validationMessage(), QString("有効なタイムゾーンを選択してください")) << zone;
    }

    s = valid;
    s.firstRun = Date::fromUnixSeconds(std::numeric_limits<double>::infinity());
    EXPECT_EQ(s.validationMessage(), QString("実行日時を確認してください"));
    EXPECT_TRUE(s.occurrences({Date::fromUnixSeconds(0), Date::fromUnixSeconds(4e9)}).empty());
}

TEST(AIScheduleTest, OneTimeScheduleUsesAHalfOpenInterval) {
    const Date at = local("Asia/Tokyo", 2026, 2, 1, 9);
    const auto once = schedule(at, std::nullopt);
    EXPECT_EQ(once.occurrences({at, at.addingSeconds(60)}), std::vector<Date>{at});
    EXPECT_TRUE(once.occurrences({at.addingSeconds(-60), at}).empty());
    EXPECT_TRUE(once.occurrences({at.addingSeconds(1), at.addingSeconds(60)}).empty());

    auto invalid = once;
    invalid.prompt = " ";
    EXPECT_TRUE(invalid.occurrences({at, at.addingSeconds(60)}).empty());
}

TEST(AIScheduleTest, DailyRepeatsKeepTheScheduleZonesWallClock) {
    // 9:00 in Tokyo, looked at over a week that spans New York's switch to
    // daylight saving time: still 9:00 in Tokyo, i.e. 00:00 UTC, every day.
    const auto tokyo = schedule(local("Asia/Tokyo", 2025, 12, 1, 9), EventRecurrence::daily);
    const DateInterval week{local("America/New_York", 2026, 3, 5), local("America/New_York", 2026, 3, 12)};
    const auto dates = tokyo.occurrences(week);
    ASSERT_EQ(dates.size(), 7u);
    const DateCalendar tokyoCalendar("Asia/Tokyo", "en_US_POSIX");
    for (std::size_t i = 0; i < dates.size(); ++i) {
        EXPECT_EQ(tokyoCalendar.components(dates[i]).hour, 9);
        if (i > 0) {
            EXPECT_EQ(dates[i].secondsSince(dates[i - 1]), 86400.0);
        }
    }

    // The same hour in New York moves in UTC when the clocks change there.
    const auto newYork = schedule(local("America/New_York", 2026, 3, 1, 9), EventRecurrence::daily, "America/New_York");
    const auto nyDates = newYork.occurrences(week);
    ASSERT_EQ(nyDates.size(), 7u);
    const DateCalendar nyCalendar("America/New_York", "en_US_POSIX");
    for (const auto& d : nyDates) EXPECT_EQ(nyCalendar.components(d).hour, 9);
    EXPECT_EQ(nyDates[3].secondsSince(nyDates[2]), 23 * 3600.0); // 7 March -> 8 March
    EXPECT_EQ(nyDates[4].secondsSince(nyDates[3]), 24 * 3600.0);
}

TEST(AIScheduleTest, MonthlyRepeatsFromTheAnchorWithoutDrifting) {
    const auto monthly = schedule(local("Asia/Tokyo", 2026, 1, 31, 8, 30), EventRecurrence::monthly);
    const auto dates = monthly.occurrences({local("Asia/Tokyo", 2026, 1, 1), local("Asia/Tokyo", 2026, 5, 1)});
    // February and April have no 31st: their occurrences fall on the last
    // day, and March is back on the 31st.
    EXPECT_EQ(dates, (std::vector<Date>{local("Asia/Tokyo", 2026, 1, 31, 8, 30), local("Asia/Tokyo", 2026, 2, 28, 8, 30),
                                        local("Asia/Tokyo", 2026, 3, 31, 8, 30), local("Asia/Tokyo", 2026, 4, 30, 8, 30)}));
    const auto march = monthly.occurrences({local("Asia/Tokyo", 2026, 3, 1), local("Asia/Tokyo", 2026, 4, 1)});
    EXPECT_EQ(march, std::vector<Date>{local("Asia/Tokyo", 2026, 3, 31, 8, 30)});
    // A leap year's February ends on the 29th.
    const auto leap = schedule(local("Asia/Tokyo", 2027, 10, 31, 8, 30), EventRecurrence::monthly)
                          .occurrences({local("Asia/Tokyo", 2028, 2, 1), local("Asia/Tokyo", 2028, 3, 1)});
    EXPECT_EQ(leap, std::vector<Date>{local("Asia/Tokyo", 2028, 2, 29, 8, 30)});
}

TEST(AIScheduleTest, RepeatsLongAfterTheAnchorAreFoundWithoutWalkingFromIt) {
    const auto weekly = schedule(local("Europe/Berlin", 2001, 1, 1, 7), EventRecurrence::weekly, "Europe/Berlin");
    // 1 January 2001 and 5 January 2026 are both Mondays.
    const DateInterval day{local("Europe/Berlin", 2026, 1, 5), local("Europe/Berlin", 2026, 1, 6)};
    EXPECT_EQ(weekly.occurrences(day), std::vector<Date>{local("Europe/Berlin", 2026, 1, 5, 7)});
    EXPECT_TRUE(weekly.occurrences({day.end, day.end.addingSeconds(86400 * 6)}).empty());
    // An interval that ends before the anchor, or an inverted one, is empty.
    EXPECT_TRUE(weekly.occurrences({Date::fromUnixSeconds(0), local("Europe/Berlin", 2001, 1, 1, 7)}).empty());
    EXPECT_TRUE(weekly.occurrences({day.end, day.start}).empty());
}

TEST(AIScheduleTest, WireFormatUsesSecondsSince1970AndStrictValues) {
    auto s = schedule(Date::fromUnixSeconds(1767225600.5), EventRecurrence::weekly);
    s.isPaused = true;
    const std::string json = encodeJson(s);
    EXPECT_NE(json.find("\"firstRun\":1767225600.5"), std::string::npos) << json;
    EXPECT_NE(json.find("\"id\":\"6F1C2A9E-4B1D-4F0A-9C53-2E7D8B1A0C11\""), std::string::npos) << json;
    EXPECT_EQ(AISchedule::fromCloudJson(json), s);

    s.recurrence.reset();
    EXPECT_EQ(encodeJson(s).find("recurrence"), std::string::npos);
    EXPECT_EQ(AISchedule::fromCloudJson(encodeJson(s)), s);

    const std::string state = R"({"schedules":[],"runs":[{"id":"r1","scheduleID":"6f1c2a9e-4b1d-4f0a-9c53-2e7d8b1a0c11",
        "scheduledAt":1767225600,"startedAt":null,"status":"complete","output":"ok","extra":1}]})";
    const auto decoded = AICloudState::fromCloudJson(state);
    ASSERT_EQ(decoded.runs.size(), 1u);
    EXPECT_EQ(decoded.runs[0].scheduledAt, Date::fromUnixSeconds(1767225600));
    EXPECT_EQ(decoded.runs[0].startedAt, std::nullopt);
    EXPECT_EQ(AICloudState::fromCloudJson(encodeJson(decoded)), decoded);

    for (const char* bad : {R"({"schedules":[]})", R"({"schedules":[],"runs":[{"id":"r"}]})",
                            R"({"schedules":[{"id":"x","title":"t","prompt":"p","firstRun":"2026-01-01T00:00:00Z",
                                "timeZoneID":"UTC","isPaused":false}],"runs":[]})",
                            R"({"schedules":[{"id":"6F1C2A9E-4B1D-4F0A-9C53-2E7D8B1A0C11","title":"t","prompt":"p",
                                "firstRun":0,"timeZoneID":"UTC","recurrence":"yearly","isPaused":false}],"runs":[]})",
                            "<html>busy</html>"})
        EXPECT_ANY_THROW(AICloudState::fromCloudJson(bad)) << bad;
}

TEST(AIScheduleTest, RunsAreLabelledAndMatchedToTheirOccurrence) {
    const std::vector<std::pair<QString, QString>> labels = {
        {"complete", "完了"},   {"running", "実行中"},   {"queued", "実行待ち"},   {"missed", "未実行"},
        {"interrupted", "中断"}, {"cancelled", "キャンセル"}, {"exploded", "失敗"}, {"", "失敗"}};
    for (const auto& [status, label] : labels) EXPECT_EQ(AIRun{.status = status}.statusLabel(), label) << status.toStdString();

    const UUID id = UUID::literal("6F1C2A9E-4B1D-4F0A-9C53-2E7D8B1A0C11");
    const UUID other = UUID::literal("00000000-0000-4000-8000-000000000001");
    const Date at = Date::fromUnixSeconds(1767225600);
    AICloudState state;
    state.runs = {AIRun{.id = "other", .scheduleID = other, .scheduledAt = at},
                  AIRun{.id = "late", .scheduleID = id, .scheduledAt = at.addingSeconds(1.0)},
                  AIRun{.id = "near", .scheduleID = id, .scheduledAt = at.addingSeconds(-0.9)},
                  AIRun{.id = "exact", .scheduleID = id, .scheduledAt = at}};
    EXPECT_EQ(state.latestRun(id)->id, "late");
    EXPECT_EQ(state.latestRun(id, at)->id, "near");
    EXPECT_EQ(state.latestRun(id, at.addingSeconds(2.5)), std::nullopt);
    EXPECT_EQ(state.latestRun(UUID::literal("00000000-0000-4000-8000-000000000002")), std::nullopt);
}

TEST(AIScheduleTest, CalendarStripListsTheDaysOccurrencesInTheUsersCalendar) {
    AICloudState state;
    auto evening = schedule(local("Asia/Tokyo", 2026, 1, 1, 20), EventRecurrence::daily);
    evening.id = UUID::literal("00000000-0000-4000-8000-0000000000E0");
    auto morning = schedule(local("Asia/Tokyo", 2026, 1, 1, 7), EventRecurrence::daily);
    morning.id = UUID::literal("00000000-0000-4000-8000-0000000000A0");
    morning.isPaused = true; // still shown
    state.schedules = {evening, morning};
    // A user in London: their 10 January holds Tokyo's 20:00 of the 10th
    // (11:00 London) and Tokyo's 07:00 of the 11th (22:00 London).
    const DateCalendar london("Europe/London", "en_GB");
    const auto strip = state.occurrences(local("Europe/London", 2026, 1, 10, 12), london);
    ASSERT_EQ(strip.size(), 2u);
    EXPECT_EQ(strip[0].schedule.id, evening.id);
    EXPECT_EQ(strip[0].date, local("Asia/Tokyo", 2026, 1, 10, 20));
    EXPECT_EQ(strip[1].schedule.id, morning.id);
    EXPECT_EQ(strip[1].date, local("Asia/Tokyo", 2026, 1, 11, 7));
}
