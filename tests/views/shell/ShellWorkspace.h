#pragma once

// A workspace for the shell tests: a real SQLite-backed store in a temporary
// directory, in Tokyo, with a local calendar, a Google work account and a
// family account, and two tags.

#include "services/LocalCalendarService.h"
#include "stores/AppStore.h"
#include "stores/SceneState.h"
#include "stores/StoreTestSupport.h"
#include "support/Async.h"
#include "support/TestWait.h"

#include <QTemporaryDir>

#include <memory>

namespace tavelo::test {

struct ShellWorkspace {
    QTemporaryDir dir;
    const UUID workAccount = uuid(0xA1), familyAccount = uuid(0xA2);
    const UUID local = uuid(0xC0), work = uuid(0xC1), family = uuid(0xC2);
    const UUID develop = uuid(0x71), meetings = uuid(0x72);
    AppSnapshot seed;
    std::unique_ptr<AppStore> store;
    std::unique_ptr<SceneState> scene;

    static Date march(int day, int hour = 0, int minute = 0) { return on(tokyo(), 3, day, hour, minute); }

    ShellWorkspace() {
        seed.accounts = {Account{.id = workAccount, .name = "仕事", .email = "me@work.example", .isConnected = true,
                                 .googleSubject = QStringLiteral("sub-1")},
                         Account{.id = familyAccount, .name = "家族", .kind = AccountKind::family}};
        seed.calendars = {
            CalendarSource{.id = work, .accountID = workAccount, .name = "業務", .colorHex = "#3B82F6",
                           .googleCalendarID = QStringLiteral("work@group.calendar.google.com")},
            CalendarSource{.id = family, .accountID = familyAccount, .name = "自宅", .colorHex = "#10B981",
                           .receivesBusyBlocks = true},
            CalendarSource{.id = local, .name = "メモ", .colorHex = "#999999"},
        };
        seed.tags = {Tag{.id = develop, .name = "開発", .colorHex = "#F59E0B", .sortOrder = 0},
                     Tag{.id = meetings, .name = "会議", .colorHex = "#8B5CF6", .sortOrder = 1}};
        // One review on two calendars.
        for (const auto& [n, calendar] : {std::pair{1, work}, std::pair{2, family}}) {
            seed.events.push_back(event(n, march(4, 9), march(4, 11), calendar, 1));
            seed.events.back().title = "設計レビュー";
        }
    }

    QString path() const { return dir.filePath("state.sqlite"); }
    AppSnapshot stored() const { return syncWait(LocalCalendarService(path()).load()).snapshot; }

    // With `google`, the store has Google configured.
    void open(Date selected = march(4, 12), std::shared_ptr<GoogleAccountService> google = nullptr) {
        auto service = std::make_shared<LocalCalendarService>(path(), [this] { return seed; });
        store = std::make_unique<AppStore>(service, std::move(google), dir.filePath("google-oauth.json"), tokyo());
        syncWait(store->load());
        scene = std::make_unique<SceneState>(selected);
    }
};

using tavelo::testing::waitUntil;

} // namespace tavelo::test
