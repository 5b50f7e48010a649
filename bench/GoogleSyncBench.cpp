// Whole Google syncs over loopback HTTP: the Calendar stand-in serves the
// pages, the client decodes them, the engine merges and the local store
// writes the SQLite file. Times are wall-clock, stand-in included.
//
// With --memory it instead reports the peak resident growth of first full
// syncs against the JSON bytes served, with the stand-in in a child process
// so that only our side is counted (see GoogleSyncMemory.cpp).

#include "google/GoogleAccessTokenProvider.h"
#include "google/GoogleCalendarAPIClient.h"
#include "google/GoogleCalendarStandIn.h"
#include "services/GoogleCalendarService.h"
#include "services/LocalCalendarService.h"
#include "support/Async.h"
#include "support/HTTPTransport.h"

#include <QCoreApplication>
#include <QJsonObject>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <cstring>
#include <deque>

namespace tavelo::bench {

int reportFirstSyncMemory(int argc, char** argv);

QJsonObject benchEvent(int i, const QString& summary) {
    const QDateTime start = QDateTime(QDate(2025, 1, 1), QTime(9, 0), Qt::UTC).addSecs(qint64(i) * 3 * 3600);
    return QJsonObject{{"id", QStringLiteral("bench%1").arg(i)},
                       {"summary", summary},
                       {"description", "Weekly review of the roadmap with the whole team."},
                       {"location", "Room 4"},
                       {"start", QJsonObject{{"dateTime", start.toString(Qt::ISODate)}, {"timeZone", "Asia/Tokyo"}}},
                       {"end", QJsonObject{{"dateTime", start.addSecs(3600).toString(Qt::ISODate)}, {"timeZone", "Asia/Tokyo"}}}};
}

} // namespace tavelo::bench

using namespace tavelo;
using namespace tavelo::testing;
using tavelo::bench::benchEvent;

namespace {

const QString kCalendar = QStringLiteral("bench@example.com");

class FixedTokens final : public GoogleAccessTokenProviding {
public:
    QCoro::Task<QString> accessToken(std::optional<QString>, std::stop_token) override {
        QString token = QStringLiteral("bench-token");
        co_return token;
    }
};

struct SyncWorld {
    explicit SyncWorld(int events) {
        google.acceptToken("bench-token");
        google.addCalendar(kCalendar, "Bench", true);
        for (int i = 0; i < events; ++i) google.putEvent(kCalendar, benchEvent(i, QStringLiteral("Event %1").arg(i)));
    }

    std::shared_ptr<GoogleCalendarService> makeService(const QString& file) {
        GoogleCalendarService::Functions f;
        f.connectGoogleIdentity = [](std::stop_token) -> QCoro::Task<GoogleIdentity> {
            GoogleIdentity identity{"bench-subject", kCalendar, QStringLiteral("Bench")};
            co_return identity;
        };
        f.reconnectGoogleIdentity = [](QString, std::stop_token) -> QCoro::Task<GoogleIdentity> {
            GoogleIdentity identity{"bench-subject", kCalendar, QStringLiteral("Bench")};
            co_return identity;
        };
        f.disconnectGoogleIdentity = [](QString) -> QCoro::Task<void> { co_return; };
        f.makeAPIClient = [this](const QString&) {
            return GoogleCalendarAPIClient(tokens, transport, eventLoopSleep(), [] { return 0.5; }, google.baseURL());
        };
        return std::make_shared<GoogleCalendarService>(std::make_shared<LocalCalendarService>(file), std::move(f));
    }

    GoogleCalendarStandIn google;
    std::shared_ptr<FixedTokens> tokens = std::make_shared<FixedTokens>();
    std::shared_ptr<NetworkHTTPTransport> transport = std::make_shared<NetworkHTTPTransport>();
};

void BM_FirstFullSync(benchmark::State& state) {
    SyncWorld world(int(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        QTemporaryDir dir;
        auto service = world.makeService(dir.filePath("calendar.sqlite"));
        const Account account = syncWait(service->connectGoogleAccount({}));
        state.ResumeTiming();
        syncWait(service->syncGoogleAccount(account.id, {}));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_FirstFullSync)->Arg(50000)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

void BM_IncrementalSyncOf20Changes(benchmark::State& state) {
    SyncWorld world(int(state.range(0)));
    QTemporaryDir dir;
    auto service = world.makeService(dir.filePath("calendar.sqlite"));
    const Account account = syncWait(service->connectGoogleAccount({}));
    syncWait(service->syncGoogleAccount(account.id, {}));
    int round = 0;
    for (auto _ : state) {
        state.PauseTiming();
        ++round;
        for (int i = 0; i < 20; ++i)
            world.google.putEvent(kCalendar, benchEvent(round * 97 + i * 13, QStringLiteral("Changed %1").arg(round)));
        state.ResumeTiming();
        syncWait(service->syncGoogleAccount(account.id, {}));
    }
}
BENCHMARK(BM_IncrementalSyncOf20Changes)->Arg(50000)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(10);

} // namespace

int main(int argc, char** argv) {
    // Before Qt starts: the memory probe forks its processes.
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--memory") == 0) return tavelo::bench::reportFirstSyncMemory(argc, argv);
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
