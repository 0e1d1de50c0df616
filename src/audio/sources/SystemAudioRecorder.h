#pragma once

#include "audio/sources/CaptureSourceBase.h"

#include <QString>
#include <atomic>
#include <memory>
#include <optional>

namespace tavrel {

class CaptureTrack;
class PulseContext;
class PulseStreamKeeper;

/// Everything the computer plays, taken from the default output's monitor through the audio server and
/// encoded as it comes to "tavrel_sys_<T>.m4a" (44 100 Hz stereo AAC). The stream follows the default output
/// (an output that is a filter, such as an echo canceller, is recorded at the device behind it, which hears
/// everything) and comes back by itself after the audio server restarted; the track keeps real time through
/// idle outputs and reconnections, and leaves paused stretches out.
class SystemAudioRecorder : public CaptureSourceBase {
public:
    static constexpr const char* kThreadName = "fr.tavrel.recorder.sysaudio";
    static constexpr int kSampleRateHz = 44100;
    static constexpr int kChannels = 2;

    SystemAudioRecorder();
    ~SystemAudioRecorder() override;
    SystemAudioRecorder(const SystemAudioRecorder&) = delete;
    SystemAudioRecorder& operator=(const SystemAudioRecorder&) = delete;

    /// Throws `SystemAudioFailure(permissionDenied)` when the server cannot be queried,
    /// `SystemAudioFailure(noDisplay)` when there is no default output, or the writer's or stream's error.
    void startBlocking() override;
    std::optional<QString> stopBlocking() override;
    float currentLevel() const override;

    bool isRecording() const { return m_isRecording.load(); }
    /// Whether the stream is connected to the audio server now.
    bool isConnected() const;
    /// The monitor the stream is meant to read (the default output's).
    QString expectedSource() const;

    /// The smoothed level after one chunk (every 16th value, 0.6 old + 0.4 new), exposed for tests.
    static float smoothedLevel(float previous, const float* samples, int64_t count);

private:
    std::unique_ptr<CaptureTrack> m_track;
    std::unique_ptr<PulseStreamKeeper> m_keeper;
    std::atomic<bool> m_isRecording{false};
};

} // namespace tavrel
