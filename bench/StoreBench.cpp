// Benchmarks of the SQLite calendar store on a generated workspace of 50,000
// events: a cold load, a save after one change, the first save of a new
// file, the cost of stepping through the event rows alone, and the cost of
// decoding the event payloads (the project's simdjson-based decoder against
// nlohmann::json). Built with the application's allocator.
//
//   tavelo_bench [--state-out=PATH] [benchmark flags]
//
// With --state-out the generated database is also written to PATH.

#include "SnapshotGenerator.h"

#include "services/LocalCalendarService.h"
#include "support/Allocator.h"
#include "support/Async.h"
#include "support/JsonReader.h"
#include "support/JsonWriter.h"

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>

#include <QCoro/QCoroTask>

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>
#include <sqlite3.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

using namespace tavelo;

namespace {

constexpr std::size_t kEventCount = 50'000;

// Generated once and shared by every benchmark.
struct Workload {
    AppSnapshot snapshot;
    std::vector<std::string> payloads;
    std::int64_t payloadBytes = 0;
    QTemporaryDir directory;
    QString databasePath;

    Workload() : snapshot(bench::generateSnapshot(kEventCount)) {
        if (!directory.isValid()) throw std::runtime_error("cannot create a temporary directory");
        payloads.reserve(snapshot.events.size());
        for (const auto& event : snapshot.events) {
            payloads.push_back(encodeJson(event));
            payloadBytes += static_cast<std::int64_t>(payloads.back().size());
        }
        databasePath = directory.filePath(QStringLiteral("state.json"));
        LocalCalendarService service(databasePath);
        syncWait(service.save(snapshot));
    }

    QString freshPath(const QString& name) const {
        const QString path = directory.filePath(name);
        QFile::remove(path);
        return path;
    }
};

Workload& workload() {
    static Workload instance;
    return instance;
}

// (a) Opening a workspace: a new service reads the whole database.
void BM_LoadCold(benchmark::State& state) {
    auto& w = workload();
    for (auto _ : state) {
        auto service = std::make_unique<LocalCalendarService>(w.databasePath);
        auto result = syncWait(service->load());
        benchmark::DoNotOptimize(result.snapshot.events.data());
        state.PauseTiming();
        if (result.snapshot.events.size() != kEventCount) state.SkipWithError("wrong event count");
        service.reset();
        result = {};
        state.ResumeTiming();
    }
    state.counters["events"] = static_cast<double>(kEventCount);
}

// (b) The everyday save: one event changed since the last save.
void BM_SaveOneChange(benchmark::State& state) {
    auto& w = workload();
    const QString path = w.freshPath(QStringLiteral("one-change.json"));
    if (!QFile::copy(w.databasePath, path)) {
        state.SkipWithError("cannot copy the database");
        return;
    }
    LocalCalendarService service(path);
    syncWait(service.load());
    std::size_t round = 0;
    for (auto _ : state) {
        state.PauseTiming();
        AppSnapshot next = *service.cachedSnapshot();
        auto& event = next.events[(round * 7919) % next.events.size()];
        event.title = QStringLiteral("変更 %1").arg(++round);
        state.ResumeTiming();
        syncWait(service.save(std::move(next)));
    }
    const auto& stats = service.lastWriteStats();
    state.counters["eventRowsWritten"] = stats.eventRowsWritten;
    state.counters["eventRowsDeleted"] = stats.eventRowsDeleted;
    state.counters["metadataRowsWritten"] = stats.metadataRowsWritten;
}

// (c) The first save of a workspace: a new database file through the
// temporary-file replacement.
void BM_FirstSave(benchmark::State& state) {
    auto& w = workload();
    for (auto _ : state) {
        state.PauseTiming();
        const QString path = w.freshPath(QStringLiteral("first-save.json"));
        auto service = std::make_unique<LocalCalendarService>(path);
        syncWait(service->load());
        AppSnapshot copy = w.snapshot;
        state.ResumeTiming();
        syncWait(service->save(std::move(copy)));
        state.PauseTiming();
        state.counters["eventRowsWritten"] = service->lastWriteStats().eventRowsWritten;
        service.reset();
        state.ResumeTiming();
    }
}

// The part of a cold load that stays on the loading thread: stepping through
// the event rows and copying each payload out, with nothing decoded.
void BM_StepEventRows(benchmark::State& state) {
    auto& w = workload();
    std::string sink;
    for (auto _ : state) {
        sqlite3* db = nullptr;
        if (sqlite3_open_v2(QFile::encodeName(w.databasePath).constData(), &db, SQLITE_OPEN_READONLY, nullptr) !=
            SQLITE_OK) {
            sqlite3_close_v2(db);
            state.SkipWithError("cannot open the database");
            return;
        }
        sqlite3_stmt* stmt = nullptr;
        sqlite3_prepare_v2(db, "SELECT payload FROM events", -1, &stmt, nullptr);
        std::size_t rows = 0;
        while (sqlite3_step(stmt) == SQLITE_ROW) {
            sink.assign(static_cast<const char*>(sqlite3_column_blob(stmt, 0)),
                        static_cast<std::size_t>(sqlite3_column_bytes(stmt, 0)));
            ++rows;
        }
        sqlite3_finalize(stmt);
        sqlite3_close_v2(db);
        if (rows != kEventCount) state.SkipWithError("wrong row count");
    }
    state.SetBytesProcessed(state.iterations() * w.payloadBytes);
}

// (d) Decoding every event payload.
void BM_DecodeEvents_Simdjson(benchmark::State& state) {
    auto& w = workload();
    JsonDocumentParser parser;
    for (auto _ : state)
        for (const auto& payload : w.payloads) benchmark::DoNotOptimize(parser.decode<CalendarEvent>(payload));
    state.SetBytesProcessed(state.iterations() * w.payloadBytes);
}

void BM_ParseEvents_Simdjson(benchmark::State& state) {
    auto& w = workload();
    JsonDocumentParser parser;
    for (auto _ : state)
        for (const auto& payload : w.payloads) benchmark::DoNotOptimize(parser.parse(payload));
    state.SetBytesProcessed(state.iterations() * w.payloadBytes);
}

void BM_ParseEvents_Nlohmann(benchmark::State& state) {
    auto& w = workload();
    for (auto _ : state)
        for (const auto& payload : w.payloads) benchmark::DoNotOptimize(nlohmann::json::parse(payload));
    state.SetBytesProcessed(state.iterations() * w.payloadBytes);
}

// The same records built from nlohmann::json, with the same rules for
// required and optional keys, dates, UUIDs and enumerations.
namespace nl {

using Json = nlohmann::json;

[[noreturn]] void fail(const char* key) { throw std::runtime_error(std::string("bad value for ") + key); }

const Json& field(const Json& o, const char* key) {
    const auto it = o.find(key);
    if (it == o.end() || it->is_null()) fail(key);
    return *it;
}
const Json* optionalField(const Json& o, const char* key) {
    const auto it = o.find(key);
    return it == o.end() || it->is_null() ? nullptr : &*it;
}
std::string_view text(const Json& j, const char* key) {
    if (!j.is_string()) fail(key);
    return j.get_ref<const std::string&>();
}
QString qstring(const Json& j, const char* key) {
    const auto s = text(j, key);
    return QString::fromUtf8(s.data(), static_cast<qsizetype>(s.size()));
}
UUID uuid(const Json& j, const char* key) {
    auto u = UUID::fromString(text(j, key));
    if (!u) fail(key);
    return *u;
}
Date date(const Json& j, const char* key) {
    auto d = Date::fromIsoString(text(j, key));
    if (!d) fail(key);
    return *d;
}
bool boolean(const Json& j, const char* key) {
    if (!j.is_boolean()) fail(key);
    return j.get<bool>();
}
template <class E>
E enumeration(const Json& j, const char* key) {
    E e{};
    if (!fromString(text(j, key), e)) fail(key);
    return e;
}
template <class T, class F>
std::optional<T> maybe(const Json& o, const char* key, F convert) {
    const Json* j = optionalField(o, key);
    return j ? std::optional<T>(convert(*j, key)) : std::nullopt;
}

CalendarEvent event(const Json& o) {
    if (!o.is_object()) fail("event");
    CalendarEvent e;
    e.id = uuid(field(o, "id"), "id");
    e.groupID = uuid(field(o, "groupID"), "groupID");
    e.sourceEventID = maybe<UUID>(o, "sourceEventID", uuid);
    e.kind = enumeration<EventKind>(field(o, "kind"), "kind");
    e.title = qstring(field(o, "title"), "title");
    e.start = date(field(o, "start"), "start");
    e.end = date(field(o, "end"), "end");
    e.isAllDay = boolean(field(o, "isAllDay"), "isAllDay");
    e.recurrence = maybe<EventRecurrence>(o, "recurrence", enumeration<EventRecurrence>);
    e.calendarID = uuid(field(o, "calendarID"), "calendarID");
    e.tagID = maybe<UUID>(o, "tagID", uuid);
    e.location = qstring(field(o, "location"), "location");
    e.notes = qstring(field(o, "notes"), "notes");
    for (const auto& g : field(o, "guests")) {
        e.guests.push_back(Guest{uuid(field(g, "id"), "id"), qstring(field(g, "name"), "name"),
                                 qstring(field(g, "email"), "email"),
                                 enumeration<GuestStatus>(field(g, "status"), "status")});
    }
    for (const auto& n : field(o, "notifications")) {
        if (!n.is_number_integer()) fail("notifications");
        e.notifications.push_back(n.get<int>());
    }
    e.meetURL = maybe<QUrl>(o, "meetURL", [](const Json& j, const char* key) {
        QUrl url(qstring(j, key), QUrl::StrictMode);
        if (!url.isValid()) fail(key);
        return url;
    });
    e.availability = enumeration<Availability>(field(o, "availability"), "availability");
    e.visibility = enumeration<EventVisibility>(field(o, "visibility"), "visibility");
    e.isCompleted = boolean(field(o, "isCompleted"), "isCompleted");
    e.isGeneratedBusyBlock = boolean(field(o, "isGeneratedBusyBlock"), "isGeneratedBusyBlock");
    e.externalUID = maybe<QString>(o, "externalUID", qstring);
    e.googleEventID = maybe<QString>(o, "googleEventID", qstring);
    e.googleETag = maybe<QString>(o, "googleETag", qstring);
    e.googleUpdatedAt = maybe<Date>(o, "googleUpdatedAt", date);
    return e;
}

} // namespace nl

void BM_DecodeEvents_Nlohmann(benchmark::State& state) {
    auto& w = workload();
    // The two decoders must agree before their speed is worth comparing.
    if (nl::event(nlohmann::json::parse(w.payloads.front())) != w.snapshot.events.front()) {
        state.SkipWithError("nlohmann decoding differs");
        return;
    }
    for (auto _ : state)
        for (const auto& payload : w.payloads) benchmark::DoNotOptimize(nl::event(nlohmann::json::parse(payload)));
    state.SetBytesProcessed(state.iterations() * w.payloadBytes);
}

BENCHMARK(BM_LoadCold)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_SaveOneChange)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FirstSave)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StepEventRows)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DecodeEvents_Simdjson)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ParseEvents_Simdjson)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ParseEvents_Nlohmann)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DecodeEvents_Nlohmann)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);

    std::optional<QString> stateOut;
    std::vector<char*> args;
    constexpr std::string_view kStateOut = "--state-out=";
    for (int i = 0; i < argc; ++i) {
        const std::string_view arg(argv[i]);
        if (i > 0 && arg.starts_with(kStateOut))
            stateOut = QString::fromLocal8Bit(arg.substr(kStateOut.size()));
        else
            args.push_back(argv[i]);
    }
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
    // The numbers only stand for the application when it runs on the same
    // allocator.
    benchmark::AddCustomContext("allocator", allocator::describe());
    if (!allocator::servesMalloc()) std::fprintf(stderr, "warning: mimalloc does not serve malloc in this run\n");

    if (stateOut) {
        try {
            LocalCalendarService service(*stateOut);
            syncWait(service.load());
            syncWait(service.save(workload().snapshot));
            std::fprintf(stderr, "wrote %zu events to %s\n", workload().snapshot.events.size(), qPrintable(*stateOut));
        } catch (const std::exception& error) {
            std::fprintf(stderr, "cannot write %s: %s\n", qPrintable(*stateOut), error.what());
            return 1;
        }
    }

    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
