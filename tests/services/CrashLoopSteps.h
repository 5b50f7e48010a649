#pragma once

// The edits of the crash loop: a numbered sequence of store operations on a
// workspace of 2,000 events, and a plain model of what each does to the
// events. The writer process performs them through the store; the test
// replays them on the model to know every state the file may hold.

#include "services/LocalCalendarService.h"

#include <QCoro/QCoroTask>

#include <cstdint>

namespace tavelo::crashloop {

constexpr int kEvents = 2000;

inline UUID numbered(std::uint8_t kind, std::uint64_t n) {
    UUID::Bytes bytes{};
    bytes[0] = kind;
    for (int i = 0; i < 8; ++i) bytes[8 + i] = static_cast<std::uint8_t>(n >> (8 * (7 - i)));
    bytes[6] = 0x40;
    bytes[7] = 0x00;
    bytes[8] = static_cast<std::uint8_t>(0x80 | (bytes[8] & 0x3F));
    return UUID(bytes);
}

inline CalendarEvent eventNumbered(std::uint8_t kind, std::uint64_t n, QString title) {
    const Date start = Date::fromUnixSeconds(1767571200 + 900.0 * static_cast<double>(n % 5000));
    return CalendarEvent{.id = numbered(kind, n), .groupID = numbered(static_cast<std::uint8_t>(kind + 1), n),
                         .title = std::move(title), .start = start, .end = start.addingSeconds(1800),
                         .calendarID = CalendarSource::tavelo().id, .notes = QStringLiteral("議事メモ %1 ").arg(n).repeated(6)};
}

inline AppSnapshot initial() {
    AppSnapshot s = AppSnapshot::empty();
    s.calendars.push_back(CalendarSource::tavelo());
    for (int i = 0; i < kEvents; ++i) s.events.push_back(eventNumbered(10, static_cast<std::uint64_t>(i), QStringLiteral("予定 %1").arg(i)));
    return s;
}

enum class Step { create, update, save, remove };
inline Step stepOf(std::uint64_t n) { return static_cast<Step>(n % 4); }

// Step n (from 1) on the model.
inline void apply(AppSnapshot& s, std::uint64_t n) {
    auto& events = s.events;
    switch (stepOf(n)) {
    case Step::create:
        events.push_back(eventNumbered(20, n, QStringLiteral("追加 %1").arg(n)));
        break;
    case Step::update:
        events[(n * 31) % events.size()].title = QStringLiteral("変更 %1").arg(n);
        break;
    case Step::save:
        events[(n * 17) % events.size()].notes = QStringLiteral("保存 %1").arg(n);
        s.preferences.mergeDuplicates = n % 8 != 2;
        break;
    case Step::remove:
        std::erase_if(events, [&](const CalendarEvent& e) { return e.groupID == numbered(21, n - 3); });
        break;
    }
}

// Step n through the store's operation of that kind; `model` follows.
inline QCoro::Task<void> perform(LocalCalendarService& service, AppSnapshot& model, std::uint64_t n) {
    AppSnapshot next = model;
    apply(next, n);
    switch (stepOf(n)) {
    case Step::create: {
        std::vector<CalendarEvent> created{next.events.back()};
        co_await service.createEvents(std::move(created));
        break;
    }
    case Step::update: {
        const CalendarEvent& changed = next.events[(n * 31) % model.events.size()];
        std::vector<CalendarEvent> group{changed};
        co_await service.updateEvents(changed.groupID, std::move(group));
        break;
    }
    case Step::save:
        co_await service.save(next);
        break;
    case Step::remove:
        co_await service.deleteEvents(numbered(21, n - 3));
        break;
    }
    model = std::move(next);
}

} // namespace tavelo::crashloop
