// Equality of events, as their == has it, but quick for the common case of a
// list compared with a copy of itself: copied texts share their characters,
// so those are not read, and ids compare as two words each. Measured on
// saving an event into 50,000 (bench/GuiThreadBench.cpp): the GUI thread's
// longest block grows from about 3.4 ms to 3.9-5.1 ms with plain ==.

#include "stores/EventEquality.h"

#include <QUrl>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace tavelo::EventEquality {

namespace {

bool same(const UUID& a, const UUID& b) {
    std::uint64_t x[2], y[2];
    std::memcpy(x, a.bytes().data(), sizeof x);
    std::memcpy(y, b.bytes().data(), sizeof y);
    return x[0] == y[0] && x[1] == y[1];
}
bool same(const QString& a, const QString& b) {
    return (a.size() == b.size() && a.constData() == b.constData()) || a == b;
}
bool same(const Guest& a, const Guest& b);
bool sameEvent(const CalendarEvent& a, const CalendarEvent& b);
template <class T>
bool same(const T& a, const T& b) {
    return a == b;
}
template <class T>
bool same(const std::optional<T>& a, const std::optional<T>& b) {
    return a.has_value() == b.has_value() && (!a || same(*a, *b));
}
bool same(const Guest& a, const Guest& b) {
    // Bound field by field, so that a new field fails to compile here
    // instead of being passed over.
    const auto& [id, name, email, status] = a;
    const auto& [otherID, otherName, otherEmail, otherStatus] = b;
    return same(id, otherID) && same(name, otherName) && same(email, otherEmail) && same(status, otherStatus);
}
template <class T>
bool same(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](const T& x, const T& y) { return same(x, y); });
}
bool sameEvent(const CalendarEvent& a, const CalendarEvent& b) {
    const auto& [id, groupID, sourceEventID, kind, title, start, end, isAllDay, recurrence, calendarID, tagID,
                 location, notes, guests, notifications, meetURL, availability, visibility, isCompleted,
                 isGeneratedBusyBlock, externalUID, googleEventID, googleETag, googleUpdatedAt] = a;
    const auto& [otherID, otherGroupID, otherSourceEventID, otherKind, otherTitle, otherStart, otherEnd,
                 otherIsAllDay, otherRecurrence, otherCalendarID, otherTagID, otherLocation, otherNotes, otherGuests,
                 otherNotifications, otherMeetURL, otherAvailability, otherVisibility, otherIsCompleted,
                 otherIsGeneratedBusyBlock, otherExternalUID, otherGoogleEventID, otherGoogleETag,
                 otherGoogleUpdatedAt] = b;
    return same(id, otherID) && same(groupID, otherGroupID) && same(sourceEventID, otherSourceEventID) &&
           same(kind, otherKind) && same(title, otherTitle) && same(start, otherStart) && same(end, otherEnd) &&
           same(isAllDay, otherIsAllDay) && same(recurrence, otherRecurrence) && same(calendarID, otherCalendarID) &&
           same(tagID, otherTagID) && same(location, otherLocation) && same(notes, otherNotes) &&
           same(guests, otherGuests) && same(notifications, otherNotifications) && same(meetURL, otherMeetURL) &&
           same(availability, otherAvailability) && same(visibility, otherVisibility) &&
           same(isCompleted, otherIsCompleted) && same(isGeneratedBusyBlock, otherIsGeneratedBusyBlock) &&
           same(externalUID, otherExternalUID) && same(googleEventID, otherGoogleEventID) &&
           same(googleETag, otherGoogleETag) && same(googleUpdatedAt, otherGoogleUpdatedAt);
}

} // namespace

bool same(const CalendarEvent& a, const CalendarEvent& b) { return sameEvent(a, b); }

bool same(const std::vector<CalendarEvent>& a, const std::vector<CalendarEvent>& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), sameEvent);
}

} // namespace tavelo::EventEquality
