#include "support/Async.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QMetaObject>
#include <QTimer>

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

AsyncFifoLock::~AsyncFifoLock() = default;

QCoro::Task<bool> AsyncFifoLock::acquire(bool cancellationAware, std::stop_token token) {
    if (cancellationAware && token.stop_requested()) co_return false;
    if (!active_) {
        active_ = true;
        co_return true;
    }
    const UUID id = UUID::random();
    Continuation<bool> continuation;
    if (!cancellationAware) {
        waiters_.push_back({id, continuation});
        co_return co_await continuation;
    }
    if (token.stop_requested()) co_return false;
    waiters_.push_back({id, continuation});
    std::weak_ptr<AsyncFifoLock*> weak = self_;
    std::stop_callback onStop(token, [weak, id] {
        postToMainThread([weak, id] {
            if (auto self = weak.lock()) (*self)->cancelWaiter(id);
        });
    });
    co_return co_await continuation;
}

void AsyncFifoLock::cancelWaiter(const UUID& id) {
    for (auto it = waiters_.begin(); it != waiters_.end(); ++it) {
        if (it->id == id) {
            auto continuation = it->continuation;
            waiters_.erase(it);
            continuation.resume(false);
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
    next.continuation.resume(true);
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

SleepFunction eventLoopSleep() {
    return [](double seconds, std::stop_token token) -> QCoro::Task<void> {
        checkCancellation(token);
        Continuation<bool> fired;
        QTimer timer;
        timer.setSingleShot(true);
        QObject::connect(&timer, &QTimer::timeout, [fired]() mutable { fired.resume(true); });
        timer.start(static_cast<int>(seconds * 1000.0));
        std::stop_callback onStop(token, [fired] { postToMainThread([fired]() mutable { fired.resume(false); }); });
        const bool completed = co_await fired;
        if (!completed) throw CancellationError();
    };
}

} // namespace tavelo
