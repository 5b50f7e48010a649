#pragma once

// The JSON records of the Google Calendar REST interface. Records read from
// Google take every field as optional and ignore unknown keys; a value of the
// wrong type fails the record. Records sent to Google write their keys in
// field order and leave absent optionals out.

#include <QString>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace tavelo {

class JsonWriter;
class JsonValue;

struct GoogleEventDateTimeDTO {
    std::optional<QString> date;
    std::optional<QString> dateTime;
    std::optional<QString> timeZone;

    bool operator==(const GoogleEventDateTimeDTO&) const = default;
    void encode(JsonWriter& w) const;
    static GoogleEventDateTimeDTO decode(const JsonValue& v);
};

struct GoogleEventAttendeeDTO {
    std::optional<QString> id;
    std::optional<QString> email;
    std::optional<QString> displayName;
    std::optional<QString> responseStatus;

    bool operator==(const GoogleEventAttendeeDTO&) const = default;
    void encode(JsonWriter& w) const;
    static GoogleEventAttendeeDTO decode(const JsonValue& v);
};

struct GoogleEventReminderOverrideDTO {
    QString method;
    int minutes = 0;

    bool operator==(const GoogleEventReminderOverrideDTO&) const = default;
    void encode(JsonWriter& w) const;
    static GoogleEventReminderOverrideDTO decode(const JsonValue& v);
};

struct GoogleEventRemindersDTO {
    bool useDefault = false;
    std::optional<std::vector<GoogleEventReminderOverrideDTO>> overrides;

    bool operator==(const GoogleEventRemindersDTO&) const = default;
    void encode(JsonWriter& w) const;
    static GoogleEventRemindersDTO decode(const JsonValue& v);
};

struct GoogleConferenceEntryPointDTO {
    std::optional<QString> entryPointType;
    std::optional<QString> uri;

    bool operator==(const GoogleConferenceEntryPointDTO&) const = default;
    void encode(JsonWriter& w) const;
    static GoogleConferenceEntryPointDTO decode(const JsonValue& v);
};

struct GoogleConferenceDataDTO {
    std::optional<std::vector<GoogleConferenceEntryPointDTO>> entryPoints;

    bool operator==(const GoogleConferenceDataDTO&) const = default;
    void encode(JsonWriter& w) const;
    static GoogleConferenceDataDTO decode(const JsonValue& v);
};

// Private extended properties live under the key "private".
struct GoogleExtendedPropertiesDTO {
    std::optional<std::map<QString, QString>> privateProperties;

    bool operator==(const GoogleExtendedPropertiesDTO&) const = default;
    void encode(JsonWriter& w) const;
    static GoogleExtendedPropertiesDTO decode(const JsonValue& v);
};

struct GoogleEventDTO {
    std::optional<QString> id;
    std::optional<QString> etag;
    std::optional<QString> status;
    std::optional<QString> summary;
    std::optional<QString> description;
    std::optional<QString> location;
    std::optional<QString> iCalUID;
    std::optional<QString> updated;
    std::optional<GoogleEventDateTimeDTO> start;
    std::optional<GoogleEventDateTimeDTO> end;
    std::optional<std::vector<QString>> recurrence;
    std::optional<QString> recurringEventId;
    std::optional<GoogleEventDateTimeDTO> originalStartTime;
    std::optional<QString> transparency;
    std::optional<QString> visibility;
    std::optional<std::vector<GoogleEventAttendeeDTO>> attendees;
    std::optional<GoogleEventRemindersDTO> reminders;
    std::optional<QString> hangoutLink;
    std::optional<GoogleConferenceDataDTO> conferenceData;
    std::optional<GoogleExtendedPropertiesDTO> extendedProperties;

    // The private property under `key`, if any.
    const QString* privateProperty(const QString& key) const;

    bool operator==(const GoogleEventDTO&) const = default;
    void encode(JsonWriter& w) const;
    static GoogleEventDTO decode(const JsonValue& v);
};

struct GoogleCalendarListEntryDTO {
    std::optional<QString> id;
    std::optional<QString> summary;
    std::optional<QString> summaryOverride;
    std::optional<QString> backgroundColor;
    std::optional<bool> selected;
    std::optional<QString> accessRole;
    std::optional<bool> primary;
    std::optional<QString> timeZone;

    bool operator==(const GoogleCalendarListEntryDTO&) const = default;
    void encode(JsonWriter& w) const;
    static GoogleCalendarListEntryDTO decode(const JsonValue& v);
};

struct GoogleFreeBusyPeriodDTO {
    QString start;
    QString end;

    bool operator==(const GoogleFreeBusyPeriodDTO&) const = default;
    static GoogleFreeBusyPeriodDTO decode(const JsonValue& v);
};

struct GoogleFreeBusyErrorDTO {
    std::optional<QString> domain;
    std::optional<QString> reason;

    bool operator==(const GoogleFreeBusyErrorDTO&) const = default;
    static GoogleFreeBusyErrorDTO decode(const JsonValue& v);
};

struct GoogleFreeBusyCalendarDTO {
    std::optional<std::vector<GoogleFreeBusyPeriodDTO>> busy;
    std::optional<std::vector<GoogleFreeBusyErrorDTO>> errors;

    bool operator==(const GoogleFreeBusyCalendarDTO&) const = default;
    static GoogleFreeBusyCalendarDTO decode(const JsonValue& v);
};

struct GoogleFreeBusyResponseDTO {
    std::optional<std::map<QString, GoogleFreeBusyCalendarDTO>> calendars;

    bool operator==(const GoogleFreeBusyResponseDTO&) const = default;
    static GoogleFreeBusyResponseDTO decode(const JsonValue& v);
};

// --- records sent to Google ---------------------------------------------------

struct GoogleConferenceSolutionKeyDTO {
    QString type;

    bool operator==(const GoogleConferenceSolutionKeyDTO&) const = default;
    void encode(JsonWriter& w) const;
};

struct GoogleConferenceCreateRequestDTO {
    QString requestId;
    GoogleConferenceSolutionKeyDTO conferenceSolutionKey;

    bool operator==(const GoogleConferenceCreateRequestDTO&) const = default;
    void encode(JsonWriter& w) const;
};

struct GoogleConferenceDataRequestDTO {
    GoogleConferenceCreateRequestDTO createRequest;

    bool operator==(const GoogleConferenceDataRequestDTO&) const = default;
    void encode(JsonWriter& w) const;
};

struct GoogleEventInsertDTO {
    QString id;
    QString summary;
    std::optional<QString> description;
    std::optional<QString> location;
    GoogleEventDateTimeDTO start;
    GoogleEventDateTimeDTO end;
    std::optional<std::vector<QString>> recurrence;
    std::optional<QString> transparency;
    std::optional<QString> visibility;
    std::vector<GoogleEventAttendeeDTO> attendees;
    GoogleEventRemindersDTO reminders;
    std::optional<GoogleConferenceDataRequestDTO> conferenceData;
    GoogleExtendedPropertiesDTO extendedProperties;

    bool operator==(const GoogleEventInsertDTO&) const = default;
    void encode(JsonWriter& w) const;
};

// One field of a patch: left alone (no key), erased (JSON null) or set.
template <class T>
class GooglePatchValue {
public:
    static GooglePatchValue omitted() { return GooglePatchValue(); }
    static GooglePatchValue clear() {
        GooglePatchValue p;
        p.state_ = Clear{};
        return p;
    }
    static GooglePatchValue value(T v) {
        GooglePatchValue p;
        p.state_ = std::move(v);
        return p;
    }

    bool isOmitted() const { return std::holds_alternative<Omitted>(state_); }
    bool isClear() const { return std::holds_alternative<Clear>(state_); }
    // The value, or nothing when omitted or cleared.
    const T* get() const { return std::get_if<T>(&state_); }

    bool operator==(const GooglePatchValue&) const = default;

private:
    struct Omitted {
        bool operator==(const Omitted&) const = default;
    };
    struct Clear {
        bool operator==(const Clear&) const = default;
    };
    GooglePatchValue() = default;
    std::variant<Omitted, Clear, T> state_;
};

// A property whose value is absent is written as JSON null, which removes
// that one property at Google and leaves the others alone.
struct GoogleExtendedPropertiesPatchDTO {
    std::map<QString, std::optional<QString>> privateProperties;

    bool operator==(const GoogleExtendedPropertiesPatchDTO&) const = default;
    void encode(JsonWriter& w) const;
};

struct GoogleEventPatchDTO {
    // Sent as the If-Match header, never in the body.
    std::optional<QString> etag;
    GooglePatchValue<QString> summary = GooglePatchValue<QString>::omitted();
    GooglePatchValue<QString> description = GooglePatchValue<QString>::omitted();
    GooglePatchValue<QString> location = GooglePatchValue<QString>::omitted();
    GooglePatchValue<GoogleEventDateTimeDTO> start = GooglePatchValue<GoogleEventDateTimeDTO>::omitted();
    GooglePatchValue<GoogleEventDateTimeDTO> end = GooglePatchValue<GoogleEventDateTimeDTO>::omitted();
    GooglePatchValue<std::vector<QString>> recurrence = GooglePatchValue<std::vector<QString>>::omitted();
    GooglePatchValue<QString> transparency = GooglePatchValue<QString>::omitted();
    GooglePatchValue<QString> visibility = GooglePatchValue<QString>::omitted();
    GooglePatchValue<std::vector<GoogleEventAttendeeDTO>> attendees =
        GooglePatchValue<std::vector<GoogleEventAttendeeDTO>>::omitted();
    GooglePatchValue<GoogleEventRemindersDTO> reminders = GooglePatchValue<GoogleEventRemindersDTO>::omitted();
    GooglePatchValue<GoogleConferenceDataRequestDTO> conferenceData =
        GooglePatchValue<GoogleConferenceDataRequestDTO>::omitted();
    GooglePatchValue<GoogleExtendedPropertiesPatchDTO> extendedProperties =
        GooglePatchValue<GoogleExtendedPropertiesPatchDTO>::omitted();

    // True when no field of the body is set or cleared.
    bool isEmpty() const;

    bool operator==(const GoogleEventPatchDTO&) const = default;
    // The request body: the etag is left out, and a start or end names both
    // of its forms, the one not used as null.
    void encode(JsonWriter& w) const;
};

// The body of a free-busy query; each calendar is an item with the single
// key "id".
struct FreeBusyRequest {
    QString timeMin;
    QString timeMax;
    QString timeZone;
    std::vector<QString> items;

    bool operator==(const FreeBusyRequest&) const = default;
    void encode(JsonWriter& w) const;
};

// The reason Google gives for a failed request: the first non-empty
// error.errors[n].reason, trimmed. Nothing for a body of any other shape.
std::optional<QString> googleErrorReason(std::string_view body);

// --- pages of listings ----------------------------------------------------------

struct GoogleCalendarListPage {
    std::vector<GoogleCalendarListEntryDTO> calendars;
    std::optional<QString> nextPageToken;
    int skippedItemCount = 0;

    bool operator==(const GoogleCalendarListPage&) const = default;
};

struct GoogleEventPage {
    std::vector<GoogleEventDTO> events;
    std::vector<QString> deletedEventIDs;
    std::optional<QString> nextPageToken;
    std::optional<QString> nextSyncToken;
    // The calendar's zone as the response states it; empty becomes absent.
    std::optional<QString> timeZone;
    int skippedItemCount = 0;

    bool operator==(const GoogleEventPage&) const = default;
};

// Decode a whole listing response. Damage stays local: an item that cannot be
// read is counted in `skippedItemCount` and the rest of the page is kept. A
// body that is not JSON, not an object, or whose "items" is not a list throws
// JsonDecodingError.
GoogleEventPage decodeGoogleEventPage(std::string_view body);
GoogleCalendarListPage decodeGoogleCalendarListPage(std::string_view body);
// Throws JsonDecodingError for any damage.
GoogleFreeBusyResponseDTO decodeGoogleFreeBusyResponse(std::string_view body);
GoogleEventDTO decodeGoogleEvent(std::string_view body);

// Google's documented limits on extended properties: keys of at most 44
// characters, values of at most 1024, at most 300 properties per event and
// 32 kB over all of them.
struct GoogleExtendedPropertyLimits {
    static constexpr int kMaxKeyLength = 44;
    static constexpr int kMaxValueLength = 1024;
    static constexpr int kMaxPropertyCount = 300;
    static constexpr int kMaxTotalBytes = 32 * 1024;
};
// Whether a set of properties can be stored on one event (sizes in UTF-8).
bool fitsGoogleExtendedPropertyLimits(const std::map<QString, QString>& properties);

} // namespace tavelo
