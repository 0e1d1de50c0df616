#include "audio/sources/SystemAudioRecorder.h"

#include "audio/files/M4aWriter.h"
#include "audio/pulse/PulseContext.h"
#include "audio/pulse/PulseStreamKeeper.h"
#include "audio/sources/OutputChain.h"
#include "audio/timeline/CaptureTrack.h"
#include "audio/timeline/RecordingClock.h"
#include "core/Log.h"
#include "core/RecordingFiles.h"

#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <cmath>

namespace tavrel {

namespace {

const QString kLogPrefix = QStringLiteral("[SystemAudio]");

/// Where the default output's sound can be recorded: the monitor of the output itself, or of the device
/// behind it when it is a filter; none when the server has no default output (or it has no monitor).
std::optional<PulseStreamKeeper::Target> defaultOutputMonitor(PulseContext& pulse) {
    const PulseServerInfo info = pulse.serverInfo();
    if (info.defaultSinkName.isEmpty())
        return std::nullopt;
    const std::vector<PulseDeviceInfo> sinks = pulse.sinks();
    const auto chosen = std::find_if(sinks.begin(), sinks.end(),
                                     [&](const PulseDeviceInfo& sink) { return sink.name == info.defaultSinkName; });
    if (chosen == sinks.end() || chosen->monitorSourceName.isEmpty())
        return std::nullopt;
    const std::vector<PulseSinkInputInfo> inputs = pulse.sinkInputs();
    const PulseDeviceInfo* device = &*chosen;
    if (!chosen->masterDevice.isEmpty() || !chosen->linkGroup.isEmpty()) {
        std::vector<OutputChainSink> chain;
        for (const PulseDeviceInfo& sink : sinks)
            chain.push_back(OutputChainSink{sink.index, sink.name, sink.masterDevice, sink.linkGroup});
        std::vector<OutputChainStream> streams;
        for (const PulseSinkInputInfo& input : inputs)
            if (!input.linkGroup.isEmpty())
                streams.push_back(OutputChainStream{input.linkGroup, input.sink});
        const OutputChainSink* end = endOfOutputChain(chain, streams, chosen->name);
        const auto found = std::find_if(sinks.begin(), sinks.end(),
                                        [&](const PulseDeviceInfo& sink) { return end && sink.index == end->id; });
        if (found != sinks.end() && !found->monitorSourceName.isEmpty())
            device = &*found;
    }
    PulseStreamKeeper::Target target;
    target.source = device->monitorSourceName;
    target.label = chosen->name;
    // Something plays on the output: only then is digital silence from its monitor worth a word.
    target.inUse = std::any_of(inputs.begin(), inputs.end(), [&](const PulseSinkInputInfo& input) {
        return input.sink == device->index && !input.corked;
    });
    if (device->name != chosen->name)
        target.note = kLogPrefix + QStringLiteral(" Sortie filtrée, capture du périphérique → ") + device->name;
    return target;
}

} // namespace

SystemAudioRecorder::SystemAudioRecorder() = default;

SystemAudioRecorder::~SystemAudioRecorder() {
    m_keeper.reset();
    m_track.reset();
}

float SystemAudioRecorder::currentLevel() const {
    return m_isRecording.load() ? latestLevel() : 0.0f;
}

QString SystemAudioRecorder::expectedSource() const {
    return m_keeper ? m_keeper->target() : QString();
}

bool SystemAudioRecorder::isConnected() const {
    return m_keeper && m_keeper->isConnected();
}

void SystemAudioRecorder::startBlocking() {
    // Time zero, when this source keeps its own clock: before the server is asked anything.
    const std::shared_ptr<RecordingClock> clock = recordingClock();
    std::shared_ptr<PulseContext> pulse;
    std::optional<PulseStreamKeeper::Target> output;
    try {
        pulse = PulseContext::instance();
        output = defaultOutputMonitor(*pulse);
    } catch (const PulseError&) {
        throw SystemAudioFailure(SystemAudioError::permissionDenied);
    }
    if (!output)
        throw SystemAudioFailure(SystemAudioError::noDisplay);

    const QString path = RecordingFiles::screenCaptureFile();
    m_outputURL = path;
    const CaptureTrack::Settings track{.sampleRateHz = kSampleRateHz,
                                       .channels = kChannels,
                                       .threadName = kThreadName,
                                       .side = CaptureSide::systemAudio,
                                       .logPrefix = kLogPrefix};
    try {
        m_track = std::make_unique<CaptureTrack>(
            std::make_unique<M4aWriter>(path, kSampleRateHz, kChannels), clock, track, m_events,
            [this](const float* samples, int64_t frames) {
                storeLevel(smoothedLevel(m_level.load(std::memory_order_relaxed), samples, frames * kChannels));
            });
    } catch (...) {
        QFile::remove(path); // the name was taken by creating the file
        throw;
    }
    PulseStreamKeeper::Settings stream;
    stream.streamName = QStringLiteral("TaVREL sortie système");
    stream.sampleRateHz = kSampleRateHz;
    stream.channels = kChannels;
    stream.follow = true;
    // Default-output changes, new and vanished outputs, filters rerouted, players coming and going.
    stream.events = static_cast<pa_subscription_mask_t>(PA_SUBSCRIPTION_MASK_SERVER | PA_SUBSCRIPTION_MASK_SINK |
                                                        PA_SUBSCRIPTION_MASK_SINK_INPUT);
    stream.logPrefix = kLogPrefix;
    stream.changeLog = kLogPrefix + QStringLiteral(" Sortie par défaut changée → ");
    stream.threadName = "tavrel-sys-watch";
    stream.side = CaptureSide::systemAudio;
    m_keeper = std::make_unique<PulseStreamKeeper>(stream, &defaultOutputMonitor, *m_track, m_events);
    m_isRecording.store(true);
    try {
        m_keeper->start(pulse, *output);
    } catch (...) {
        m_isRecording.store(false);
        m_keeper.reset();
        m_track.reset();
        QFile::remove(path);
        throw;
    }
    logLine(kLogPrefix + QStringLiteral(" Capture démarrée : ") + QFileInfo(path).fileName());
}

float SystemAudioRecorder::smoothedLevel(float previous, const float* samples, int64_t count) {
    float sum = 0.0f;
    int64_t counted = 0;
    for (int64_t i = 0; i < count; i += 16) {
        sum += samples[i] * samples[i];
        ++counted;
    }
    if (counted == 0)
        return previous;
    const float rms = std::sqrt(sum / static_cast<float>(counted));
    const float db = 20.0f * std::log10(std::max(rms, 0.000001f));
    const float x = std::clamp((db + 50.0f) / 50.0f, 0.0f, 1.0f);
    return previous * 0.6f + x * 0.4f;
}

std::optional<QString> SystemAudioRecorder::stopBlocking() {
    if (!m_isRecording.exchange(false))
        return std::nullopt;
    endTrackNow();
    m_keeper->stop(m_clock->pausedSinceNs());
    try {
        m_track->finish();
    } catch (const Error& error) {
        // The file stays readable as written; the merge takes what it can.
        logLine(kLogPrefix + QStringLiteral(" Fichier non finalisé : ") + error.localizedDescription());
    }
    m_keeper.reset();
    m_track.reset();
    logLine(kLogPrefix + QStringLiteral(" Capture arrêtée"));
    return m_outputURL;
}

} // namespace tavrel
