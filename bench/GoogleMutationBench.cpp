// An edit that fans out to three Google calendars of two accounts (two copies
// and a busy block) through AppStore, against the loopback Calendar stand-ins.
// The stand-ins run on a thread of their own, so that the work of this
// program can be told apart from Google's: "our_cpu_ms" is the process's CPU
// time during the edit minus the stand-ins' thread, which leaves the store,
// the service, the client, the mapper and the SQLite writes. Wall time
// includes the stand-ins and the disk.

#include "google/GoogleAccessTokenProvider.h"
#include "google/GoogleCalendarAPIClient.h"
#include "google/FixedTokenProvider.h"
#include "google/GoogleCalendarStandIn.h"
#include "services/GoogleCalendarService.h"
#include "services/LocalCalendarService.h"
#include "stores/AppStore.h"
#include "support/Async.h"
#include "support/HTTPTransport.h"

#include <QCoreApplication>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QThread>

#include <benchmark/benchmark.h>

#include <pthread.h>
#include <time.h>

#include <deque>
#include <memory>

using namespace tavelo;
using namespace tavelo::testing;

namespace {

const QString kAlice = QStringLiteral("alice@example.com");
const QString kFamily = QStringLiteral("family@group.calendar.google.com");
const QString kBob = QStringLiteral("bob@work.example");

double seconds(clockid_t clock) {
    timespec t{};
    clock_gettime(clock, &t);
    return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

QJsonObject timed(int i) {
    const QDateTime start = QDateTime(QDate(2026, 12, 1), QTime(9, 0), Qt::UTC).addSecs(qint64(i) * 5 * 3600);
    return QJsonObject{{"id", QStringLiteral("seed%1").arg(i)},
                       {"summary", QStringLiteral("Seed %1").arg(i)},
                       {"start", QJsonObject{{"dateTime", start.toString(Qt::ISODate)}, {"timeZone", "Asia/Tokyo"}}},
                       {"end", QJsonObject{{"dateTime", start.addSecs(3600).toString(Qt::ISODate)}, {"timeZone", "Asia/Tokyo"}}}};
}

// Two Google accounts served from their own thread, a workspace file, and a
// store over both with Bob's calendar taking busy blocks.
struct MutationWorld {
    MutationWorld() {
        googleThread.start();
        anchor.moveToThread(&googleThread);
        onGoogleThread([this] {
            standInThread = pthread_self();
            alice = std::make_unique<GoogleCalendarStandIn>();
            bob = std::make_unique<GoogleCalendarStandIn>();
            alice->acceptToken("alice-token");
            alice->addCalendar(kAlice, "Alice", true);
            alice->addCalendar(kFamily, "Family", false, "writer");
            bob->acceptToken("bob-token");
            bob->addCalendar(kBob, "Bob", true);
            for (int i = 0; i < 200; ++i) alice->putEvent(kAlice, timed(i));
            for (int i = 0; i < 200; ++i) bob->putEvent(kBob, timed(i));
            aliceURL = alice->baseURL();
            bobURL = bob->baseURL();
        });

        GoogleCalendarService::Functions f;
        f.connectGoogleIdentity = [this](std::stop_token) -> QCoro::Task<GoogleIdentity> {
            GoogleIdentity identity = identities.front();
            identities.pop_front();
            co_return identity;
        };
        f.reconnectGoogleIdentity = [](QString subject, std::stop_token) -> QCoro::Task<GoogleIdentity> {
            GoogleIdentity identity{subject, kAlice, std::nullopt};
            co_return identity;
        };
        f.disconnectGoogleIdentity = [](QString) -> QCoro::Task<void> { co_return; };
        f.makeAPIClient = [this](const QString& subject) {
            const bool isAlice = subject == QLatin1String("sub-alice");
            return GoogleCalendarAPIClient(std::make_shared<FixedTokenProvider>(isAlice ? "alice-token" : "bob-token"), transport,
                                           eventLoopSleep(), [] { return 0.5; }, isAlice ? aliceURL : bobURL);
        };
        service = std::make_shared<GoogleCalendarService>(
            std::make_shared<LocalCalendarService>(dir.filePath("calendar.sqlite")), std::move(f));
        store = std::make_unique<AppStore>(service, service, QString(), DateCalendar(QStringLiteral("Asia/Tokyo"), QStringLiteral("ja_JP")));
        syncWait(store->load());
        for (int i = 0; i < 2; ++i) {
            auto task = store->beginGoogleAuthentication(GoogleAuthenticationRequest::connect());
            if (!task || !syncWait(task->result())) throw std::runtime_error("connect failed");
            syncWait(store->prepareForLogout());
        }
        AppSnapshot snapshot = syncWait(service->load()).snapshot;
        for (auto& c : snapshot.calendars) {
            if (c.googleCalendarID == kBob) c.receivesBusyBlocks = true;
            if (c.googleCalendarID == kAlice) aliceCalendar = c.id;
            if (c.googleCalendarID == kFamily) familyCalendar = c.id;
        }
        syncWait(service->save(snapshot));
        if (!syncWait(store->syncAllGoogleAccounts())) throw std::runtime_error("sync failed");
    }

    ~MutationWorld() {
        store.reset();
        service.reset();
        onGoogleThread([this] {
            alice.reset();
            bob.reset();
        });
        googleThread.quit();
        googleThread.wait();
    }

    void onGoogleThread(std::function<void()> work) {
        QMetaObject::invokeMethod(&anchor, std::move(work), Qt::BlockingQueuedConnection);
    }

    double standInCPU() const {
        clockid_t clock{};
        pthread_getcpuclockid(standInThread, &clock);
        return seconds(clock);
    }

    QThread googleThread;
    QObject anchor;
    pthread_t standInThread{};
    std::unique_ptr<GoogleCalendarStandIn> alice;
    std::unique_ptr<GoogleCalendarStandIn> bob;
    QUrl aliceURL;
    QUrl bobURL;
    QTemporaryDir dir;
    std::deque<GoogleIdentity> identities{{"sub-alice", kAlice, QStringLiteral("Alice")},
                                          {"sub-bob", kBob, QStringLiteral("Bob")}};
    std::shared_ptr<NetworkHTTPTransport> transport = std::make_shared<NetworkHTTPTransport>();
    std::shared_ptr<GoogleCalendarService> service;
    std::unique_ptr<AppStore> store;
    UUID aliceCalendar;
    UUID familyCalendar;
};

void BM_ThreeCalendarMutation(benchmark::State& state) {
    MutationWorld world;
    const DateCalendar tokyo(QStringLiteral("Asia/Tokyo"), QStringLiteral("ja_JP"));
    double ours = 0;
    double googles = 0;
    double walls = 0;
    int n = 0;
    for (auto _ : state) {
        EventDraft draft;
        draft.title = QStringLiteral("Planning %1").arg(n);
        draft.start = *tokyo.date(2026, 12, 10 + n % 10, 10, 0, 0);
        draft.end = draft.start.addingSeconds(3600);
        draft.calendarIDs = {world.aliceCalendar, world.familyCalendar};
        const double wall = seconds(CLOCK_MONOTONIC);
        const double cpu = seconds(CLOCK_PROCESS_CPUTIME_ID);
        const double google = world.standInCPU();
        const bool saved = syncWait(world.store->saveEvent(draft, std::nullopt));
        const double googleSpent = world.standInCPU() - google;
        ours += (seconds(CLOCK_PROCESS_CPUTIME_ID) - cpu) - googleSpent;
        googles += googleSpent;
        walls += seconds(CLOCK_MONOTONIC) - wall - googleSpent;
        if (!saved) state.SkipWithError("the edit did not reach every calendar");

        // Taken away again, so that every round meets the same calendars.
        state.PauseTiming();
        UUID groupID;
        for (const auto& e : world.store->events())
            if (e.title == draft.title) groupID = e.groupID;
        const UUID first = [&] {
            for (const auto& e : world.store->events())
                if (e.groupID == groupID && !e.isGeneratedBusyBlock) return e.id;
            return UUID();
        }();
        if (!syncWait(world.store->deleteEvent(first))) state.SkipWithError("the clean-up failed");
        ++n;
        state.ResumeTiming();
    }
    state.counters["our_cpu_ms"] = benchmark::Counter(ours * 1000 / std::max(n, 1));
    state.counters["standin_cpu_ms"] = benchmark::Counter(googles * 1000 / std::max(n, 1));
    // Wall time less the stand-ins' work: our work plus waits (disk, loopback).
    state.counters["wall_minus_standin_ms"] = benchmark::Counter(walls * 1000 / std::max(n, 1));
}
BENCHMARK(BM_ThreeCalendarMutation)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(20)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
