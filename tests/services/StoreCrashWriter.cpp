// The process the crash loop kills: it opens the store at argv[1], whose
// content is step argv[2] of the sequence, and performs the following steps
// until it is killed.

#include "CrashLoopSteps.h"

#include "support/Async.h"

#include <QCoreApplication>

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
        // A missing file is written whole first: the replacement path.
        syncWait(service.save(loaded.snapshot));
        AppSnapshot model = std::move(loaded.snapshot);
        for (std::uint64_t n = std::strtoull(argv[2], nullptr, 10) + 1;; ++n) syncWait(crashloop::perform(service, model, n));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "failed: %s\n", error.what());
        return 4;
    }
}
