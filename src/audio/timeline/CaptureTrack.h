#pragma once

#include "audio/CaptureEvent.h"
#include "audio/timeline/CaptureTimeline.h"
#include "audio/timeline/SampleHandOff.h"

#include <QString>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace tavrel {

class TrackFile;

/// One side's track, from its capture callback to its file: the one road every side's samples take.
///
///     capture callback ──push()──▶ lock-free hand-off ──▶ writer thread: CaptureTimeline ──▶ TrackFile
///
/// The callback only copies samples and their capture time. The writer thread places them on the
/// recording's clock (holes, lost frames and drift become silence, paused stretches are left out), writes
/// them, feeds the level meter, and watches for a side that delivers nothing but digital silence while its
/// device is in use. The first write failure is reported once and ends writing; what was written stays.
class CaptureTrack {
public:
    struct Settings {
        int sampleRateHz = 44100;
        int channels = 2;
        const char* threadName = "tavrel-track";
        CaptureSide side = CaptureSide::systemAudio;
        QString logPrefix; ///< e.g. "[SystemAudio]"
        /// How long only digital silence may arrive, device in use, before the side is reported silent.
        int64_t silenceReportNs = 15'000'000'000;
        /// The hand-off's room: how long the writer may stall without losing anything.
        int64_t bufferSeconds = 10;
        /// How much later than appending would put it a chunk must be to start after silence at once.
        int64_t holeNs = CaptureTimeline::kHoleNs;
    };
    /// Fed every delivered chunk that is not paused, on the writer thread (the level meter).
    using Meter = std::function<void(const float* interleaved, int64_t frames)>;

    CaptureTrack(std::unique_ptr<TrackFile> file, std::shared_ptr<const RecordingClock> clock, Settings settings,
                 CaptureEvents events, Meter meter = {});
    ~CaptureTrack();
    CaptureTrack(const CaptureTrack&) = delete;
    CaptureTrack& operator=(const CaptureTrack&) = delete;

    /// Capture thread: a chunk whose first frame was captured at `captureNs` (monotonic).
    void push(const float* interleaved, int64_t frames, int64_t captureNs) {
        m_handOff->push(interleaved, frames, captureNs);
    }
    /// Capture thread: a stretch the server reports as not captured.
    void pushHole(int64_t frames, int64_t captureNs) { m_handOff->pushHole(frames, captureNs); }

    /// Whether the side's device is in use now (the microphone unmuted, something playing on the output):
    /// digital silence counts against the side only then. Any thread.
    void setDeviceInUse(bool inUse) { m_deviceInUse.store(inUse, std::memory_order_relaxed); }
    bool isSilent() const { return m_silenceReported.load(); }
    bool writeFailed() const { return m_writeFailed.load(); }
    /// Frames that reached the file so far.
    int64_t framesWritten() const { return m_framesWritten.load(std::memory_order_relaxed); }

    /// Writes what is still queued, finishes the file and logs what was lost and filled. Throws what the
    /// file's finishing throws (the file then stays readable as written). Further calls do nothing.
    void finish();

private:
    void consume(const SampleHandOff::Chunk& chunk);
    void watchSilence(const float* samples, int64_t frames);
    void onWriteFailure(std::exception_ptr failure);
    void report(CaptureEvent::Kind kind, const QString& detail = {});

    std::unique_ptr<TrackFile> m_file;
    Settings m_settings;
    CaptureEvents m_events;
    Meter m_meter;
    CaptureTimeline m_timeline;  // writer thread
    int64_t m_zeroRunFrames = 0; // writer thread
    std::atomic<bool> m_deviceInUse{false};
    std::atomic<bool> m_silenceReported{false};
    std::atomic<bool> m_writeFailed{false};
    std::atomic<int64_t> m_framesWritten{0};
    bool m_finished = false;
    std::unique_ptr<SampleHandOff> m_handOff; // last: its thread uses everything above
};

} // namespace tavrel
