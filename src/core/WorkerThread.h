#pragma once

#include "core/Error.h"

#include <QCoro/QCoroFuture>
#include <QCoro/QCoroTask>
#include <QFuture>
#include <QPromise>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <type_traits>
#include <utility>

namespace tavrel {

/// A thread of its own that runs blocking jobs one after the other (an audio server's answer, a file's
/// header), so that they neither block the calling thread nor wait behind the shared worker pool. Each job
/// and its result cross between the threads under a mutex: the hand-over is one that ThreadSanitizer sees.
///
///     WorkerThread worker("tavrel-calls");
///     const auto ask = [query] { return query->inputApplications(); };
///     const auto answer = co_await worker.run(ask);   // resumes on the calling thread
class WorkerThread {
public:
    explicit WorkerThread(const char* name);
    /// Lets the running job end, drops the others (their callers resume with an error) and joins.
    ~WorkerThread();
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

    /// Runs `job` on this thread and resumes the caller on its own thread (which runs a Qt event loop)
    /// with what it returned, or rethrows what it threw. Throws `Error` when the thread went away first.
    template <typename Job>
    QCoro::Task<std::invoke_result_t<Job&>> run(Job job);

private:
    void post(std::function<void()> job);
    void loop();

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::function<void()>> m_jobs;
    bool m_stopping = false;
    std::thread m_thread;
};

template <typename Job>
QCoro::Task<std::invoke_result_t<Job&>> WorkerThread::run(Job job) {
    using Result = std::invoke_result_t<Job&>;
    struct State {
        std::mutex mutex;
        std::optional<Result> result;
        std::exception_ptr error;
        QPromise<void> done;
    };
    auto state = std::make_shared<State>();
    state->done.start();
    const QFuture<void> done = state->done.future();
    // Finished when the job is destroyed, run or dropped unrun: the caller always resumes.
    std::shared_ptr<void> finishes(nullptr, [state](void*) { state->done.finish(); });
    post([state, finishes = std::move(finishes), job = std::move(job)]() mutable {
        std::optional<Result> result;
        std::exception_ptr error;
        try {
            result.emplace(job());
        } catch (...) {
            error = std::current_exception();
        }
        std::lock_guard lock(state->mutex);
        state->result = std::move(result);
        state->error = error;
    });
    co_await done;
    std::lock_guard lock(state->mutex);
    // Taken out here: the worker may drop the state last (see runInBackground).
    if (std::exception_ptr error = std::exchange(state->error, nullptr))
        std::rethrow_exception(error);
    if (!state->result)
        throw Error(QStringLiteral("Tâche abandonnée : le programme s'arrête."));
    co_return std::move(*state->result);
}

} // namespace tavrel
