// Display derivations on a generated 50,000-event workspace: search, the
// merged events of a week, the time report of a month.
//
// Targets (median): search with a two-word query <= 50 ms; merged events of
// one week <= 5 ms; report of one month <= 20 ms.
#include "SnapshotGenerator.h"

#include "stores/EventDerivations.h"
#include "stores/EventEquality.h"
#include "support/TextFolding.h"

#include <benchmark/benchmark.h>

namespace tavelo::bench {

namespace {

constexpr std::size_t kEventCount = 50'000;

struct DerivationsWorkload {
    AppSnapshot snapshot = generateSnapshot(kEventCount);
    DateCalendar calendar{QStringLiteral("Asia/Tokyo"), QStringLiteral("ja_JP")};
    // The generated events run from 2024-01-01 for about three years; "now"
    // sits in the middle, so about half of them are past.
    Date now = *Date::fromIsoString("2025-07-01T03:00:00Z");
};

const DerivationsWorkload& derivationsWorkload() {
    static const DerivationsWorkload workload;
    return workload;
}

// Search folds every candidate's text on each call. With past results
// included every event of a visible calendar is a candidate.
void BM_Search(benchmark::State& state, const char16_t* query, bool includePast) {
    AppSnapshot snapshot = derivationsWorkload().snapshot;
    snapshot.preferences.includePastSearchResults = includePast;
    const Date now = derivationsWorkload().now;
    const QString text = QString::fromUtf16(query);
    std::size_t results = 0;
    for (auto _ : state) {
        const auto found = EventDerivations::search(text, std::nullopt, now, snapshot);
        results = found.size();
        benchmark::DoNotOptimize(found.data());
    }
    state.counters["results"] = static_cast<double>(results);
}
BENCHMARK_CAPTURE(BM_Search, two_words_with_past, u"design review", true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Search, two_words_upcoming, u"design review", false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Search, fullwidth_japanese_with_past, u"東京本社\u3000１２ｆ", true)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Search, no_match_with_past, u"quarterly budget", true)->Unit(benchmark::kMillisecond);

void BM_MergedEventsOfWeek(benchmark::State& state) {
    const auto& w = derivationsWorkload();
    const auto week = w.calendar.interval(DateCalendar::Unit::weekOfYear, w.now);
    std::size_t entries = 0;
    for (auto _ : state) {
        const auto merged = EventDerivations::mergedEvents(w.snapshot, *week);
        entries = merged.size();
        benchmark::DoNotOptimize(merged.data());
    }
    state.counters["entries"] = static_cast<double>(entries);
}
BENCHMARK(BM_MergedEventsOfWeek)->Unit(benchmark::kMillisecond);

void BM_ReportOfMonth(benchmark::State& state) {
    const auto& w = derivationsWorkload();
    const auto month = w.calendar.interval(DateCalendar::Unit::month, w.now);
    int total = 0;
    for (auto _ : state) {
        const TimeReport report = EventDerivations::report(w.snapshot.events, *month, w.snapshot.tags, w.calendar);
        total = report.totalMinutes;
        benchmark::DoNotOptimize(report.dailyTotals.data());
    }
    state.counters["minutes"] = total;
}
BENCHMARK(BM_ReportOfMonth)->Unit(benchmark::kMillisecond);

void BM_WeeklyMinutes(benchmark::State& state) {
    const auto& w = derivationsWorkload();
    const UUID tag = w.snapshot.tags.front().id;
    for (auto _ : state)
        benchmark::DoNotOptimize(EventDerivations::weeklyMinutes(tag, w.now, w.snapshot.events, w.calendar));
}
BENCHMARK(BM_WeeklyMinutes)->Unit(benchmark::kMillisecond);

void BM_VisibleEvents(benchmark::State& state) {
    const auto& w = derivationsWorkload();
    for (auto _ : state) benchmark::DoNotOptimize(EventDerivations::visibleEvents(w.snapshot).data());
}
BENCHMARK(BM_VisibleEvents)->Unit(benchmark::kMillisecond);

// One event's search text: Japanese notes with a full-width colon and list.
void BM_NormalizedSearchText(benchmark::State& state) {
    const QString text = QStringLiteral("週次定例ミーティング 東京本社 12F 会議室A 議題:\n1. 先週のふりかえり\n"
                                        "2. 今週の優先事項\n3. その他 山田 太郎 guest42@example.com");
    for (auto _ : state) benchmark::DoNotOptimize(normalizedSearchText(text));
    state.SetItemsProcessed(state.iterations() * text.size());
}
BENCHMARK(BM_NormalizedSearchText);

// A service's answer compared with the list on screen, as after every event
// edit: a copy of the same 50,000 events, texts and links shared.
void BM_SameEventLists(benchmark::State& state) {
    const auto& shown = derivationsWorkload().snapshot.events;
    const std::vector<CalendarEvent> answer = shown;
    bool same = false;
    for (auto _ : state) {
        same = EventEquality::same(shown, answer);
        benchmark::DoNotOptimize(same);
    }
    if (!same) state.SkipWithError("the copy differs");
}
BENCHMARK(BM_SameEventLists)->Unit(benchmark::kMillisecond);

void BM_SameEventLists_OperatorEq(benchmark::State& state) {
    const auto& shown = derivationsWorkload().snapshot.events;
    const std::vector<CalendarEvent> answer = shown;
    bool same = false;
    for (auto _ : state) {
        same = shown == answer;
        benchmark::DoNotOptimize(same);
    }
    if (!same) state.SkipWithError("the copy differs");
}
BENCHMARK(BM_SameEventLists_OperatorEq)->Unit(benchmark::kMillisecond);

} // namespace

} // namespace tavelo::bench
