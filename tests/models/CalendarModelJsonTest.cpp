#include "models/AppSnapshot.h"
#include "support/JsonReader.h"
#include "support/JsonWriter.h"

#include <gtest/gtest.h>

using namespace tavelo;

namespace {

UUID id(const char* text) { return UUID::literal(text); }

const UUID kCal1 = id("11111111-1111-4111-8111-111111111111");
const UUID kCal2 = id("22222222-2222-4222-8222-222222222222");

// Every field set, optional ones included.
CalendarEvent sampleEvent() {
    return CalendarEvent{
        .id = id("AAAAAAAA-0000-4000-8000-000000000001"),
        .groupID = id("BBBBBBBB-0000-4000-8000-000000000001"),
        .sourceEventID = id("DDDDDDDD-0000-4000-8000-000000000001"),
        .title = QStringLiteral("定例会議"),
        .start = *Date::fromIsoString("2026-01-05T09:00:00Z"),
        .end = *Date::fromIsoString("2026-01-05T10:00:00Z"),
        .recurrence = EventRecurrence::weekly,
        .calendarID = kCal1,
        .tagID = id("EEEEEEEE-0000-4000-8000-000000000001"),
        .notes = QStringLiteral("議題"),
        .guests = {Guest{id("CCCCCCCC-0000-4000-8000-000000000001"), "Ann", "ann@example.com", GuestStatus::accepted}},
        .notifications = {10, 0},
        .meetURL = CalendarEvent::pendingMeetURL(),
        .visibility = EventVisibility::privateTitle,
        .externalUID = QStringLiteral("uid@google.com"),
        .googleEventID = QStringLiteral("g1"),
        .googleETag = QStringLiteral("\"etag\""),
        .googleUpdatedAt = *Date::fromIsoString("2026-01-04T08:00:00Z"),
    };
}

std::string snapshotJson(const std::string& eventsJson = "[]") {
    return R"({"version":1,"accounts":[],"calendars":[],"events":)" + eventsJson +
           R"(,"tags":[],"preferences":{"mergeDuplicates":true,"crossAccountAvailability":true,"automaticBusyBlocks":true,)"
           R"("busyBlockScope":"all","customBusyBlockCalendarIDs":[],"includePastSearchResults":false}})";
}

} // namespace

TEST(CalendarModelJsonTest, DatesLoseTheirFractionOnARoundTrip) {
    CalendarEvent event = sampleEvent();
    event.start = event.start.addingSeconds(0.25);
    EXPECT_EQ(decodeJson<CalendarEvent>(encodeJson(event)), sampleEvent());
}

TEST(CalendarModelJsonTest, SnapshotDefaultsOnlyTheSyncStates) {
    const auto snapshot = decodeJson<AppSnapshot>(snapshotJson());
    EXPECT_EQ(snapshot.version, 1);
    EXPECT_TRUE(snapshot.googleSyncStates.empty());
    EXPECT_EQ(snapshot.preferences, AppPreferences::defaults());
}

TEST(CalendarModelJsonTest, ADamagedEventMakesTheWholeSnapshotUndecodable) {
    const std::string good = encodeJson(sampleEvent());
    auto replaced = [&](const std::string& from, const std::string& to) {
        std::string json = good;
        json.replace(json.find(from), from.size(), to);
        return snapshotJson("[" + json + "]");
    };
    EXPECT_NO_THROW(decodeJson<AppSnapshot>(snapshotJson("[" + good + "]")));
    for (const auto& [from, to] : std::vector<std::pair<std::string, std::string>>{
             {"\"weekly\"", "\"yearly\""}, {"09:00:00Z", "09:00:00.123Z"}, {"\"accepted\"", "\"maybe\""}, {"\"notes\":\"議題\",", ""}})
        EXPECT_THROW(decodeJson<AppSnapshot>(replaced(from, to)), JsonDecodingError) << from;
    // Absent and null optionals are both nothing.
    EXPECT_EQ(decodeJson<AppSnapshot>(replaced("\"recurrence\":\"weekly\"", "\"recurrence\":null")).events[0].recurrence,
              std::nullopt);
}

TEST(CalendarModelJsonTest, TagRuleConditionsUseTheSingleKeyForm) {
    const Tag tag{
        .id = id("DDDDDDDD-0000-4000-8000-000000000001"),
        .name = QStringLiteral("会議"),
        .colorHex = QStringLiteral("#FF0000"),
        .sortOrder = 2,
        .weeklyTargetMinutes = std::nullopt,
        .warnsWhenExceeded = true,
        .rules = {TagRule{id("EEEEEEEE-0000-4000-8000-000000000001"), TagRuleCondition::titleContains("定例")},
                  TagRule{id("EEEEEEEE-0000-4000-8000-000000000002"), TagRuleCondition::calendarEquals(kCal2)}},
    };
    const std::string json = encodeJson(tag);
    EXPECT_NE(json.find(R"("condition":{"titleContains":{"_0":"定例"}})"), std::string::npos) << json;
    EXPECT_NE(json.find(R"("condition":{"calendarEquals":{"_0":"22222222-2222-4222-8222-222222222222"}})"),
              std::string::npos);
    EXPECT_EQ(decodeJson<Tag>(json), tag);

    for (const char* bad : {R"({})", R"({"titleContains":{"_0":"a"},"calendarEquals":{"_0":"a"}})",
                            R"({"titleStarts":{"_0":"a"}})", R"({"calendarEquals":{"_0":"nope"}})"})
        EXPECT_THROW(decodeJson<TagRuleCondition>(bad), JsonDecodingError) << bad;
}
