#pragma once

#include "audio/timeline/SampleRing.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace tavrel {

/// Carries interleaved float chunks, each with its capture time, from an audio callback to a writer thread.
///
/// The callback side (`push`, `pushHole`) only copies into preallocated rings and bumps atomics: no lock,
/// no allocation, no system call, so it is safe on a real-time thread. A chunk that does not fit is dropped
/// and counted, and the next chunk carries how many frames went missing just before it. The writer thread
/// wakes every few milliseconds, hands each chunk to `consume`, and on `stop()` drains what is left before
/// returning. One producer thread at a time, one consumer thread.
class SampleHandOff {
public:
    struct Chunk {
        const float* samples; ///< interleaved; nullptr for a hole the server reported (silence)
        int64_t frames;
        int64_t captureNs;     ///< monotonic time of the first frame
        int64_t missingFrames; ///< dropped just before this chunk because the ring was full
    };
    using Consumer = std::function<void(const Chunk&)>;
    /// An exception thrown by `consume`, on the writer thread; the next chunks are still handed on.
    using FailureHandler = std::function<void(std::exception_ptr)>;

    SampleHandOff(int channels, int64_t capacityFrames, Consumer consume, FailureHandler onFailure,
                  const char* threadName);
    ~SampleHandOff();
    SampleHandOff(const SampleHandOff&) = delete;
    SampleHandOff& operator=(const SampleHandOff&) = delete;

    /// Queues a chunk; false (and the chunk is dropped) when the writer has fallen a whole ring behind.
    bool push(const float* interleaved, int64_t frames, int64_t captureNs);
    /// Queues a stretch the server could not capture, to become silence of its length.
    bool pushHole(int64_t frames, int64_t captureNs);
    /// Drains everything queued, then ends the writer thread. Idempotent.
    void stop();
    /// Frames dropped because the ring was full.
    int64_t droppedFrames() const { return m_droppedFrames.load(std::memory_order_relaxed); }

private:
    struct Record {
        int64_t frames;
        int64_t captureNs;
        int64_t missingFrames;
        bool hole;
    };
    static constexpr size_t kRecordCapacity = 4096;

    bool enqueue(const float* interleaved, int64_t frames, int64_t captureNs);
    void run();
    bool drainOnce();

    int m_channels;
    SampleRing m_samples;
    std::vector<Record> m_records;
    std::atomic<uint64_t> m_recordWrite{0};
    std::atomic<uint64_t> m_recordRead{0};
    std::atomic<int64_t> m_droppedFrames{0};
    std::atomic<int64_t> m_missingFrames{0}; // producer side: dropped since the last chunk that went through
    Consumer m_consume;
    FailureHandler m_onFailure;
    std::vector<float> m_scratch; // a chunk that wraps around the ring, made contiguous
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stopping = false;
    const char* m_threadName;
    std::thread m_thread; // last
};

} // namespace tavrel
