// The process the crash loop kills: it opens the store at argv[1], whose
// content is step argv[2] of the sequence, says "ready" once it holds the
// store, and then performs the following steps until it is killed.

#include "CrashLoopSteps.h"

#include "support/Async.h"

#include <QCoreApplication>
#include <QThread>

#include <cstdio>
#include <cstdlib>
#include <exception>

using namespace tavelo;

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    if (argc != 3) return 2;
    LocalCalendarService service(QString::fromLocal8Bit(argv[1]), [] { return crashloop::initial(); });
    try {
        auto loaded = syncWait(service.load());
        if (loaded.warning) {
            std::fprintf(stderr, "load warning\n");
            return 3;
        }
        // A store that cannot write fails here rather than later.
        syncWait(service.save(loaded.snapshot));
        std::printf("ready\n");
        std::fflush(stdout);
        AppSnapshot model = std::move(loaded.snapshot);
        for (std::uint64_t n = std::strtoull(argv[2], nullptr, 10) + 1;; ++n) {
            // A reader in another process can keep a write out for a moment
            // (the database is busy); the same step is tried again.
            for (int attempt = 0;; ++attempt) {
                try {
                    syncWait(crashloop::perform(service, model, n));
                    break;
                } catch (const SQLitePersistenceError& error) {
                    if (error.kind() != SQLitePersistenceError::Kind::operation || attempt == 200) throw;
                    QThread::msleep(10);
                }
            }
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "failed: %s\n", error.what());
        return 4;
    }
}
