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

std::shared_ptr<RecordingClock> CaptureSourceBase::recordingClock() {
    if (!m_clock)
        m_clock = std::make_shared<RecordingClock>();
    return m_clock;
}

} // namespace tavrel
