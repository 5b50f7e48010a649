// JSON coding of the calendar records. Each record lists its keys once, in
// field order; optional fields are left out when empty and read as empty when
// absent or null; every other key is required.

#include "models/AppSnapshot.h"
#include "models/CalendarEvent.h"
#include "models/Tag.h"
#include "support/JsonRecord.h"

#include <tuple>
#include <unordered_map>

namespace tavelo {

// --- Guest --------------------------------------------------------------------

TAVELO_JSON_RECORD(Guest,
                   jsonField("id", &Guest::id),
                   jsonField("name", &Guest::name),
                   jsonField("email", &Guest::email),
                   jsonField("status", &Guest::status))

// --- CalendarEvent ------------------------------------------------------------

const QUrl& CalendarEvent::pendingMeetURL() {
    static const QUrl url(QStringLiteral("tavelo://meet/pending"));
    return url;
}

TAVELO_JSON_RECORD(CalendarEvent,
                   jsonField("id", &CalendarEvent::id),
                   jsonField("groupID", &CalendarEvent::groupID),
                   jsonField("sourceEventID", &CalendarEvent::sourceEventID),
                   jsonField("kind", &CalendarEvent::kind),
                   jsonField("title", &CalendarEvent::title),
                   jsonField("start", &CalendarEvent::start),
                   jsonField("end", &CalendarEvent::end),
                   jsonField("isAllDay", &CalendarEvent::isAllDay),
                   jsonField("recurrence", &CalendarEvent::recurrence),
                   jsonField("calendarID", &CalendarEvent::calendarID),
                   jsonField("tagID", &CalendarEvent::tagID),
                   jsonField("location", &CalendarEvent::location),
                   jsonField("notes", &CalendarEvent::notes),
                   jsonField("guests", &CalendarEvent::guests),
                   jsonField("notifications", &CalendarEvent::notifications),
                   jsonField("meetURL", &CalendarEvent::meetURL),
                   jsonField("availability", &CalendarEvent::availability),
                   jsonField("visibility", &CalendarEvent::visibility),
                   jsonField("isCompleted", &CalendarEvent::isCompleted),
                   jsonField("isGeneratedBusyBlock", &CalendarEvent::isGeneratedBusyBlock),
                   jsonField("externalUID", &CalendarEvent::externalUID),
                   jsonField("googleEventID", &CalendarEvent::googleEventID),
                   jsonField("googleETag", &CalendarEvent::googleETag),
                   jsonField("googleUpdatedAt", &CalendarEvent::googleUpdatedAt))

// --- Tags ---------------------------------------------------------------------

void TagRuleCondition::encode(JsonWriter& w) const {
    w.beginObject();
    if (const auto* title = asTitleContains()) {
        w.key("titleContains");
        w.beginObject();
        writeField(w, "_0", title->text);
        w.endObject();
    } else if (const auto* calendar = asCalendarEquals()) {
        w.key("calendarEquals");
        w.beginObject();
        writeField(w, "_0", calendar->calendarID);
        w.endObject();
    }
    w.endObject();
}

TagRuleCondition TagRuleCondition::decode(const JsonValue& v) {
    const auto o = v.object();
    if (o.size() != 1) o.fail(JsonDecodingError::Kind::typeMismatch, "Invalid number of keys found, expected one.");
    if (auto inner = o.find("titleContains")) {
        JsonPath path{o.path(), "titleContains", -1};
        const auto payload = JsonValue(*inner, &path).object();
        return titleContains(required<QString>(payload, "_0"));
    }
    if (auto inner = o.find("calendarEquals")) {
        JsonPath path{o.path(), "calendarEquals", -1};
        const auto payload = JsonValue(*inner, &path).object();
        return calendarEquals(required<UUID>(payload, "_0"));
    }
    o.fail(JsonDecodingError::Kind::dataCorrupted, "Unknown TagRuleCondition case.");
}

TAVELO_JSON_RECORD(TagRule,
                   jsonField("id", &TagRule::id),
                   jsonField("condition", &TagRule::condition))

TAVELO_JSON_RECORD(Tag,
                   jsonField("id", &Tag::id),
                   jsonField("name", &Tag::name),
                   jsonField("colorHex", &Tag::colorHex),
                   jsonField("sortOrder", &Tag::sortOrder),
                   jsonField("weeklyTargetMinutes", &Tag::weeklyTargetMinutes),
                   jsonField("warnsWhenExceeded", &Tag::warnsWhenExceeded),
                   jsonField("rules", &Tag::rules))

// --- Accounts, calendars, preferences -----------------------------------------

TAVELO_JSON_RECORD(Account,
                   jsonField("id", &Account::id),
                   jsonField("name", &Account::name),
                   jsonField("email", &Account::email),
                   jsonField("kind", &Account::kind),
                   jsonField("colorHex", &Account::colorHex),
                   jsonField("isConnected", &Account::isConnected),
                   jsonField("lastSync", &Account::lastSync),
                   jsonField("googleSubject", &Account::googleSubject))

const CalendarSource& CalendarSource::tavelo() {
    static const CalendarSource source{
        .id = UUID::literal("785A676B-A42A-46B9-8D45-6335F8B12837"),
        .accountID = std::nullopt,
        .name = QStringLiteral("Tavelo"),
        .colorHex = QStringLiteral("#6558D9"),
        .isVisible = true,
        .receivesBusyBlocks = false,
        .googleCalendarID = std::nullopt,
        .googleTimeZoneIdentifier = std::nullopt,
    };
    return source;
}

TAVELO_JSON_RECORD(CalendarSource,
                   jsonField("id", &CalendarSource::id),
                   jsonField("accountID", &CalendarSource::accountID),
                   jsonField("name", &CalendarSource::name),
                   jsonField("colorHex", &CalendarSource::colorHex),
                   jsonField("isVisible", &CalendarSource::isVisible),
                   jsonField("receivesBusyBlocks", &CalendarSource::receivesBusyBlocks),
                   jsonField("googleCalendarID", &CalendarSource::googleCalendarID),
                   jsonField("googleTimeZoneIdentifier", &CalendarSource::googleTimeZoneIdentifier))

TAVELO_JSON_RECORD(AppPreferences,
                   jsonField("mergeDuplicates", &AppPreferences::mergeDuplicates),
                   jsonField("crossAccountAvailability", &AppPreferences::crossAccountAvailability),
                   jsonField("automaticBusyBlocks", &AppPreferences::automaticBusyBlocks),
                   jsonField("busyBlockScope", &AppPreferences::busyBlockScope),
                   jsonField("customBusyBlockCalendarIDs", &AppPreferences::customBusyBlockCalendarIDs),
                   jsonField("includePastSearchResults", &AppPreferences::includePastSearchResults))

TAVELO_JSON_RECORD(GoogleCalendarSyncState,
                   jsonField("calendarID", &GoogleCalendarSyncState::calendarID),
                   jsonField("syncToken", &GoogleCalendarSyncState::syncToken),
                   jsonField("lastSync", &GoogleCalendarSyncState::lastSync))

// --- AppSnapshot --------------------------------------------------------------

std::vector<GoogleCalendarSyncState> normalizedSyncStates(std::vector<GoogleCalendarSyncState> states) {
    std::vector<GoogleCalendarSyncState> result;
    result.reserve(states.size());
    std::unordered_map<UUID, std::size_t> position;
    for (auto& state : states) {
        auto [it, inserted] = position.try_emplace(state.calendarID, result.size());
        if (inserted)
            result.push_back(std::move(state));
        else
            result[it->second] = std::move(state);
    }
    return result;
}

AppSnapshot::AppSnapshot(int version, std::vector<Account> accounts, std::vector<CalendarSource> calendars,
                         std::vector<CalendarEvent> events, std::vector<Tag> tags, AppPreferences preferences,
                         std::vector<GoogleCalendarSyncState> googleSyncStates)
    : version(version), accounts(std::move(accounts)), calendars(std::move(calendars)), events(std::move(events)),
      tags(std::move(tags)), preferences(std::move(preferences)),
      googleSyncStates(normalizedSyncStates(std::move(googleSyncStates))) {}

namespace {

// "googleSyncStates" is missing in files written before Google sync existed.
constexpr auto kSnapshotFields = std::tuple{
    jsonField("version", &AppSnapshot::version),
    jsonField("accounts", &AppSnapshot::accounts),
    jsonField("calendars", &AppSnapshot::calendars),
    jsonField("events", &AppSnapshot::events),
    jsonField("tags", &AppSnapshot::tags),
    jsonField("preferences", &AppSnapshot::preferences),
    jsonDefaulted("googleSyncStates", &AppSnapshot::googleSyncStates),
};

} // namespace

void AppSnapshot::encode(JsonWriter& w) const {
    std::apply([&](const auto&... fields) { encodeRecord(w, *this, fields...); }, kSnapshotFields);
}

AppSnapshot AppSnapshot::decode(const JsonValue& v) {
    auto snapshot = std::apply([&](const auto&... fields) { return decodeRecord<AppSnapshot>(v, fields...); },
                               kSnapshotFields);
    snapshot.googleSyncStates = normalizedSyncStates(std::move(snapshot.googleSyncStates));
    return snapshot;
}

} // namespace tavelo
