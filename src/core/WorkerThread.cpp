#include "core/WorkerThread.h"

#include <pthread.h>

namespace tavrel {

WorkerThread::WorkerThread(const char* name) : m_thread([this] { loop(); }) {
    pthread_setname_np(m_thread.native_handle(), name);
}

WorkerThread::~WorkerThread() {
    std::deque<std::function<void()>> dropped;
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
        dropped.swap(m_jobs);
    }
    m_wake.notify_all();
    m_thread.join();
    // Dropped here, on the calling thread: their promises end unfinished and their callers resume.
}

void WorkerThread::post(std::function<void()> job) {
    {
        std::lock_guard lock(m_mutex);
        m_jobs.push_back(std::move(job));
    }
    m_wake.notify_one();
}

void WorkerThread::loop() {
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock lock(m_mutex);
            m_wake.wait(lock, [this] { return m_stopping || !m_jobs.empty(); });
            if (m_stopping)
                return;
            job = std::move(m_jobs.front());
            m_jobs.pop_front();
        }
        job();
    }
}

} // namespace tavrel
