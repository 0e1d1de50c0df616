#include "audio/timeline/CaptureTimeline.h"

#include <algorithm>
#include <limits>

namespace tavrel {

int64_t CaptureTimeline::framesAt(int64_t ns) const {
    const int64_t elapsed = ns - m_clock->originNs();
    // elapsed * rate stays within 64 bits for about fifty hours at 48 kHz.
    return elapsed * m_sampleRateHz / 1'000'000'000;
}

int64_t CaptureTimeline::place(int64_t captureNs, int64_t frames, int64_t missingFrames) {
    const int64_t expected = std::max<int64_t>(0, framesAt(captureNs));
    if (!m_started) {
        m_started = true;
        m_next = expected;
        m_windowStart = expected;
        m_windowEmpty = true;
    } else if (missingFrames > 0) {
        m_next += missingFrames;
        m_filledFrames += missingFrames;
    }
    const int64_t lag = expected - m_next;
    if (lag > m_holeFrames) {
        m_filledFrames += lag;
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
            if (m_windowMinLag > tolerance || m_windowMinLag < -tolerance) {
                m_next += m_windowMinLag;
                (m_windowMinLag > 0 ? m_filledFrames : m_overlappedFrames) += std::abs(m_windowMinLag);
            }
            m_windowStart = m_next;
            m_windowEmpty = true;
        }
    }
    const int64_t position = m_next;
    m_next += frames;
    return position;
}

void CaptureTimeline::refreshPauses() {
    const uint64_t version = m_clock->version();
    if (version == m_pausesVersion)
        return;
    m_pausesVersion = version;
    m_pauses.clear();
    for (const RecordingClock::Pause& pause : m_clock->pauses()) {
        const int64_t start = std::max<int64_t>(0, framesAt(pause.startNs));
        const int64_t end = pause.endNs == RecordingClock::kOpen ? std::numeric_limits<int64_t>::max()
                                                                 : std::max(start, framesAt(pause.endNs));
        m_pauses.push_back(PausedFrames{start, end});
    }
}

} // namespace tavrel
