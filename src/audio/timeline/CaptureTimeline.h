#pragma once

#include <cstdint>
#include <optional>

namespace tavrel {

/// The monotonic clock in ns, the clock every capture time is given in.
int64_t monotonicNowNs();

/// Places captured chunks on a recording's timeline, in frames since the source started.
///
/// Linux audio servers deliver nothing while an output is idle or suspended, and a device clock drifts
/// from the system clock; a track built only by appending chunks would slide against the microphone. So
/// each chunk's capture time (monotonic clock) is compared with where appending would put it: a hole
/// (no data for a while) becomes silence at once, and a slow drift either way is corrected once it is
/// larger than the timing noise over a window. Paused stretches are left out of the file: the first chunk
/// after a pause measures the gap since the end of the last written chunk and adds it to the pause offset.
///
/// Used from one thread (the capture callback's).
class CaptureTimeline {
public:
    /// Gaps longer than this are silence right away (a suspended sink, a moved stream).
    static constexpr int64_t kHoleNs = 150'000'000;
    /// Drift is measured as the smallest lag over this much audio...
    static constexpr int64_t kDriftWindowNs = 2'000'000'000;
    /// ...and corrected when it exceeds this.
    static constexpr int64_t kDriftToleranceNs = 15'000'000;

    CaptureTimeline(int64_t startNs, int sampleRateHz) : m_startNs(startNs), m_sampleRateHz(sampleRateHz) {}

    /// The stream clock of a chunk whose first frame was captured at `captureNs`: frames since the start,
    /// pauses included. Call for every chunk, paused or not, so that the clock keeps running.
    int64_t place(int64_t captureNs, int64_t frames);

    /// Where a chunk of the stream clock `streamFrame` goes in the file, or none while paused.
    /// `paused` is the source's pause flag as seen when the chunk is handled.
    std::optional<int64_t> filePosition(int64_t streamFrame, int64_t frames, bool paused);

    int64_t pauseOffsetFrames() const { return m_pauseOffset; }
    int sampleRateHz() const { return m_sampleRateHz; }

private:
    int64_t framesAt(int64_t ns) const;

    int64_t m_startNs;
    int m_sampleRateHz;
    bool m_started = false;
    int64_t m_next = 0;         // stream clock where appending puts the next chunk
    int64_t m_windowStart = 0;  // stream clock where the current drift window began
    int64_t m_windowMinLag = 0; // smallest (expected - appended) seen in the window
    bool m_windowEmpty = true;
    // Pause bookkeeping, in stream-clock frames.
    int64_t m_pauseOffset = 0;
    std::optional<int64_t> m_lastEnd; // end of the last written chunk
    bool m_resync = false;
};

} // namespace tavrel
