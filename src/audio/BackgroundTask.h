#pragma once

#include <QCoro/QCoroFuture>
#include <QCoro/QCoroTask>
#include <QFuture>
#include <QPromise>
#include <QThreadPool>
#include <exception>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

namespace tavrel {

/// Runs blocking work (opening a stream, finishing a file) on a pool thread and resumes the awaiting
/// coroutine on its own thread with the result; an exception thrown by `work` is rethrown there.
///
///     const QString path = co_await runInBackground([&] { return finishFile(); });
///
/// Long work that must not hold up the starts and stops (recovery at launch) passes a pool of its own.
template <typename Work>
auto runInBackground(Work work, QThreadPool* pool = QThreadPool::globalInstance())
    -> QCoro::Task<std::invoke_result_t<Work>> {
    using Result = std::invoke_result_t<Work>;
    struct State {
        std::optional<std::conditional_t<std::is_void_v<Result>, bool, Result>> value;
        std::exception_ptr error;
    };
    auto state = std::make_shared<State>();
    auto promise = std::make_shared<QPromise<void>>();
    auto job = std::make_shared<Work>(std::move(work));
    QFuture<void> future = promise->future();
    promise->start();
    pool->start([state, promise, job] {
        try {
            if constexpr (std::is_void_v<Result>) {
                (*job)();
                state->value = true;
            } else {
                state->value.emplace((*job)());
            }
        } catch (...) {
            state->error = std::current_exception();
        }
        promise->finish();
    });
    co_await future;
    if (state->error)
        std::rethrow_exception(state->error);
    if constexpr (!std::is_void_v<Result>)
        co_return std::move(*state->value);
}

} // namespace tavrel
