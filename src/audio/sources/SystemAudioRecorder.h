#pragma once

#include "audio/pulse/PulseContext.h"
#include "audio/sources/CaptureSourceBase.h"
#include "audio/timeline/CaptureTimeline.h"

#include <QString>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace tavrel {

class M4aWriter;
class PulseCapture;
class SampleHandOff;

/// Everything the computer plays, taken from the default output's monitor through the audio server and
/// encoded as it comes to "tavrel_sys_<T>.m4a" (44 100 Hz stereo AAC). Paused stretches are left out of
/// the file; idle stretches (a suspended output sends nothing) are kept as silence so the track stays on
/// real time; when the default output changes, the stream moves to the new output's monitor. An output that
/// is a filter (echo canceller, remapping) is recorded at the device behind it, which hears everything.
class SystemAudioRecorder : public CaptureSourceBase {
public:
    static constexpr const char* kThreadName = "fr.tavrel.recorder.sysaudio";
    static constexpr int kSampleRateHz = 44100;
    static constexpr int kChannels = 2;
    /// The default output is checked when the server reports a change, and at least this often.
    static constexpr int kFollowFallbackMs = 5000;
    /// How long a burst of device events is left to settle before the output is looked at.
    static constexpr int kFollowSettleMs = 100;

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
    /// The monitor the stream is meant to read (the default output's).
    QString expectedSource() const;

    /// The smoothed level after one chunk (every 16th value, 0.6 old + 0.4 new), exposed for tests.
    static float smoothedLevel(float previous, const float* samples, int64_t count);

private:
    void onChunk(const float* samples, int64_t frames, int64_t captureNs);
    void onEnded(const QString& reason);
    void onMoved(const QString& source);
    void followDefaultOutput(std::stop_token stop);
    void stopFollowing();

    std::shared_ptr<PulseContext> m_pulse;
    std::unique_ptr<M4aWriter> m_writer;
    std::unique_ptr<SampleHandOff> m_handOff;
    std::unique_ptr<PulseCapture> m_capture;
    std::optional<CaptureTimeline> m_timeline; // mainloop thread only
    // Declared before the follower and the subscription that use them, so that they outlive both.
    std::mutex m_followMutex;
    std::condition_variable_any m_followWake;
    bool m_outputEventPending = false; // under m_followMutex
    std::jthread m_follower;
    PulseSubscription m_outputEvents;

    std::atomic<bool> m_isRecording{false};
    std::atomic<bool> m_sourceVerified{false};
    std::atomic<bool> m_ended{false};
    // Written by the follower thread, read on the mainloop thread when the stream moves.
    std::atomic<std::shared_ptr<const QString>> m_expectedSource;
    QString m_announcedDefault; // the default output last written to the log; follower thread after start
};

} // namespace tavrel
