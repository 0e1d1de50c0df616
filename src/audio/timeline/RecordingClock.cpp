#include "audio/timeline/RecordingClock.h"

#include <algorithm>
#include <time.h>

namespace tavrel {

int64_t monotonicNowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

void RecordingClock::pause(int64_t atNs) {
    std::lock_guard lock(m_mutex);
    if (m_paused.load())
        return;
    m_pauses.push_back(Pause{atNs, kOpen});
    m_paused.store(true);
    m_version.fetch_add(1, std::memory_order_release);
}

void RecordingClock::resume(int64_t atNs) {
    std::lock_guard lock(m_mutex);
    if (!m_paused.load())
        return;
    m_pauses.back().endNs = std::max(atNs, m_pauses.back().startNs);
    m_paused.store(false);
    m_version.fetch_add(1, std::memory_order_release);
}

std::optional<int64_t> RecordingClock::pausedSinceNs() const {
    std::lock_guard lock(m_mutex);
    if (!m_paused.load())
        return std::nullopt;
    return m_pauses.back().startNs;
}

std::vector<RecordingClock::Pause> RecordingClock::pauses() const {
    std::lock_guard lock(m_mutex);
    return m_pauses;
}

} // namespace tavrel
