#pragma once

#include <QCoro/QCoroFuture>
#include <QCoro/QCoroTask>
#include <QFuture>
#include <QPromise>
#include <QThreadPool>
#include <atomic>
#include <exception>
#include <memory>
#include <mutex>
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
        // Qt hands the end of the work over through its own locks, which ThreadSanitizer cannot see
        // (Qt is not built with it): this flag carries the same ordering where the tool sees it.
        std::atomic<bool> done{false};
    };
    // The same for the way in: held while the job is made and queued, taken by the job before it reads anything.
    static std::mutex handOver;
    std::unique_lock queueing(handOver);
    auto state = std::make_shared<State>();
    auto promise = std::make_shared<QPromise<void>>();
    QFuture<void> future = promise->future();
    promise->start();
    pool->start([state, promise, job = std::make_shared<Work>(std::move(work))]() mutable {
        { const std::lock_guard taken(handOver); }
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
        job.reset(); // the work's captures end here, before the awaiting side goes on
        state->done.store(true, std::memory_order_release);
        promise->finish();
    });
    queueing.unlock();
    co_await future;
    [[maybe_unused]] const bool done = state->done.load(std::memory_order_acquire);
    Q_ASSERT(done);
    // Taken out here: the pool thread may drop the state last, and an exception freed there would be freed
    // behind the tool's back (libstdc++ counts its references uninstrumented).
    if (std::exception_ptr error = std::exchange(state->error, nullptr))
        std::rethrow_exception(error);
    if constexpr (!std::is_void_v<Result>)
        co_return std::move(*state->value);
}

} // namespace tavrel
