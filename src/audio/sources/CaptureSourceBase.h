#pragma once

#include "audio/sources/SystemAudioSource.h"

#include <QString>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>

namespace tavrel {

/// What the system-audio sources share: the file, the pause flag and the level that the main thread reads
/// while a capture thread writes, the recording's clock and event sink, and start/stop as blocking bodies that
/// the coroutines run off the main thread (the audio servers' calls block).
class CaptureSourceBase : public SystemAudioSource {
public:
    std::optional<QString> outputURL() const override { return m_outputURL; }
    QCoro::Task<> start() override;
    QCoro::Task<std::optional<QString>> stop() override;
    /// Pauses the recording's clock as well: a source used on its own leaves its paused time out.
    void pause() override;
    void resume() override;
    void setCaptureContext(std::shared_ptr<RecordingClock> clock, CaptureEvents events) override;

    /// The bodies of start()/stop(), for callers already off the main thread.
    virtual void startBlocking() = 0;
    virtual std::optional<QString> stopBlocking() = 0;

protected:
    /// The recording's clock, or one of this source's own that starts now.
    std::shared_ptr<RecordingClock> recordingClock();
    /// The track ends now: what the stream still delivers while it stops is left out. (The orchestrator has
    /// already ended a shared clock before it stops the first source.)
    void endTrackNow();
    /// The writer thread's latest level.
    void storeLevel(float level);
    /// The latest level; 0 while paused, and once no audio came for a moment (a stream that went away must not
    /// leave its meter standing as if it still recorded).
    float latestLevel() const;

    std::optional<QString> m_outputURL;
    std::atomic<bool> m_isPaused{false};
    std::atomic<float> m_level{0.0f};
    std::atomic<int64_t> m_levelAtNs{0};
    std::shared_ptr<RecordingClock> m_clock;
    CaptureEvents m_events;
};

} // namespace tavrel
