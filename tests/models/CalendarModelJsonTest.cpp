#include "models/AppSnapshot.h"
#include "support/JsonReader.h"
#include "support/JsonWriter.h"

#include "support/MetaEnumCheck.h"

#include <QJsonDocument>
#include <QJsonObject>

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

std::string snapshotJson(const std::string& extraTopLevel, const std::string& eventsJson = "[]",
                         bool withTags = true) {
    std::string json = R"({"version":1,"accounts":[],"calendars":[],"events":)" + eventsJson;
    if (withTags) json += R"(,"tags":[])";
    json += R"(,"preferences":{"mergeDuplicates":true,"crossAccountAvailability":true,"automaticBusyBlocks":true,)"
            R"("busyBlockScope":"all","customBusyBlockCalendarIDs":[],"includePastSearchResults":false})";
    return json + extraTopLevel + "}";
}

} // namespace

TEST(CalendarModelJsonTest, DatesLoseTheirFractionOnARoundTrip) {
    CalendarEvent event = sampleEvent();
    event.start = event.start.addingSeconds(0.25);
    EXPECT_EQ(decodeJson<CalendarEvent>(encodeJson(event)), sampleEvent());
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
    const std::string states = R"(,"googleSyncStates":[{"calendarID":"11111111-1111-4111-8111-111111111111","syncToken":"A"},)"
                               R"({"calendarID":"22222222-2222-4222-8222-222222222222","syncToken":"B"},)"
                               R"({"calendarID":"11111111-1111-4111-8111-111111111111","syncToken":"C","lastSync":null}])";
    const auto decoded = decodeJson<AppSnapshot>(snapshotJson(states));
    EXPECT_EQ(decoded.googleSyncStates, (std::vector<GoogleCalendarSyncState>{{kCal1, QStringLiteral("C"), std::nullopt},
                                                                              {kCal2, QStringLiteral("B"), std::nullopt}}));

    // The initialiser normalises the same way.
    const AppSnapshot built(2, {}, {}, {}, {}, AppPreferences::defaults(),
                            {{kCal1, QStringLiteral("A"), std::nullopt},
                             {kCal2, QStringLiteral("B"), std::nullopt},
                             {kCal1, QStringLiteral("C"), std::nullopt}});
    EXPECT_EQ(built.googleSyncStates, decoded.googleSyncStates);
}

TEST(CalendarModelJsonTest, ADamagedEventMakesTheWholeSnapshotUndecodable) {
    const std::string good = encodeJson(sampleEvent());
    auto replaced = [&](const std::string& from, const std::string& to) {
        std::string json = good;
        json.replace(json.find(from), from.size(), to);
        return snapshotJson("", "[" + json + "]");
    };
    EXPECT_NO_THROW(decodeJson<AppSnapshot>(snapshotJson("", "[" + good + "]")));
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

namespace {

// Every key written must be read back, and each is required unless it is one
// of the record's optional keys: a field table that forgets one direction or
// gives a field the wrong presence shows up here.
template <class T>
void expectPresence(const T& full, const std::set<QString>& optionalKeys) {
    const std::string json = encodeJson(full);
    EXPECT_EQ(decodeJson<T>(json), full) << json;
    const QJsonObject object = QJsonDocument::fromJson(QByteArray::fromStdString(json)).object();
    for (const QString& key : optionalKeys) EXPECT_TRUE(object.contains(key)) << key.toStdString() << " not written";
    for (const QString& key : object.keys()) {
        QJsonObject cut = object;
        cut.remove(key);
        std::string error;
        try {
            decodeJson<T>(QJsonDocument(cut).toJson(QJsonDocument::Compact).toStdString());
        } catch (const JsonDecodingError& e) {
            error = e.what();
        }
        if (optionalKeys.contains(key))
            EXPECT_EQ(error, "") << key.toStdString();
        else
            EXPECT_NE(error.find(key.toStdString()), std::string::npos) << key.toStdString() << ": " << error;
    }
}

} // namespace

TEST(CalendarModelJsonTest, EveryRecordReadsBackEveryKeyWithItsPresence) {
    expectPresence(sampleEvent(), {"sourceEventID", "recurrence", "tagID", "meetURL", "externalUID", "googleEventID",
                                   "googleETag", "googleUpdatedAt"});
    expectPresence(Tag{.id = kCal2, .name = "Deep work", .colorHex = "#112233", .sortOrder = 3,
                       .weeklyTargetMinutes = 600, .warnsWhenExceeded = true,
                       .rules = {TagRule{kCal1, TagRuleCondition::titleContains("focus")}}},
                   {"weeklyTargetMinutes"});
    expectPresence(Account{.id = kCal1, .name = "Work", .email = "a@example.com", .kind = AccountKind::family,
                           .colorHex = "#000000", .isConnected = true,
                           .lastSync = *Date::fromIsoString("2026-01-01T00:00:00Z"), .googleSubject = "sub"},
                   {"lastSync", "googleSubject"});
    expectPresence(CalendarSource{.id = kCal2, .accountID = kCal1, .name = "Team", .colorHex = "#ABCDEF",
                                  .isVisible = false, .receivesBusyBlocks = true, .googleCalendarID = "team@x",
                                  .googleTimeZoneIdentifier = "Asia/Tokyo"},
                   {"accountID", "googleCalendarID", "googleTimeZoneIdentifier"});
    expectPresence(GoogleCalendarSyncState{.calendarID = kCal1, .syncToken = "tok",
                                           .lastSync = *Date::fromIsoString("2026-01-02T00:00:00Z")},
                   {"syncToken", "lastSync"});
    AppPreferences preferences;
    preferences.busyBlockScope = BusyBlockScope::custom;
    preferences.customBusyBlockCalendarIDs = {kCal1, kCal2};
    expectPresence(preferences, {});
}

TEST(CalendarModelJsonTest, EnumerationsShowTheirStoredNames) {
    using tavelo::testing::expectMetaNamesMatch;
    expectMetaNamesMatch<EventKind>(kEventKindNames);
    expectMetaNamesMatch<EventRecurrence>(kEventRecurrenceNames);
    expectMetaNamesMatch<Availability>(kAvailabilityNames);
    expectMetaNamesMatch<EventVisibility>(kEventVisibilityNames);
    expectMetaNamesMatch<GuestStatus>(kGuestStatusNames);
    expectMetaNamesMatch<AccountKind>(kAccountKindNames);
    expectMetaNamesMatch<BusyBlockScope>(kBusyBlockScopeNames);
}
