#pragma once

#include "support/Date.h"
#include "models/RecordEnums.h"
#include "support/UUID.h"

#include <QString>
#include <QUrl>

#include <optional>
#include <vector>

namespace tavelo {

class JsonWriter;
class JsonValue;

struct Guest {
    UUID id;
    QString name;
    QString email;
    GuestStatus status = GuestStatus::pending;

    bool operator==(const Guest&) const = default;
    void encode(JsonWriter& w) const;
    static Guest decode(const JsonValue& v);
};

// One event on one calendar. An event written to several calendars is
// several values sharing a `groupID`.
struct CalendarEvent {
    UUID id;
    UUID groupID;
    std::optional<UUID> sourceEventID;
    EventKind kind = EventKind::event;
    QString title;
    Date start;
    Date end;
    bool isAllDay = false;
    std::optional<EventRecurrence> recurrence;
    UUID calendarID;
    std::optional<UUID> tagID;
    QString location;
    QString notes;
    std::vector<Guest> guests;
    std::vector<int> notifications;
    std::optional<QUrl> meetURL;
    Availability availability = Availability::busy;
    EventVisibility visibility = EventVisibility::normal;
    bool isCompleted = false;
    bool isGeneratedBusyBlock = false;
    std::optional<QString> externalUID;
    std::optional<QString> googleEventID;
    std::optional<QString> googleETag;
    std::optional<Date> googleUpdatedAt;

    // "tavelo://meet/pending": a conference link has been asked of Google but
    // is not known yet. Never opened as a link.
    static const QUrl& pendingMeetURL();

    bool operator==(const CalendarEvent&) const = default;
    void encode(JsonWriter& w) const;
    static CalendarEvent decode(const JsonValue& v);
};

} // namespace tavelo
