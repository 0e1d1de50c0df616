#include "audio/sources/ProcessTapRecorder.h"

#include "audio/files/CafWriter.h"
#include "audio/pipewire/PipeWireCapture.h"
#include "audio/pipewire/PipeWireConnection.h"
#include "audio/pipewire/PipeWireOutputWatcher.h"
#include "audio/timeline/CaptureTrack.h"
#include "audio/timeline/RecordingClock.h"
#include "core/Level.h"
#include "core/Log.h"
#include "core/RecordingFiles.h"

#include <QFile>
#include <QFileInfo>
#include <cmath>

namespace tavrel {

namespace {

using namespace std::chrono_literals;

constexpr auto kLinkTimeout = 3000ms;
constexpr auto kSuperviseInterval = 250ms;
constexpr auto kLostAfter = 10s;
// The last cycles before the stop still reach us a cycle or two later.
constexpr auto kTailWait = 60ms;
const QString kLogPrefix = QStringLiteral("[ProcessTap]");

/// The meter reads the first `count` values at the first channel's pointer, as it always has.
float levelOf(const float* samples, int64_t count) {
    if (count <= 0)
        return 0.0f;
    float sum = 0.0f;
    for (int64_t i = 0; i < count; ++i)
        sum += samples[i] * samples[i];
    const float rms = std::max(std::sqrt(sum / static_cast<float>(count)), 1e-7f);
    return levelFromDecibels(20.0f * std::log10(rms));
}

} // namespace

struct ProcessTapRecorder::Session {
    PipeWireConnection connection{kThreadName};
    std::unique_ptr<PipeWireOutputWatcher> watcher;
    std::unique_ptr<PipeWireCapture> capture;
};

ProcessTapRecorder::ProcessTapRecorder(Options options) : m_options(options) {}

ProcessTapRecorder::~ProcessTapRecorder() {
    if (m_running.load())
        stopBlocking();
    closeSession();
}

float ProcessTapRecorder::currentLevel() const {
    return latestLevel();
}

QString ProcessTapRecorder::targetSink() const {
    const auto target = m_target.load();
    return target ? *target : QString();
}

void ProcessTapRecorder::startBlocking() {
    // Time zero, when this source keeps its own clock: before the server is asked anything.
    const std::shared_ptr<RecordingClock> clock = recordingClock();
    const auto fails = [this](Step step) { return m_options.failAt == step; };
    const QString path = RecordingFiles::tapFile();
    try {
        if (fails(Step::file))
            throw FileWriteError(QStringLiteral("Création refusée"), EACCES);
        const CaptureTrack::Settings track{.sampleRateHz = kSampleRateHz,
                                           .channels = kChannels,
                                           .threadName = kThreadName,
                                           .side = CaptureSide::systemAudio,
                                           .logPrefix = kLogPrefix,
                                           .holeNs = PipeWireCapture::kMissedCycleNs};
        m_track = std::make_unique<CaptureTrack>(
            std::make_unique<CafWriter>(path, kSampleRateHz, kChannels), clock, track, m_events,
            [this](const float* samples, int64_t frames) { storeLevel(levelOf(samples, frames)); });
    } catch (const Error&) {
        QFile::remove(path); // the name was taken by creating the file
        throw SystemAudioFailure(SystemAudioError::tapFailed);
    }
    if (!openSession()) {
        m_track.reset();
        QFile::remove(path);
        throw SystemAudioFailure(SystemAudioError::tapFailed);
    }
    m_outputURL = path;
    m_connected.store(true);
    m_running.store(true);
    m_supervisor = std::jthread([this](std::stop_token stop) { supervise(stop); });
    logLine(kLogPrefix + QStringLiteral(" Capture démarrée → ") + QFileInfo(path).fileName());
}

bool ProcessTapRecorder::openSession() {
    const auto fails = [this](Step step) { return m_options.failAt == step; };
    m_session = std::make_unique<Session>();
    Session& session = *m_session;
    bool started = false;
    if (!fails(Step::connect) && session.connection.open()) {
        PwLoopLock lock(session.connection.loop());
        started = [&] {
            session.watcher = std::make_unique<PipeWireOutputWatcher>(session.connection, [this] { onGraphChanged(); });
            // Every global and the "default" metadata bound; then its properties and the nodes' full properties.
            if (!session.watcher->isValid() || !session.connection.roundTrip() || !session.connection.roundTrip())
                return false;
            if (fails(Step::defaultOutput) || session.watcher->defaultSink().isEmpty())
                return false;
            const QString target = session.watcher->targetSink();
            m_target.store(std::make_shared<const QString>(target));
            m_announcedDefault = session.watcher->defaultSink();
            session.capture = std::make_unique<PipeWireCapture>(
                session.connection, [this](const float* samples, int64_t frames, int64_t captureNs) {
                    onChunk(samples, frames, captureNs);
                });
            if (fails(Step::stream) || !session.capture->connect(target))
                return false;
            if (fails(Step::format) || !session.connection.waitLocked([&] {
                    return session.capture->hasFailed() || session.capture->isRunning();
                }) ||
                !session.capture->isRunning())
                return false;
            // A stream whose target is not there ends up on the default microphone without a word: only an
            // established link to an output device counts as started.
            if (fails(Step::link) || !session.connection.waitLocked(
                                         [&] {
                                             const auto source =
                                                 session.watcher->linkedSourceOf(session.capture->nodeId());
                                             return source && session.watcher->isOutputDevice(*source);
                                         },
                                         kLinkTimeout))
                return false;
            onGraphChanged();
            if (target != m_announcedDefault)
                logLine(kLogPrefix + QStringLiteral(" Sortie filtrée, capture du périphérique → ") + target);
            return true;
        }();
    }
    // Every failure leaves the locked scope first: the loop cannot be stopped while its lock is held.
    if (!started)
        closeSession();
    return started;
}

void ProcessTapRecorder::closeSession() {
    if (!m_session)
        return;
    m_linkVerified.store(false);
    if (m_session->connection.loop()) {
        PwLoopLock lock(m_session->connection.loop());
        m_session->capture.reset();
        m_session->watcher.reset();
    }
    m_session->connection.close();
    m_session.reset();
}

void ProcessTapRecorder::onGraphChanged() {
    Session* session = m_session.get();
    if (!session || !session->watcher || !session->capture)
        return; // still starting: the start looks for itself
    const QString defaultSink = session->watcher->defaultSink();
    if (!defaultSink.isEmpty()) {
        const QString target = session->watcher->targetSink();
        if (target != targetSink()) {
            m_target.store(std::make_shared<const QString>(target));
            m_linkVerified.store(false);
            session->capture->connect(target);
            if (m_announcedDefault != defaultSink) {
                m_announcedDefault = defaultSink;
                logLine(kLogPrefix + QStringLiteral(" Sortie par défaut changée → ") + defaultSink);
            }
            if (target != defaultSink)
                logLine(kLogPrefix + QStringLiteral(" Sortie filtrée, capture du périphérique → ") + target);
        }
    }
    const auto source = session->watcher->linkedSourceOf(session->capture->nodeId());
    m_linkVerified.store(source && session->watcher->isOutputDevice(*source));
    if (m_track)
        m_track->setDeviceInUse(session->watcher->isPlayedInto(targetSink()));
}

void ProcessTapRecorder::onChunk(const float* samples, int64_t frames, int64_t captureNs) {
    // Audio from anything but an output device (the fallback microphone) is never written: that stretch
    // stays silent in the file.
    if (m_linkVerified.load(std::memory_order_relaxed))
        m_track->push(samples, frames, captureNs);
}

void ProcessTapRecorder::supervise(std::stop_token stop) {
    int64_t lostSinceNs = 0;
    bool lostReported = false;
    while (!stop.stop_requested()) {
        {
            std::unique_lock lock(m_wakeMutex);
            m_wake.wait_for(lock, stop, kSuperviseInterval, [] { return false; });
        }
        if (stop.stop_requested())
            return;
        if (m_session) {
            bool healthy = !m_session->connection.isBroken();
            if (healthy) {
                PwLoopLock lock(m_session->connection.loop());
                healthy = m_session->capture && !m_session->capture->hasFailed();
            }
            if (healthy)
                continue;
            logLine(kLogPrefix + QStringLiteral(" Flux interrompu : le démon PipeWire ne répond plus"));
            m_connected.store(false);
            closeSession();
            lostSinceNs = monotonicNowNs();
            continue;
        }
        if (openSession()) {
            m_connected.store(true);
            logLine(kLogPrefix + QStringLiteral(" Flux rétabli → ") + targetSink());
            if (std::exchange(lostReported, false) && m_events)
                m_events(CaptureEvent{CaptureEvent::Kind::sideBack, CaptureSide::systemAudio, {}});
        } else if (!lostReported && monotonicNowNs() - lostSinceNs >= std::chrono::nanoseconds(kLostAfter).count()) {
            lostReported = true;
            logLine(kLogPrefix + QStringLiteral(" Flux toujours interrompu, nouvel essai en continu"));
            if (m_events)
                m_events(CaptureEvent{CaptureEvent::Kind::sideLost, CaptureSide::systemAudio, {}});
        }
    }
}

std::optional<QString> ProcessTapRecorder::stopBlocking() {
    if (!m_running.exchange(false))
        return m_outputURL;
    endTrackNow();
    const int64_t waitNs = m_clock->pausedSinceNs().value_or(monotonicNowNs()) +
                           std::chrono::nanoseconds(kTailWait).count() - monotonicNowNs();
    if (m_connected.load() && waitNs > 0)
        std::this_thread::sleep_for(std::chrono::nanoseconds(waitNs));
    m_supervisor.request_stop();
    m_supervisor.join();
    closeSession();
    try {
        m_track->finish();
    } catch (const Error& error) {
        logLine(kLogPrefix + QStringLiteral(" Fichier non finalisé : ") + error.localizedDescription());
    }
    m_track.reset();
    logLine(kLogPrefix + QStringLiteral(" Capture arrêtée"));
    return m_outputURL;
}

} // namespace tavrel
