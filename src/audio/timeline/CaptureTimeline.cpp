#include "audio/timeline/CaptureTimeline.h"

#include <algorithm>
#include <time.h>

namespace tavrel {

int64_t monotonicNowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

int64_t CaptureTimeline::framesAt(int64_t ns) const {
    const int64_t elapsed = ns - m_startNs;
    // elapsed * rate stays within 64 bits for about fifty hours at 48 kHz.
    return elapsed * m_sampleRateHz / 1'000'000'000;
}

int64_t CaptureTimeline::place(int64_t captureNs, int64_t frames) {
    const int64_t expected = std::max<int64_t>(0, framesAt(captureNs));
    if (!m_started) {
        m_started = true;
        m_next = expected;
        m_windowStart = expected;
        m_windowEmpty = true;
    }
    const int64_t lag = expected - m_next;
    const int64_t hole = static_cast<int64_t>(m_sampleRateHz) * kHoleNs / 1'000'000'000;
    if (lag > hole) {
        m_next = expected;
        m_windowStart = expected;
        m_windowEmpty = true;
    } else {
        // Late delivery only ever makes a chunk look later than it is, so the smallest lag over a window
        // is the real offset between the two clocks.
        m_windowMinLag = m_windowEmpty ? lag : std::min(m_windowMinLag, lag);
        m_windowEmpty = false;
        const int64_t window = static_cast<int64_t>(m_sampleRateHz) * kDriftWindowNs / 1'000'000'000;
        if (m_next - m_windowStart >= window) {
            const int64_t tolerance = static_cast<int64_t>(m_sampleRateHz) * kDriftToleranceNs / 1'000'000'000;
            if (m_windowMinLag > tolerance || m_windowMinLag < -tolerance)
                m_next += m_windowMinLag;
            m_windowStart = m_next;
            m_windowEmpty = true;
        }
    }
    const int64_t position = m_next;
    m_next += frames;
    return position;
}

std::optional<int64_t> CaptureTimeline::filePosition(int64_t streamFrame, int64_t frames, bool paused) {
    if (paused) {
        m_resync = true;
        return std::nullopt;
    }
    if (m_resync && m_lastEnd) {
        m_pauseOffset += streamFrame - *m_lastEnd;
        m_resync = false;
    }
    m_lastEnd = streamFrame + frames;
    return streamFrame - m_pauseOffset;
}

} // namespace tavrel
