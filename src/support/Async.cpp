#include "support/Async.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QMetaObject>
#include <QTimer>

#include <algorithm>
#include <cmath>
#include <optional>

namespace tavelo {

void checkCancellation(const std::stop_token& token) {
    if (token.stop_requested()) throw CancellationError();
}

void postToMainThread(std::function<void()> fn) {
    auto* app = QCoreApplication::instance();
    if (!app) {
        fn();
        return;
    }
    QMetaObject::invokeMethod(app, std::move(fn), Qt::QueuedConnection);
}

AsyncFifoLock::AsyncFifoLock() : self_(std::make_shared<AsyncFifoLock*>(this)) {}

AsyncFifoLock::~AsyncFifoLock() {
    // Each waiter resumes on a later turn of the event loop and touches
    // nothing of the lock then.
    for (auto& waiter : waiters_) waiter.continuation.resume(Grant::lockGone);
}

QCoro::Task<bool> AsyncFifoLock::acquire(bool cancellationAware, std::stop_token token) {
    if (cancellationAware && token.stop_requested()) co_return false;
    if (!active_) {
        active_ = true;
        co_return true;
    }
    const UUID id = UUID::random();
    Continuation<Grant> continuation;
    if (cancellationAware && token.stop_requested()) co_return false;
    waiters_.push_back({id, continuation});
    std::optional<std::stop_callback<std::function<void()>>> onStop;
    if (cancellationAware) {
        std::weak_ptr<AsyncFifoLock*> weak = self_;
        onStop.emplace(token, std::function<void()>([weak, id] {
            postToMainThread([weak, id] {
                if (auto self = weak.lock()) (*self)->cancelWaiter(id);
            });
        }));
    }
    const Grant grant = co_await continuation;
    if (grant == Grant::lockGone) throw CancellationError();
    co_return grant == Grant::owned;
}

void AsyncFifoLock::cancelWaiter(const UUID& id) {
    for (auto it = waiters_.begin(); it != waiters_.end(); ++it) {
        if (it->id == id) {
            auto continuation = it->continuation;
            waiters_.erase(it);
            continuation.resume(Grant::left);
            return;
        }
    }
    // Not found: the waiter has already been handed the lock.
}

void AsyncFifoLock::release() {
    if (waiters_.empty()) {
        active_ = false;
        return;
    }
    auto next = std::move(waiters_.front());
    waiters_.pop_front();
    next.continuation.resume(Grant::owned);
}

namespace detail {

void runNestedLoopUntil(const std::function<bool()>& finished, std::function<void(std::function<void()>)> start) {
    QEventLoop loop;
    start([&loop] { loop.quit(); });
    if (!finished()) loop.exec();
}

} // namespace detail

Clock systemClock() {
    return [] { return Date::now(); };
}

namespace detail {

int sleepStepMilliseconds(double remainingSeconds) {
    // A timer takes an int of milliseconds; longer waits go in steps of a day.
    constexpr double kLongestStep = 24.0 * 3600.0 * 1000.0;
    if (!(remainingSeconds > 0)) return 0; // also NaN
    return static_cast<int>(std::ceil(std::min(remainingSeconds * 1000.0, kLongestStep)));
}

} // namespace detail

SleepFunction eventLoopSleep() {
    return [](double seconds, std::stop_token token) -> QCoro::Task<void> {
        checkCancellation(token);
        QElapsedTimer elapsed;
        elapsed.start();
        do {
            const double remaining = seconds - static_cast<double>(elapsed.nsecsElapsed()) / 1e9;
            Continuation<bool> fired;
            QTimer timer;
            timer.setSingleShot(true);
            QObject::connect(&timer, &QTimer::timeout, [fired]() mutable { fired.resume(true); });
            timer.start(detail::sleepStepMilliseconds(remaining));
            std::stop_callback onStop(token, [fired] { postToMainThread([fired]() mutable { fired.resume(false); }); });
            if (!co_await fired) throw CancellationError();
        } while (static_cast<double>(elapsed.nsecsElapsed()) / 1e9 < seconds);
    };
}

} // namespace tavelo
