#pragma once

#include "audio/sources/SystemAudioSource.h"

#include <QString>
#include <atomic>
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

    std::optional<QString> m_outputURL;
    std::atomic<bool> m_isPaused{false};
    std::atomic<float> m_level{0.0f};
    std::shared_ptr<RecordingClock> m_clock;
    CaptureEvents m_events;
};

} // namespace tavrel
