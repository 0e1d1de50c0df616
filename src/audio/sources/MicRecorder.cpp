#include "audio/sources/MicRecorder.h"

#include "audio/files/M4aWriter.h"
#include "audio/pulse/PulseContext.h"
#include "audio/pulse/PulseStreamKeeper.h"
#include "audio/timeline/CaptureTrack.h"
#include "audio/timeline/RecordingClock.h"
#include "core/Log.h"

#include <cmath>

namespace tavrel {

namespace {

const QString kLogPrefix = QStringLiteral("[AudioRecorder] Micro :");
// The meter drops to silence when no sample came for this long (a stream gone with the audio server).
constexpr int64_t kMeterHoldNs = 300'000'000;

/// The default source, in use unless it is muted.
std::optional<PulseStreamKeeper::Target> defaultSource(PulseContext& pulse) {
    const QString name = pulse.serverInfo().defaultSourceName;
    if (name.isEmpty())
        return std::nullopt;
    const PulseDeviceInfo source = pulse.sourceInfo(name);
    return PulseStreamKeeper::Target{source.name, !source.muted, source.name, {}};
}

} // namespace

MicRecorder::Access MicRecorder::microphoneAccess() {
    try {
        auto pulse = PulseContext::instance();
        pulse->sourceInfo(QStringLiteral("@DEFAULT_SOURCE@"));
    } catch (const PulseError& error) {
        if (error.paError() == PA_ERR_ACCESS)
            return Access::denied;
    }
    return Access::authorized;
}

MicRecorder::MicRecorder(const QString& path, std::shared_ptr<RecordingClock> clock, CaptureEvents events)
    : m_path(path), m_clock(clock), m_pulse(PulseContext::instance()) {
    const CaptureTrack::Settings track{.sampleRateHz = kSampleRateHz,
                                       .channels = kChannels,
                                       .threadName = "tavrel-mic",
                                       .side = CaptureSide::microphone,
                                       .logPrefix = kLogPrefix};
    m_track =
        std::make_unique<CaptureTrack>(std::make_unique<M4aWriter>(path, kSampleRateHz, kChannels), std::move(clock),
                                       track, events, [this](const float* samples, int64_t frames) {
                                           double sum = 0.0;
                                           for (int64_t i = 0; i < frames; ++i)
                                               sum += double(samples[i]) * double(samples[i]);
                                           m_meterSumSquares.fetch_add(sum, std::memory_order_relaxed);
                                           m_meterCount.fetch_add(frames, std::memory_order_relaxed);
                                       });
    PulseStreamKeeper::Settings stream;
    stream.streamName = QStringLiteral("Microphone");
    stream.sampleRateHz = kSampleRateHz;
    stream.channels = kChannels;
    stream.follow = true;
    // A new default source, a source muted or unplugged.
    stream.events = static_cast<pa_subscription_mask_t>(PA_SUBSCRIPTION_MASK_SERVER | PA_SUBSCRIPTION_MASK_SOURCE);
    stream.logPrefix = kLogPrefix;
    stream.changeLog = QStringLiteral("[AudioRecorder] Micro : source par défaut changée → ");
    stream.threadName = "tavrel-mic-watch";
    stream.side = CaptureSide::microphone;
    m_keeper = std::make_unique<PulseStreamKeeper>(stream, &defaultSource, *m_track, std::move(events));
}

MicRecorder::~MicRecorder() {
    try {
        stop();
    } catch (const Error& error) {
        logLine(QStringLiteral("[AudioRecorder] Fichier micro non finalisé : %1").arg(error.localizedDescription()));
    }
}

bool MicRecorder::record() {
    if (m_stopped)
        return false;
    if (m_recording)
        return true;
    try {
        const std::optional<PulseStreamKeeper::Target> source = defaultSource(*m_pulse);
        if (!source)
            throw PulseError(QStringLiteral("aucune source audio par défaut"), PA_ERR_NOENTITY);
        m_keeper->start(m_pulse, *source);
    } catch (const Error& error) {
        m_lastError = error.localizedDescription();
        return false;
    }
    m_recording = true;
    return true;
}

void MicRecorder::stop() {
    if (m_stopped)
        return;
    m_stopped = true;
    m_keeper->stop(m_clock->pausedSinceNs());
    m_track->finish();
}

int64_t MicRecorder::framesWritten() const {
    return m_track->framesWritten();
}

void MicRecorder::updateMeters() {
    const double sum = m_meterSumSquares.exchange(0.0, std::memory_order_relaxed);
    const int64_t count = m_meterCount.exchange(0, std::memory_order_relaxed);
    const int64_t now = monotonicNowNs();
    if (count <= 0) {
        // Samples come every few tens of ms; a meter that stops moving would look as if it still recorded.
        if (now - m_lastSamplesNs > kMeterHoldNs)
            m_averagePowerDb.store(kSilenceDb, std::memory_order_relaxed);
        return;
    }
    m_lastSamplesNs = now;
    const double meanSquare = sum / static_cast<double>(count);
    const double db = meanSquare > 0.0 ? 10.0 * std::log10(meanSquare) : double(kSilenceDb);
    m_averagePowerDb.store(static_cast<float>(std::max(db, double(kSilenceDb))), std::memory_order_relaxed);
}

float MicRecorder::averagePower(int /*channel*/) const {
    return m_averagePowerDb.load(std::memory_order_relaxed);
}

} // namespace tavrel
