#include "models/AppSnapshot.h"
#include "support/JsonReader.h"
#include "support/JsonWriter.h"

#include <gtest/gtest.h>

using namespace tavelo;

namespace {

UUID id(const char* text) { return UUID::literal(text); }

const UUID kCal1 = id("11111111-1111-4111-8111-111111111111");
const UUID kCal2 = id("22222222-2222-4222-8222-222222222222");

CalendarEvent sampleEvent() {
    return CalendarEvent{
        .id = id("AAAAAAAA-0000-4000-8000-000000000001"),
        .groupID = id("BBBBBBBB-0000-4000-8000-000000000001"),
        .sourceEventID = std::nullopt,
        .kind = EventKind::event,
        .title = QStringLiteral("定例会議"),
        .start = *Date::fromIsoString("2026-01-05T09:00:00Z"),
        .end = *Date::fromIsoString("2026-01-05T10:00:00Z"),
        .isAllDay = false,
        .recurrence = EventRecurrence::weekly,
        .calendarID = kCal1,
        .tagID = std::nullopt,
        .location = QString(),
        .notes = QStringLiteral("議題"),
        .guests = {Guest{id("CCCCCCCC-0000-4000-8000-000000000001"), "Ann", "ann@example.com", GuestStatus::accepted}},
        .notifications = {10, 0},
        .meetURL = CalendarEvent::pendingMeetURL(),
        .availability = Availability::busy,
        .visibility = EventVisibility::privateTitle,
        .isCompleted = false,
        .isGeneratedBusyBlock = false,
        .externalUID = QStringLiteral("uid@google.com"),
        .googleEventID = std::nullopt,
        .googleETag = std::nullopt,
        .googleUpdatedAt = std::nullopt,
    };
}

std::string snapshotJson(const std::string& extraTopLevel, const std::string& eventsJson = "[]",
                         bool withTags = true) {
    std::string json = R"({"version":1,"accounts":[],"calendars":[],"events":)" + eventsJson;
    if (withTags) json += R"(,"tags":[])";
    json += R"(,"preferences":{"mergeDuplicates":true,"crossAccountAvailability":true,"automaticBusyBlocks":true,)"
            R"("busyBlockScope":"all","customBusyBlockCalendarIDs":[],"includePastSearchResults":false})";
    return json + extraTopLevel + "}";
}

} // namespace

TEST(CalendarModelJsonTest, EventKeysFollowFieldOrderAndEmptyOptionalsAreAbsent) {
    const std::string json = encodeJson(sampleEvent());
    EXPECT_EQ(json,
              R"({"id":"AAAAAAAA-0000-4000-8000-000000000001","groupID":"BBBBBBBB-0000-4000-8000-000000000001",)"
              R"("kind":"event","title":"定例会議","start":"2026-01-05T09:00:00Z","end":"2026-01-05T10:00:00Z",)"
              R"("isAllDay":false,"recurrence":"weekly","calendarID":"11111111-1111-4111-8111-111111111111",)"
              R"("location":"","notes":"議題","guests":[{"id":"CCCCCCCC-0000-4000-8000-000000000001","name":"Ann",)"
              R"("email":"ann@example.com","status":"accepted"}],"notifications":[10,0],)"
              R"("meetURL":"tavelo://meet/pending","availability":"busy","visibility":"privateTitle",)"
              R"("isCompleted":false,"isGeneratedBusyBlock":false,"externalUID":"uid@google.com"})");
    EXPECT_EQ(decodeJson<CalendarEvent>(json), sampleEvent());
}

TEST(CalendarModelJsonTest, DatesLoseTheirFractionOnARoundTrip) {
    CalendarEvent event = sampleEvent();
    event.start = event.start.addingSeconds(0.25);
    const auto reread = decodeJson<CalendarEvent>(encodeJson(event));
    EXPECT_NE(reread, event);
    EXPECT_EQ(reread.start, sampleEvent().start);
}

TEST(CalendarModelJsonTest, SnapshotDefaultsOnlyTheSyncStates) {
    const auto snapshot = decodeJson<AppSnapshot>(snapshotJson(""));
    EXPECT_EQ(snapshot.version, 1);
    EXPECT_TRUE(snapshot.googleSyncStates.empty());
    EXPECT_EQ(snapshot.preferences, AppPreferences::defaults());

    EXPECT_THROW(decodeJson<AppSnapshot>(snapshotJson("", "[]", false)), JsonDecodingError);
    EXPECT_THROW(decodeJson<AppSnapshot>(R"({"version":2})"), JsonDecodingError);
}

TEST(CalendarModelJsonTest, SyncStatesCollapseToFirstPositionWithLastContent) {
    const std::string states = std::string(R"(,"googleSyncStates":[)") + R"({"calendarID":")" +
                               kCal1.toStdString() + R"(","syncToken":"A"},)" + R"({"calendarID":")" +
                               kCal2.toStdString() + R"(","syncToken":"B"},)" + R"({"calendarID":")" +
                               kCal1.toStdString() + R"(","syncToken":"C","lastSync":null}])";
    const auto decoded = decodeJson<AppSnapshot>(snapshotJson(states));
    ASSERT_EQ(decoded.googleSyncStates.size(), 2u);
    EXPECT_EQ(decoded.googleSyncStates[0], (GoogleCalendarSyncState{kCal1, QStringLiteral("C"), std::nullopt}));
    EXPECT_EQ(decoded.googleSyncStates[1].syncToken, QStringLiteral("B"));

    // The initialiser normalises the same way.
    const AppSnapshot built(2, {}, {}, {}, {}, AppPreferences::defaults(),
                            {{kCal1, QStringLiteral("A"), std::nullopt},
                             {kCal2, QStringLiteral("B"), std::nullopt},
                             {kCal1, QStringLiteral("C"), std::nullopt}});
    EXPECT_EQ(built.googleSyncStates, decoded.googleSyncStates);

    // Only the calendar id is required.
    const auto bare = decodeJson<GoogleCalendarSyncState>(R"({"calendarID":")" + kCal1.toStdString() + "\"}");
    EXPECT_EQ(bare, (GoogleCalendarSyncState{kCal1, std::nullopt, std::nullopt}));
}

TEST(CalendarModelJsonTest, ADamagedEventMakesTheWholeSnapshotUndecodable) {
    const std::string good = encodeJson(sampleEvent());
    auto replaced = [&](const std::string& from, const std::string& to) {
        std::string json = good;
        json.replace(json.find(from), from.size(), to);
        return snapshotJson("", "[" + json + "]");
    };
    EXPECT_NO_THROW(decodeJson<AppSnapshot>(snapshotJson("", "[" + good + "]")));
    EXPECT_THROW(decodeJson<AppSnapshot>(replaced("\"weekly\"", "\"yearly\"")), JsonDecodingError);
    EXPECT_THROW(decodeJson<AppSnapshot>(replaced("\"2026-01-05T09:00:00Z\"", "\"2026-01-05T09:00:00.123Z\"")),
                 JsonDecodingError);
    EXPECT_THROW(decodeJson<AppSnapshot>(replaced("\"accepted\"", "\"maybe\"")), JsonDecodingError);
    EXPECT_THROW(decodeJson<AppSnapshot>(replaced("\"notes\":\"議題\",", "")), JsonDecodingError);
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
    EXPECT_EQ(json.find("weeklyTargetMinutes"), std::string::npos);
    EXPECT_EQ(decodeJson<Tag>(json), tag);

    for (const char* bad : {R"({})", R"({"titleContains":{"_0":"a"},"calendarEquals":{"_0":"a"}})"}) {
        try {
            decodeJson<TagRuleCondition>(bad);
            ADD_FAILURE() << bad;
        } catch (const JsonDecodingError& e) {
            EXPECT_EQ(e.kind(), JsonDecodingError::Kind::typeMismatch);
            EXPECT_EQ(e.detail(), "Invalid number of keys found, expected one.");
        }
    }
    EXPECT_THROW(decodeJson<TagRuleCondition>(R"({"titleStarts":{"_0":"a"}})"), JsonDecodingError);
    EXPECT_THROW(decodeJson<TagRuleCondition>(R"({"calendarEquals":{"_0":"nope"}})"), JsonDecodingError);
}

TEST(CalendarModelJsonTest, NamedValues) {
    const AppSnapshot empty = AppSnapshot::empty();
    EXPECT_EQ(empty.version, 2);
    EXPECT_TRUE(empty.calendars.empty() && empty.events.empty() && empty.tags.empty());
    EXPECT_EQ(empty.preferences, AppPreferences::defaults());
    EXPECT_TRUE(empty.preferences.mergeDuplicates && empty.preferences.crossAccountAvailability &&
                empty.preferences.automaticBusyBlocks && !empty.preferences.includePastSearchResults);
    EXPECT_EQ(empty.preferences.busyBlockScope, BusyBlockScope::all);

    const auto& tavelo = CalendarSource::tavelo();
    EXPECT_EQ(encodeJson(tavelo), R"({"id":"785A676B-A42A-46B9-8D45-6335F8B12837","name":"Tavelo",)"
                                  R"("colorHex":"#6558D9","isVisible":true,"receivesBusyBlocks":false})");
    EXPECT_EQ(CalendarEvent::pendingMeetURL().toString(), QStringLiteral("tavelo://meet/pending"));

    // Preferences compare as sets, whatever the order on disk.
    const auto a = decodeJson<AppPreferences>(
        R"({"mergeDuplicates":true,"crossAccountAvailability":true,"automaticBusyBlocks":true,"busyBlockScope":"custom",)"
        R"("customBusyBlockCalendarIDs":["11111111-1111-4111-8111-111111111111","22222222-2222-4222-8222-222222222222"],)"
        R"("includePastSearchResults":false})");
    AppPreferences b = AppPreferences::defaults();
    b.busyBlockScope = BusyBlockScope::custom;
    b.customBusyBlockCalendarIDs = {kCal2, kCal1};
    EXPECT_EQ(a, b);
}
