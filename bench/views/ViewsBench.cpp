// The calendar screens over a generated 50,000-event workspace stored in
// SQLite: paging the week and the month until the new model is ready, one
// step of an event drag, and one keystroke of the search.

#include <QObject>

#include "SnapshotGenerator.h"

#include "services/LocalCalendarService.h"
#include "stores/AppStore.h"
#include "stores/SceneState.h"
#include "support/Async.h"
#include "views/calendar/MonthModel.h"
#include "views/calendar/SearchModel.h"
#include "views/calendar/WeekModel.h"

#include <QCoreApplication>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <array>
#include <memory>
#include <stdexcept>

using namespace tavelo;

namespace {

constexpr std::size_t kWorkspaceEvents = 50'000;

struct ViewsWorkspace {
    QTemporaryDir directory;
    std::unique_ptr<AppStore> store;
    DateCalendar calendar{QStringLiteral("Asia/Tokyo"), QStringLiteral("ja_JP")};
    // Inside the generated years, which run from January 2024 for three.
    const Date firstShown = *calendar.date(2025, 1, 8, 12);

    ViewsWorkspace() {
        if (!directory.isValid()) throw std::runtime_error("cannot create a temporary directory");
        const QString path = directory.filePath(QStringLiteral("state.sqlite"));
        syncWait(LocalCalendarService(path).save(bench::generateSnapshot(kWorkspaceEvents)));
        store = std::make_unique<AppStore>(std::make_shared<LocalCalendarService>(path), nullptr, QString(), calendar);
        syncWait(store->load());
        if (store->events().size() != kWorkspaceEvents) throw std::runtime_error("workspace did not load");
    }
};

ViewsWorkspace& workspace() {
    static ViewsWorkspace instance;
    return instance;
}

// Pages forward a week at a time through two years, then starts over.
void BM_WeekPaging(benchmark::State& state) {
    auto& ws = workspace();
    SceneState scene(ws.firstShown);
    WeekModel week;
    week.setStore(ws.store.get());
    week.setScene(&scene);
    int paged = 0;
    std::size_t rows = 0;
    for (auto _ : state) {
        if (++paged == 104) {
            state.PauseTiming();
            scene.setSelectedDate(ws.firstShown);
            paged = 0;
            state.ResumeTiming();
        }
        scene.moveSelectedDate(1, ws.calendar);
        rows += week.timedItems()->rows().size();
    }
    state.counters["timedRowsPerWeek"] = benchmark::Counter(static_cast<double>(rows), benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_WeekPaging)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_MonthPaging(benchmark::State& state) {
    auto& ws = workspace();
    SceneState scene(ws.firstShown);
    scene.selectNavigation(NavigationItem::month);
    MonthModel month;
    month.setStore(ws.store.get());
    month.setScene(&scene);
    int paged = 0;
    for (auto _ : state) {
        if (++paged == 24) {
            state.PauseTiming();
            scene.setSelectedDate(ws.firstShown);
            paged = 0;
            state.ResumeTiming();
        }
        scene.moveSelectedDate(1, ws.calendar);
        benchmark::DoNotOptimize(month.days()->rows().data());
    }
}
BENCHMARK(BM_MonthPaging)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);

// One pointer move while an event is dragged: the new interval and the
// preview, as the view asks for them.
void BM_DragStep(benchmark::State& state) {
    auto& ws = workspace();
    SceneState scene(ws.firstShown);
    WeekModel week;
    week.setStore(ws.store.get());
    week.setScene(&scene);
    week.setDayWidth(150);
    const CalendarItemRow* target = nullptr;
    for (const auto& row : week.timedItems()->rows())
        if (!row.isBusyBlock) {
            target = &row;
            break;
        }
    if (!target || !week.beginMove(target->eventID.toString())) {
        state.SkipWithError("no event to drag");
        return;
    }
    int step = 0;
    for (auto _ : state) {
        ++step;
        week.updateMove((step % 300) - 150, (step % 200) - 100);
        benchmark::DoNotOptimize(week.dragTop());
    }
    week.cancelDrag();
}
BENCHMARK(BM_DragStep)->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true);

// Typing a query letter by letter, and deleting it again.
void searchKeystrokes(benchmark::State& state, bool includePast) {
    auto& ws = workspace();
    if (ws.store->preferences().includePastSearchResults != includePast)
        syncWait(ws.store->setPastSearchResultsIncluded(includePast));
    SearchModel search;
    search.setStore(ws.store.get());
    search.setQuery(QStringLiteral("x")); // takes the store's state once
    static const std::array<QString, 10> typed = {
        QStringLiteral("顧"), QStringLiteral("顧客"), QStringLiteral("顧客訪"), QStringLiteral("顧客訪問"),
        QStringLiteral("顧客訪問（大"), QStringLiteral("顧客訪問"), QStringLiteral("顧客"), QStringLiteral("d"),
        QStringLiteral("de"), QStringLiteral("design"),
    };
    std::size_t i = 0, rows = 0;
    for (auto _ : state) {
        search.setQuery(typed[i++ % typed.size()]);
        rows += search.results()->rows().size();
    }
    state.counters["results"] = benchmark::Counter(static_cast<double>(rows), benchmark::Counter::kAvgIterations);
}

void BM_SearchKeystroke(benchmark::State& state) { searchKeystrokes(state, false); }
BENCHMARK(BM_SearchKeystroke)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_SearchKeystrokeIncludingPast(benchmark::State& state) { searchKeystrokes(state, true); }
BENCHMARK(BM_SearchKeystrokeIncludingPast)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
