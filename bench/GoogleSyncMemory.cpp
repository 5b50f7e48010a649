// Peak memory of first full syncs of a 50,000-event calendar, stand-in apart.
//
// The Calendar stand-in runs in a child process forked before Qt starts, and
// every page shape is measured in a fresh process of its own, so the resident
// size of the measuring process holds only our side: the reply bodies, the
// decoded pages, the merged snapshot, the local store's cache and its SQLite
// work. For every sync the peak resident size is reset just before it starts
// (Linux's clear_refs), and the growth of the peak over the resident size
// before the sync is set against the bytes of the event listings served.
//
//   google_sync_bench --memory [--runs=N] [--events=N] [--pages=2500,250]
//                              [--shapes=minimal,google]
//
// Two kinds of events: "minimal", the short records of the timing benchmarks
// (an id, a title, a description, a place and the times), and "google",
// items the way Google lists them, with the fields it always sends (kind,
// htmlLink, created, creator, organizer, iCalUID, sequence, reminders,
// eventType) and, on some, attendees and a Meet link. The fixed cost of a
// decoded and of a stored event weighs much more against the short records.
//
// The first sync of each process is the figure that counts: later ones find
// memory the allocator kept from the one before (and so grow less), and the
// resident size after a sync stays near its peak for the same reason.
//
// The client lists 250 events a page; for larger pages the bench's transport
// asks the stand-in for more, as Google allows up to 2,500.

#include "google/GoogleAccessTokenProvider.h"
#include "google/GoogleCalendarAPIClient.h"
#include "google/GoogleCalendarStandIn.h"
#include "services/GoogleCalendarService.h"
#include "services/LocalCalendarService.h"
#include "support/Allocator.h"
#include "support/Async.h"
#include "support/HTTPTransport.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonObject>
#include <QTimeZone>
#include <QSocketNotifier>
#include <QTemporaryDir>

#include <mimalloc.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace tavelo::bench {

QJsonObject benchEvent(int i, const QString& summary);

namespace {

using tavelo::testing::GoogleCalendarStandIn;

const QString kCalendar = QStringLiteral("bench@example.com");
const QString kToken = QStringLiteral("bench-token");

enum class Shape { minimal, google };

const char* nameOf(Shape shape) { return shape == Shape::minimal ? "minimal" : "google"; }

struct Options {
    int runs = 5;
    int events = 50'000;
    std::vector<int> pageSizes{2500, 250};
    std::vector<Shape> shapes{Shape::minimal, Shape::google};
};

std::vector<std::string> commaSeparated(const std::string& list) {
    std::vector<std::string> items;
    for (std::size_t at = 0; at <= list.size();) {
        const std::size_t comma = std::min(list.find(',', at), list.size());
        if (comma > at) items.push_back(list.substr(at, comma - at));
        at = comma + 1;
    }
    return items;
}

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("--runs=", 0) == 0) options.runs = std::max(1, std::stoi(arg.substr(7)));
        if (arg.rfind("--events=", 0) == 0) options.events = std::max(1, std::stoi(arg.substr(9)));
        if (arg.rfind("--pages=", 0) == 0) {
            options.pageSizes.clear();
            for (const auto& item : commaSeparated(arg.substr(8)))
                options.pageSizes.push_back(std::clamp(std::stoi(item), 1, 2500));
        }
        if (arg.rfind("--shapes=", 0) == 0) {
            options.shapes.clear();
            for (const auto& item : commaSeparated(arg.substr(9)))
                options.shapes.push_back(item == "google" ? Shape::google : Shape::minimal);
        }
    }
    return options;
}

// A field of /proc/self/status ("VmRSS", "VmHWM") in bytes.
std::int64_t statusBytes(const char* field) {
    std::ifstream status("/proc/self/status");
    const std::string prefix = std::string(field) + ":";
    for (std::string line; std::getline(status, line);)
        if (line.rfind(prefix, 0) == 0) return std::stoll(line.substr(prefix.size())) * 1024;
    return -1;
}

// Restarts the kernel's peak resident size from the current one.
bool resetPeakResident() {
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
    clear.flush();
    return bool(clear);
}

double megabytes(std::int64_t bytes) { return static_cast<double>(bytes) / 1e6; }

class FixedTokens final : public GoogleAccessTokenProviding {
public:
    QCoro::Task<QString> accessToken(std::optional<QString>, std::stop_token) override {
        QString token = kToken;
        co_return token;
    }
};

// The production transport, asking event listings for `pageSize` events and
// counting the bytes of their bodies.
class ShapingTransport final : public HTTPTransport {
public:
    explicit ShapingTransport(int pageSize) : pageSize_(pageSize) {}

    QCoro::Task<HTTPResponse> send(HTTPRequest request, std::stop_token stop) override {
        const bool listing = request.method == "GET" && request.url.path().endsWith(QLatin1String("/events"));
        if (listing) {
            QString query = request.url.query(QUrl::FullyEncoded);
            query.replace(QLatin1String("maxResults=250"), QStringLiteral("maxResults=%1").arg(pageSize_));
            request.url.setQuery(query, QUrl::StrictMode);
        }
        const auto sent = std::chrono::steady_clock::now();
        HTTPResponse response = co_await inner_.send(std::move(request), stop);
        if (listing) {
            waitingSeconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - sent).count();
            listingBytes += response.body.size();
            ++listings;
        }
        co_return response;
    }

    std::int64_t listingBytes = 0;
    int listings = 0;
    // From sending a listing request to having its whole reply.
    double waitingSeconds = 0;

private:
    NetworkHTTPTransport inner_;
    int pageSize_;
};

// An event as Google lists it. Deterministic, so that every process builds
// the same calendar.
QJsonObject googleEvent(int i) {
    static const char* titles[] = {"定例ミーティング", "1on1", "Design review", "採用面接", "Customer call", "週次レポート"};
    static const char* people[] = {"ann", "bob", "chika", "daisuke", "eve", "fumiko"};
    const QString id = QStringLiteral("evt%1").arg(i);
    QJsonObject event{{"kind", "calendar#event"},
                      {"id", id},
                      {"status", "confirmed"},
                      {"htmlLink", QStringLiteral("https://www.google.com/calendar/event?eid=ZXZ0%1").arg(i)},
                      {"created", "2025-11-01T00:00:00.000Z"},
                      {"summary", QStringLiteral("%1 %2").arg(QString::fromUtf8(titles[i % 6])).arg(i)},
                      {"creator", QJsonObject{{"email", kCalendar}, {"self", true}}},
                      {"organizer", QJsonObject{{"email", kCalendar}, {"self", true}}},
                      {"iCalUID", id + QStringLiteral("@google.com")},
                      {"sequence", 0},
                      {"reminders", QJsonObject{{"useDefault", true}}},
                      {"eventType", "default"}};
    if (i % 3 == 0) event.insert("description", QStringLiteral("議題: 進捗と課題の確認\nAgenda: status and blockers"));
    if (i % 4 == 0) event.insert("location", QStringLiteral("会議室 %1").arg(i % 12));
    const QDate day = QDate(2026, 1, 1).addDays(i % 365);
    if (i % 10 == 0) {
        event.insert("start", QJsonObject{{"date", day.toString(Qt::ISODate)}});
        event.insert("end", QJsonObject{{"date", day.addDays(1).toString(Qt::ISODate)}});
    } else {
        const QDateTime start(day, QTime(8 + i % 10, 0), QTimeZone(9 * 3600));
        event.insert("start", QJsonObject{{"dateTime", start.toString(Qt::ISODate)}, {"timeZone", "Asia/Tokyo"}});
        event.insert("end",
                     QJsonObject{{"dateTime", start.addSecs(3600).toString(Qt::ISODate)}, {"timeZone", "Asia/Tokyo"}});
    }
    if (const int guests = i % 4; guests > 0) {
        QJsonArray attendees;
        for (int g = 0; g < guests; ++g) {
            const QString who = QString::fromLatin1(people[(i + g) % 6]);
            attendees.append(QJsonObject{{"email", who + QStringLiteral("@example.com")},
                                         {"displayName", who},
                                         {"responseStatus", "accepted"}});
        }
        event.insert("attendees", attendees);
    }
    if (i % 5 == 0) event.insert("hangoutLink", "https://meet.google.com/abc-defg-hij");
    return event;
}

// The stand-in process: serves until `lifeline` reaches its end (the parent
// closed it or died), after writing its address to `addressOut`.
int serveStandIn(int events, Shape shape, int addressOut, int lifeline) {
    int argc = 1;
    char name[] = "google-calendar-stand-in";
    char* argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    GoogleCalendarStandIn google;
    google.acceptToken(kToken);
    google.addCalendar(kCalendar, "Bench", true);
    for (int i = 0; i < events; ++i)
        google.putEvent(kCalendar, shape == Shape::google ? googleEvent(i)
                                                          : benchEvent(i, QStringLiteral("Event %1").arg(i)));
    const QByteArray address = google.baseURL().toEncoded() + '\n';
    if (::write(addressOut, address.constData(), std::size_t(address.size())) != address.size()) return 1;
    ::close(addressOut);
    QSocketNotifier notifier(lifeline, QSocketNotifier::Read);
    QObject::connect(&notifier, &QSocketNotifier::activated, &app, [&] {
        char byte;
        if (::read(lifeline, &byte, 1) <= 0) app.quit();
    });
    return app.exec();
}

double processCPUSeconds() {
    timespec t{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

struct RunFigures {
    double seconds = 0;
    // CPU time of this process (all its threads), the stand-in's not included.
    double cpuSeconds = 0;
    double waitingSeconds = 0;
    std::int64_t jsonBytes = 0;
    int pages = 0;
    std::int64_t peakGrowth = 0;
    std::int64_t retained = 0;
};

// One process measuring first full syncs with one page size.
int measure(const QUrl& baseURL, const Options& options, Shape shape, int pageSize) {
    int argc = 1;
    char name[] = "google_sync_bench";
    char* argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    auto tokens = std::make_shared<FixedTokens>();
    auto transport = std::make_shared<ShapingTransport>(pageSize);

    std::vector<RunFigures> runs;
    for (int run = 0; run < options.runs; ++run) {
        RunFigures figures;
        {
            QTemporaryDir dir;
            auto local = std::make_shared<LocalCalendarService>(dir.filePath("calendar.sqlite"));
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
            f.makeAPIClient = [&](const QString&) {
                return GoogleCalendarAPIClient(tokens, transport, eventLoopSleep(), [] { return 0.5; }, baseURL);
            };
            auto service = std::make_shared<GoogleCalendarService>(local, std::move(f));
            const Account account = syncWait(service->connectGoogleAccount({}));
            syncWait(local->drain());

            transport->listingBytes = 0;
            transport->listings = 0;
            transport->waitingSeconds = 0;
            mi_collect(true);
            const std::int64_t before = statusBytes("VmRSS");
            if (!resetPeakResident()) {
                std::fprintf(stderr, "cannot reset the peak resident size\n");
                return 1;
            }
            const auto start = std::chrono::steady_clock::now();
            const double cpuStart = processCPUSeconds();
            syncWait(service->syncGoogleAccount(account.id, {}));
            figures.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            figures.cpuSeconds = processCPUSeconds() - cpuStart;
            syncWait(local->drain());
            figures.peakGrowth = statusBytes("VmHWM") - before;
            figures.retained = statusBytes("VmRSS") - before;
            figures.jsonBytes = transport->listingBytes;
            figures.pages = transport->listings;
            figures.waitingSeconds = transport->waitingSeconds;

            const auto& cached = local->cachedSnapshot();
            const std::size_t stored = cached ? cached->events.size() : 0;
            if (stored != std::size_t(options.events) ||
                local->lastWriteStats().eventRowsWritten != options.events) {
                std::fprintf(stderr, "sync stored %zu events, wrote %d rows; expected %d\n", stored,
                             local->lastWriteStats().eventRowsWritten, options.events);
                return 1;
            }
        }
        std::printf("  run %d: %d pages, %.1f MB of JSON, %.0f ms wall (%.0f ms awaiting replies), %.0f ms CPU, peak growth %.1f MB (%.2fx), %.1f MB kept after\n",
                    run + 1, figures.pages, megabytes(figures.jsonBytes), figures.seconds * 1e3, figures.waitingSeconds * 1e3,
                    figures.cpuSeconds * 1e3,
                    megabytes(figures.peakGrowth),
                    static_cast<double>(figures.peakGrowth) / static_cast<double>(figures.jsonBytes),
                    megabytes(figures.retained));
        std::fflush(stdout);
        runs.push_back(figures);
    }

    std::vector<double> seconds, cpuSeconds;
    for (const auto& r : runs) {
        seconds.push_back(r.seconds);
        cpuSeconds.push_back(r.cpuSeconds);
    }
    std::printf("  %s, %d x %d: first sync's peak growth %.1f MB = %.2fx the %.1f MB of JSON; medians of %zu: %.0f ms wall, %.0f ms our CPU\n",
                nameOf(shape), runs.front().pages, pageSize, megabytes(runs.front().peakGrowth),
                static_cast<double>(runs.front().peakGrowth) / static_cast<double>(runs.front().jsonBytes),
                megabytes(runs.front().jsonBytes), runs.size(), median(seconds) * 1e3, median(cpuSeconds) * 1e3);
    std::fflush(stdout);
    return 0;
}

int waitFor(pid_t child) {
    int status = 0;
    if (::waitpid(child, &status, 0) != child) return 1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

} // namespace

int reportFirstSyncMemory(int argc, char** argv) {
    const Options options = parse(argc, argv);
    std::printf("first full sync of %d events, stand-in in its own process (%s)\n", options.events,
                allocator::describe().c_str());
    int failures = 0;
    for (const Shape shape : options.shapes)
    for (const int pageSize : options.pageSizes) {
        // A fresh stand-in for each shape: it keeps every listing's cursor.
        int address[2], lifeline[2];
        if (::pipe(address) != 0 || ::pipe(lifeline) != 0) return 1;
        std::fflush(stdout);
        const pid_t standIn = ::fork();
        if (standIn == 0) {
            ::close(address[0]);
            ::close(lifeline[1]);
            ::_exit(serveStandIn(options.events, shape, address[1], lifeline[0]));
        }
        ::close(address[1]);
        ::close(lifeline[0]);
        std::string url;
        char c;
        while (::read(address[0], &c, 1) == 1 && c != '\n') url += c;
        ::close(address[0]);
        if (url.empty()) {
            std::fprintf(stderr, "the stand-in did not start\n");
            ::close(lifeline[1]);
            waitFor(standIn);
            return 1;
        }

        std::fflush(stdout);
        const pid_t measurer = ::fork();
        if (measurer == 0) {
            ::close(lifeline[1]);
            const int code = measure(QUrl::fromEncoded(QByteArray::fromStdString(url)), options, shape, pageSize);
            std::fflush(stdout);
            ::_exit(code);
        }
        failures += waitFor(measurer) != 0;
        ::close(lifeline[1]);
        waitFor(standIn);
    }
    return failures == 0 ? 0 : 1;
}

} // namespace tavelo::bench
