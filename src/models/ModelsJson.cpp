// JSON coding of the calendar records. Keys are written in field order;
// optional fields are left out when empty and read as empty when absent or
// null; every other key is required.

#include "models/AppSnapshot.h"
#include "models/CalendarEvent.h"
#include "models/Tag.h"
#include "support/JsonReader.h"
#include "support/JsonWriter.h"

#include <unordered_map>

namespace tavelo {

// --- Guest --------------------------------------------------------------------

void Guest::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "id", id);
    writeField(w, "name", name);
    writeField(w, "email", email);
    writeField(w, "status", status);
    w.endObject();
}

Guest Guest::decode(const JsonValue& v) {
    const auto o = v.object();
    return Guest{
        .id = required<UUID>(o, "id"),
        .name = required<QString>(o, "name"),
        .email = required<QString>(o, "email"),
        .status = required<GuestStatus>(o, "status"),
    };
}

// --- CalendarEvent ------------------------------------------------------------

const QUrl& CalendarEvent::pendingMeetURL() {
    static const QUrl url(QStringLiteral("tavelo://meet/pending"));
    return url;
}

void CalendarEvent::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "id", id);
    writeField(w, "groupID", groupID);
    writeField(w, "sourceEventID", sourceEventID);
    writeField(w, "kind", kind);
    writeField(w, "title", title);
    writeField(w, "start", start);
    writeField(w, "end", end);
    writeField(w, "isAllDay", isAllDay);
    writeField(w, "recurrence", recurrence);
    writeField(w, "calendarID", calendarID);
    writeField(w, "tagID", tagID);
    writeField(w, "location", location);
    writeField(w, "notes", notes);
    writeField(w, "guests", guests);
    writeField(w, "notifications", notifications);
    writeField(w, "meetURL", meetURL);
    writeField(w, "availability", availability);
    writeField(w, "visibility", visibility);
    writeField(w, "isCompleted", isCompleted);
    writeField(w, "isGeneratedBusyBlock", isGeneratedBusyBlock);
    writeField(w, "externalUID", externalUID);
    writeField(w, "googleEventID", googleEventID);
    writeField(w, "googleETag", googleETag);
    writeField(w, "googleUpdatedAt", googleUpdatedAt);
    w.endObject();
}

CalendarEvent CalendarEvent::decode(const JsonValue& v) {
    const auto o = v.object();
    return CalendarEvent{
        .id = required<UUID>(o, "id"),
        .groupID = required<UUID>(o, "groupID"),
        .sourceEventID = optional<UUID>(o, "sourceEventID"),
        .kind = required<EventKind>(o, "kind"),
        .title = required<QString>(o, "title"),
        .start = required<Date>(o, "start"),
        .end = required<Date>(o, "end"),
        .isAllDay = required<bool>(o, "isAllDay"),
        .recurrence = optional<EventRecurrence>(o, "recurrence"),
        .calendarID = required<UUID>(o, "calendarID"),
        .tagID = optional<UUID>(o, "tagID"),
        .location = required<QString>(o, "location"),
        .notes = required<QString>(o, "notes"),
        .guests = required<std::vector<Guest>>(o, "guests"),
        .notifications = required<std::vector<int>>(o, "notifications"),
        .meetURL = optional<QUrl>(o, "meetURL"),
        .availability = required<Availability>(o, "availability"),
        .visibility = required<EventVisibility>(o, "visibility"),
        .isCompleted = required<bool>(o, "isCompleted"),
        .isGeneratedBusyBlock = required<bool>(o, "isGeneratedBusyBlock"),
        .externalUID = optional<QString>(o, "externalUID"),
        .googleEventID = optional<QString>(o, "googleEventID"),
        .googleETag = optional<QString>(o, "googleETag"),
        .googleUpdatedAt = optional<Date>(o, "googleUpdatedAt"),
    };
}

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

void TagRule::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "id", id);
    writeField(w, "condition", condition);
    w.endObject();
}

TagRule TagRule::decode(const JsonValue& v) {
    const auto o = v.object();
    return TagRule{
        .id = required<UUID>(o, "id"),
        .condition = required<TagRuleCondition>(o, "condition"),
    };
}

void Tag::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "id", id);
    writeField(w, "name", name);
    writeField(w, "colorHex", colorHex);
    writeField(w, "sortOrder", sortOrder);
    writeField(w, "weeklyTargetMinutes", weeklyTargetMinutes);
    writeField(w, "warnsWhenExceeded", warnsWhenExceeded);
    writeField(w, "rules", rules);
    w.endObject();
}

Tag Tag::decode(const JsonValue& v) {
    const auto o = v.object();
    return Tag{
        .id = required<UUID>(o, "id"),
        .name = required<QString>(o, "name"),
        .colorHex = required<QString>(o, "colorHex"),
        .sortOrder = required<int>(o, "sortOrder"),
        .weeklyTargetMinutes = optional<int>(o, "weeklyTargetMinutes"),
        .warnsWhenExceeded = required<bool>(o, "warnsWhenExceeded"),
        .rules = required<std::vector<TagRule>>(o, "rules"),
    };
}

// --- Accounts, calendars, preferences -----------------------------------------

void Account::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "id", id);
    writeField(w, "name", name);
    writeField(w, "email", email);
    writeField(w, "kind", kind);
    writeField(w, "colorHex", colorHex);
    writeField(w, "isConnected", isConnected);
    writeField(w, "lastSync", lastSync);
    writeField(w, "googleSubject", googleSubject);
    w.endObject();
}

Account Account::decode(const JsonValue& v) {
    const auto o = v.object();
    return Account{
        .id = required<UUID>(o, "id"),
        .name = required<QString>(o, "name"),
        .email = required<QString>(o, "email"),
        .kind = required<AccountKind>(o, "kind"),
        .colorHex = required<QString>(o, "colorHex"),
        .isConnected = required<bool>(o, "isConnected"),
        .lastSync = optional<Date>(o, "lastSync"),
        .googleSubject = optional<QString>(o, "googleSubject"),
    };
}

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

void CalendarSource::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "id", id);
    writeField(w, "accountID", accountID);
    writeField(w, "name", name);
    writeField(w, "colorHex", colorHex);
    writeField(w, "isVisible", isVisible);
    writeField(w, "receivesBusyBlocks", receivesBusyBlocks);
    writeField(w, "googleCalendarID", googleCalendarID);
    writeField(w, "googleTimeZoneIdentifier", googleTimeZoneIdentifier);
    w.endObject();
}

CalendarSource CalendarSource::decode(const JsonValue& v) {
    const auto o = v.object();
    return CalendarSource{
        .id = required<UUID>(o, "id"),
        .accountID = optional<UUID>(o, "accountID"),
        .name = required<QString>(o, "name"),
        .colorHex = required<QString>(o, "colorHex"),
        .isVisible = required<bool>(o, "isVisible"),
        .receivesBusyBlocks = required<bool>(o, "receivesBusyBlocks"),
        .googleCalendarID = optional<QString>(o, "googleCalendarID"),
        .googleTimeZoneIdentifier = optional<QString>(o, "googleTimeZoneIdentifier"),
    };
}

void AppPreferences::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "mergeDuplicates", mergeDuplicates);
    writeField(w, "crossAccountAvailability", crossAccountAvailability);
    writeField(w, "automaticBusyBlocks", automaticBusyBlocks);
    writeField(w, "busyBlockScope", busyBlockScope);
    writeField(w, "customBusyBlockCalendarIDs", customBusyBlockCalendarIDs);
    writeField(w, "includePastSearchResults", includePastSearchResults);
    w.endObject();
}

AppPreferences AppPreferences::decode(const JsonValue& v) {
    const auto o = v.object();
    return AppPreferences{
        .mergeDuplicates = required<bool>(o, "mergeDuplicates"),
        .crossAccountAvailability = required<bool>(o, "crossAccountAvailability"),
        .automaticBusyBlocks = required<bool>(o, "automaticBusyBlocks"),
        .busyBlockScope = required<BusyBlockScope>(o, "busyBlockScope"),
        .customBusyBlockCalendarIDs = required<std::set<UUID>>(o, "customBusyBlockCalendarIDs"),
        .includePastSearchResults = required<bool>(o, "includePastSearchResults"),
    };
}

void GoogleCalendarSyncState::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "calendarID", calendarID);
    writeField(w, "syncToken", syncToken);
    writeField(w, "lastSync", lastSync);
    w.endObject();
}

GoogleCalendarSyncState GoogleCalendarSyncState::decode(const JsonValue& v) {
    const auto o = v.object();
    return GoogleCalendarSyncState{
        .calendarID = required<UUID>(o, "calendarID"),
        .syncToken = optional<QString>(o, "syncToken"),
        .lastSync = optional<Date>(o, "lastSync"),
    };
}

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

void AppSnapshot::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "version", version);
    writeField(w, "accounts", accounts);
    writeField(w, "calendars", calendars);
    writeField(w, "events", events);
    writeField(w, "tags", tags);
    writeField(w, "preferences", preferences);
    writeField(w, "googleSyncStates", googleSyncStates);
    w.endObject();
}

AppSnapshot AppSnapshot::decode(const JsonValue& v) {
    const auto o = v.object();
    auto syncStates = optional<std::vector<GoogleCalendarSyncState>>(o, "googleSyncStates");
    return AppSnapshot(required<int>(o, "version"), required<std::vector<Account>>(o, "accounts"),
                       required<std::vector<CalendarSource>>(o, "calendars"),
                       required<std::vector<CalendarEvent>>(o, "events"), required<std::vector<Tag>>(o, "tags"),
                       required<AppPreferences>(o, "preferences"), syncStates.value_or(std::vector<GoogleCalendarSyncState>{}));
}

} // namespace tavelo
