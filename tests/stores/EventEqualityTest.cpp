// The quick event equality against the plain one: copies that share their
// texts, equal texts in separate storage, and each field changed alone by as
// little as it can be.

#include "stores/EventEquality.h"

#include <gtest/gtest.h>

#include <functional>

using namespace tavelo;

namespace {

CalendarEvent rich() {
    const Date day = Date::fromUnixSeconds(1767571200);
    return CalendarEvent{.id = UUID::random(), .groupID = UUID::random(), .sourceEventID = UUID::random(),
                         .kind = EventKind::task, .title = "会議", .start = day, .end = day.addingSeconds(1800),
                         .recurrence = EventRecurrence::weekly, .calendarID = UUID::random(), .tagID = UUID::random(),
                         .location = "Room", .notes = "Notes",
                         .guests = {Guest{UUID::random(), "Ann", "ann@example.com", GuestStatus::accepted}},
                         .notifications = {10}, .meetURL = QUrl("https://meet.example/a"), .externalUID = "uid",
                         .googleEventID = "g1", .googleETag = "e1", .googleUpdatedAt = day};
}

// A copy whose texts have storage of their own.
CalendarEvent deepCopy(CalendarEvent e) {
    const auto detach = [](QString& s) { s = QString(s.constData(), s.size()); };
    detach(e.title);
    detach(e.location);
    detach(e.notes);
    for (auto& guest : e.guests) detach(guest.name);
    if (e.googleETag) detach(*e.googleETag);
    if (e.meetURL) e.meetURL = QUrl(e.meetURL->toString());
    return e;
}

TEST(EventEqualityTest, AgreesWithTheRecordsOwnEqualityFieldByField) {
    const CalendarEvent a = rich();
    EXPECT_TRUE(EventEquality::same(a, a));
    EXPECT_TRUE(EventEquality::same(a, deepCopy(a)));
    const std::vector<std::function<void(CalendarEvent&)>> changes = {
        [](CalendarEvent& e) { e.id = UUID::random(); },
        [](CalendarEvent& e) { e.groupID = UUID::random(); },
        [](CalendarEvent& e) { e.sourceEventID.reset(); },
        [](CalendarEvent& e) { e.kind = EventKind::event; },
        [](CalendarEvent& e) { e.title = "会談"; },
        [](CalendarEvent& e) { e.start = e.start.addingSeconds(0.5); },
        [](CalendarEvent& e) { e.end = e.end.addingSeconds(0.5); },
        [](CalendarEvent& e) { e.isAllDay = true; },
        [](CalendarEvent& e) { e.recurrence = EventRecurrence::daily; },
        [](CalendarEvent& e) { e.calendarID = UUID::random(); },
        [](CalendarEvent& e) { e.tagID.reset(); },
        [](CalendarEvent& e) { e.location = "Roon"; },
        [](CalendarEvent& e) { e.notes = "Noted"; },
        [](CalendarEvent& e) { e.guests[0].name = "Amy"; },
        [](CalendarEvent& e) { e.guests[0].status = GuestStatus::pending; },
        [](CalendarEvent& e) { e.notifications = {20}; },
        [](CalendarEvent& e) { e.meetURL = QUrl("https://meet.example/b"); },
        [](CalendarEvent& e) { e.availability = Availability::free; },
        [](CalendarEvent& e) { e.visibility = EventVisibility::privateTitle; },
        [](CalendarEvent& e) { e.isCompleted = true; },
        [](CalendarEvent& e) { e.isGeneratedBusyBlock = true; },
        [](CalendarEvent& e) { e.externalUID = "uie"; },
        [](CalendarEvent& e) { e.googleEventID = "g2"; },
        [](CalendarEvent& e) { e.googleETag = "e2"; },
        [](CalendarEvent& e) { e.googleUpdatedAt.reset(); },
    };
    for (std::size_t i = 0; i < changes.size(); ++i) {
        CalendarEvent b = deepCopy(a);
        changes[i](b);
        ASSERT_NE(a, b) << "change " << i;
        EXPECT_FALSE(EventEquality::same(a, b)) << "change " << i;
        EXPECT_FALSE(EventEquality::same(std::vector{a, a}, std::vector{a, b})) << "change " << i;
    }
    EXPECT_TRUE(EventEquality::same(std::vector{a, deepCopy(a)}, std::vector{deepCopy(a), a}));
    EXPECT_FALSE(EventEquality::same(std::vector<CalendarEvent>(1), std::vector<CalendarEvent>(2)));
}

} // namespace
