#include "audio/sources/BlackHoleRecorder.h"

#include "audio/files/AiffWriter.h"
#include "audio/files/M4aWriter.h"
#include "audio/pulse/PulseContext.h"
#include "audio/pulse/PulseStreamKeeper.h"
#include "audio/timeline/CaptureTrack.h"
#include "audio/timeline/RecordingClock.h"
#include "core/Level.h"
#include "core/Log.h"
#include "core/RecordingFiles.h"

#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <cmath>

namespace tavrel {

QString errorDescription(BlackHoleError error) {
    switch (error) {
    case BlackHoleError::deviceMissing:
        return QStringLiteral("Périphérique BlackHole introuvable.");
    case BlackHoleError::sessionFailed:
        return QStringLiteral("Impossible de démarrer la capture BlackHole.");
    }
    return {};
}

QString caseName(BlackHoleError error) {
    switch (error) {
    case BlackHoleError::deviceMissing:
        return QStringLiteral("deviceMissing");
    case BlackHoleError::sessionFailed:
        return QStringLiteral("sessionFailed");
    }
    return {};
}

namespace {

const QString kLogPrefix = QStringLiteral("[BlackHole]");

} // namespace

BlackHoleRecorder::BlackHoleRecorder(CaptureDevice device) : m_device(std::move(device)) {}

BlackHoleRecorder::~BlackHoleRecorder() {
    m_keeper.reset();
    m_track.reset();
}

bool BlackHoleRecorder::isBlackHoleName(const QString& description) {
    return description.contains(QStringLiteral("blackhole"), Qt::CaseInsensitive);
}

std::optional<CaptureDevice> BlackHoleRecorder::findDeviceIn(const std::vector<PulseDeviceInfo>& sources) {
    for (const PulseDeviceInfo& source : sources)
        if (!source.isMonitor() && isBlackHoleName(source.description))
            return CaptureDevice{source.name, source.description};
    for (const PulseDeviceInfo& source : sources)
        if (isBlackHoleName(source.description))
            return CaptureDevice{source.name, source.description};
    return std::nullopt;
}

std::optional<CaptureDevice> BlackHoleRecorder::findDevice() {
    try {
        return findDeviceIn(PulseContext::instance()->sources());
    } catch (const PulseError&) {
        return std::nullopt;
    }
}

bool BlackHoleRecorder::canWriteM4a() {
    return av_guess_format("ipod", nullptr, nullptr) != nullptr && avcodec_find_encoder(AV_CODEC_ID_AAC) != nullptr;
}

float BlackHoleRecorder::currentLevel() const {
    return m_running.load() ? latestLevel() : 0.0f;
}

bool BlackHoleRecorder::isConnected() const {
    return m_keeper && m_keeper->isConnected();
}

float BlackHoleRecorder::chunkLevel(const float* interleaved, int64_t frames, int channels) {
    if (frames <= 0)
        return 0.0f;
    float sum = 0.0f;
    for (int64_t i = 0; i < frames; ++i)
        sum += interleaved[i * channels] * interleaved[i * channels];
    const float meanSquare = sum / static_cast<float>(frames);
    const float db = meanSquare > 0.0f ? 10.0f * std::log10(meanSquare) : -160.0f;
    return levelFromDecibels(db);
}

namespace {

/// The pinned device, when the server has it; in use when it is the monitor of an output something plays on.
std::optional<PulseStreamKeeper::Target> pinnedDevice(PulseContext& pulse, const QString& name) {
    PulseDeviceInfo source;
    try {
        source = pulse.sourceInfo(name);
    } catch (const PulseError& error) {
        if (error.paError() == PA_ERR_NOENTITY)
            return std::nullopt;
        throw;
    }
    PulseStreamKeeper::Target target{source.name, false, source.description, {}};
    if (source.isMonitor()) {
        const std::vector<PulseSinkInputInfo> inputs = pulse.sinkInputs();
        target.inUse = std::any_of(inputs.begin(), inputs.end(), [&](const PulseSinkInputInfo& input) {
            return input.sink == source.monitorOfSink && !input.corked;
        });
    }
    return target;
}

} // namespace

void BlackHoleRecorder::startBlocking() {
    // Time zero, when this source keeps its own clock: before the server is asked anything.
    const std::shared_ptr<RecordingClock> clock = recordingClock();
    std::shared_ptr<PulseContext> pulse;
    std::optional<PulseStreamKeeper::Target> first;
    try {
        pulse = PulseContext::instance();
        first = pinnedDevice(*pulse, m_device.name);
    } catch (const PulseError&) {
        throw BlackHoleFailure(BlackHoleError::sessionFailed);
    }
    if (!first)
        throw BlackHoleFailure(BlackHoleError::sessionFailed);
    const bool m4a = canWriteM4a();
    const QString path = RecordingFiles::virtualDeviceFile(m4a);
    m_outputURL = path;
    try {
        std::unique_ptr<TrackFile> file;
        if (m4a)
            file = std::make_unique<M4aWriter>(path, kSampleRateHz, kChannels);
        else
            file = std::make_unique<AiffWriter>(path, kSampleRateHz, kChannels);
        const CaptureTrack::Settings track{.sampleRateHz = kSampleRateHz,
                                           .channels = kChannels,
                                           .threadName = "fr.tavrel.recorder.blackhole",
                                           .side = CaptureSide::virtualDevice,
                                           .logPrefix = kLogPrefix};
        m_track = std::make_unique<CaptureTrack>(
            std::move(file), clock, track, m_events,
            [this](const float* samples, int64_t frames) { storeLevel(chunkLevel(samples, frames, kChannels)); });
        PulseStreamKeeper::Settings stream;
        stream.streamName = QStringLiteral("TaVREL BlackHole");
        stream.sampleRateHz = kSampleRateHz;
        stream.channels = kChannels;
        stream.follow = false; // never the microphone in its place
        stream.events =
            static_cast<pa_subscription_mask_t>(PA_SUBSCRIPTION_MASK_SOURCE | PA_SUBSCRIPTION_MASK_SINK_INPUT);
        stream.logPrefix = kLogPrefix;
        stream.threadName = "tavrel-bh-watch";
        stream.side = CaptureSide::virtualDevice;
        m_keeper = std::make_unique<PulseStreamKeeper>(
            stream, [name = m_device.name](PulseContext& server) { return pinnedDevice(server, name); }, *m_track,
            m_events);
        m_running.store(true);
        m_keeper->start(pulse, *first);
    } catch (const Error&) {
        m_running.store(false);
        m_keeper.reset();
        m_track.reset();
        QFile::remove(path);
        m_outputURL.reset();
        throw BlackHoleFailure(BlackHoleError::sessionFailed);
    }
    logLine(kLogPrefix + QStringLiteral(" Capture démarrée sur « ") + m_device.description + QStringLiteral(" » → ") +
            QFileInfo(path).fileName());
}

std::optional<QString> BlackHoleRecorder::stopBlocking() {
    if (!m_running.exchange(false))
        return m_outputURL; // never started, or already stopped: whatever file there is
    endTrackNow();
    m_keeper->stop(m_clock->pausedSinceNs());
    try {
        m_track->finish();
    } catch (const Error& error) {
        logLine(kLogPrefix + QStringLiteral(" Fin d'enregistrement avec erreur : ") + error.localizedDescription());
    }
    m_keeper.reset();
    m_track.reset();
    logLine(kLogPrefix + QStringLiteral(" Capture arrêtée"));
    return m_outputURL;
}

} // namespace tavrel
