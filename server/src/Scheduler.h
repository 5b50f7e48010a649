#pragma once

// Runs the AI schedules while their owners' desktops are off. A scan turns
// each due occurrence into a queued run and moves its schedule on, in one
// transaction that only one process can win; workers claim queued runs under
// a lease, call the provider and store the outcome. A process that dies
// mid-run leaves a lease that runs out, and the run is queued again.
//
// Retry policy: a provider that cannot be reached, times out, answers 429
// or 5xx is tried again after `retryDelaySeconds`, doubled each time, up to
// `runAttempts` attempts; then the run ends "failed" with the last message.
// Other refusals (a 4xx, a reply without text) fail at once.

#include "Config.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tavelo::cloud {

class Storage;
struct ClaimedRun;

struct ProviderResult {
    bool ok = false;
    bool retryable = false;
    std::string text; // the output, or the error message
};

// One chat-completions call with the prompt as the user's message.
ProviderResult callProvider(const ProviderConfig& provider, const std::string& prompt);

class Scheduler {
public:
    Scheduler(Storage& storage, const Config& config, std::function<double()> now, int workers = 2);
    ~Scheduler();

    void start();
    // Waits for runs in progress to end.
    void stop();
    void wake();

    // One scan for due occurrences; gives how many runs it queued. Public
    // for tests and benchmarks.
    int scanOnce();
    // Claims and executes one queued run; false when there was none.
    bool executeOne();

    const std::string& workerID() const { return workerID_; }

private:
    void scanLoop();
    void workLoop();
    void execute(const ClaimedRun& run);

    Storage& storage_;
    const Config& config_;
    std::function<double()> now_;
    int workerCount_;
    std::string workerID_;
    std::atomic<bool> stopping_{false};
    std::mutex mutex_;
    std::condition_variable signal_;
    std::uint64_t wakeups_ = 0;
    std::vector<std::thread> threads_;
};

} // namespace tavelo::cloud
