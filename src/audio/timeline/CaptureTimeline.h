#pragma once

#include "audio/timeline/RecordingClock.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace tavrel {

/// Places one track's captured chunks on its recording's clock, in frames since the recording's time zero.
///
/// Linux audio servers deliver nothing while an output is idle or suspended, drop data when a reader falls
/// behind, and a device clock drifts from the system clock; a track built only by appending chunks would
/// slide against the others. So each chunk's capture time (monotonic clock) is compared with where
/// appending would put it: a hole (no data for a while) becomes silence at once, frames known to be lost
/// are silence of their length, and a slow drift either way is corrected once it is larger than the
/// timing noise over a window. Then the recording's pauses are cut out, by capture time, the same way for
/// every track.
///
/// Used from one thread (the track's writer thread).
class CaptureTimeline {
public:
    /// Gaps longer than this are silence right away (a suspended sink, a moved stream, a reconnection).
    static constexpr int64_t kHoleNs = 150'000'000;
    /// Drift is measured as the smallest lag over this much audio...
    static constexpr int64_t kDriftWindowNs = 2'000'000'000;
    /// ...and corrected when it exceeds this.
    static constexpr int64_t kDriftToleranceNs = 15'000'000;

    /// `holeNs`: a chunk that much later than appending would put it starts after silence at once. A source timed
    /// by the audio graph's own cycles, without delivery jitter, takes a much smaller one than `kHoleNs`.
    CaptureTimeline(std::shared_ptr<const RecordingClock> clock, int sampleRateHz, int64_t holeNs = kHoleNs)
        : m_clock(std::move(clock)), m_sampleRateHz(sampleRateHz),
          m_holeFrames(static_cast<int64_t>(sampleRateHz) * holeNs / 1'000'000'000) {}

    /// The stream clock of a chunk whose first frame was captured at `captureNs`: frames since time zero,
    /// pauses included. `missingFrames` were lost just before it. Call for every chunk, paused or not.
    int64_t place(int64_t captureNs, int64_t frames, int64_t missingFrames = 0);

    /// Calls `write(filePosition, offsetInChunk, frameCount)` for each part of the stream-clock stretch
    /// [streamFrame, streamFrame + frames) that lies outside the recording's pauses (none while paused).
    template <typename Write>
    void toFile(int64_t streamFrame, int64_t frames, Write&& write);

    int sampleRateHz() const { return m_sampleRateHz; }
    /// Silence put in for holes, lost frames and a slow device clock, in frames.
    int64_t filledFrames() const { return m_filledFrames; }
    /// Frames given up to a fast device clock (they overlap what was written before).
    int64_t overlappedFrames() const { return m_overlappedFrames; }

private:
    struct PausedFrames {
        int64_t start;
        int64_t end; // INT64_MAX while open
    };
    int64_t framesAt(int64_t ns) const;
    void refreshPauses();

    std::shared_ptr<const RecordingClock> m_clock;
    int m_sampleRateHz;
    int64_t m_holeFrames;
    bool m_started = false;
    int64_t m_next = 0;         // stream clock where appending puts the next chunk
    int64_t m_windowStart = 0;  // stream clock where the current drift window began
    int64_t m_windowMinLag = 0; // smallest (expected - appended) seen in the window
    bool m_windowEmpty = true;
    int64_t m_filledFrames = 0;
    int64_t m_overlappedFrames = 0;
    uint64_t m_pausesVersion = 0;
    std::vector<PausedFrames> m_pauses;
};

template <typename Write>
void CaptureTimeline::toFile(int64_t streamFrame, int64_t frames, Write&& write) {
    refreshPauses();
    const int64_t end = streamFrame + frames;
    int64_t cursor = streamFrame;
    int64_t removed = 0; // paused frames before `cursor`
    for (const PausedFrames& pause : m_pauses) {
        if (pause.end <= cursor) {
            removed += pause.end - pause.start;
            continue;
        }
        if (pause.start >= end)
            break;
        if (pause.start > cursor)
            write(cursor - removed, cursor - streamFrame, pause.start - cursor);
        if (pause.end >= end)
            return;
        removed += pause.end - pause.start;
        cursor = pause.end;
    }
    if (cursor < end)
        write(cursor - removed, cursor - streamFrame, end - cursor);
}

} // namespace tavrel
