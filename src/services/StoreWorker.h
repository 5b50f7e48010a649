#pragma once

// The thread on which a calendar store does its disk work. Jobs run one at a
// time in the order they were handed over; the caller awaits each one from a
// coroutine, so the GUI thread only hands work over and takes the result.

#include <QCoro/QCoroFuture>
#include <QCoro/QCoroTask>
#include <QFuture>

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>

class QThreadPool;

namespace tavelo {

class StoreWorker {
public:
    StoreWorker();
    // Waits for the jobs handed over so far.
    ~StoreWorker();
    StoreWorker(const StoreWorker&) = delete;
    StoreWorker& operator=(const StoreWorker&) = delete;

    // Runs `job` there and answers its result or rethrows its failure here.
    // The awaiting coroutine does not touch the worker after it resumes.
    template <class Job>
    QCoro::Task<std::invoke_result_t<Job&>> run(Job job) {
        using Result = std::invoke_result_t<Job&>;
        struct Outcome {
            std::optional<std::conditional_t<std::is_void_v<Result>, bool, Result>> value;
            std::exception_ptr failure;
        };
        auto outcome = std::make_shared<Outcome>();
        auto shared = std::make_shared<Job>(std::move(job));
        QFuture<void> done = start([outcome, shared] {
            try {
                if constexpr (std::is_void_v<Result>) {
                    (*shared)();
                    outcome->value = true;
                } else {
                    outcome->value.emplace((*shared)());
                }
            } catch (...) {
                outcome->failure = std::current_exception();
            }
        });
        co_await done;
        if (outcome->failure) std::rethrow_exception(outcome->failure);
        if constexpr (!std::is_void_v<Result>) co_return std::move(*outcome->value);
    }

    // Hands `job` over without waiting for it; it must not throw. A job may
    // hand over another, which runs after everything queued before it.
    QFuture<void> start(std::function<void()> job);

    // Whether the calling thread is the worker's.
    bool isCurrentThread() const;

private:
    std::unique_ptr<QThreadPool> pool_;
};

} // namespace tavelo
