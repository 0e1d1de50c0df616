#pragma once

#include "audio/sources/SystemAudioSource.h"

#include <QString>
#include <atomic>
#include <cstdint>
#include <optional>

namespace tavrel {

/// What the system-audio sources share: the file, the pause flag and the level that the main thread
/// reads while a capture thread writes, the recording's time zero, and start/stop as blocking bodies that
/// the coroutines run off the main thread (the audio servers' calls block).
class CaptureSourceBase : public SystemAudioSource {
public:
    std::optional<QString> outputURL() const override { return m_outputURL; }
    QCoro::Task<> start() override;
    QCoro::Task<std::optional<QString>> stop() override;
    void pause() override { m_isPaused.store(true); }
    void resume() override { m_isPaused.store(false); }
    void setTimelineOrigin(int64_t monotonicNs) override { m_originNs = monotonicNs; }

    /// The bodies of start()/stop(), for callers already off the main thread.
    virtual void startBlocking() = 0;
    virtual std::optional<QString> stopBlocking() = 0;

protected:
    /// Time zero of this source's track: the recording's when the orchestrator gave one, now otherwise.
    int64_t timelineStartNs() const;

    std::optional<QString> m_outputURL;
    std::atomic<bool> m_isPaused{false};
    std::atomic<float> m_level{0.0f};
    int64_t m_originNs = 0;
};

} // namespace tavrel
