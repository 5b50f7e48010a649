// The quick event equality against the plain one, on random pairs: copies
// that share their texts, equal texts in separate storage, and one field
// changed at a time.

#include "stores/EventEquality.h"

#include <gtest/gtest.h>

#include <random>

using namespace tavelo;

namespace {

class RandomEvents {
public:
    explicit RandomEvents(unsigned seed) : random_(seed) {}

    int pick(int below) { return std::uniform_int_distribution<int>(0, below - 1)(random_); }
    UUID id() { return ids_[pick(3)]; }
    // Few distinct texts, so that unequal-by-chance and equal-in-separate-
    // storage both happen often.
    QString text() {
        static const char* words[] = {"", "a", "会議", "Meeting", "Meetinh"};
        return QString::fromUtf8(words[pick(5)]);
    }
    Date date() { return Date::fromUnixSeconds(1767571200 + 1800.0 * pick(3) + (pick(4) == 0 ? 0.5 : 0.0)); }
    // Nothing one time in three.
    template <class T>
    std::optional<T> maybe(T value) {
        return pick(3) == 0 ? std::nullopt : std::optional<T>(std::move(value));
    }

    CalendarEvent event() {
        CalendarEvent e;
        e.id = id();
        e.groupID = id();
        e.sourceEventID = maybe(id());
        e.kind = pick(2) ? EventKind::event : EventKind::task;
        e.title = text();
        e.start = date();
        e.end = date();
        e.isAllDay = pick(2);
        e.recurrence = maybe(pick(2) ? EventRecurrence::weekly : EventRecurrence::daily);
        e.calendarID = id();
        e.tagID = maybe(id());
        e.location = text();
        e.notes = text();
        for (int i = pick(3); i > 0; --i)
            e.guests.push_back(Guest{id(), text(), text(), pick(2) ? GuestStatus::accepted : GuestStatus::pending});
        for (int i = pick(3); i > 0; --i) e.notifications.push_back(pick(3) * 10);
        e.meetURL = maybe(QUrl(QStringLiteral("https://meet.example/") + text()));
        e.availability = pick(2) ? Availability::busy : Availability::free;
        e.visibility = pick(2) ? EventVisibility::normal : EventVisibility::privateTitle;
        e.isCompleted = pick(2);
        e.isGeneratedBusyBlock = pick(2);
        e.externalUID = maybe(text());
        e.googleEventID = maybe(text());
        e.googleETag = maybe(text());
        e.googleUpdatedAt = maybe(date());
        return e;
    }

    // A copy whose texts have storage of their own.
    static CalendarEvent deepCopy(CalendarEvent e) {
        const auto detach = [](QString& s) { s = QString(s.constData(), s.size()); };
        detach(e.title);
        detach(e.location);
        detach(e.notes);
        for (auto& guest : e.guests) detach(guest.name);
        if (e.googleETag) detach(*e.googleETag);
        if (e.meetURL) e.meetURL = QUrl(e.meetURL->toString());
        return e;
    }

private:
    std::mt19937 random_;
    UUID ids_[3] = {UUID::random(), UUID::random(), UUID::random()};
};

TEST(EventEqualityTest, AgreesWithTheRecordsOwnEqualityOnRandomPairs) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(seed);
    RandomEvents random(seed);
    int equalPairs = 0;
    for (int round = 0; round < 20000; ++round) {
        const CalendarEvent a = random.event();
        CalendarEvent b;
        switch (random.pick(4)) {
        case 0: b = a; break;                          // shares every text
        case 1: b = RandomEvents::deepCopy(a); break;  // equal, separate storage
        case 2: b = random.event(); break;              // unrelated
        default: {                                      // one field apart, maybe
            b = RandomEvents::deepCopy(a);
            const CalendarEvent other = random.event();
            switch (random.pick(6)) {
            case 0: b.title = other.title; break;
            case 1: b.guests = other.guests; break;
            case 2: b.meetURL = other.meetURL; break;
            case 3: b.googleUpdatedAt = other.googleUpdatedAt; break;
            case 4: b.start = other.start; break;
            default: b.notifications = other.notifications; break;
            }
        }
        }
        ASSERT_EQ(EventEquality::same(a, b), a == b) << "round " << round;
        equalPairs += a == b;
        const std::vector<CalendarEvent> left{a, b}, right{a, a};
        ASSERT_EQ(EventEquality::same(left, right), left == right);
    }
    EXPECT_GT(equalPairs, 5000) << "too few equal pairs to say anything";
    EXPECT_FALSE(EventEquality::same(std::vector<CalendarEvent>(1), std::vector<CalendarEvent>(2)));
}

} // namespace
