#include "audio/timeline/SampleHandOff.h"

#include <algorithm>
#include <chrono>
#include <pthread.h>
#include <string>

namespace tavrel {

namespace {
constexpr auto kWakeInterval = std::chrono::milliseconds(20);
}

SampleHandOff::SampleHandOff(int channels, int64_t capacityFrames, Consumer consume, const char* threadName)
    : m_channels(channels), m_samples(static_cast<size_t>(capacityFrames * channels)), m_records(kRecordCapacity),
      m_consume(std::move(consume)), m_threadName(threadName), m_thread([this] { run(); }) {}

SampleHandOff::~SampleHandOff() {
    stop();
}

bool SampleHandOff::push(const float* interleaved, int64_t frames, int64_t positionFrames) {
    if (frames <= 0)
        return true;
    const size_t count = static_cast<size_t>(frames * m_channels);
    const uint64_t recordWrite = m_recordWrite.load(std::memory_order_relaxed);
    const uint64_t recordRead = m_recordRead.load(std::memory_order_acquire);
    if (m_samples.capacity() - m_samples.available() < count || recordWrite - recordRead >= m_records.size()) {
        m_dropped.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    m_samples.push(interleaved, count);
    m_records[recordWrite % m_records.size()] = Record{frames, positionFrames};
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
        const size_t count = static_cast<size_t>(record.frames * m_channels);
        m_scratch.resize(count);
        m_samples.pop(m_scratch.data(), count);
        const float* data = m_scratch.data();
        try {
            m_consume(data, record.frames, record.position);
        } catch (...) {
            // A chunk the writer refuses is lost; the recording goes on with the next one.
        }
        m_recordRead.store(recordRead + 1, std::memory_order_release);
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
    if (m_thread.joinable())
        m_thread.join();
}

} // namespace tavrel
