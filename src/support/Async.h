#pragma once

#include "support/Date.h"
#include "support/Error.h"
#include "support/UUID.h"

#include <QCoro/QCoroTask>

#include <coroutine>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <utility>
#include <vector>

namespace tavelo {

// Throws CancellationError when the token has been stopped.
void checkCancellation(const std::stop_token& token);

// Runs `fn` on the main thread's event loop at its next turn. Works from any
// thread; without an application object it runs at once.
void postToMainThread(std::function<void()> fn);

// A value that is delivered once and awaited by one coroutine. The first
// `resume` wins; later calls are ignored. Resumption happens on the next turn
// of the event loop, never inside the caller of `resume`, so a releaser's
// stack never runs its successor's code.
template <class T>
class Continuation {
    struct State {
        std::optional<T> value;
        std::coroutine_handle<> waiter;
    };

public:
    Continuation() : state_(std::make_shared<State>()) {}

    bool isResumed() const { return state_->value.has_value(); }

    void resume(T value) {
        if (state_->value) return;
        state_->value = std::move(value);
        if (auto waiter = std::exchange(state_->waiter, nullptr)) postToMainThread([waiter] { waiter.resume(); });
    }

    struct Awaiter {
        std::shared_ptr<State> state;
        bool await_ready() const noexcept { return state->value.has_value(); }
        void await_suspend(std::coroutine_handle<> h) noexcept { state->waiter = h; }
        T await_resume() { return std::move(*state->value); }
    };
    Awaiter operator co_await() const { return Awaiter{state_}; }

private:
    std::shared_ptr<State> state_;
};

// A first-come-first-served asynchronous lock. Ownership passes from the
// releaser straight to the oldest waiter, so nobody can slip in between. A
// cancellation-aware waiter leaves the queue when its task is cancelled and
// gets false; every other waiter eventually owns the lock. Not reentrant.
// Destroying the lock resumes every waiter with a CancellationError, so a
// dropped owner strands nobody.
class AsyncFifoLock {
public:
    AsyncFifoLock();
    ~AsyncFifoLock();
    AsyncFifoLock(const AsyncFifoLock&) = delete;
    AsyncFifoLock& operator=(const AsyncFifoLock&) = delete;

    // True when the caller now owns the lock. A caller that gets false must
    // not release.
    QCoro::Task<bool> acquire(bool cancellationAware, std::stop_token token = {});
    void release();

    bool isActive() const { return active_; }
    std::size_t waiterCount() const { return waiters_.size(); }

private:
    // What a waiter is resumed with.
    enum class Grant { owned, left, lockGone };
    struct Waiter {
        UUID id;
        Continuation<Grant> continuation;
    };
    void cancelWaiter(const UUID& id);

    bool active_ = false;
    std::deque<Waiter> waiters_;
    std::shared_ptr<AsyncFifoLock*> self_;
};

// Owns a running coroutine and the stop source that cancels it. Any number of
// callers may await the result; each gets the value or the exception.
template <class T>
class BackgroundTask {
    struct State {
        std::stop_source source;
        bool done = false;
        std::optional<T> value;
        std::exception_ptr error;
        std::vector<Continuation<bool>> waiters;
    };

public:
    // `body` receives the task's stop token and returns the coroutine to run.
    // The body is kept alive until the coroutine ends, so a coroutine lambda
    // may use its captures after suspending.
    template <class Body>
    static BackgroundTask start(Body body) {
        BackgroundTask task;
        auto state = task.state_;
        auto holder = std::make_shared<Body>(std::move(body));
        runBody(state, holder, (*holder)(state->source.get_token()));
        return task;
    }

    void cancel() { state_->source.request_stop(); }
    bool isFinished() const { return state_->done; }
    std::stop_token token() const { return state_->source.get_token(); }

    QCoro::Task<T> result() const {
        auto state = state_;
        if (!state->done) {
            Continuation<bool> c;
            state->waiters.push_back(c);
            co_await c;
        }
        if (state->error) std::rethrow_exception(state->error);
        // A copy: every awaiter gets the value, not only the first.
        co_return T(*state->value);
    }

private:
    BackgroundTask() : state_(std::make_shared<State>()) {}

    static QCoro::Task<void> runBody(std::shared_ptr<State> state, std::shared_ptr<void> keepAlive,
                                     QCoro::Task<T> body) {
        try {
            state->value = co_await std::move(body);
        } catch (...) {
            state->error = std::current_exception();
        }
        state->done = true;
        for (auto& waiter : std::exchange(state->waiters, {})) waiter.resume(true);
    }

    std::shared_ptr<State> state_;
};

// Runs the event loop until `task` finishes and returns its value, or
// rethrows its failure. (QCoro's own waitFor never returns when the awaited
// task throws.) For tests and for start-up code outside any coroutine.
template <class T>
T syncWait(QCoro::Task<T>& task);
template <class T>
T syncWait(QCoro::Task<T>&& task) { return syncWait(task); }

namespace detail {
// The timer interval of one step of a sleep with `remainingSeconds` left.
int sleepStepMilliseconds(double remainingSeconds);
void runNestedLoopUntil(const std::function<bool()>& finished, std::function<void(std::function<void()>)> start);
}

template <class T>
T syncWait(QCoro::Task<T>& task) {
    std::optional<std::conditional_t<std::is_void_v<T>, bool, T>> value;
    std::exception_ptr error;
    bool done = false;
    auto runner = [&](std::function<void()> quit) -> QCoro::Task<void> {
        try {
            if constexpr (std::is_void_v<T>) {
                co_await task;
                value = true;
            } else {
                value = co_await task;
            }
        } catch (...) {
            error = std::current_exception();
        }
        done = true;
        quit();
    };
    detail::runNestedLoopUntil([&] { return done; }, [&](std::function<void()> quit) { runner(std::move(quit)); });
    if (error) std::rethrow_exception(error);
    if constexpr (!std::is_void_v<T>) return std::move(*value);
}

// Injected time: tests pass their own so that nothing waits for real.
using Clock = std::function<Date()>;
using SleepFunction = std::function<QCoro::Task<void>(double seconds, std::stop_token token)>;

Clock systemClock();
// Sleeps on the event loop; throws CancellationError when the token stops
// before the time is up.
SleepFunction eventLoopSleep();

} // namespace tavelo
