#pragma once

// Starting store operations from the screens: the task runs on the event loop
// on its own, and its outcome comes back to the caller only while the caller
// still exists. A failure never escapes into Qt's event dispatch.

#include "support/Error.h"

#include <QCoro/QCoroTask>
#include <QObject>
#include <QPointer>
#include <QString>

#include <exception>
#include <functional>
#include <optional>
#include <type_traits>
#include <utility>

namespace tavelo::shell {

namespace detail {
template <class T, class Done, class Failed>
QCoro::Task<void> runGuarded(QCoro::Task<T> task, QPointer<QObject> owner, Done done, Failed failed) {
    std::exception_ptr failure;
    if constexpr (std::is_void_v<T>) {
        try {
            co_await task;
        } catch (...) {
            failure = std::current_exception();
        }
        if (!owner) co_return;
        if (failure) failed(failure);
        else done();
    } else {
        std::optional<T> value;
        try {
            value.emplace(co_await task);
        } catch (...) {
            failure = std::current_exception();
        }
        if (!owner) co_return;
        if (failure) failed(failure);
        else done(std::move(*value));
    }
}
} // namespace detail

// Runs `task` to its end; `done` gets its value (nothing for a void task),
// `failed` its failure. Neither is called once `owner` is gone.
template <class T, class Done, class Failed>
void launch(QCoro::Task<T>&& task, QObject* owner, Done done, Failed failed) {
    // The returned task is dropped on purpose: the coroutine frame lives on
    // until it ends.
    [[maybe_unused]] auto detached =
        detail::runGuarded<T>(std::move(task), QPointer<QObject>(owner), std::move(done), std::move(failed));
}

template <class T, class Done>
void launch(QCoro::Task<T>&& task, QObject* owner, Done done) {
    launch(std::move(task), owner, std::move(done), [](std::exception_ptr) {});
}

template <class T>
void launch(QCoro::Task<T>&& task, QObject* owner) {
    if constexpr (std::is_void_v<T>) launch(std::move(task), owner, [] {});
    else launch(std::move(task), owner, [](T) {});
}

} // namespace tavelo::shell
