#include "google/GoogleCalendarMapper.h"

#include "google/StableUUID.h"
#include "support/DateCalendar.h"

#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <cmath>
#include <cstdint>

namespace tavelo::GoogleCalendarMapper {

namespace {

// --- reading and writing dates --------------------------------------------------

struct WallTime {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    double fraction = 0;
};

bool readDigits(QStringView text, qsizetype at, int count, int& out) {
    if (at + count > text.size()) return false;
    int value = 0;
    for (int i = 0; i < count; ++i) {
        const char16_t c = text[at + i].unicode();
        if (c < u'0' || c > u'9') return false;
        value = value * 10 + (c - u'0');
    }
    out = value;
    return true;
}

bool isLeapYear(int y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

int daysInMonth(int y, int m) {
    static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && isLeapYear(y) ? 29 : kDays[m - 1];
}

bool validFields(const WallTime& t) {
    return t.month >= 1 && t.month <= 12 && t.day >= 1 && t.day <= daysInMonth(t.year, t.month) && t.hour >= 0 &&
           t.hour <= 23 && t.minute >= 0 && t.minute <= 59 && t.second >= 0 && t.second <= 59;
}

// "yyyy-MM-dd", returning the position after it.
bool readDay(QStringView text, WallTime& t, qsizetype& pos) {
    if (!readDigits(text, 0, 4, t.year) || text.size() < 10 || text[4] != u'-' || !readDigits(text, 5, 2, t.month) ||
        text[7] != u'-' || !readDigits(text, 8, 2, t.day))
        return false;
    pos = 10;
    return true;
}

// "yyyy-MM-ddTHH:mm:ss" with an optional fraction; `fraction` says whether
// one must be (true), must not be (false) or may be there (nothing).
bool readWallTime(QStringView text, WallTime& t, qsizetype& pos, std::optional<bool> fraction) {
    if (!readDay(text, t, pos)) return false;
    if (text.size() < 19 || text[10] != u'T' || !readDigits(text, 11, 2, t.hour) || text[13] != u':' ||
        !readDigits(text, 14, 2, t.minute) || text[16] != u':' || !readDigits(text, 17, 2, t.second))
        return false;
    pos = 19;
    const bool hasFraction = pos < text.size() && text[pos] == u'.';
    if (fraction && *fraction != hasFraction) return false;
    if (hasFraction) {
        ++pos;
        // Digits beyond nanoseconds are read but cannot matter.
        std::int64_t digits = 0, scale = 1;
        const qsizetype first = pos;
        while (pos < text.size() && text[pos] >= u'0' && text[pos] <= u'9') {
            if (scale < 1'000'000'000) {
                digits = digits * 10 + (text[pos].unicode() - u'0');
                scale *= 10;
            }
            ++pos;
        }
        if (pos == first) return false;
        t.fraction = static_cast<double>(digits) / static_cast<double>(scale);
    }
    return validFields(t);
}

// Days from 1970-01-01 to a proleptic Gregorian date.
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const auto yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

double unixSecondsOf(const WallTime& t) {
    return static_cast<double>(daysFromCivil(t.year, static_cast<unsigned>(t.month), static_cast<unsigned>(t.day)) *
                                   86400 +
                               t.hour * 3600 + t.minute * 60 + t.second);
}

std::optional<Date> localDateTime(QStringView text, const DateCalendar& zone, bool withFraction) {
    WallTime t;
    qsizetype pos = 0;
    if (!readWallTime(text, t, pos, withFraction) || pos != text.size()) return std::nullopt;
    auto date = zone.date(t.year, t.month, t.day, t.hour, t.minute, t.second);
    if (!date) return std::nullopt;
    return date->addingSeconds(t.fraction);
}

std::optional<Date> allDayDate(const QString& text, const DateCalendar& zone) {
    WallTime t;
    qsizetype pos = 0;
    if (!readDay(text, t, pos) || pos != text.size() || !validFields(t)) return std::nullopt;
    return zone.date(t.year, t.month, t.day);
}

std::optional<Date> dateTimeValue(const GoogleEventDateTimeDTO& dto, const DateCalendar& calendarZone) {
    if (!dto.dateTime) return std::nullopt;
    const QString& text = *dto.dateTime;
    if (auto instant = parseInstant(text)) return instant;
    // A wall-clock time, in the record's own zone when that is known.
    std::optional<DateCalendar> ownZone;
    if (auto zoneID = normalizedTimeZoneIdentifier(dto.timeZone)) {
        if (*zoneID != calendarZone.timeZoneID()) ownZone.emplace(calendarForTimeZone(*zoneID));
    }
    const DateCalendar& zone = ownZone ? *ownZone : calendarZone;
    if (auto date = localDateTime(text, zone, true)) return date;
    return localDateTime(text, zone, false);
}

QString twoDigits(int v) { return QString::number(v).rightJustified(2, u'0'); }

QString dayText(const DateCalendar::Components& c) {
    return QString::number(c.year).rightJustified(4, u'0') + u'-' + twoDigits(c.month) + u'-' + twoDigits(c.day);
}

GoogleEventDateTimeDTO writeDate(Date date, bool isAllDay, const DateCalendar& zone) {
    const Date whole = Date::fromReferenceSeconds(std::floor(date.referenceSeconds()));
    const auto c = zone.components(whole);
    GoogleEventDateTimeDTO out;
    if (isAllDay) {
        out.date = dayText(c);
        return out;
    }
    const WallTime wall{c.year, c.month, c.day, c.hour, c.minute, c.second, 0};
    const auto offsetSeconds = static_cast<int>(std::lround(unixSecondsOf(wall) - whole.unixSeconds()));
    QString text = dayText(c) + u'T' + twoDigits(c.hour) + u':' + twoDigits(c.minute) + u':' + twoDigits(c.second);
    if (offsetSeconds == 0) {
        text += u'Z';
    } else {
        const int minutes = std::abs(offsetSeconds) / 60;
        text += (offsetSeconds < 0 ? u'-' : u'+') + twoDigits(minutes / 60) + u':' + twoDigits(minutes % 60);
    }
    out.dateTime = text;
    out.timeZone = zone.timeZoneID();
    return out;
}

// --- other fields ---------------------------------------------------------------

std::optional<QUrl> parsedURL(const std::optional<QString>& text) {
    if (!text || text->isEmpty()) return std::nullopt;
    QUrl url(*text, QUrl::StrictMode);
    if (!url.isValid() || url.scheme().isEmpty()) return std::nullopt;
    return url;
}

std::optional<EventRecurrence> readRecurrence(const std::vector<QString>& lines) {
    for (const QString& line : lines) {
        const QString upper = line.toUpper();
        if (!upper.startsWith(u"RRULE:")) continue;
        if (upper.contains(u"FREQ=DAILY")) return EventRecurrence::daily;
        if (upper.contains(u"FREQ=WEEKLY")) return EventRecurrence::weekly;
        if (upper.contains(u"FREQ=MONTHLY")) return EventRecurrence::monthly;
        return std::nullopt;
    }
    return std::nullopt;
}

std::vector<QString> recurrenceLines(EventRecurrence recurrence) {
    const auto name = toString(recurrence);
    return {QStringLiteral("RRULE:FREQ=") + QString::fromLatin1(name.data(), static_cast<qsizetype>(name.size())).toUpper()};
}

std::optional<UUID> propertyUUID(const GoogleEventDTO& dto, const QString& key) {
    const QString* value = dto.privateProperty(key);
    if (!value) return std::nullopt;
    return UUID::fromString(value->trimmed());
}

std::optional<UUID> firstTagID(const GoogleEventDTO& dto) {
    const QString* value = dto.privateProperty(tagIDsKey());
    if (!value) return std::nullopt;
    for (const auto& piece : value->split(u',', Qt::SkipEmptyParts)) {
        if (auto id = UUID::fromString(piece.trimmed())) return id;
    }
    return std::nullopt;
}

GuestStatus guestStatus(const std::optional<QString>& responseStatus) {
    if (!responseStatus) return GuestStatus::pending;
    if (*responseStatus == u"accepted") return GuestStatus::accepted;
    if (*responseStatus == u"tentative") return GuestStatus::tentative;
    if (*responseStatus == u"declined") return GuestStatus::declined;
    return GuestStatus::pending;
}

std::vector<Guest> readGuests(const std::vector<GoogleEventAttendeeDTO>& attendees, const UUID& localID) {
    std::vector<Guest> guests;
    guests.reserve(attendees.size());
    for (const auto& attendee : attendees) {
        const QString email = attendee.email ? attendee.email->trimmed() : QString();
        if (email.isEmpty()) continue;
        const QString key = attendee.id && !attendee.id->trimmed().isEmpty() ? *attendee.id : email;
        QString name = attendee.displayName ? attendee.displayName->trimmed() : QString();
        if (name.isEmpty()) name = email;
        guests.push_back(Guest{stableUUID(localID, key), std::move(name), email, guestStatus(attendee.responseStatus)});
    }
    return guests;
}

QString lowerUUID(const UUID& id) { return id.toString().toLower(); }

std::vector<GoogleEventAttendeeDTO> writeAttendees(const std::vector<Guest>& guests) {
    std::vector<GoogleEventAttendeeDTO> out;
    out.reserve(guests.size());
    for (const auto& guest : guests) {
        GoogleEventAttendeeDTO a;
        a.email = guest.email;
        const QString name = guest.name.trimmed();
        if (!name.isEmpty()) a.displayName = name;
        switch (guest.status) {
        case GuestStatus::accepted: a.responseStatus = QStringLiteral("accepted"); break;
        case GuestStatus::tentative: a.responseStatus = QStringLiteral("tentative"); break;
        case GuestStatus::declined: a.responseStatus = QStringLiteral("declined"); break;
        case GuestStatus::pending: a.responseStatus = QStringLiteral("needsAction"); break;
        }
        out.push_back(std::move(a));
    }
    return out;
}

GoogleEventRemindersDTO writeReminders(const std::vector<int>& notifications) {
    std::vector<GoogleEventReminderOverrideDTO> overrides;
    overrides.reserve(notifications.size());
    for (int minutes : notifications) overrides.push_back({QStringLiteral("popup"), minutes});
    return {false, std::move(overrides)};
}

QString transparencyOf(const CalendarEvent& e) {
    return e.availability == Availability::free ? QStringLiteral("transparent") : QStringLiteral("opaque");
}

QString visibilityOf(const CalendarEvent& e) {
    return e.visibility == EventVisibility::normal ? QStringLiteral("default") : QStringLiteral("private");
}

GoogleConferenceDataRequestDTO conferenceRequest(const QString& requestID) {
    return {{requestID, {QStringLiteral("hangoutsMeet")}}};
}

std::optional<QString> trimmedOrNothing(const QString& text) {
    QString trimmed = text.trimmed();
    if (trimmed.isEmpty()) return std::nullopt;
    return trimmed;
}

} // namespace

const QString& groupIDKey() {
    static const QString key = QStringLiteral("taveloGroupID");
    return key;
}
const QString& parentEventIDKey() {
    static const QString key = QStringLiteral("taveloParentEventID");
    return key;
}
const QString& generatedBusyBlockKey() {
    static const QString key = QStringLiteral("taveloGeneratedBusyBlock");
    return key;
}
const QString& tagIDsKey() {
    static const QString key = QStringLiteral("taveloTagIDs");
    return key;
}

QString untitledEventTitle() { return QStringLiteral("予定あり"); }

DateCalendar calendarForTimeZone(const QString& timeZoneID) {
    return DateCalendar(timeZoneID, QStringLiteral("en_US_POSIX"));
}

std::optional<QString> normalizedTimeZoneIdentifier(const std::optional<QString>& identifier) {
    if (!identifier) return std::nullopt;
    const QString trimmed = identifier->trimmed();
    if (trimmed.isEmpty()) return std::nullopt;
    const icu::UnicodeString id(reinterpret_cast<const UChar*>(trimmed.utf16()), static_cast<int32_t>(trimmed.size()));
    icu::UnicodeString canonical;
    UBool isSystemID = false;
    UErrorCode status = U_ZERO_ERROR;
    icu::TimeZone::getCanonicalID(id, canonical, isSystemID, status);
    if (U_FAILURE(status) || !isSystemID) return std::nullopt;
    return trimmed;
}

std::optional<Date> parseInstant(QStringView text) {
    WallTime t;
    qsizetype pos = 0;
    if (!readWallTime(text, t, pos, std::nullopt) || pos >= text.size()) return std::nullopt;
    int offsetSeconds = 0;
    const QChar sign = text[pos];
    if (sign == u'Z') {
        if (pos + 1 != text.size()) return std::nullopt;
    } else if (sign == u'+' || sign == u'-') {
        int hours = 0, minutes = 0;
        const QStringView rest = text.mid(pos + 1);
        if (!readDigits(rest, 0, 2, hours)) return std::nullopt;
        if (rest.size() == 5 && rest[2] == u':') {
            if (!readDigits(rest, 3, 2, minutes)) return std::nullopt;
        } else if (rest.size() == 4) {
            if (!readDigits(rest, 2, 2, minutes)) return std::nullopt;
        } else if (rest.size() != 2) {
            return std::nullopt;
        }
        if (hours > 23 || minutes > 59) return std::nullopt;
        offsetSeconds = (hours * 3600 + minutes * 60) * (sign == u'-' ? -1 : 1);
    } else {
        return std::nullopt;
    }
    return Date::fromUnixSeconds(unixSecondsOf(t) - offsetSeconds + t.fraction);
}

std::optional<GoogleEventTimes> eventTimes(const GoogleEventDateTimeDTO& startDTO, const GoogleEventDateTimeDTO& endDTO,
                                          const DateCalendar& timeZone) {
    std::optional<Date> start, end;
    bool isAllDay = false;
    if (startDTO.date && endDTO.date) {
        start = allDayDate(*startDTO.date, timeZone);
        end = allDayDate(*endDTO.date, timeZone);
        isAllDay = start && end && *end > *start;
    }
    if (!isAllDay) {
        start = dateTimeValue(startDTO, timeZone);
        end = dateTimeValue(endDTO, timeZone);
        if (!start || !end || !(*end > *start)) return std::nullopt;
    }
    return GoogleEventTimes{*start, *end, isAllDay};
}

bool timesDependOnCalendarZone(const GoogleEventDTO& dto) {
    if (!dto.start || !dto.end) return false;
    if (dto.start->date && dto.end->date) return true;
    // A wall-clock time without a zone of its own is read in the calendar's.
    auto wallClock = [](const GoogleEventDateTimeDTO& value) {
        return value.dateTime && !parseInstant(*value.dateTime) && !normalizedTimeZoneIdentifier(value.timeZone);
    };
    return wallClock(*dto.start) || wallClock(*dto.end);
}

std::optional<CalendarEvent> event(const GoogleEventDTO& dto, const UUID& localID, const UUID& calendarID,
                                   const DateCalendar& timeZone) {
    if (dto.status && *dto.status == u"cancelled") return std::nullopt;
    const QString googleID = dto.id ? dto.id->trimmed() : QString();
    if (googleID.isEmpty()) return std::nullopt;
    if (!dto.start || !dto.end) return std::nullopt;
    const auto times = eventTimes(*dto.start, *dto.end, timeZone);
    if (!times) return std::nullopt;

    CalendarEvent e;
    e.id = localID;
    e.groupID = propertyUUID(dto, groupIDKey()).value_or(localID);
    e.sourceEventID = propertyUUID(dto, parentEventIDKey());
    e.kind = EventKind::event;
    const QString title = dto.summary ? dto.summary->trimmed() : QString();
    e.title = title.isEmpty() ? untitledEventTitle() : title;
    e.start = times->start;
    e.end = times->end;
    e.isAllDay = times->isAllDay;
    if (!dto.recurringEventId && dto.recurrence) e.recurrence = readRecurrence(*dto.recurrence);
    e.calendarID = calendarID;
    e.tagID = firstTagID(dto);
    e.location = dto.location.value_or(QString());
    e.notes = dto.description.value_or(QString());
    if (dto.attendees) e.guests = readGuests(*dto.attendees, localID);
    if (dto.reminders && dto.reminders->overrides) {
        for (const auto& reminder : *dto.reminders->overrides)
            if (reminder.minutes >= 0) e.notifications.push_back(reminder.minutes);
    }
    e.meetURL = parsedURL(dto.hangoutLink);
    if (!e.meetURL && dto.conferenceData && dto.conferenceData->entryPoints) {
        for (const auto& entry : *dto.conferenceData->entryPoints) {
            if (entry.entryPointType != u"video") continue;
            if ((e.meetURL = parsedURL(entry.uri))) break;
        }
    }
    e.availability = dto.transparency == u"transparent" ? Availability::free : Availability::busy;
    e.visibility = dto.visibility == u"private" || dto.visibility == u"confidential" ? EventVisibility::privateDetails
                                                                                     : EventVisibility::normal;
    e.isCompleted = false;
    const QString* busyBlock = dto.privateProperty(generatedBusyBlockKey());
    e.isGeneratedBusyBlock = busyBlock && *busyBlock == u"true";
    e.externalUID = dto.iCalUID;
    e.googleEventID = googleID;
    e.googleETag = dto.etag;
    if (dto.updated) {
        // Kept in whole seconds, the precision of the stored calendar, so that
        // an unchanged event compares equal after a reload.
        if (auto updated = parseInstant(*dto.updated))
            e.googleUpdatedAt = Date::fromReferenceSeconds(std::floor(updated->referenceSeconds()));
    }
    return e;
}

GoogleEventInsertDTO insertRequest(const CalendarEvent& event, const DateCalendar& timeZone,
                                   const std::optional<QString>& conferenceRequestID) {
    GoogleEventInsertDTO dto;
    dto.id = event.id.toString().toLower().remove(u'-');
    dto.summary = event.title;
    dto.description = trimmedOrNothing(event.notes);
    dto.location = trimmedOrNothing(event.location);
    dto.start = writeDate(event.start, event.isAllDay, timeZone);
    dto.end = writeDate(event.end, event.isAllDay, timeZone);
    if (event.recurrence) dto.recurrence = recurrenceLines(*event.recurrence);
    dto.transparency = transparencyOf(event);
    dto.visibility = visibilityOf(event);
    dto.attendees = writeAttendees(event.guests);
    dto.reminders = writeReminders(event.notifications);
    if (conferenceRequestID) dto.conferenceData = conferenceRequest(*conferenceRequestID);
    std::map<QString, QString> properties;
    properties.emplace(groupIDKey(), lowerUUID(event.groupID));
    properties.emplace(generatedBusyBlockKey(),
                       event.isGeneratedBusyBlock ? QStringLiteral("true") : QStringLiteral("false"));
    if (event.sourceEventID) properties.emplace(parentEventIDKey(), lowerUUID(*event.sourceEventID));
    if (event.tagID) properties.emplace(tagIDsKey(), lowerUUID(*event.tagID));
    dto.extendedProperties.privateProperties = std::move(properties);
    return dto;
}

GoogleEventPatchDTO patch(const CalendarEvent& event, const DateCalendar& timeZone,
                          const std::set<GoogleEventPatchField>& changes,
                          const std::optional<QString>& conferenceRequestID) {
    GoogleEventPatchDTO dto;
    dto.etag = event.googleETag;
    for (GoogleEventPatchField field : changes) {
        switch (field) {
        case GoogleEventPatchField::summary:
            dto.summary = GooglePatchValue<QString>::value(event.title);
            break;
        case GoogleEventPatchField::timing:
            dto.start = GooglePatchValue<GoogleEventDateTimeDTO>::value(writeDate(event.start, event.isAllDay, timeZone));
            dto.end = GooglePatchValue<GoogleEventDateTimeDTO>::value(writeDate(event.end, event.isAllDay, timeZone));
            break;
        case GoogleEventPatchField::description:
            if (auto notes = trimmedOrNothing(event.notes))
                dto.description = GooglePatchValue<QString>::value(*notes);
            else
                dto.description = GooglePatchValue<QString>::clear();
            break;
        case GoogleEventPatchField::location:
            if (auto location = trimmedOrNothing(event.location))
                dto.location = GooglePatchValue<QString>::value(*location);
            else
                dto.location = GooglePatchValue<QString>::clear();
            break;
        case GoogleEventPatchField::recurrence:
            if (event.recurrence)
                dto.recurrence = GooglePatchValue<std::vector<QString>>::value(recurrenceLines(*event.recurrence));
            else
                dto.recurrence = GooglePatchValue<std::vector<QString>>::clear();
            break;
        case GoogleEventPatchField::attendees:
            dto.attendees = GooglePatchValue<std::vector<GoogleEventAttendeeDTO>>::value(writeAttendees(event.guests));
            break;
        case GoogleEventPatchField::reminders:
            dto.reminders = GooglePatchValue<GoogleEventRemindersDTO>::value(writeReminders(event.notifications));
            break;
        case GoogleEventPatchField::availability:
            dto.transparency = GooglePatchValue<QString>::value(transparencyOf(event));
            break;
        case GoogleEventPatchField::visibility:
            dto.visibility = GooglePatchValue<QString>::value(visibilityOf(event));
            break;
        case GoogleEventPatchField::linkage: {
            GoogleExtendedPropertiesPatchDTO properties;
            auto& map = properties.privateProperties;
            map.emplace(groupIDKey(), lowerUUID(event.groupID));
            map.emplace(generatedBusyBlockKey(),
                        event.isGeneratedBusyBlock ? QStringLiteral("true") : QStringLiteral("false"));
            map.emplace(parentEventIDKey(),
                        event.sourceEventID ? std::optional<QString>(lowerUUID(*event.sourceEventID)) : std::nullopt);
            map.emplace(tagIDsKey(),
                        event.tagID ? std::optional<QString>(lowerUUID(*event.tagID)) : std::nullopt);
            dto.extendedProperties = GooglePatchValue<GoogleExtendedPropertiesPatchDTO>::value(std::move(properties));
            break;
        }
        case GoogleEventPatchField::conference:
            if (conferenceRequestID)
                dto.conferenceData =
                    GooglePatchValue<GoogleConferenceDataRequestDTO>::value(conferenceRequest(*conferenceRequestID));
            else if (!event.meetURL)
                dto.conferenceData = GooglePatchValue<GoogleConferenceDataRequestDTO>::clear();
            break;
        }
    }
    return dto;
}

} // namespace tavelo::GoogleCalendarMapper
