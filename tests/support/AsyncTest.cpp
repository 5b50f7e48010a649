#include "support/Async.h"

#include <QCoreApplication>
#include <QEventLoop>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

using namespace tavelo;

namespace {

// Lets queued resumptions run.
void drainEvents() {
    for (int i = 0; i < 5; ++i) QCoreApplication::processEvents(QEventLoop::AllEvents);
}

QCoro::Task<void> holdAndLog(AsyncFifoLock& lock, std::vector<std::string>& log, std::string name, bool aware,
                             std::stop_token token, Continuation<bool>* gate) {
    const bool owned = co_await lock.acquire(aware, token);
    log.push_back(name + (owned ? "+" : "-"));
    if (!owned) co_return;
    if (gate) co_await *gate;
    log.push_back(name + " done");
    lock.release();
}

} // namespace

TEST(AsyncFifoLockTest, WaitersAreServedInArrivalOrderWithDirectHandOver) {
    AsyncFifoLock lock;
    std::vector<std::string> log;
    Continuation<bool> firstGate;
    auto first = holdAndLog(lock, log, "a", false, {}, &firstGate);
    EXPECT_TRUE(lock.isActive());
    auto second = holdAndLog(lock, log, "b", false, {}, nullptr);
    auto third = holdAndLog(lock, log, "c", true, {}, nullptr);
    EXPECT_EQ(lock.waiterCount(), 2u);

    firstGate.resume(true);
    syncWait(first);
    // Ownership passed to "b" directly: the flag never fell in between.
    EXPECT_TRUE(lock.isActive());
    syncWait(second);
    syncWait(third);
    EXPECT_EQ(log, (std::vector<std::string>{"a+", "a done", "b+", "b done", "c+", "c done"}));
    EXPECT_FALSE(lock.isActive());
    EXPECT_EQ(lock.waiterCount(), 0u);
}

TEST(AsyncFifoLockTest, CancelledWaiterLeavesTheMiddleOfTheQueue) {
    AsyncFifoLock lock;
    std::vector<std::string> log;
    Continuation<bool> gate;
    std::stop_source cancelMiddle;
    auto holder = holdAndLog(lock, log, "a", false, {}, &gate);
    auto middle = holdAndLog(lock, log, "b", true, cancelMiddle.get_token(), nullptr);
    auto last = holdAndLog(lock, log, "c", true, {}, nullptr);
    ASSERT_EQ(lock.waiterCount(), 2u);

    cancelMiddle.request_stop();
    drainEvents();
    EXPECT_EQ(lock.waiterCount(), 1u);
    EXPECT_EQ(log, (std::vector<std::string>{"a+", "b-"}));

    gate.resume(true);
    syncWait(holder);
    syncWait(middle);
    syncWait(last);
    EXPECT_EQ(log, (std::vector<std::string>{"a+", "b-", "a done", "c+", "c done"}));
    EXPECT_FALSE(lock.isActive());
}

TEST(AsyncFifoLockTest, AlreadyCancelledCallersNeverQueue) {
    AsyncFifoLock lock;
    std::stop_source stopped;
    stopped.request_stop();
    // Even a free lock is refused to a cancelled cancellation-aware caller.
    EXPECT_FALSE(syncWait(lock.acquire(true, stopped.get_token())));
    EXPECT_FALSE(lock.isActive());

    EXPECT_TRUE(syncWait(lock.acquire(false, {})));
    EXPECT_FALSE(syncWait(lock.acquire(true, stopped.get_token())));
    EXPECT_EQ(lock.waiterCount(), 0u);
    lock.release();
    EXPECT_FALSE(lock.isActive());
}

TEST(BackgroundTaskTest, EveryAwaiterGetsTheResultOrTheFailure) {
    Continuation<int> input;
    auto task = BackgroundTask<int>::start([input](std::stop_token) -> QCoro::Task<int> {
        co_return co_await input * 2;
    });
    EXPECT_FALSE(task.isFinished());
    auto one = task.result();
    auto two = task.result();
    input.resume(21);
    EXPECT_EQ(syncWait(one), 42);
    EXPECT_EQ(syncWait(two), 42);
    EXPECT_TRUE(task.isFinished());
    EXPECT_EQ(syncWait(task.result()), 42);

    auto failing = BackgroundTask<int>::start([](std::stop_token) -> QCoro::Task<int> {
        throw std::runtime_error("boom");
        co_return 0;
    });
    EXPECT_THROW(syncWait(failing.result()), std::runtime_error);
}

TEST(BackgroundTaskTest, CancelReachesTheBodyThroughItsToken) {
    auto sleep = eventLoopSleep();
    auto task = BackgroundTask<int>::start([sleep](std::stop_token token) -> QCoro::Task<int> {
        co_await sleep(60.0, token);
        co_return 1;
    });
    task.cancel();
    EXPECT_THROW(syncWait(task.result()), CancellationError);

    // A short sleep that nobody cancels completes.
    auto quick = BackgroundTask<int>::start([sleep](std::stop_token token) -> QCoro::Task<int> {
        co_await sleep(0.01, token);
        co_return 7;
    });
    EXPECT_EQ(syncWait(quick.result()), 7);
}
