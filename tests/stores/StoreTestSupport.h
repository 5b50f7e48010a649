#pragma once

// Helpers shared by the store tests: calendars, fixed ids, an event builder
// and a service to build fakes on.

#include "models/CalendarEvent.h"
#include "services/CalendarService.h"
#include "support/DateCalendar.h"

#include <QString>

#include <cstdint>
#include <memory>
#include <ostream>

// Readable texts in failure messages.
inline void PrintTo(const QString& text, std::ostream* os) { *os << '"' << text.toStdString() << '"'; }

namespace tavelo::test {

inline const DateCalendar& tokyo() {
    static const DateCalendar calendar(QStringLiteral("Asia/Tokyo"), QStringLiteral("ja_JP"));
    return calendar;
}
// Spring forward on 8 March 2026, fall back on 1 November.
inline const DateCalendar& newYork() {
    static const DateCalendar calendar(QStringLiteral("America/New_York"), QStringLiteral("en_US"));
    return calendar;
}

// A wall-clock time of 2026 in `calendar`.
inline Date on(const DateCalendar& calendar, int month, int day, int hour = 0, int minute = 0, int second = 0) {
    return *calendar.date(2026, month, day, hour, minute, second);
}
// Monday 5 January 2026 in Tokyo, `hours` after midnight (negative: the days before).
inline Date monday(double hours) { return on(tokyo(), 1, 5).addingSeconds(hours * 3600); }

// An id that reads the same in every run: 00000000-0000-0000-0000-00000000nnnn.
inline UUID uuid(int n) {
    UUID::Bytes bytes{};
    bytes[14] = static_cast<std::uint8_t>(n >> 8);
    bytes[15] = static_cast<std::uint8_t>(n);
    return UUID(bytes);
}

// A busy timed event with id `n`, alone in its group unless `group` is given.
inline CalendarEvent event(int n, Date start, Date end, UUID calendarID = uuid(0xCA1), int group = 0) {
    return CalendarEvent{.id = uuid(n), .groupID = uuid(0x1000 + (group ? group : n)), .title = QStringLiteral("event %1").arg(n),
                         .start = start, .end = end, .calendarID = calendarID};
}

// Passes every call to `inner`; fakes override what they change.
class ForwardingCalendarService : public CalendarService {
public:
    using Events = std::vector<CalendarEvent>;
    explicit ForwardingCalendarService(std::shared_ptr<CalendarService> inner) : in(std::move(inner)) {}

    QCoro::Task<CalendarLoadResult> load() override { return in->load(); }
    QCoro::Task<void> save(AppSnapshot s) override { return in->save(std::move(s)); }
    QCoro::Task<std::vector<Account>> fetchAccounts() override { return in->fetchAccounts(); }
    QCoro::Task<std::vector<CalendarSource>> fetchCalendars(std::optional<std::set<UUID>> a) override { return in->fetchCalendars(a); }
    QCoro::Task<Events> fetchEvents(CalendarEventQuery q) override { return in->fetchEvents(std::move(q)); }
    QCoro::Task<Events> createEvents(Events e) override { return in->createEvents(std::move(e)); }
    QCoro::Task<Events> updateEvents(UUID g, Events e) override { return in->updateEvents(g, std::move(e)); }
    QCoro::Task<Events> deleteEvents(UUID g) override { return in->deleteEvents(g); }
    QCoro::Task<std::vector<CalendarBusyInterval>> freeBusy(std::set<UUID> ids, DateInterval interval,
                                                            std::optional<UUID> excluding) override {
        return in->freeBusy(std::move(ids), interval, excluding);
    }

protected:
    std::shared_ptr<CalendarService> in;
};

} // namespace tavelo::test
