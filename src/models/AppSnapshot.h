#pragma once

#include "models/CalendarEvent.h"
#include "models/Tag.h"
#include "support/Date.h"
#include "support/UUID.h"

#include <QString>

#include <optional>
#include <set>
#include <vector>

namespace tavelo {

class JsonWriter;
class JsonValue;

struct Account {
    UUID id;
    QString name;
    QString email;
    AccountKind kind = AccountKind::work;
    QString colorHex;
    bool isConnected = false;
    std::optional<Date> lastSync;
    // Google's stable subject; an account without one is not a Google account.
    std::optional<QString> googleSubject;

    bool operator==(const Account&) const = default;
    void encode(JsonWriter& w) const;
    static Account decode(const JsonValue& v);
};

struct CalendarSource {
    UUID id;
    std::optional<UUID> accountID;
    QString name;
    QString colorHex;
    bool isVisible = true;
    bool receivesBusyBlocks = false;
    std::optional<QString> googleCalendarID;
    std::optional<QString> googleTimeZoneIdentifier;

    // The built-in local calendar. Not part of the empty snapshot; added when
    // something needs it.
    static const CalendarSource& tavelo();

    bool operator==(const CalendarSource&) const = default;
    void encode(JsonWriter& w) const;
    static CalendarSource decode(const JsonValue& v);
};

struct AppPreferences {
    bool mergeDuplicates = true;
    bool crossAccountAvailability = true;
    bool automaticBusyBlocks = true;
    BusyBlockScope busyBlockScope = BusyBlockScope::all;
    std::set<UUID> customBusyBlockCalendarIDs;
    bool includePastSearchResults = false;

    static AppPreferences defaults() { return {}; }

    bool operator==(const AppPreferences&) const = default;
    void encode(JsonWriter& w) const;
    static AppPreferences decode(const JsonValue& v);
};

struct GoogleCalendarSyncState {
    UUID calendarID;
    std::optional<QString> syncToken;
    std::optional<Date> lastSync;

    bool operator==(const GoogleCalendarSyncState&) const = default;
    void encode(JsonWriter& w) const;
    static GoogleCalendarSyncState decode(const JsonValue& v);
};

// One entry per calendar: the first occurrence keeps its place, the last one
// gives the content.
std::vector<GoogleCalendarSyncState> normalizedSyncStates(std::vector<GoogleCalendarSyncState> states);

// The whole persisted calendar state.
struct AppSnapshot {
    static constexpr int kCurrentVersion = 2;

    int version = kCurrentVersion;
    std::vector<Account> accounts;
    std::vector<CalendarSource> calendars;
    std::vector<CalendarEvent> events;
    std::vector<Tag> tags;
    AppPreferences preferences;
    std::vector<GoogleCalendarSyncState> googleSyncStates;

    AppSnapshot() = default;
    // Normalises the sync states, as every construction does.
    AppSnapshot(int version, std::vector<Account> accounts, std::vector<CalendarSource> calendars,
                std::vector<CalendarEvent> events, std::vector<Tag> tags, AppPreferences preferences,
                std::vector<GoogleCalendarSyncState> googleSyncStates);

    static AppSnapshot empty() { return {}; }

    bool operator==(const AppSnapshot&) const = default;
    void encode(JsonWriter& w) const;
    static AppSnapshot decode(const JsonValue& v);
};

} // namespace tavelo
