#include "Schedule.h"

#include <boost/json.hpp>
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

namespace tavelo::cloud {
namespace {

constexpr double kJan31Tokyo9 = 1769817600; // 2026-01-31T00:00:00Z = 09:00 in Tokyo
constexpr double kDay = 86400;

ScheduleRecord schedule(std::optional<std::string> recurrence = std::nullopt, double firstRun = kJan31Tokyo9,
                        std::string zone = "Asia/Tokyo") {
    return ScheduleRecord{"6f1e2b3c-0000-4000-8000-000000000001", "Morning summary", "Summarise my day", firstRun,
                          std::move(zone), std::move(recurrence), false};
}

TEST(ScheduleRules, ValidationGivesTheFirstFailingRuleInOrder) {
    auto s = schedule();
    EXPECT_EQ(validationMessage(s), std::nullopt);
    s.title = " \n\t ";
    s.prompt = "";
    EXPECT_EQ(validationMessage(s), "タイトルを入力してください");
    s.prompt = "p";
    // 200 Japanese characters are 600 bytes but still 200 characters.
    std::string japanese;
    for (int i = 0; i < 200; ++i) japanese += "あ";
    s.title = japanese;
    EXPECT_EQ(validationMessage(s), std::nullopt);
    s.title = japanese + "a";
    EXPECT_EQ(validationMessage(s), "タイトルは200文字、指示は16,000文字以内にしてください");
    s.title = "ok";
    s.timeZoneID = "Mars/Olympus";
    EXPECT_EQ(validationMessage(s), "有効なタイムゾーンを選択してください");
    s.timeZoneID = "Asia/Tokyo";
    s.firstRun = INFINITY;
    EXPECT_EQ(validationMessage(s), "実行日時を確認してください");
    s.firstRun = kJan31Tokyo9;
    s.recurrence = "hourly";
    EXPECT_TRUE(validationMessage(s).has_value());
}

TEST(ScheduleRules, OccurrencesKeepTheLocalTimeAndFallOnTheLastDayOfShortMonths) {
    // 2026-03-07 09:00 in New York is 14:00Z; after the 8 March change 09:00 is 13:00Z.
    const double newYork = 1772892000;
    const double feb28 = 1772236800, mar31 = 1774915200; // 09:00 in Tokyo
    struct Case { const char* name; ScheduleRecord schedule; double from, to; std::vector<double> expected; };
    const Case cases[] = {
        {"once, start included", schedule(), kJan31Tokyo9, kJan31Tokyo9 + 1, {kJan31Tokyo9}},
        {"monthly on the 31st", schedule("monthly"), kJan31Tokyo9, kJan31Tokyo9 + 70 * kDay, {kJan31Tokyo9, feb28, mar31}},
        {"daily across daylight saving", schedule("daily", newYork, "America/New_York"), newYork, newYork + 2 * kDay + 1,
         {newYork, newYork + kDay - 3600, newYork + 2 * kDay - 3600}},
    };
    for (const auto& c : cases) EXPECT_EQ(occurrences(c.schedule, c.from, c.to), c.expected) << c.name;
}

TEST(ScheduleRules, NextOccurrenceIsTheFirstOneAfterTheGivenMoment) {
    const auto once = schedule(), monthly = schedule("monthly"), weekly = schedule("weekly");
    const double feb28 = 1772236800, mar31 = 1774915200;
    const std::tuple<const ScheduleRecord*, double, std::optional<double>> cases[] = {
        {&once, kJan31Tokyo9 - 1, kJan31Tokyo9},
        {&once, kJan31Tokyo9, std::nullopt},
        {&monthly, feb28, mar31},
        {&weekly, kJan31Tokyo9 - 1000, kJan31Tokyo9}, // before the first run, the first run
        {&weekly, kJan31Tokyo9 + 400 * kDay + 5, kJan31Tokyo9 + 406 * kDay}, // 58 weeks on
    };
    for (const auto& [s, after, expected] : cases)
        EXPECT_EQ(nextOccurrence(*s, after), expected) << s->recurrence.value_or("once") << " after " << after;
}

TEST(ScheduleRules, DecodingRejectsWrongTypesAndNormalisesTheId) {
    auto parse = [](const char* text) { return boost::json::parse(text).as_object(); };
    auto decoded = decodeSchedule(parse(R"({"id":"6F1E2B3C-0000-4000-8000-00000000000A","title":"t","prompt":"p",
        "firstRun":1769817600.5,"timeZoneID":"Asia/Tokyo","recurrence":null,"isPaused":true})"));
    ASSERT_TRUE(std::holds_alternative<ScheduleRecord>(decoded));
    const auto& s = std::get<ScheduleRecord>(decoded);
    EXPECT_EQ(s.id, "6f1e2b3c-0000-4000-8000-00000000000a");
    EXPECT_EQ(s.firstRun, 1769817600.5);
    EXPECT_FALSE(s.recurrence);
    EXPECT_TRUE(s.isPaused);
    for (const char* bad : {R"({"id":"../../etc/passwd","title":"t","prompt":"p","firstRun":1,"timeZoneID":"UTC","isPaused":false})",
                            R"({"id":"6f1e2b3c-0000-4000-8000-00000000000a","title":5,"prompt":"p","firstRun":1,"timeZoneID":"UTC","isPaused":false})",
                            R"({"id":"6f1e2b3c-0000-4000-8000-00000000000a","title":"t","prompt":"p","firstRun":"soon","timeZoneID":"UTC","isPaused":false})",
                            R"({"id":"6f1e2b3c-0000-4000-8000-00000000000a","title":"t","prompt":"p","firstRun":1,"timeZoneID":"UTC"})",
                            R"({"id":"6f1e2b3c-0000-4000-8000-00000000000a","title":"t","prompt":"p","firstRun":1,"timeZoneID":"UTC","isPaused":false,"recurrence":7})"})
        EXPECT_TRUE(std::holds_alternative<std::string>(decodeSchedule(parse(bad)))) << bad;
}

} // namespace
} // namespace tavelo::cloud
