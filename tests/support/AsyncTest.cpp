#include "support/Async.h"
#include "support/TestWait.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <cmath>
#include <memory>

#include <stdexcept>
#include <string>
#include <vector>

using namespace tavelo;

namespace {

// Takes the lock, logs "name+" (or "name-" when refused), holds it until
// `gate` opens, logs "name done" and releases.
QCoro::Task<void> holdAndLog(AsyncFifoLock& lock, std::vector<std::string>& log, std::string name, bool aware,
                             std::stop_token token = {}, Continuation<bool>* gate = nullptr) {
    const bool owned = co_await lock.acquire(aware, token);
    log.push_back(name + (owned ? "+" : "-"));
    if (!owned) co_return;
    if (gate) co_await *gate;
    log.push_back(name + " done");
    lock.release();
}

} // namespace

TEST(AsyncFifoLockTest, WaitersAreServedInArrivalOrderAndACancelledOneLeavesTheQueue) {
    AsyncFifoLock lock;
    std::vector<std::string> log;
    Continuation<bool> gate;
    std::stop_source cancelB;
    auto a = holdAndLog(lock, log, "a", false, {}, &gate);
    auto b = holdAndLog(lock, log, "b", true, cancelB.get_token());
    auto c = holdAndLog(lock, log, "c", false);
    auto d = holdAndLog(lock, log, "d", true);
    EXPECT_EQ(lock.waiterCount(), 3u);

    cancelB.request_stop();
    ASSERT_TRUE(tavelo::testing::waitUntil([&] { return log.size() == 2; }));
    EXPECT_EQ(lock.waiterCount(), 2u);
    EXPECT_EQ(log, (std::vector<std::string>{"a+", "b-"}));

    gate.resume(true);
    syncWait(a);
    // Ownership passed to "c" directly: the lock never fell free in between.
    EXPECT_TRUE(lock.isActive());
    syncWait(c);
    syncWait(d);
    EXPECT_EQ(log, (std::vector<std::string>{"a+", "b-", "a done", "c+", "c done", "d+", "d done"}));
    EXPECT_FALSE(lock.isActive());
}

TEST(AsyncFifoLockTest, ADestroyedLockResumesEveryWaiterWithACancellation) {
    auto lock = std::make_unique<AsyncFifoLock>();
    ASSERT_TRUE(syncWait(lock->acquire(false)));
    std::stop_source never;
    auto patient = lock->acquire(false);
    auto aware = lock->acquire(true, never.get_token());
    ASSERT_EQ(lock->waiterCount(), 2u);
    lock.reset();
    EXPECT_THROW(syncWait(patient), CancellationError);
    EXPECT_THROW(syncWait(aware), CancellationError);
    never.request_stop(); // the waiter's stop callback outlives the lock harmlessly
    ASSERT_TRUE(tavelo::testing::waitUntil([] { return true; }, 20));
}

TEST(EventLoopSleepTest, LongWaitsNeitherOverflowNorEndEarly) {
    EXPECT_EQ(detail::sleepStepMilliseconds(std::nan("")), 0);
    EXPECT_EQ(detail::sleepStepMilliseconds(1e10), 24 * 3600 * 1000); // a day at a time
    EXPECT_EQ(detail::sleepStepMilliseconds(3e6), 24 * 3600 * 1000);  // 35 days: more ms than an int holds
}

TEST(BackgroundTaskTest, EveryAwaiterGetsTheResultOrTheFailure) {
    Continuation<std::string> input;
    auto task = BackgroundTask<std::string>::start([input](std::stop_token) -> QCoro::Task<std::string> {
        co_return co_await input + std::string(100, 'x'); // a value owning memory, not to be moved away
    });
    auto first = task.result();
    auto second = task.result();
    EXPECT_FALSE(task.isFinished());
    input.resume("y");
    EXPECT_EQ(syncWait(first).size(), 101u);
    EXPECT_EQ(syncWait(second).size(), 101u);
    EXPECT_TRUE(task.isFinished());
    EXPECT_EQ(syncWait(task.result()).size(), 101u);

    auto failing = BackgroundTask<int>::start([](std::stop_token) -> QCoro::Task<int> {
        throw std::runtime_error("boom");
        co_return 0;
    });
    EXPECT_THROW(syncWait(failing.result()), std::runtime_error);
}

TEST(BackgroundTaskTest, CancelReachesTheBodyThroughItsToken) {
    auto sleep = eventLoopSleep();
    auto body = [sleep](double seconds) {
        return [sleep, seconds](std::stop_token token) -> QCoro::Task<int> {
            co_await sleep(seconds, token);
            co_return 7;
        };
    };
    auto task = BackgroundTask<int>::start(body(60));
    task.cancel();
    EXPECT_THROW(syncWait(task.result()), CancellationError);
    // A short sleep that nobody cancels completes.
    EXPECT_EQ(syncWait(BackgroundTask<int>::start(body(0.01)).result()), 7);
}
