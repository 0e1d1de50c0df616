#include "audio/timeline/SampleHandOff.h"

#include <algorithm>
#include <chrono>
#include <pthread.h>
#include <string>

namespace tavrel {

namespace {
constexpr auto kWakeInterval = std::chrono::milliseconds(20);
}

SampleHandOff::SampleHandOff(int channels, int64_t capacityFrames, Consumer consume, FailureHandler onFailure,
                             const char* threadName)
    : m_channels(channels), m_samples(static_cast<size_t>(capacityFrames * channels)), m_records(kRecordCapacity),
      m_consume(std::move(consume)), m_onFailure(std::move(onFailure)), m_threadName(threadName),
      m_thread([this] { run(); }) {}

SampleHandOff::~SampleHandOff() {
    stop();
}

bool SampleHandOff::push(const float* interleaved, int64_t frames, int64_t captureNs) {
    return frames <= 0 || enqueue(interleaved, frames, captureNs);
}

bool SampleHandOff::pushHole(int64_t frames, int64_t captureNs) {
    return frames <= 0 || enqueue(nullptr, frames, captureNs);
}

bool SampleHandOff::enqueue(const float* interleaved, int64_t frames, int64_t captureNs) {
    const size_t count = interleaved ? static_cast<size_t>(frames * m_channels) : 0;
    const uint64_t recordWrite = m_recordWrite.load(std::memory_order_relaxed);
    const uint64_t recordRead = m_recordRead.load(std::memory_order_acquire);
    if (m_samples.capacity() - m_samples.available() < count || recordWrite - recordRead >= m_records.size()) {
        m_droppedFrames.fetch_add(frames, std::memory_order_relaxed);
        m_missingFrames.fetch_add(frames, std::memory_order_relaxed);
        return false;
    }
    if (count > 0)
        m_samples.push(interleaved, count);
    m_records[recordWrite % m_records.size()] =
        Record{frames, captureNs, m_missingFrames.exchange(0, std::memory_order_relaxed), interleaved == nullptr};
    m_recordWrite.store(recordWrite + 1, std::memory_order_release);
    return true;
}

bool SampleHandOff::drainOnce() {
    bool any = false;
    for (;;) {
        const uint64_t recordRead = m_recordRead.load(std::memory_order_relaxed);
        if (recordRead == m_recordWrite.load(std::memory_order_acquire))
            return any;
        const Record record = m_records[recordRead % m_records.size()];
        const float* data = nullptr;
        if (!record.hole) {
            const size_t count = static_cast<size_t>(record.frames * m_channels);
            m_scratch.resize(count);
            m_samples.pop(m_scratch.data(), count);
            data = m_scratch.data();
        }
        m_recordRead.store(recordRead + 1, std::memory_order_release);
        try {
            m_consume(Chunk{data, record.frames, record.captureNs, record.missingFrames});
        } catch (...) {
            if (m_onFailure)
                m_onFailure(std::current_exception());
        }
        any = true;
    }
}

void SampleHandOff::run() {
    char name[16] = {}; // the kernel keeps 15 characters
    std::copy_n(m_threadName, std::min<size_t>(15, std::char_traits<char>::length(m_threadName)), name);
    pthread_setname_np(pthread_self(), name);
    std::unique_lock lock(m_mutex);
    while (!m_stopping) {
        m_wake.wait_for(lock, kWakeInterval);
        lock.unlock();
        drainOnce();
        lock.lock();
    }
    lock.unlock();
    drainOnce();
}

void SampleHandOff::stop() {
    {
        std::lock_guard lock(m_mutex);
        if (m_stopping && !m_thread.joinable())
            return;
        m_stopping = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable() && m_thread.get_id() != std::this_thread::get_id())
        m_thread.join();
}

} // namespace tavrel
