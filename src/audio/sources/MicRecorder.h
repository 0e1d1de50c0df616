#pragma once

#include "audio/CaptureEvent.h"

#include <QString>
#include <atomic>
#include <memory>

namespace tavrel {

class CaptureTrack;
class PulseContext;
class PulseStreamKeeper;
class RecordingClock;

/// Records the microphone (the audio server's default source) into an AAC .m4a, 44 100 Hz mono, on the road
/// every side takes: a libpulse record stream that follows the default source and comes back after the audio
/// server restarted, and a capture track that keeps it on the recording's clock (holes, lost frames and clock
/// drift as silence, paused stretches left out). Levels are the average power over the samples since the
/// previous `updateMeters()`, and silence once no sample came for a moment (a stream that went away).
///
/// Created and `record()`ed from one thread (the orchestrator's); `updateMeters()` and `averagePower()` from
/// the thread that shows the levels; `stop()` blocks until the file is finished.
class MicRecorder {
public:
    static constexpr int kSampleRateHz = 44100;
    static constexpr int kChannels = 1;
    static constexpr float kSilenceDb = -160.0f;

    enum class Access { authorized, denied };
    /// Whether the audio server lets this client read the default source. A server that cannot be reached
    /// counts as authorised: opening the stream then reports the real failure.
    static Access microphoneAccess();

    /// Reaches the audio server and creates the file. Throws `PulseError` or `FfmpegError` when it cannot.
    MicRecorder(const QString& path, std::shared_ptr<RecordingClock> clock, CaptureEvents events = {});
    ~MicRecorder();
    MicRecorder(const MicRecorder&) = delete;
    MicRecorder& operator=(const MicRecorder&) = delete;

    /// Connects to the default source. False (see `lastError()`) when the stream cannot run.
    bool record();
    /// Takes what the server still holds up to this moment, finishes the file. Throws `Error` when the file
    /// cannot be finished (it then stays readable but fragmented). Further calls do nothing.
    void stop();

    void updateMeters();
    /// dBFS of the last `updateMeters()` (kSilenceDb before any sample).
    float averagePower(int channel) const;

    const QString& path() const { return m_path; }
    /// Frames written to the file so far (silence put in for gaps excluded).
    int64_t framesWritten() const;
    /// Why `record()` failed, for the log.
    QString lastError() const { return m_lastError; }

private:
    QString m_path;
    std::shared_ptr<const RecordingClock> m_clock;
    std::shared_ptr<PulseContext> m_pulse;
    std::unique_ptr<CaptureTrack> m_track;
    std::unique_ptr<PulseStreamKeeper> m_keeper;
    bool m_recording = false;
    bool m_stopped = false;
    QString m_lastError;

    std::atomic<double> m_meterSumSquares{0.0};
    std::atomic<int64_t> m_meterCount{0};
    std::atomic<float> m_averagePowerDb{kSilenceDb};
    int64_t m_lastSamplesNs = 0; // the meter's thread
};

} // namespace tavrel
