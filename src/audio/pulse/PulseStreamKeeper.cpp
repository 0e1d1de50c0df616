#include "audio/pulse/PulseStreamKeeper.h"

#include "audio/pulse/PulseCapture.h"
#include "audio/timeline/CaptureTrack.h"
#include "audio/timeline/RecordingClock.h"
#include "core/Log.h"

#include <pthread.h>

namespace tavrel {

namespace {

using namespace std::chrono_literals;

// A server that is coming back answers quickly or not at all; the watcher tries again soon anyway.
constexpr auto kReconnectTimeout = 1000ms;

int64_t nanoseconds(std::chrono::milliseconds duration) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count();
}

} // namespace

PulseStreamKeeper::PulseStreamKeeper(Settings settings, Resolve resolve, CaptureTrack& track, CaptureEvents events)
    : m_settings(std::move(settings)), m_resolve(std::move(resolve)), m_track(track), m_events(std::move(events)) {}

PulseStreamKeeper::~PulseStreamKeeper() {
    stop();
}

QString PulseStreamKeeper::target() const {
    const auto expected = m_expected.load();
    return expected ? *expected : QString();
}

void PulseStreamKeeper::start(std::shared_ptr<PulseContext> pulse, const Target& first) {
    connect(std::move(pulse), first);
    m_watcher = std::jthread([this](std::stop_token stop) { watch(stop); });
}

void PulseStreamKeeper::stop(std::optional<int64_t> capturedUntilNs) {
    if (m_watcher.joinable()) {
        // Sources stopped one after another wait only for what remains of the tail, not each a whole one.
        const int64_t waitNs = capturedUntilNs.value_or(monotonicNowNs()) + nanoseconds(kTailWait) - monotonicNowNs();
        if (m_connected.load() && waitNs > 0)
            std::this_thread::sleep_for(std::chrono::nanoseconds(waitNs));
        m_watcher.request_stop();
        m_watcher.join();
    }
    disconnect();
}

void PulseStreamKeeper::connect(std::shared_ptr<PulseContext> pulse, const Target& target) {
    setTarget(target);
    auto capture =
        std::make_unique<PulseCapture>(pulse, m_settings.streamName, m_settings.sampleRateHz, m_settings.channels);
    m_verified.store(true);
    PulseCapture::MovedHandler onMoved;
    if (m_settings.follow)
        onMoved = [this](const QString& source) { this->onMoved(source); };
    capture->connect(
        target.source,
        [this](const float* samples, int64_t frames, int64_t captureNs) { onChunk(samples, frames, captureNs); },
        [this](const QString& reason) { onEnded(reason); }, std::move(onMoved));
    m_track.setDeviceInUse(target.inUse);
    if (m_settings.events != PA_SUBSCRIPTION_MASK_NULL) {
        try {
            m_subscription =
                pulse->subscribe(m_settings.events, [this](pa_subscription_event_type_t, uint32_t) { wake(); });
        } catch (const PulseError&) {
            // Without events the watcher still looks now and then.
        }
    }
    m_capture = std::move(capture);
    m_pulse = std::move(pulse);
    m_movedTo.clear();
    m_connected.store(true);
}

void PulseStreamKeeper::disconnect() {
    m_connected.store(false);
    m_subscription = PulseSubscription();
    if (m_capture)
        m_capture->disconnect();
    m_capture.reset();
    // A connection the server dropped goes with its last user, off its own mainloop thread.
    m_pulse.reset();
}

void PulseStreamKeeper::setTarget(const Target& target) {
    if (!m_label.isEmpty() && target.label != m_label && !m_settings.changeLog.isEmpty())
        logLine(m_settings.changeLog + target.label);
    m_label = target.label;
    const auto current = m_expected.load();
    if (current && *current == target.source)
        return;
    m_expected.store(std::make_shared<const QString>(target.source));
    if (!target.note.isEmpty())
        logLine(target.note);
}

void PulseStreamKeeper::wake() {
    {
        std::lock_guard lock(m_mutex);
        m_wakePending = true;
    }
    m_wake.notify_one();
}

void PulseStreamKeeper::watch(std::stop_token stop) {
    pthread_setname_np(pthread_self(), m_settings.threadName);
    while (!stop.stop_requested()) {
        bool woken = false;
        {
            std::unique_lock lock(m_mutex);
            const auto interval = !m_connected.load()                   ? kRetryInterval
                                  : std::exchange(m_recheckSoon, false) ? kMoveCheckInterval
                                                                        : kPollInterval;
            woken = m_wake.wait_for(lock, stop, interval, [this] { return m_wakePending; });
            m_wakePending = false;
        }
        if (stop.stop_requested())
            return;
        if (m_ended.exchange(false)) {
            QString reason;
            {
                std::lock_guard lock(m_mutex);
                reason = m_endReason;
            }
            logLine(m_settings.logPrefix + QStringLiteral(" Flux interrompu : ") + reason);
            disconnect();
            m_lostSinceNs = monotonicNowNs();
        }
        if (!m_capture) {
            reconnect();
            continue;
        }
        if (woken)
            std::this_thread::sleep_for(kSettle); // a device change comes as a burst of events
        refresh();
    }
}

void PulseStreamKeeper::reconnect() {
    try {
        auto pulse = PulseContext::instance(kReconnectTimeout);
        const std::optional<Target> target = m_resolve(*pulse);
        if (!target)
            throw PulseError(QStringLiteral("rien à enregistrer pour l'instant"));
        connect(std::move(pulse), *target);
        logLine(m_settings.logPrefix + QStringLiteral(" Flux rétabli → ") + target->source);
        if (std::exchange(m_lostReported, false) && m_events)
            m_events(CaptureEvent{CaptureEvent::Kind::sideBack, m_settings.side, {}});
        return;
    } catch (const Error&) {
        disconnect();
    }
    if (!m_lostReported && monotonicNowNs() - m_lostSinceNs >= nanoseconds(kLostAfter)) {
        m_lostReported = true;
        logLine(m_settings.logPrefix + QStringLiteral(" Flux toujours interrompu, nouvel essai en continu"));
        if (m_events)
            m_events(CaptureEvent{CaptureEvent::Kind::sideLost, m_settings.side, {}});
    }
}

void PulseStreamKeeper::refresh() {
    if (!m_pulse->isReady()) {
        onEnded(pulseErrorText(PA_ERR_CONNECTIONTERMINATED));
        return;
    }
    std::optional<Target> target;
    try {
        target = m_resolve(*m_pulse);
    } catch (const PulseError&) {
        return;
    }
    if (!target)
        return; // nowhere to record for now: nothing is handed on meanwhile
    m_track.setDeviceInUse(target->inUse);
    if (m_settings.follow)
        setTarget(*target);
    const QString expected = this->target();
    const QString current = m_capture->sourceName();
    if (current.isEmpty())
        return; // the server did not say; the next look will
    if (current == expected) {
        m_verified.store(true);
        return;
    }
    m_verified.store(false);
    if (!m_settings.follow)
        return;
    // Moving keeps the stream without a gap. pipewire-pulse may say yes and leave the stream where its policy put
    // it: a move that did not stick is not tried again, a new stream on the target does it.
    if (m_movedTo != expected && m_capture->moveTo(expected)) {
        m_movedTo = expected;
        m_recheckSoon = true;
        const QString now = m_capture->sourceName();
        m_verified.store(now == expected);
        logLine(m_settings.logPrefix + QStringLiteral(" Flux déplacé de ") + current + QStringLiteral(" vers ") +
                expected + (now == expected ? QString() : QStringLiteral(" (toujours sur ") + now + u')'));
        return;
    }
    logLine(m_settings.logPrefix + QStringLiteral(" Flux resté sur ") + current + QStringLiteral(", nouveau flux → ") +
            expected);
    std::shared_ptr<PulseContext> pulse = m_pulse;
    disconnect();
    try {
        connect(std::move(pulse), *target);
    } catch (const PulseError& error) {
        onEnded(error.localizedDescription());
    }
}

void PulseStreamKeeper::onChunk(const float* samples, int64_t frames, int64_t captureNs) {
    if (!m_verified.load(std::memory_order_relaxed))
        return;
    if (samples)
        m_track.push(samples, frames, captureNs);
    else
        m_track.pushHole(frames, captureNs);
}

void PulseStreamKeeper::onEnded(const QString& reason) {
    {
        std::lock_guard lock(m_mutex);
        m_endReason = reason;
    }
    m_ended.store(true);
    wake();
}

void PulseStreamKeeper::onMoved(const QString& source) {
    const auto expected = m_expected.load();
    m_verified.store(expected && *expected == source);
    wake();
}

} // namespace tavrel
