#include "audio/sources/CaptureSourceBase.h"

#include "audio/BackgroundTask.h"
#include "audio/timeline/CaptureTimeline.h"

namespace tavrel {

QCoro::Task<> CaptureSourceBase::start() {
    co_await runInBackground([this] { startBlocking(); });
}

QCoro::Task<std::optional<QString>> CaptureSourceBase::stop() {
    co_return co_await runInBackground([this] { return stopBlocking(); });
}

int64_t CaptureSourceBase::timelineStartNs() const {
    return m_originNs > 0 ? m_originNs : monotonicNowNs();
}

} // namespace tavrel
