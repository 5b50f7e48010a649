// Benchmarks of the pure half of a Google sync: the first full listing of a
// calendar with 50,000 events (20 pages of 2,500, Google's largest page),
// decoded from the response bodies and merged into the snapshot; and an
// incremental listing of 20 changes merged into that 50,000-event snapshot.
// Built with the application's allocator. With --memory it only reports
// the peak memory of the first full sync.

#include "google/GoogleCalendarMapper.h"
#include "google/StableUUID.h"
#include "services/GoogleSyncEngine.h"
#include "support/DateCalendar.h"

#include <benchmark/benchmark.h>
#include <mimalloc.h>

#include <cstdio>
#include <cstring>

#include <algorithm>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

using namespace tavelo;

namespace {

constexpr int kEventCount = 50'000;
constexpr int kPageCount = 20;
constexpr int kChangeCount = 20;

const char* kTitles[] = {"定例ミーティング", "1on1", "Design review", "採用面接", "Customer call", "週次レポート"};
const char* kPeople[] = {"ann", "bob", "chika", "daisuke", "eve", "fumiko"};

std::string twoDigits(int v) { return (v < 10 ? "0" : "") + std::to_string(v); }

// One event as Google lists it: timed in Tokyo, some all-day, attendees,
// reminders, a Meet link and the program's private properties on a share.
std::string eventJson(int index, std::mt19937_64& random, int revision) {
    const int day = 1 + static_cast<int>(random() % 27);
    const int month = 1 + static_cast<int>(random() % 12);
    const int hour = 8 + static_cast<int>(random() % 10);
    const std::string date = "2026-" + twoDigits(month) + "-" + twoDigits(day);
    std::string json = R"({"kind":"calendar#event","etag":"\")" + std::to_string(3'000'000 + index * 7 + revision) +
                       R"(\"","id":"evt)" + std::to_string(index) + R"(","status":"confirmed",)";
    json += R"("htmlLink":"https://www.google.com/calendar/event?eid=ZXZ0)" + std::to_string(index) + R"(",)";
    json += R"("created":"2025-11-01T00:00:00.000Z","updated":"2026-01-0)" + std::to_string(1 + revision % 9) +
            R"(T10:00:00.000Z",)";
    json += R"("summary":")" + std::string(kTitles[index % 6]) + " " + std::to_string(index) + R"(",)";
    if (index % 3 == 0) json += R"("description":"議題: 進捗と課題の確認\nAgenda: status and blockers",)";
    if (index % 4 == 0) json += R"("location":"会議室 )" + std::to_string(index % 12) + R"(",)";
    json += R"("creator":{"email":"me@example.com","self":true},"organizer":{"email":"me@example.com","self":true},)";
    if (index % 10 == 0) {
        json += R"("start":{"date":")" + date + R"("},"end":{"date":")" + date + R"("},)";
        json.replace(json.rfind(date), date.size(), "2026-" + twoDigits(month) + "-" + twoDigits(day + 1));
    } else {
        json += R"("start":{"dateTime":")" + date + "T" + twoDigits(hour) + R"(:00:00+09:00","timeZone":"Asia/Tokyo"},)";
        json += R"("end":{"dateTime":")" + date + "T" + twoDigits(hour + 1) +
                R"(:00:00+09:00","timeZone":"Asia/Tokyo"},)";
    }
    json += R"("iCalUID":"evt)" + std::to_string(index) + R"(@google.com","sequence":0,)";
    const int guests = static_cast<int>(random() % 4);
    if (guests > 0) {
        json += R"("attendees":[)";
        for (int g = 0; g < guests; ++g) {
            if (g) json += ",";
            json += R"({"email":")" + std::string(kPeople[(index + g) % 6]) + R"(@example.com","displayName":")" +
                    kPeople[(index + g) % 6] + R"(","responseStatus":"accepted"})";
        }
        json += "],";
    }
    if (index % 5 == 0) json += R"("hangoutLink":"https://meet.google.com/abc-defg-hij",)";
    if (index % 2 == 0)
        json += R"("extendedProperties":{"private":{"taveloGroupID":")" +
                stableUUID(UUID(), QString::number(index)).toString().toLower().toStdString() +
                R"(","taveloGeneratedBusyBlock":"false"}},)";
    json += R"("reminders":{"useDefault":false,"overrides":[{"method":"popup","minutes":10}]},"eventType":"default"})";
    return json;
}

struct Workload {
    CalendarSource calendar;
    DateCalendar zone = GoogleCalendarMapper::calendarForTimeZone("Asia/Tokyo");
    AppSnapshot base;
    std::vector<std::string> bodies;
    std::vector<GoogleEventPage> pages;
    std::int64_t jsonBytes = 0;
    std::string incrementalBody;

    Workload() {
        const UUID accountID = UUID::literal("AAAAAAAA-0000-4000-8000-00000000000A");
        calendar = CalendarSource{stableUUID(accountID, "me@example.com"), accountID, "Me", "#3D6FE8", true, false,
                                  QString("me@example.com"), QString("Asia/Tokyo")};
        base.calendars = {calendar};
        std::mt19937_64 random(20260105);
        const int perPage = kEventCount / kPageCount;
        for (int p = 0; p < kPageCount; ++p) {
            std::string body = R"({"kind":"calendar#events","summary":"me@example.com","timeZone":"Asia/Tokyo",)"
                               R"("accessRole":"owner","defaultReminders":[],"items":[)";
            for (int i = 0; i < perPage; ++i) {
                if (i) body += ",";
                body += eventJson(p * perPage + i, random, 0);
            }
            body += "],";
            body += p + 1 < kPageCount ? R"("nextPageToken":"page-)" + std::to_string(p + 1) + R"("})"
                                       : std::string(R"("nextSyncToken":"sync-1"})");
            jsonBytes += static_cast<std::int64_t>(body.size());
            pages.push_back(decodeGoogleEventPage(body));
            bodies.push_back(std::move(body));
        }
        // 20 changes: edits, two deletions and two new events.
        std::string body = R"({"kind":"calendar#events","timeZone":"Asia/Tokyo","nextSyncToken":"sync-2","items":[)";
        for (int c = 0; c < kChangeCount; ++c) {
            if (c) body += ",";
            if (c < 2)
                body += R"({"kind":"calendar#event","id":"evt)" + std::to_string(c * 997) + R"(","status":"cancelled"})";
            else
                body += eventJson(c < 4 ? kEventCount + c : c * 2'411, random, 1);
        }
        incrementalBody = body + "]}";
    }
};

Workload& workload() {
    static Workload w;
    return w;
}

AppSnapshot firstSync(const Workload& w, const std::vector<GoogleEventPage>& pages) {
    return GoogleSyncEngine::mergingEventPages(pages, w.calendar, w.zone, GoogleSyncMode::full,
                                               Date::fromIsoString("2026-01-10T00:00:00Z").value(), w.base)
        .snapshot;
}

// From the 20 response bodies to the merged snapshot.
void BM_FirstFullSyncDecodeAndMerge(benchmark::State& state) {
    auto& w = workload();
    for (auto _ : state) {
        std::vector<GoogleEventPage> pages;
        pages.reserve(w.bodies.size());
        for (const auto& body : w.bodies) pages.push_back(decodeGoogleEventPage(body));
        auto snapshot = GoogleSyncEngine::mergingEventPages(std::move(pages), w.calendar, w.zone, GoogleSyncMode::full,
                                                            Date::fromIsoString("2026-01-10T00:00:00Z").value(), w.base)
                            .snapshot;
        if (snapshot.events.size() != static_cast<std::size_t>(kEventCount))
            throw std::logic_error("events lost: " + std::to_string(snapshot.events.size()));
        benchmark::DoNotOptimize(snapshot);
    }
    state.counters["jsonMB"] = static_cast<double>(w.jsonBytes) / 1e6;
}
BENCHMARK(BM_FirstFullSyncDecodeAndMerge)->Unit(benchmark::kMillisecond)->UseRealTime();

// The merge alone, from decoded pages.
void BM_FirstFullSyncMerge(benchmark::State& state) {
    auto& w = workload();
    for (auto _ : state) {
        auto snapshot = firstSync(w, w.pages);
        benchmark::DoNotOptimize(snapshot);
    }
}
BENCHMARK(BM_FirstFullSyncMerge)->Unit(benchmark::kMillisecond)->UseRealTime();

// 20 changes decoded and merged into a 50,000-event snapshot, including the
// copy of the snapshot the caller keeps until the result is saved.
void BM_IncrementalSyncOf20Changes(benchmark::State& state) {
    auto& w = workload();
    const AppSnapshot stored = firstSync(w, w.pages);
    for (auto _ : state) {
        std::vector<GoogleEventPage> pages{decodeGoogleEventPage(w.incrementalBody)};
        auto result = GoogleSyncEngine::mergingEventPages(pages, w.calendar, w.zone, GoogleSyncMode::incremental,
                                                          Date::fromIsoString("2026-01-10T00:05:00Z").value(), stored);
        if (result.snapshot.events.size() != static_cast<std::size_t>(kEventCount)) throw std::logic_error("bad merge");
        benchmark::DoNotOptimize(result);
    }
}
BENCHMARK(BM_IncrementalSyncOf20Changes)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same merge alone: the snapshot is handed over, not copied, and the old
// one is released outside the measurement.
void BM_IncrementalMergeOnly(benchmark::State& state) {
    auto& w = workload();
    const AppSnapshot stored = firstSync(w, w.pages);
    for (auto _ : state) {
        state.PauseTiming();
        AppSnapshot copy = stored;
        std::vector<GoogleEventPage> pages{decodeGoogleEventPage(w.incrementalBody)};
        state.ResumeTiming();
        auto result = GoogleSyncEngine::mergingEventPages(std::move(pages), w.calendar, w.zone,
                                                          GoogleSyncMode::incremental,
                                                          Date::fromIsoString("2026-01-10T00:05:00Z").value(),
                                                          std::move(copy));
        benchmark::DoNotOptimize(result);
        state.PauseTiming();
        result = {};
        state.ResumeTiming();
    }
}
BENCHMARK(BM_IncrementalMergeOnly)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

namespace {

std::size_t peakRSS() {
    std::size_t elapsed, user, system, current, peak, commit, peakCommit, faults;
    mi_process_info(&elapsed, &user, &system, &current, &peak, &commit, &peakCommit, &faults);
    return peak;
}

std::size_t currentRSS() {
    std::size_t elapsed, user, system, current, peak, commit, peakCommit, faults;
    mi_process_info(&elapsed, &user, &system, &current, &peak, &commit, &peakCommit, &faults);
    return current;
}

// The memory of a first full sync as the service runs it: each response body
// is decoded as it arrives and released, the pages are kept until the whole
// listing is merged. Prints the growth of the peak resident size against the
// total size of the bodies. Run first, before anything else is allocated.
void reportFirstSyncMemory() {
    const std::size_t before = std::max(peakRSS(), currentRSS());
    std::mt19937_64 random(20260105);
    const int perPage = kEventCount / kPageCount;
    std::vector<GoogleEventPage> pages;
    std::int64_t jsonBytes = 0;
    for (int p = 0; p < kPageCount; ++p) {
        std::string body = R"({"kind":"calendar#events","timeZone":"Asia/Tokyo","items":[)";
        for (int i = 0; i < perPage; ++i) {
            if (i) body += ",";
            body += eventJson(p * perPage + i, random, 0);
        }
        body += p + 1 < kPageCount ? R"(],"nextPageToken":"page-)" + std::to_string(p + 1) + R"("})"
                                   : std::string(R"(],"nextSyncToken":"sync-1"})");
        jsonBytes += static_cast<std::int64_t>(body.size());
        pages.push_back(decodeGoogleEventPage(body));
    }
    const std::size_t decoded = peakRSS() - before;
    const UUID accountID = UUID::literal("AAAAAAAA-0000-4000-8000-00000000000A");
    const CalendarSource calendar{stableUUID(accountID, "me@example.com"), accountID, "Me", "#3D6FE8", true,
                                  false, QString("me@example.com"), QString("Asia/Tokyo")};
    AppSnapshot snapshot;
    snapshot.calendars = {calendar};
    const auto zone = GoogleCalendarMapper::calendarForTimeZone("Asia/Tokyo");
    auto result = GoogleSyncEngine::mergingEventPages(std::move(pages), calendar, zone, GoogleSyncMode::full,
                                                      Date::now(), std::move(snapshot));
    const std::size_t growth = peakRSS() - before;
    std::printf("first full sync: %.1f MB of JSON, peak resident growth %.1f MB (%.2fx; %.1f MB after decoding), "
                "%zu events\n",
                static_cast<double>(jsonBytes) / 1e6, static_cast<double>(growth) / 1e6,
                static_cast<double>(growth) / static_cast<double>(jsonBytes), static_cast<double>(decoded) / 1e6,
                result.snapshot.events.size());
}

} // namespace

int main(int argc, char** argv) {
    bool memory = false;
    for (int i = 1; i < argc; ++i) memory = memory || std::strcmp(argv[i], "--memory") == 0;
    if (memory) {
        reportFirstSyncMemory();
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
