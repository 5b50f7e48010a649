#pragma once

// A workspace for the calendar view tests: a real SQLite-backed store in a
// temporary directory, seeded with one busy week of March 2026 in Tokyo.

#include "services/LocalCalendarService.h"
#include "stores/AppStore.h"
#include "stores/SceneState.h"
#include "stores/StoreTestSupport.h"
#include "support/Async.h"

#include <QTemporaryDir>

#include <memory>

namespace tavelo::test {

struct CalendarWorkspace {
    QTemporaryDir dir;
    const UUID workAccount = uuid(0xA1), homeAccount = uuid(0xA2);
    const UUID work = uuid(0xC1), home = uuid(0xC2), hidden = uuid(0xC3);
    const UUID develop = uuid(0x71), meetings = uuid(0x72);
    AppSnapshot seed;
    std::unique_ptr<AppStore> store;
    std::unique_ptr<SceneState> scene;

    static Date march(int day, int hour = 0, int minute = 0) { return on(tokyo(), 3, day, hour, minute); }
    // `days` after the start of today at `hour`; the search cases are kept
    // relative to the clock.
    static Date fromToday(int days, int hour) {
        return tokyo().startOfDay(Date::now()).addingSeconds(days * 86400.0 + hour * 3600.0);
    }

    CalendarWorkspace() {
        seed.accounts = {Account{.id = workAccount, .name = "仕事", .email = "me@work.example"},
                         Account{.id = homeAccount, .name = "家族", .kind = AccountKind::family}};
        seed.calendars = {CalendarSource{.id = work, .accountID = workAccount, .name = "業務", .colorHex = "#3B82F6"},
                          CalendarSource{.id = home, .accountID = homeAccount, .name = "自宅", .colorHex = "#10B981",
                                         .receivesBusyBlocks = true},
                          CalendarSource{.id = hidden, .accountID = workAccount, .name = "非表示", .colorHex = "#999999",
                                         .isVisible = false}};
        seed.tags = {Tag{.id = develop, .name = "開発", .colorHex = "#F59E0B", .sortOrder = 0, .weeklyTargetMinutes = 120},
                     Tag{.id = meetings, .name = "会議", .colorHex = "#8B5CF6", .sortOrder = 1, .weeklyTargetMinutes = 60}};

        auto add = [&](int n, Date start, Date end, UUID calendar, const char* title, int group = 0) -> CalendarEvent& {
            CalendarEvent& e = seed.events.emplace_back(event(n, start, end, calendar, group));
            e.title = QString::fromUtf8(title);
            return e;
        };
        // Wednesday 4 March: a review overlapping a 1on1 and lunch.
        add(1, march(4, 9), march(4, 11), work, "設計レビュー").tagID = develop;
        add(2, march(4, 9), march(4, 10), work, "1on1").tagID = meetings;
        add(3, march(4, 10), march(4, 11), home, "昼食");
        // Thursday: one stand-up on two calendars.
        add(4, march(5, 10), march(5, 10, 30), work, "朝会", 40);
        add(5, march(5, 10), march(5, 10, 30), home, "朝会", 40);
        // Friday: a visit on the hidden calendar mirrored as a busy block.
        add(7, march(6, 13), march(6, 14), hidden, "顧客訪問", 70);
        CalendarEvent& block = add(6, march(6, 13), march(6, 14), home, "予定あり", 70);
        block.isGeneratedBusyBlock = true;
        block.sourceEventID = uuid(7);
        // A trip from Tuesday to Thursday, all day.
        add(8, march(3), march(6), work, "大阪出張").isAllDay = true;
        // Friday night into Saturday.
        add(9, march(6, 22), march(7, 2), work, "夜間メンテナンス");
        // The week before: one development hour.
        add(11, on(tokyo(), 2, 25, 9), on(tokyo(), 2, 25, 10), work, "設計準備").tagID = develop;
        // Around today, for the search.
        add(20, fromToday(1, 10), fromToday(1, 11), work, "設計レビュー 第2回");
        add(21, fromToday(3, 15), fromToday(3, 16), home, "設計メモの整理");
        add(22, fromToday(-10, 9), fromToday(-10, 10), work, "設計の振り返り");
    }

    QString path() const { return dir.filePath("state.sqlite"); }
    AppSnapshot stored() const { return syncWait(LocalCalendarService(path()).load()).snapshot; }

    void open(Date selected = march(4, 12)) {
        auto service = std::make_shared<LocalCalendarService>(path(), [this] { return seed; });
        store = std::make_unique<AppStore>(service, nullptr, "", tokyo());
        syncWait(store->load());
        scene = std::make_unique<SceneState>(selected);
    }

    const CalendarEvent* storedEvent(const AppSnapshot& snapshot, int n) const {
        for (const auto& e : snapshot.events)
            if (e.id == uuid(n)) return &e;
        return nullptr;
    }
};

} // namespace tavelo::test
