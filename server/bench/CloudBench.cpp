// Storage-level costs of tavelo-cloud: the due-run scan among 100,000
// schedules and building GET /v1/state for a user with 1,000 schedules and
// 10,000 runs. The HTTP figures come from run-http-bench (wrk).

#include "Crypto.h"
#include "Schedule.h"
#include "SqliteStorage.h"

#include <benchmark/benchmark.h>
#include <boost/json.hpp>
#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

namespace tavelo::cloud {
namespace {

constexpr double kNow = 1800000000;

std::string idOf(int n) {
    char id[40];
    std::snprintf(id, sizeof id, "00000000-0000-4000-8000-%012d", n);
    return id;
}

// A migrated database with `schedules` schedules of "owner", of which
// `due` are due at kNow, and `runs` finished runs.
std::string seed(int schedules, int due, int runs) {
    const std::string dir = std::filesystem::temp_directory_path() / ("tavelo-cloud-bench-" + std::to_string(getpid()) + "-" +
                                                                      std::to_string(schedules) + "-" + std::to_string(runs));
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    const std::string path = dir + "/bench.sqlite3";
    {
        SqliteStorage storage(path, 1);
        storage.migrate();
    }
    sqlite3* db = nullptr;
    sqlite3_open(path.c_str(), &db);
    sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db,
                       "INSERT INTO schedules (user_id, id, title, prompt, first_run, time_zone, recurrence, is_paused,"
                       " next_run_at, updated_at) VALUES (?, ?, 'title', 'prompt', ?, 'Asia/Tokyo', 'daily', 0, ?, 0)",
                       -1, &s, nullptr);
    for (int i = 0; i < schedules; ++i) {
        // Users of 10 schedules each, except the first 1,000 which are the owner's.
        const std::string user = i < 1000 ? "owner" : "user-" + std::to_string(i / 10);
        const std::string id = idOf(i);
        sqlite3_bind_text(s, 1, user.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(s, 2, id.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_double(s, 3, kNow - 86400 * 10);
        sqlite3_bind_double(s, 4, i % (schedules / std::max(1, due)) == 0 ? kNow - 5 : kNow + 1 + i);
        sqlite3_step(s);
        sqlite3_reset(s);
    }
    sqlite3_finalize(s);
    sqlite3_prepare_v2(db,
                       "INSERT INTO runs (id, user_id, schedule_id, scheduled_at, started_at, ended_at, status, output)"
                       " VALUES (?, 'owner', ?, ?, ?, ?, 'complete', 'An answer of a few words from the model.')",
                       -1, &s, nullptr);
    for (int i = 0; i < runs; ++i) {
        const std::string id = crypto::newUUID();
        const std::string schedule = idOf(i % 1000);
        sqlite3_bind_text(s, 1, id.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(s, 2, schedule.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_double(s, 3, kNow - i * 60.0);
        sqlite3_bind_double(s, 4, kNow - i * 60.0 + 1);
        sqlite3_bind_double(s, 5, kNow - i * 60.0 + 5);
        sqlite3_step(s);
        sqlite3_reset(s);
    }
    sqlite3_finalize(s);
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(db);
    return path;
}

void DueScanAmong100000Schedules(benchmark::State& state) {
    crypto::initialise();
    const auto path = seed(100000, 100, 0);
    SqliteStorage storage(path);
    std::size_t found = 0;
    for (auto _ : state) {
        const auto due = storage.dueSchedules(kNow, 500);
        found = due.size();
        // What the scan computes for each: the next occurrence.
        for (const auto& item : due) benchmark::DoNotOptimize(nextOccurrence(item.schedule, item.nextRunAt));
    }
    state.counters["due"] = static_cast<double>(found);
    std::filesystem::remove_all(std::filesystem::path(path).parent_path());
}
BENCHMARK(DueScanAmong100000Schedules)->Unit(benchmark::kMillisecond)->Iterations(50);

void StateOf1000SchedulesAnd10000Runs(benchmark::State& state) {
    crypto::initialise();
    const auto path = seed(1000, 1, 10000);
    SqliteStorage storage(path);
    std::size_t bytes = 0;
    for (auto _ : state) {
        // The handler of GET /v1/state without the socket.
        boost::json::array schedules, runs;
        for (const auto& s : storage.schedules("owner")) schedules.push_back(encode(s));
        for (const auto& r : storage.runs("owner", 1000)) runs.push_back(encode(r));
        boost::json::object o;
        o["schedules"] = std::move(schedules);
        o["runs"] = std::move(runs);
        bytes = boost::json::serialize(o).size();
    }
    state.counters["bytes"] = static_cast<double>(bytes);
    std::filesystem::remove_all(std::filesystem::path(path).parent_path());
}
BENCHMARK(StateOf1000SchedulesAnd10000Runs)->Unit(benchmark::kMillisecond)->Iterations(100);

void ValidateAndStoreOneSchedule(benchmark::State& state) {
    crypto::initialise();
    const auto path = seed(0, 1, 0);
    SqliteStorage storage(path);
    int n = 0;
    for (auto _ : state) {
        ScheduleRecord s{idOf(n++), "Morning summary", "Summarise my day", kNow, "Asia/Tokyo", "daily", false};
        benchmark::DoNotOptimize(validationMessage(s));
        storage.putSchedule("owner", s, nextOccurrence(s, kNow - 60));
    }
    std::filesystem::remove_all(std::filesystem::path(path).parent_path());
}
BENCHMARK(ValidateAndStoreOneSchedule)->Unit(benchmark::kMicrosecond);

} // namespace
} // namespace tavelo::cloud

BENCHMARK_MAIN();
