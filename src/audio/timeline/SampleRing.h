#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <vector>

namespace tavrel {

/// Single-producer single-consumer ring of float samples: the capture callback pushes, the encoder thread
/// pops, neither waits for the other. Its user keeps frames whole (SampleHandOff pushes a chunk only where it
/// fits, and pops exactly the chunks it pushed).
class SampleRing {
public:
    explicit SampleRing(std::size_t minimumCapacity)
        : m_buffer(std::bit_ceil(minimumCapacity < 2 ? std::size_t{2} : minimumCapacity)), m_mask(m_buffer.size() - 1) {
    }

    std::size_t capacity() const { return m_buffer.size(); }

    /// Producer side. Copies as many samples as fit; returns how many.
    std::size_t push(const float* samples, std::size_t count) {
        const std::size_t head = m_head.load(std::memory_order_relaxed);
        const std::size_t tail = m_tail.load(std::memory_order_acquire);
        std::size_t room = m_buffer.size() - (head - tail);
        if (count > room)
            count = room;
        for (std::size_t i = 0; i < count; ++i)
            m_buffer[(head + i) & m_mask] = samples[i];
        m_head.store(head + count, std::memory_order_release);
        return count;
    }

    /// Consumer side. Copies up to `maxCount` samples; returns how many.
    std::size_t pop(float* out, std::size_t maxCount) {
        const std::size_t tail = m_tail.load(std::memory_order_relaxed);
        const std::size_t head = m_head.load(std::memory_order_acquire);
        std::size_t count = head - tail;
        if (count > maxCount)
            count = maxCount;
        for (std::size_t i = 0; i < count; ++i)
            out[i] = m_buffer[(tail + i) & m_mask];
        m_tail.store(tail + count, std::memory_order_release);
        return count;
    }

    std::size_t available() const {
        return m_head.load(std::memory_order_acquire) - m_tail.load(std::memory_order_acquire);
    }

private:
    std::vector<float> m_buffer;
    std::size_t m_mask;
    alignas(64) std::atomic<std::size_t> m_head{0}; // written by the producer
    alignas(64) std::atomic<std::size_t> m_tail{0}; // written by the consumer
};

} // namespace tavrel
