// How long the GUI thread is kept from its event loop by the store, on a
// workspace of 50,000 events: while `AppStore::saveEvent` saves a new event
// on two calendars (target: 4 ms) and while a new store loads the workspace
// from disk (target: one frame, 16 ms). Each iteration reports the longest
// uninterrupted stretch of work on the GUI thread as its (manual) time; the
// operation's own wall time is a counter.
//
// The measure is a timer ticking every millisecond on the GUI thread: the
// longest gap between two ticks (or between the call and the first tick, the
// last tick and the answer) is the longest block.

#include "SnapshotGenerator.h"

#include "services/LocalCalendarService.h"
#include "stores/AppStore.h"
#include "support/Async.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <stdexcept>

using namespace tavelo;

namespace {

constexpr std::size_t kWorkspaceEvents = 50'000;

// Measures, from `start` to `stop`, the longest time the current thread's
// event loop went without serving a timer that asks for it every
// millisecond: the longest stretch a frame would have had to wait for. It is
// taken twice: in the thread's own CPU time (the work that blocks, the
// reported time) and in wall time (that work plus any wait for a CPU on a
// busy machine, the "wallBlockMs" counter).
class BlockMeter {
public:
    BlockMeter() {
        ticker_.setTimerType(Qt::PreciseTimer);
        ticker_.setInterval(1);
        QObject::connect(&ticker_, &QTimer::timeout, &context_, [this] { tick(); });
        clock_.start();
    }

    void start() {
        longest_ = longestWall_ = 0;
        running_ = true;
        lastTick_ = threadCpuNanoseconds();
        lastWallTick_ = clock_.nsecsElapsed();
        ticker_.start();
    }
    void stop() {
        tick();
        running_ = false;
        ticker_.stop();
    }
    double longestSeconds() const { return static_cast<double>(longest_) / 1e9; }
    double longestWallMs() const { return static_cast<double>(longestWall_) / 1e6; }

private:
    static qint64 threadCpuNanoseconds() {
        timespec now{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return static_cast<qint64>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
    }
    void tick() {
        if (!running_) return;
        const qint64 now = threadCpuNanoseconds();
        longest_ = std::max(longest_, now - lastTick_);
        lastTick_ = now;
        const qint64 wall = clock_.nsecsElapsed();
        longestWall_ = std::max(longestWall_, wall - lastWallTick_);
        lastWallTick_ = wall;
    }

    QObject context_;
    QTimer ticker_;
    QElapsedTimer clock_;
    bool running_ = false;
    qint64 lastTick_ = 0;
    qint64 longest_ = 0;
    qint64 lastWallTick_ = 0;
    qint64 longestWall_ = 0;
};

struct GeneratedFile {
    QTemporaryDir directory;
    QString path;
    GeneratedFile() {
        if (!directory.isValid()) throw std::runtime_error("cannot create a temporary directory");
        path = directory.filePath(QStringLiteral("state.json"));
        syncWait(LocalCalendarService(path).save(bench::generateSnapshot(kWorkspaceEvents)));
    }
};

GeneratedFile& generatedFile() {
    static GeneratedFile file;
    return file;
}

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

DateCalendar tokyo() { return DateCalendar(QStringLiteral("Asia/Tokyo"), QStringLiteral("ja_JP")); }

void BM_GuiThreadBlocked_Load(benchmark::State& state) {
    const QString path = generatedFile().path;
    BlockMeter meter;
    double wall = 0;
    std::vector<double> wallBlocks;
    for (auto _ : state) {
        auto service = std::make_shared<LocalCalendarService>(path);
        auto store = std::make_unique<AppStore>(service, nullptr, QString(), tokyo());
        QElapsedTimer timer;
        timer.start();
        meter.start();
        syncWait(store->load());
        meter.stop();
        wall += static_cast<double>(timer.nsecsElapsed()) / 1e6;
        if (store->events().size() != kWorkspaceEvents) {
            state.SkipWithError("workspace did not load");
            break;
        }
        state.SetIterationTime(meter.longestSeconds());
        wallBlocks.push_back(meter.longestWallMs());
        // The workspace closes outside the measurement.
        store.reset();
        syncWait(service->drain());
        service.reset();
    }
    state.counters["wallBlockMs"] = median(wallBlocks);
    state.counters["loadWallMs"] = wall / static_cast<double>(std::max<benchmark::IterationCount>(1, state.iterations()));
}

void BM_GuiThreadBlocked_SaveEvent(benchmark::State& state) {
    const QString path = generatedFile().path;
    const QString copy = path + QStringLiteral(".save-event");
    QFile::remove(copy);
    if (!QFile::copy(path, copy)) {
        state.SkipWithError("cannot copy the workspace");
        return;
    }
    QTemporaryDir own;
    const QString ownPath = own.filePath(QStringLiteral("state.json"));
    QFile::rename(copy, ownPath);
    auto service = std::make_shared<LocalCalendarService>(ownPath);
    AppStore store(service, nullptr, QString(), tokyo());
    syncWait(store.load());
    syncWait(service->drain()); // the integrity check after the load
    std::vector<UUID> destinations;
    for (const auto& calendar : store.calendars())
        if (calendar.googleCalendarID && calendar.receivesBusyBlocks && destinations.size() < 2)
            destinations.push_back(calendar.id);
    if (destinations.size() != 2) {
        state.SkipWithError("workspace lacks two Google calendars");
        return;
    }
    EventDraft draft;
    draft.title = QStringLiteral("設計レビュー");
    draft.start = Date::fromUnixSeconds(1767571200);
    draft.end = draft.start.addingSeconds(3600);
    draft.calendarIDs = destinations;

    BlockMeter meter;
    double wall = 0;
    std::vector<double> wallBlocks;
    for (auto _ : state) {
        QElapsedTimer timer;
        timer.start();
        meter.start();
        const bool saved = syncWait(store.saveEvent(draft, std::nullopt));
        meter.stop();
        wall += static_cast<double>(timer.nsecsElapsed()) / 1e6;
        if (!saved) {
            state.SkipWithError("saveEvent failed");
            break;
        }
        state.SetIterationTime(meter.longestSeconds());
        wallBlocks.push_back(meter.longestWallMs());
        draft.start = draft.start.addingSeconds(3600);
        draft.end = draft.end.addingSeconds(3600);
    }
    state.counters["wallBlockMs"] = median(wallBlocks);
    state.counters["saveEventWallMs"] =
        wall / static_cast<double>(std::max<benchmark::IterationCount>(1, state.iterations()));
}

// A change that saves the whole snapshot: showing or hiding a calendar.
void BM_GuiThreadBlocked_SetCalendarVisibility(benchmark::State& state) {
    QTemporaryDir own;
    const QString ownPath = own.filePath(QStringLiteral("state.json"));
    if (!QFile::copy(generatedFile().path, ownPath)) {
        state.SkipWithError("cannot copy the workspace");
        return;
    }
    auto service = std::make_shared<LocalCalendarService>(ownPath);
    AppStore store(service, nullptr, QString(), tokyo());
    syncWait(store.load());
    syncWait(service->drain());
    const UUID calendarID = store.calendars().front().id;

    BlockMeter meter;
    double wall = 0;
    std::vector<double> wallBlocks;
    for (auto _ : state) {
        QElapsedTimer timer;
        timer.start();
        meter.start();
        const bool saved = syncWait(store.toggleCalendarVisibility(calendarID));
        meter.stop();
        wall += static_cast<double>(timer.nsecsElapsed()) / 1e6;
        if (!saved) {
            state.SkipWithError("the change was not saved");
            break;
        }
        state.SetIterationTime(meter.longestSeconds());
        wallBlocks.push_back(meter.longestWallMs());
    }
    state.counters["wallBlockMs"] = median(wallBlocks);
    state.counters["changeWallMs"] =
        wall / static_cast<double>(std::max<benchmark::IterationCount>(1, state.iterations()));
}

BENCHMARK(BM_GuiThreadBlocked_Load)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(8);
BENCHMARK(BM_GuiThreadBlocked_SaveEvent)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(40);
BENCHMARK(BM_GuiThreadBlocked_SetCalendarVisibility)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(20);

} // namespace
