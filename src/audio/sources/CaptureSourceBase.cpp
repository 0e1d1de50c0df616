#include "audio/sources/CaptureSourceBase.h"

#include "audio/BackgroundTask.h"
#include "audio/timeline/RecordingClock.h"

namespace tavrel {

QCoro::Task<> CaptureSourceBase::start() {
    auto starting = runInBackground([this] { startBlocking(); });
    co_await starting;
}

QCoro::Task<std::optional<QString>> CaptureSourceBase::stop() {
    auto stopping = runInBackground([this] { return stopBlocking(); });
    co_return co_await stopping;
}

void CaptureSourceBase::pause() {
    m_isPaused.store(true);
    if (m_clock)
        m_clock->pause();
}

void CaptureSourceBase::resume() {
    m_isPaused.store(false);
    if (m_clock)
        m_clock->resume();
}

void CaptureSourceBase::setCaptureContext(std::shared_ptr<RecordingClock> clock, CaptureEvents events) {
    m_clock = std::move(clock);
    m_events = std::move(events);
}

namespace {
constexpr int64_t kLevelHoldNs = 300'000'000;
}

void CaptureSourceBase::storeLevel(float level) {
    m_level.store(level, std::memory_order_relaxed);
    m_levelAtNs.store(monotonicNowNs(), std::memory_order_relaxed);
}

float CaptureSourceBase::latestLevel() const {
    if (m_isPaused.load() || monotonicNowNs() - m_levelAtNs.load(std::memory_order_relaxed) > kLevelHoldNs)
        return 0.0f;
    return m_level.load(std::memory_order_relaxed);
}

void CaptureSourceBase::endTrackNow() {
    if (m_clock)
        m_clock->pause();
}

std::shared_ptr<RecordingClock> CaptureSourceBase::recordingClock() {
    if (!m_clock)
        m_clock = std::make_shared<RecordingClock>();
    return m_clock;
}

} // namespace tavrel
