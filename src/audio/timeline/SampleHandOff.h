#pragma once

#include "audio/timeline/SampleRing.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace tavrel {

/// Carries interleaved float chunks from an audio callback to a writer thread.
///
/// The callback side (`push`) only copies into preallocated rings and bumps atomics: no lock, no
/// allocation, no system call, so it is safe on a real-time thread. The writer thread wakes every few
/// milliseconds, hands each chunk with its file position to `consume`, and on `stop()` drains what is left
/// before returning. One producer thread, one consumer thread.
class SampleHandOff {
public:
    /// interleaved samples, frame count, file position in frames
    using Consumer = std::function<void(const float*, int64_t, int64_t)>;

    SampleHandOff(int channels, int64_t capacityFrames, Consumer consume, const char* threadName);
    ~SampleHandOff();
    SampleHandOff(const SampleHandOff&) = delete;
    SampleHandOff& operator=(const SampleHandOff&) = delete;

    /// Queues a chunk; false (and the chunk is dropped) when the writer has fallen a whole ring behind.
    bool push(const float* interleaved, int64_t frames, int64_t positionFrames);
    /// Drains everything queued, then ends the writer thread. Idempotent.
    void stop();
    /// Chunks dropped because the ring was full.
    uint64_t droppedChunks() const { return m_dropped.load(std::memory_order_relaxed); }

private:
    struct Record {
        int64_t frames;
        int64_t position;
    };
    static constexpr size_t kRecordCapacity = 4096;

    void run();
    bool drainOnce();

    int m_channels;
    SampleRing m_samples;
    std::vector<Record> m_records;
    std::atomic<uint64_t> m_recordWrite{0};
    std::atomic<uint64_t> m_recordRead{0};
    std::atomic<uint64_t> m_dropped{0};
    Consumer m_consume;
    std::vector<float> m_scratch; // a chunk that wraps around the ring, made contiguous
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stopping = false;
    const char* m_threadName;
    std::thread m_thread; // last
};

} // namespace tavrel
