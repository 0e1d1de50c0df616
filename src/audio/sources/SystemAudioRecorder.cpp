#include "audio/sources/SystemAudioRecorder.h"

#include "audio/files/M4aWriter.h"
#include "audio/pulse/PulseCapture.h"
#include "audio/pulse/PulseContext.h"
#include "audio/sources/OutputChain.h"
#include "audio/timeline/SampleHandOff.h"
#include "core/Log.h"
#include "core/RecordingFiles.h"

#include <QFileInfo>
#include <algorithm>
#include <cmath>
#include <time.h>

namespace tavrel {

namespace {

using namespace std::chrono_literals;

constexpr int64_t kHandOffSeconds = 10;
// Samples played up to the moment of stop still reach us one or two fragments later.
constexpr auto kTailWait = std::chrono::milliseconds(3 * PulseCapture::kFragmentMs);

struct DefaultOutput {
    QString sink;    ///< the default output, as the user chose it
    QString device;  ///< where its sound ends up: the sink itself, or the device behind a filter
    QString monitor; ///< the device's monitor
};

/// The default output and the monitor to record for it; none when the server has no default output (or
/// it has no monitor).
std::optional<DefaultOutput> defaultOutput(PulseContext& pulse) {
    const PulseServerInfo info = pulse.serverInfo();
    if (info.defaultSinkName.isEmpty())
        return std::nullopt;
    const std::vector<PulseDeviceInfo> sinks = pulse.sinks();
    const auto chosen = std::find_if(sinks.begin(), sinks.end(),
                                     [&](const PulseDeviceInfo& sink) { return sink.name == info.defaultSinkName; });
    if (chosen == sinks.end() || chosen->monitorSourceName.isEmpty())
        return std::nullopt;
    DefaultOutput output{chosen->name, chosen->name, chosen->monitorSourceName};
    if (chosen->masterDevice.isEmpty() && chosen->linkGroup.isEmpty())
        return output; // a device, not a filter

    std::vector<OutputChainSink> chain;
    for (const PulseDeviceInfo& sink : sinks)
        chain.push_back(OutputChainSink{sink.index, sink.name, sink.masterDevice, sink.linkGroup});
    std::vector<OutputChainStream> streams;
    for (const PulseSinkInputInfo& input : pulse.sinkInputs())
        if (!input.linkGroup.isEmpty())
            streams.push_back(OutputChainStream{input.linkGroup, input.sink});
    const OutputChainSink* end = endOfOutputChain(chain, streams, chosen->name);
    const auto device = std::find_if(sinks.begin(), sinks.end(),
                                     [&](const PulseDeviceInfo& sink) { return end && sink.index == end->id; });
    if (device != sinks.end() && !device->monitorSourceName.isEmpty()) {
        output.device = device->name;
        output.monitor = device->monitorSourceName;
    }
    return output;
}

void logFilteredOutput(const DefaultOutput& output) {
    if (output.device != output.sink)
        logLine(QStringLiteral("[SystemAudio] Sortie filtrée, capture du périphérique → ") + output.device);
}

} // namespace

SystemAudioRecorder::SystemAudioRecorder() = default;

SystemAudioRecorder::~SystemAudioRecorder() {
    m_isRecording.store(false);
    stopFollowing();
    if (m_capture)
        m_capture->disconnect();
    if (m_handOff)
        m_handOff->stop();
}

float SystemAudioRecorder::currentLevel() const {
    if (!m_isRecording.load() || m_isPaused.load())
        return 0.0f;
    return m_level.load();
}

QString SystemAudioRecorder::expectedSource() const {
    const auto expected = m_expectedSource.load();
    return expected ? *expected : QString();
}

void SystemAudioRecorder::startBlocking() {
    const int64_t startNs = timelineStartNs();
    std::optional<DefaultOutput> output;
    try {
        m_pulse = PulseContext::instance();
        output = defaultOutput(*m_pulse);
    } catch (const PulseError&) {
        throw SystemAudioFailure(SystemAudioError::permissionDenied);
    }
    if (!output)
        throw SystemAudioFailure(SystemAudioError::noDisplay);

    const QString path = RecordingFiles::screenCaptureFile();
    m_outputURL = path;
    m_writer = std::make_unique<M4aWriter>(path, kSampleRateHz, kChannels);
    M4aWriter* writer = m_writer.get();
    m_handOff = std::make_unique<SampleHandOff>(
        kChannels, kHandOffSeconds * kSampleRateHz,
        [writer](const float* samples, int64_t frames, int64_t position) { writer->write(samples, frames, position); },
        kThreadName);
    m_timeline.emplace(startNs, kSampleRateHz);
    m_expectedSource.store(std::make_shared<const QString>(output->monitor));
    m_announcedDefault = output->sink;
    m_sourceVerified.store(true);

    m_capture =
        std::make_unique<PulseCapture>(m_pulse, QStringLiteral("TaVREL sortie système"), kSampleRateHz, kChannels);
    m_isRecording.store(true);
    try {
        m_capture->connect(
            output->monitor,
            [this](const float* samples, int64_t frames, int64_t captureNs) { onChunk(samples, frames, captureNs); },
            [this](const QString& reason) { onEnded(reason); }, [this](const QString& source) { onMoved(source); });
    } catch (...) {
        m_isRecording.store(false);
        throw;
    }
    try {
        // Default-output changes, new and vanished outputs, filters rerouted: each may move the stream.
        m_outputEvents = m_pulse->subscribe(static_cast<pa_subscription_mask_t>(PA_SUBSCRIPTION_MASK_SERVER |
                                                                                PA_SUBSCRIPTION_MASK_SINK |
                                                                                PA_SUBSCRIPTION_MASK_SINK_INPUT),
                                            [this](pa_subscription_event_type_t, uint32_t) {
                                                {
                                                    std::lock_guard lock(m_followMutex);
                                                    m_outputEventPending = true;
                                                }
                                                m_followWake.notify_one();
                                            });
    } catch (const PulseError&) {
        // Without events the follower still checks now and then.
    }
    m_follower = std::jthread([this](std::stop_token stop) { followDefaultOutput(stop); });
    logLine(QStringLiteral("[SystemAudio] Capture démarrée : ") + QFileInfo(path).fileName());
    logFilteredOutput(*output);
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

void SystemAudioRecorder::onChunk(const float* samples, int64_t frames, int64_t captureNs) {
    if (!m_isRecording.load(std::memory_order_relaxed))
        return;
    const bool paused = m_isPaused.load(std::memory_order_relaxed);
    const int64_t streamFrame = m_timeline->place(captureNs, frames);
    const auto position = m_timeline->filePosition(streamFrame, frames, paused);
    // While the stream sits on anything but the default output's monitor (the server moves it to the
    // microphone when its output disappears), its audio is never written: the stretch stays silent.
    if (!position || !m_sourceVerified.load(std::memory_order_relaxed))
        return;
    m_level.store(smoothedLevel(m_level.load(std::memory_order_relaxed), samples, frames * kChannels),
                  std::memory_order_relaxed);
    m_handOff->push(samples, frames, *position);
}

void SystemAudioRecorder::onEnded(const QString& reason) {
    logLine(QStringLiteral("[SystemAudio] Stream stoppé : ") + reason);
    m_ended.store(true);
    m_isRecording.store(false);
}

void SystemAudioRecorder::onMoved(const QString& source) {
    const auto expected = m_expectedSource.load();
    m_sourceVerified.store(expected && *expected == source);
}

void SystemAudioRecorder::followDefaultOutput(std::stop_token stop) {
    while (!stop.stop_requested()) {
        {
            std::unique_lock lock(m_followMutex);
            m_followWake.wait_for(lock, stop, std::chrono::milliseconds(kFollowFallbackMs),
                                  [this] { return m_outputEventPending; });
            m_outputEventPending = false;
        }
        // A device change comes as a burst of events: let it settle, then look once.
        std::this_thread::sleep_for(std::chrono::milliseconds(kFollowSettleMs));
        if (stop.stop_requested() || !m_isRecording.load())
            return;
        std::optional<DefaultOutput> output;
        try {
            output = defaultOutput(*m_pulse);
        } catch (const PulseError&) {
            continue;
        }
        if (!output)
            continue; // no output at all for now: nothing to follow, nothing is written meanwhile
        const auto expected = m_expectedSource.load();
        if (!expected || *expected != output->monitor) {
            m_expectedSource.store(std::make_shared<const QString>(output->monitor));
            if (output->sink != m_announcedDefault) {
                m_announcedDefault = output->sink;
                logLine(QStringLiteral("[SystemAudio] Sortie par défaut changée → ") + output->sink);
            }
            logFilteredOutput(*output);
        }
        const QString current = m_capture->sourceName();
        m_sourceVerified.store(current == output->monitor);
        if (!current.isEmpty() && current != output->monitor)
            m_capture->moveTo(output->monitor);
    }
}

void SystemAudioRecorder::stopFollowing() {
    if (m_follower.joinable()) {
        m_follower.request_stop();
        m_follower.join();
    }
    m_outputEvents = PulseSubscription();
}

std::optional<QString> SystemAudioRecorder::stopBlocking() {
    if (!m_isRecording.load())
        return std::nullopt;
    std::this_thread::sleep_for(kTailWait);
    m_isRecording.store(false);
    stopFollowing();
    m_capture->disconnect();
    m_handOff->stop();
    try {
        m_writer->finish();
    } catch (const Error&) {
        // The file stays readable as it is; the merge decides what it can use.
    }
    m_handOff.reset();
    m_writer.reset();
    logLine(QStringLiteral("[SystemAudio] Capture arrêtée"));
    return m_outputURL;
}

} // namespace tavrel
