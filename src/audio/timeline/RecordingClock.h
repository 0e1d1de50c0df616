#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <mutex>
#include <optional>
#include <vector>

namespace tavrel {

/// The monotonic clock in ns, the clock every capture time is given in.
int64_t monotonicNowNs();

/// The one clock of a recording that every track keeps: its time zero and the stretches it was paused, on
/// the monotonic clock. Each track places what it captured by capture time against it, so all tracks leave
/// out exactly the same stretches, whatever their streams were doing at the time (idle, moved, reconnecting).
///
/// `pause()` and `resume()` come from one thread (the orchestrator's); writer threads read the pauses,
/// keeping a copy until `version()` moves.
class RecordingClock {
public:
    struct Pause {
        int64_t startNs;
        int64_t endNs; ///< kOpen while the pause lasts
    };
    static constexpr int64_t kOpen = std::numeric_limits<int64_t>::max();

    explicit RecordingClock(int64_t originNs = monotonicNowNs()) : m_originNs(originNs) {}

    int64_t originNs() const { return m_originNs; }
    /// Does nothing when already paused. Also ends a recording: nothing captured after a pause that is never
    /// resumed reaches any track.
    void pause(int64_t atNs = monotonicNowNs());
    /// Does nothing when not paused.
    void resume(int64_t atNs = monotonicNowNs());
    bool isPaused() const { return m_paused.load(); }
    /// When the current pause (or the end) began; none while running.
    std::optional<int64_t> pausedSinceNs() const;

    /// Every pause so far, in order; the last one is open while paused.
    std::vector<Pause> pauses() const;
    /// Moves at every pause and resume.
    uint64_t version() const { return m_version.load(std::memory_order_acquire); }

private:
    const int64_t m_originNs;
    mutable std::mutex m_mutex;
    std::vector<Pause> m_pauses; // under m_mutex
    std::atomic<bool> m_paused{false};
    std::atomic<uint64_t> m_version{0};
};

} // namespace tavrel
