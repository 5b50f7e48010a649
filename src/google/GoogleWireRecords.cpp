#include "google/GoogleWireRecords.h"

#include "support/JsonReader.h"
#include "support/JsonWriter.h"

namespace tavelo {

namespace {

QString internedOrNew(std::string_view text);

// A JSON object of strings, such as the private extended properties. A value
// that is not a string fails the whole map.
std::map<QString, QString> readStringMap(const JsonValue& v) {
    const auto object = v.object();
    std::map<QString, QString> out;
    for (auto [key, element] : object.raw()) {
        JsonPath path{v.path(), key, -1};
        JsonValue value(element, &path);
        // The first occurrence of a key counts, as everywhere in the reader.
        out.emplace(internedOrNew(key), internedOrNew(value.string()));
    }
    return out;
}

// Values that recur in almost every record of a listing. Decoded to one
// shared string each, so that a page of thousands of events does not hold
// thousands of copies of "confirmed" or "Asia/Tokyo".
QString internedOrNew(std::string_view text) {
    static const auto table = [] {
        std::vector<std::pair<std::string, QString>> t;
        for (const char* word :
             {"confirmed", "tentative", "cancelled", "accepted", "declined", "needsAction", "popup", "email", "opaque",
              "transparent", "default", "public", "private", "confidential", "video", "phone", "sip", "more", "true",
              "false", "taveloGroupID", "taveloParentEventID", "taveloGeneratedBusyBlock", "taveloTagIDs", "UTC",
              "Asia/Tokyo", "America/New_York", "America/Los_Angeles", "Europe/London", "Europe/Berlin"})
            t.emplace_back(word, QString::fromUtf8(word));
        return t;
    }();
    if (text.size() <= 24) {
        for (const auto& [word, shared] : table)
            if (word == text) return shared;
    }
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

// An optional string field whose values come from a small set.
std::optional<QString> optionalWord(const JsonObject& o, std::string_view key) {
    auto element = o.find(key);
    if (!element) return std::nullopt;
    JsonPath path{o.path(), key, -1};
    JsonValue value(*element, &path);
    if (value.isNull()) return std::nullopt;
    return internedOrNew(value.string());
}

template <class T>
std::optional<T> optionalRecord(const JsonObject& o, std::string_view key) {
    return optional<T>(o, key);
}

std::optional<std::map<QString, QString>> optionalStringMap(const JsonObject& o, std::string_view key) {
    auto element = o.find(key);
    if (!element) return std::nullopt;
    JsonPath path{o.path(), key, -1};
    JsonValue value(*element, &path);
    if (value.isNull()) return std::nullopt;
    return readStringMap(value);
}

void writeKey(JsonWriter& w, const QString& key) {
    const QByteArray utf8 = key.toUtf8();
    w.key(std::string_view(utf8.constData(), static_cast<std::size_t>(utf8.size())));
}

template <class T>
void writePatchField(JsonWriter& w, std::string_view name, const GooglePatchValue<T>& field) {
    if (field.isOmitted()) return;
    w.key(name);
    if (const T* value = field.get())
        writeJson(w, *value);
    else
        w.null();
}

// A start or end in a patch. Google merges a patched object into the stored
// one, so the form not sent is written as null: an event that changes
// between all-day and timed must not keep both a date and a time.
void writePatchTime(JsonWriter& w, std::string_view name, const GooglePatchValue<GoogleEventDateTimeDTO>& field) {
    if (field.isOmitted()) return;
    w.key(name);
    const GoogleEventDateTimeDTO* value = field.get();
    if (!value) {
        w.null();
        return;
    }
    w.beginObject();
    for (auto [key, text] : {std::pair{std::string_view("date"), &value->date},
                             std::pair{std::string_view("dateTime"), &value->dateTime},
                             std::pair{std::string_view("timeZone"), &value->timeZone}}) {
        w.key(key);
        if (*text)
            w.string(**text);
        else
            w.null();
    }
    w.endObject();
}

std::optional<QString> optionalString(simdjson::dom::object object, std::string_view key) {
    simdjson::dom::element element;
    if (object.at_key(key).get(element) != simdjson::SUCCESS) return std::nullopt;
    std::string_view text;
    if (element.get_string().get(text) != simdjson::SUCCESS) return std::nullopt;
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

std::optional<QString> trimmedNonEmpty(std::optional<QString> text) {
    if (!text) return std::nullopt;
    QString trimmed = text->trimmed();
    if (trimmed.isEmpty()) return std::nullopt;
    return trimmed;
}

// The top-level object of a listing and its "items" list (empty when the key
// is missing).
struct ListingBody {
    simdjson::dom::object object;
    std::optional<simdjson::dom::array> items;
};

ListingBody readListing(JsonDocumentParser& parser, std::string_view body, const JsonPath& root) {
    JsonValue top(parser.parse(body), &root);
    ListingBody out{top.object().raw(), std::nullopt};
    simdjson::dom::element items;
    if (out.object.at_key("items").get(items) == simdjson::SUCCESS) {
        JsonPath path{&root, "items", -1};
        JsonValue value(items, &path);
        if (!value.isNull()) out.items = value.array();
    }
    return out;
}

} // namespace

// --- small records ----------------------------------------------------------------

void GoogleEventDateTimeDTO::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "date", date);
    writeField(w, "dateTime", dateTime);
    writeField(w, "timeZone", timeZone);
    w.endObject();
}

GoogleEventDateTimeDTO GoogleEventDateTimeDTO::decode(const JsonValue& v) {
    const auto o = v.object();
    return {optional<QString>(o, "date"), optional<QString>(o, "dateTime"), optionalWord(o, "timeZone")};
}

void GoogleEventAttendeeDTO::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "id", id);
    writeField(w, "email", email);
    writeField(w, "displayName", displayName);
    writeField(w, "responseStatus", responseStatus);
    w.endObject();
}

GoogleEventAttendeeDTO GoogleEventAttendeeDTO::decode(const JsonValue& v) {
    const auto o = v.object();
    return {optional<QString>(o, "id"), optional<QString>(o, "email"), optional<QString>(o, "displayName"),
            optionalWord(o, "responseStatus")};
}

void GoogleEventReminderOverrideDTO::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "method", method);
    writeField(w, "minutes", minutes);
    w.endObject();
}

GoogleEventReminderOverrideDTO GoogleEventReminderOverrideDTO::decode(const JsonValue& v) {
    const auto o = v.object();
    const auto method = o.find("method");
    if (!method) o.fail(JsonDecodingError::Kind::keyNotFound, "No value associated with key method");
    JsonPath path{o.path(), "method", -1};
    return {internedOrNew(JsonValue(*method, &path).string()), required<int>(o, "minutes")};
}

void GoogleEventRemindersDTO::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "useDefault", useDefault);
    writeField(w, "overrides", overrides);
    w.endObject();
}

GoogleEventRemindersDTO GoogleEventRemindersDTO::decode(const JsonValue& v) {
    const auto o = v.object();
    return {required<bool>(o, "useDefault"), optional<std::vector<GoogleEventReminderOverrideDTO>>(o, "overrides")};
}

void GoogleConferenceEntryPointDTO::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "entryPointType", entryPointType);
    writeField(w, "uri", uri);
    w.endObject();
}

GoogleConferenceEntryPointDTO GoogleConferenceEntryPointDTO::decode(const JsonValue& v) {
    const auto o = v.object();
    return {optionalWord(o, "entryPointType"), optional<QString>(o, "uri")};
}

void GoogleConferenceDataDTO::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "entryPoints", entryPoints);
    w.endObject();
}

GoogleConferenceDataDTO GoogleConferenceDataDTO::decode(const JsonValue& v) {
    const auto o = v.object();
    return {optional<std::vector<GoogleConferenceEntryPointDTO>>(o, "entryPoints")};
}

void GoogleExtendedPropertiesDTO::encode(JsonWriter& w) const {
    w.beginObject();
    if (privateProperties) {
        w.key("private");
        w.beginObject();
        for (const auto& [key, value] : *privateProperties) {
            writeKey(w, key);
            w.string(value);
        }
        w.endObject();
    }
    w.endObject();
}

GoogleExtendedPropertiesDTO GoogleExtendedPropertiesDTO::decode(const JsonValue& v) {
    const auto o = v.object();
    return {optionalStringMap(o, "private")};
}

// --- events -----------------------------------------------------------------------

const QString* GoogleEventDTO::privateProperty(const QString& key) const {
    if (!extendedProperties || !extendedProperties->privateProperties) return nullptr;
    const auto& map = *extendedProperties->privateProperties;
    auto it = map.find(key);
    return it == map.end() ? nullptr : &it->second;
}

void GoogleEventDTO::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "id", id);
    writeField(w, "etag", etag);
    writeField(w, "status", status);
    writeField(w, "summary", summary);
    writeField(w, "description", description);
    writeField(w, "location", location);
    writeField(w, "iCalUID", iCalUID);
    writeField(w, "updated", updated);
    writeField(w, "start", start);
    writeField(w, "end", end);
    writeField(w, "recurrence", recurrence);
    writeField(w, "recurringEventId", recurringEventId);
    writeField(w, "originalStartTime", originalStartTime);
    writeField(w, "transparency", transparency);
    writeField(w, "visibility", visibility);
    writeField(w, "attendees", attendees);
    writeField(w, "reminders", reminders);
    writeField(w, "hangoutLink", hangoutLink);
    writeField(w, "conferenceData", conferenceData);
    writeField(w, "extendedProperties", extendedProperties);
    w.endObject();
}

GoogleEventDTO GoogleEventDTO::decode(const JsonValue& v) {
    const auto o = v.object();
    GoogleEventDTO e;
    e.id = optional<QString>(o, "id");
    e.etag = optional<QString>(o, "etag");
    e.status = optionalWord(o, "status");
    e.summary = optional<QString>(o, "summary");
    e.description = optional<QString>(o, "description");
    e.location = optional<QString>(o, "location");
    e.iCalUID = optional<QString>(o, "iCalUID");
    e.updated = optional<QString>(o, "updated");
    e.start = optionalRecord<GoogleEventDateTimeDTO>(o, "start");
    e.end = optionalRecord<GoogleEventDateTimeDTO>(o, "end");
    e.recurrence = optional<std::vector<QString>>(o, "recurrence");
    e.recurringEventId = optional<QString>(o, "recurringEventId");
    e.originalStartTime = optionalRecord<GoogleEventDateTimeDTO>(o, "originalStartTime");
    e.transparency = optionalWord(o, "transparency");
    e.visibility = optionalWord(o, "visibility");
    e.attendees = optional<std::vector<GoogleEventAttendeeDTO>>(o, "attendees");
    e.reminders = optionalRecord<GoogleEventRemindersDTO>(o, "reminders");
    e.hangoutLink = optional<QString>(o, "hangoutLink");
    e.conferenceData = optionalRecord<GoogleConferenceDataDTO>(o, "conferenceData");
    e.extendedProperties = optionalRecord<GoogleExtendedPropertiesDTO>(o, "extendedProperties");
    return e;
}

void GoogleCalendarListEntryDTO::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "id", id);
    writeField(w, "summary", summary);
    writeField(w, "summaryOverride", summaryOverride);
    writeField(w, "backgroundColor", backgroundColor);
    writeField(w, "selected", selected);
    writeField(w, "accessRole", accessRole);
    writeField(w, "primary", primary);
    writeField(w, "timeZone", timeZone);
    w.endObject();
}

GoogleCalendarListEntryDTO GoogleCalendarListEntryDTO::decode(const JsonValue& v) {
    const auto o = v.object();
    GoogleCalendarListEntryDTO e;
    e.id = optional<QString>(o, "id");
    e.summary = optional<QString>(o, "summary");
    e.summaryOverride = optional<QString>(o, "summaryOverride");
    e.backgroundColor = optional<QString>(o, "backgroundColor");
    e.selected = optional<bool>(o, "selected");
    e.accessRole = optional<QString>(o, "accessRole");
    e.primary = optional<bool>(o, "primary");
    e.timeZone = optional<QString>(o, "timeZone");
    return e;
}

// --- free-busy --------------------------------------------------------------------

GoogleFreeBusyPeriodDTO GoogleFreeBusyPeriodDTO::decode(const JsonValue& v) {
    const auto o = v.object();
    return {required<QString>(o, "start"), required<QString>(o, "end")};
}

GoogleFreeBusyErrorDTO GoogleFreeBusyErrorDTO::decode(const JsonValue& v) {
    const auto o = v.object();
    return {optional<QString>(o, "domain"), optional<QString>(o, "reason")};
}

GoogleFreeBusyCalendarDTO GoogleFreeBusyCalendarDTO::decode(const JsonValue& v) {
    const auto o = v.object();
    return {optional<std::vector<GoogleFreeBusyPeriodDTO>>(o, "busy"),
            optional<std::vector<GoogleFreeBusyErrorDTO>>(o, "errors")};
}

GoogleFreeBusyResponseDTO GoogleFreeBusyResponseDTO::decode(const JsonValue& v) {
    const auto o = v.object();
    GoogleFreeBusyResponseDTO out;
    auto element = o.find("calendars");
    if (!element) return out;
    JsonPath path{o.path(), "calendars", -1};
    JsonValue calendars(*element, &path);
    if (calendars.isNull()) return out;
    std::map<QString, GoogleFreeBusyCalendarDTO> map;
    for (auto [key, value] : calendars.object().raw()) {
        JsonPath entryPath{&path, key, -1};
        map.emplace(QString::fromUtf8(key.data(), static_cast<qsizetype>(key.size())),
                    GoogleFreeBusyCalendarDTO::decode(JsonValue(value, &entryPath)));
    }
    out.calendars = std::move(map);
    return out;
}

// --- records sent to Google ---------------------------------------------------

void GoogleConferenceSolutionKeyDTO::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "type", type);
    w.endObject();
}

void GoogleConferenceCreateRequestDTO::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "requestId", requestId);
    writeField(w, "conferenceSolutionKey", conferenceSolutionKey);
    w.endObject();
}

void GoogleConferenceDataRequestDTO::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "createRequest", createRequest);
    w.endObject();
}

void GoogleEventInsertDTO::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "id", id);
    writeField(w, "summary", summary);
    writeField(w, "description", description);
    writeField(w, "location", location);
    writeField(w, "start", start);
    writeField(w, "end", end);
    writeField(w, "recurrence", recurrence);
    writeField(w, "transparency", transparency);
    writeField(w, "visibility", visibility);
    writeField(w, "attendees", attendees);
    writeField(w, "reminders", reminders);
    writeField(w, "conferenceData", conferenceData);
    writeField(w, "extendedProperties", extendedProperties);
    w.endObject();
}

void GoogleExtendedPropertiesPatchDTO::encode(JsonWriter& w) const {
    w.beginObject();
    w.key("private");
    w.beginObject();
    for (const auto& [key, value] : privateProperties) {
        writeKey(w, key);
        if (value)
            w.string(*value);
        else
            w.null();
    }
    w.endObject();
    w.endObject();
}

bool GoogleEventPatchDTO::isEmpty() const {
    return summary.isOmitted() && description.isOmitted() && location.isOmitted() && start.isOmitted() &&
           end.isOmitted() && recurrence.isOmitted() && transparency.isOmitted() && visibility.isOmitted() &&
           attendees.isOmitted() && reminders.isOmitted() && conferenceData.isOmitted() &&
           extendedProperties.isOmitted();
}

void GoogleEventPatchDTO::encode(JsonWriter& w) const {
    w.beginObject();
    writePatchField(w, "summary", summary);
    writePatchField(w, "description", description);
    writePatchField(w, "location", location);
    writePatchTime(w, "start", start);
    writePatchTime(w, "end", end);
    writePatchField(w, "recurrence", recurrence);
    writePatchField(w, "transparency", transparency);
    writePatchField(w, "visibility", visibility);
    writePatchField(w, "attendees", attendees);
    writePatchField(w, "reminders", reminders);
    writePatchField(w, "conferenceData", conferenceData);
    writePatchField(w, "extendedProperties", extendedProperties);
    w.endObject();
}

void FreeBusyRequest::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "timeMin", timeMin);
    writeField(w, "timeMax", timeMax);
    writeField(w, "timeZone", timeZone);
    w.key("items");
    w.beginArray();
    for (const auto& id : items) {
        w.beginObject();
        writeField(w, "id", id);
        w.endObject();
    }
    w.endArray();
    w.endObject();
}

std::optional<QString> googleErrorReason(std::string_view body) {
    simdjson::dom::parser parser;
    simdjson::dom::array errors;
    if (parser.parse(body.data(), body.size()).at_pointer("/error/errors").get_array().get(errors) !=
        simdjson::SUCCESS)
        return std::nullopt;
    for (auto item : errors) {
        std::string_view reason;
        if (item.at_key("reason").get_string().get(reason) != simdjson::SUCCESS) continue;
        QString text = QString::fromUtf8(reason.data(), static_cast<qsizetype>(reason.size())).trimmed();
        if (!text.isEmpty()) return text;
    }
    return std::nullopt;
}

// --- whole responses ------------------------------------------------------------

GoogleEventPage decodeGoogleEventPage(std::string_view body) {
    JsonDocumentParser parser;
    JsonPath root;
    const ListingBody listing = readListing(parser, body, root);
    GoogleEventPage page;
    if (listing.items) {
        page.events.reserve(listing.items->size());
        std::int64_t index = 0;
        for (auto element : *listing.items) {
            JsonPath path{&root, "items", index++};
            simdjson::dom::object object;
            if (element.get_object().get(object) != simdjson::SUCCESS) {
                ++page.skippedItemCount;
                continue;
            }
            simdjson::dom::element status;
            std::string_view statusText;
            if (object.at_key("status").get(status) == simdjson::SUCCESS &&
                status.get_string().get(statusText) == simdjson::SUCCESS && statusText == "cancelled") {
                if (auto id = trimmedNonEmpty(optionalString(object, "id")))
                    page.deletedEventIDs.push_back(std::move(*id));
                else
                    ++page.skippedItemCount;
                continue;
            }
            try {
                GoogleEventDTO event = GoogleEventDTO::decode(JsonValue(element, &path));
                if (!event.id || event.id->trimmed().isEmpty()) {
                    ++page.skippedItemCount;
                    continue;
                }
                page.events.push_back(std::move(event));
            } catch (const JsonDecodingError&) {
                ++page.skippedItemCount;
            }
        }
    }
    page.nextPageToken = optionalString(listing.object, "nextPageToken");
    page.nextSyncToken = optionalString(listing.object, "nextSyncToken");
    page.timeZone = trimmedNonEmpty(optionalString(listing.object, "timeZone"));
    return page;
}

GoogleCalendarListPage decodeGoogleCalendarListPage(std::string_view body) {
    JsonDocumentParser parser;
    JsonPath root;
    const ListingBody listing = readListing(parser, body, root);
    GoogleCalendarListPage page;
    if (listing.items) {
        std::int64_t index = 0;
        for (auto element : *listing.items) {
            JsonPath path{&root, "items", index++};
            try {
                auto entry = GoogleCalendarListEntryDTO::decode(JsonValue(element, &path));
                if (!entry.id || entry.id->trimmed().isEmpty()) {
                    ++page.skippedItemCount;
                    continue;
                }
                page.calendars.push_back(std::move(entry));
            } catch (const JsonDecodingError&) {
                ++page.skippedItemCount;
            }
        }
    }
    page.nextPageToken = optionalString(listing.object, "nextPageToken");
    return page;
}

GoogleFreeBusyResponseDTO decodeGoogleFreeBusyResponse(std::string_view body) {
    return decodeJson<GoogleFreeBusyResponseDTO>(body);
}

GoogleEventDTO decodeGoogleEvent(std::string_view body) { return decodeJson<GoogleEventDTO>(body); }

bool fitsGoogleExtendedPropertyLimits(const std::map<QString, QString>& properties) {
    using Limits = GoogleExtendedPropertyLimits;
    if (properties.size() > static_cast<std::size_t>(Limits::kMaxPropertyCount)) return false;
    qsizetype total = 0;
    for (const auto& [key, value] : properties) {
        const qsizetype keyBytes = key.toUtf8().size();
        const qsizetype valueBytes = value.toUtf8().size();
        if (key.isEmpty() || keyBytes > Limits::kMaxKeyLength || valueBytes > Limits::kMaxValueLength) return false;
        total += keyBytes + valueBytes;
    }
    return total <= Limits::kMaxTotalBytes;
}

} // namespace tavelo
