#pragma once

#include "models/CalendarEvent.h"
#include "support/Date.h"
#include "support/DateCalendar.h"
#include "support/Error.h"
#include "support/UUID.h"

#include <QString>
#include <QUrl>

#include <cstddef>
#include <optional>
#include <set>
#include <vector>

namespace tavelo {

// What the event editor submits: one logical event, possibly on several
// calendars. An all-day draft counts its `end` inclusively (the last day
// shown); a stored event counts it exclusively (the start of the day after).
struct EventDraft {
    // The group under edit; nothing for a new event.
    std::optional<UUID> groupID;
    EventKind kind = EventKind::event;
    QString title;
    Date start;
    // All-day: the last day included. Timed: the end instant.
    Date end;
    bool isAllDay = false;
    std::optional<EventRecurrence> recurrence;
    // Destination calendars, in the user's order.
    std::vector<UUID> calendarIDs;
    // An explicit tag; nothing lets the tag rules decide.
    std::optional<UUID> tagID;
    QString location;
    QString notes;
    std::vector<Guest> guests;
    // Minutes before the start.
    std::vector<int> notifications;
    std::optional<QUrl> meetURL;
    Availability availability = Availability::busy;
    EventVisibility visibility = EventVisibility::normal;
    bool isCompleted = false;
    std::optional<QString> externalUID;

    // A draft for editing `event` on `calendarIDs`. An all-day event's
    // exclusive end becomes the inclusive last day: one calendar day earlier,
    // or one second earlier where the calendar cannot step back.
    static EventDraft fromEvent(const CalendarEvent& event, std::vector<UUID> calendarIDs, const DateCalendar& calendar);

    // Sets on `event` every field it shares with a draft, as the draft holds
    // them; its identity, calendar, busy-block and Google fields stay.
    void applyTo(CalendarEvent& event) const;

    // The draft with stored bounds. Timed drafts come back unchanged; an
    // all-day draft starts at the start of its first day and ends at the start
    // of the day after its last day (or at the start of the last day where
    // that addition fails).
    EventDraft normalizedForMutation(const DateCalendar& calendar) const;

    // The editor's message for this draft, or nothing when it may be saved.
    // Normalises first, then checks in order: blank title (allowed only on
    // the built-in local calendar alone), end not after start, no calendar,
    // and an invalid guest address on a draft that reaches one of
    // `providerCalendarIDs`.
    std::optional<QString> validationMessage(const std::set<UUID>& providerCalendarIDs,
                                             const DateCalendar& calendar) const;

    bool operator==(const EventDraft&) const = default;
};

// Whether Google would take `address` as a guest: trimmed, no whitespace, one
// "@", a dot-atom local part, and a domain of letters, digits and hyphens
// between dots.
bool isValidGuestEmail(const QString& address);

// The reasons a draft cannot be saved, in the order they are checked.
class EventValidationError final : public Error {
public:
    enum class Kind { blankTitle, invalidDateRange, noCalendars };

    explicit EventValidationError(Kind kind) : kind_(kind) {}
    static EventValidationError blankTitle() { return EventValidationError(Kind::blankTitle); }
    static EventValidationError invalidDateRange() { return EventValidationError(Kind::invalidDateRange); }
    static EventValidationError noCalendars() { return EventValidationError(Kind::noCalendars); }

    Kind kind() const { return kind_; }
    // The editor's words for the same failure.
    QString message() const;

    std::optional<QString> errorDescription() const override { return message(); }
    const char* domain() const override { return "EventValidationError"; }
    int code() const override { return static_cast<int>(kind_); }

    bool operator==(const EventValidationError& other) const { return kind_ == other.kind_; }

private:
    Kind kind_;
};

} // namespace tavelo

template <>
struct std::hash<tavelo::EventDraft> {
    std::size_t operator()(const tavelo::EventDraft& draft) const noexcept;
};
