// Event editing end to end: `AppStore::saveEvent` of a new event on two Google
// calendars, with busy blocks mirrored onto the other calendars that receive
// them, in a workspace of 50,000 events stored in SQLite. Each iteration is
// what the user waits for after pressing Save: validation, the mutation
// engine, the change on screen, the service's write and its answer.
//
// Every iteration adds one group (two copies and a block), so the workspace
// grows by a few hundred events over a run; that is well under one percent.

#include "SnapshotGenerator.h"

#include "services/LocalCalendarService.h"
#include "stores/AppStore.h"
#include "support/Async.h"

#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

using namespace tavelo;

namespace {

constexpr std::size_t kWorkspaceEvents = 50'000;

// A loaded store over its own copy of the generated workspace.
struct EditingWorkspace {
    QTemporaryDir directory;
    std::shared_ptr<LocalCalendarService> service;
    std::unique_ptr<AppStore> store;
    std::vector<UUID> destinations;

    EditingWorkspace() {
        if (!directory.isValid()) throw std::runtime_error("cannot create a temporary directory");
        const QString path = directory.filePath(QStringLiteral("state.json"));
        const AppSnapshot generated = bench::generateSnapshot(kWorkspaceEvents);
        syncWait(LocalCalendarService(path).save(generated));

        service = std::make_shared<LocalCalendarService>(path);
        store = std::make_unique<AppStore>(service, nullptr, QString(),
                                           DateCalendar(QStringLiteral("Asia/Tokyo"), QStringLiteral("ja_JP")));
        syncWait(store->load());
        if (store->events().size() != kWorkspaceEvents) throw std::runtime_error("workspace did not load");

        // The first two Google calendars that receive busy blocks; a third
        // calendar that receives them gets the block.
        for (const auto& calendar : store->calendars())
            if (calendar.googleCalendarID && calendar.receivesBusyBlocks && destinations.size() < 2)
                destinations.push_back(calendar.id);
        if (destinations.size() != 2) throw std::runtime_error("workspace lacks two Google calendars");
    }
};

void BM_AppStoreSaveNewEventOnTwoCalendars(benchmark::State& state) {
    static EditingWorkspace workspace;
    AppStore& store = *workspace.store;
    const Date start = Date::fromUnixSeconds(1767571200); // 2026-01-05T00:00:00Z, 09:00 in Tokyo
    EventDraft draft;
    draft.title = QStringLiteral("設計レビュー: 同期エンジン");
    draft.start = start;
    draft.end = start.addingSeconds(3600);
    draft.calendarIDs = workspace.destinations;
    draft.location = QStringLiteral("東京本社 12F 会議室A");
    draft.notes = QStringLiteral("Agenda: busy blocks, partial failures.");
    draft.guests = {
        Guest{UUID::random(), QStringLiteral("佐藤 花子"), QStringLiteral("hanako@example.com"), GuestStatus::pending},
        Guest{UUID::random(), QStringLiteral("Alex Johnson"), QStringLiteral("alex@example.com"), GuestStatus::accepted},
    };
    draft.notifications = {10};

    std::size_t blocks = 0;
    for (auto _ : state) {
        if (!syncWait(store.saveEvent(draft, std::nullopt))) {
            state.SkipWithError("saveEvent failed");
            break;
        }
        state.PauseTiming();
        const auto& events = store.events();
        const UUID groupID = events.back().groupID;
        blocks = static_cast<std::size_t>(std::count_if(events.end() - 3, events.end(), [&](const CalendarEvent& e) {
            return e.groupID == groupID && e.isGeneratedBusyBlock;
        }));
        draft.start = draft.start.addingSeconds(3600);
        draft.end = draft.end.addingSeconds(3600);
        state.ResumeTiming();
    }
    state.counters["events"] = static_cast<double>(store.events().size());
    state.counters["busyBlocks"] = static_cast<double>(blocks);
    state.counters["eventRowsWritten"] = workspace.service->lastWriteStats().eventRowsWritten;
}

BENCHMARK(BM_AppStoreSaveNewEventOnTwoCalendars)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
