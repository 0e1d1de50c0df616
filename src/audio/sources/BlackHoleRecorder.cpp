#include "audio/sources/BlackHoleRecorder.h"

#include "audio/files/M4aWriter.h"
#include "audio/pulse/PulseCapture.h"
#include "audio/pulse/PulseContext.h"
#include "audio/timeline/SampleHandOff.h"
#include "core/Level.h"
#include "core/Log.h"
#include "core/RecordingFiles.h"

#include <QFileInfo>
#include <chrono>
#include <cmath>
#include <future>
#include <time.h>

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

/// The file of the virtual-device source: AAC .m4a, or 16-bit AIFF where AAC cannot be written.
class PcmFileWriter {
public:
    virtual ~PcmFileWriter() = default;
    virtual void write(const float* interleaved, int64_t frames, int64_t positionFrames) = 0;
    virtual void finish() = 0;
};

namespace {

using namespace std::chrono_literals;

constexpr int64_t kHandOffSeconds = 10;
constexpr auto kTailWait = std::chrono::milliseconds(3 * PulseCapture::kFragmentMs);

class M4aFile : public PcmFileWriter {
public:
    M4aFile(const QString& path, int rateHz, int channels) : m_writer(path, rateHz, channels) {}
    void write(const float* interleaved, int64_t frames, int64_t position) override {
        m_writer.write(interleaved, frames, position);
    }
    void finish() override { m_writer.finish(); }

private:
    M4aWriter m_writer;
};

class AiffFile : public PcmFileWriter {
public:
    AiffFile(const QString& path, int rateHz, int channels) : m_output(makeOutput(path, "aiff")), m_channels(channels) {
        AVStream* stream = avformat_new_stream(m_output.get(), nullptr);
        if (!stream)
            throw FfmpegError(QStringLiteral("Mémoire insuffisante pour l'audio"));
        stream->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
        stream->codecpar->codec_id = AV_CODEC_ID_PCM_S16BE;
        stream->codecpar->sample_rate = rateHz;
        av_channel_layout_default(&stream->codecpar->ch_layout, channels);
        stream->codecpar->bits_per_coded_sample = 16;
        stream->codecpar->block_align = 2 * channels;
        stream->time_base = AVRational{1, rateHz};
        ffCheck(avformat_write_header(m_output.get(), nullptr), "Écriture de l'en-tête audio");
        m_packet = makePacket();
    }
    void write(const float* interleaved, int64_t frames, int64_t position) override {
        if (position > m_endFrames) {
            const std::vector<float> silence(static_cast<size_t>((position - m_endFrames) * m_channels), 0.0f);
            append(silence.data(), position - m_endFrames);
        }
        const int64_t skip = std::min(frames, m_endFrames - position);
        if (skip > 0) {
            interleaved += skip * m_channels;
            frames -= skip;
        }
        append(interleaved, frames);
    }
    void finish() override {
        if (!m_finished) {
            m_finished = true;
            ffCheck(av_write_trailer(m_output.get()), "Finalisation du fichier audio");
        }
    }

private:
    void append(const float* interleaved, int64_t frames) {
        if (frames <= 0)
            return;
        const int64_t count = frames * m_channels;
        ffCheck(av_new_packet(m_packet.get(), static_cast<int>(count * 2)), "Écriture du fichier audio");
        for (int64_t i = 0; i < count; ++i) {
            const auto value = static_cast<int16_t>(std::lrint(std::clamp(interleaved[i], -1.0f, 1.0f) * 32767.0f));
            m_packet->data[2 * i] = static_cast<uint8_t>(static_cast<uint16_t>(value) >> 8);
            m_packet->data[2 * i + 1] = static_cast<uint8_t>(value & 0xff);
        }
        m_packet->pts = m_packet->dts = m_endFrames;
        m_packet->duration = frames;
        m_packet->stream_index = 0;
        m_endFrames += frames;
        ffCheck(av_write_frame(m_output.get(), m_packet.get()), "Écriture du fichier audio");
        av_packet_unref(m_packet.get());
    }

    AVFormatOutputPtr m_output;
    AVPacketPtr m_packet;
    int m_channels;
    int64_t m_endFrames = 0;
    bool m_finished = false;
};

} // namespace

BlackHoleRecorder::BlackHoleRecorder(CaptureDevice device) : m_device(std::move(device)) {}

BlackHoleRecorder::~BlackHoleRecorder() {
    m_running.store(false);
    if (m_capture)
        m_capture->disconnect();
    if (m_handOff)
        m_handOff->stop();
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
    if (m_isPaused.load() || !m_running.load())
        return 0.0f;
    return m_level.load();
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

void BlackHoleRecorder::startBlocking() {
    const int64_t startNs = timelineStartNs();
    try {
        m_pulse = PulseContext::instance();
        m_pulse->sourceInfo(m_device.name);
    } catch (const PulseError&) {
        throw BlackHoleFailure(BlackHoleError::sessionFailed);
    }
    const bool m4a = canWriteM4a();
    const QString path = RecordingFiles::virtualDeviceFile(m4a);
    m_outputURL = path;
    try {
        if (m4a)
            m_writer = std::make_unique<M4aFile>(path, kSampleRateHz, kChannels);
        else
            m_writer = std::make_unique<AiffFile>(path, kSampleRateHz, kChannels);
        PcmFileWriter* writer = m_writer.get();
        m_handOff = std::make_unique<SampleHandOff>(
            kChannels, kHandOffSeconds * kSampleRateHz,
            [writer](const float* samples, int64_t frames, int64_t position) {
                writer->write(samples, frames, position);
            },
            "fr.tavrel.recorder.blackhole");
        m_timeline.emplace(startNs, kSampleRateHz);
        m_capture =
            std::make_unique<PulseCapture>(m_pulse, QStringLiteral("TaVREL BlackHole"), kSampleRateHz, kChannels);
        m_running.store(true);
        m_capture->connect(
            m_device.name,
            [this](const float* samples, int64_t frames, int64_t captureNs) { onChunk(samples, frames, captureNs); },
            [this](const QString& reason) { onEnded(reason); });
    } catch (const Error&) {
        m_running.store(false);
        m_capture.reset();
        if (m_handOff)
            m_handOff->stop();
        m_handOff.reset();
        m_writer.reset();
        throw BlackHoleFailure(BlackHoleError::sessionFailed);
    }
    logLine(QStringLiteral("[BlackHole] Capture démarrée sur « ") + m_device.description + QStringLiteral(" » → ") +
            QFileInfo(path).fileName());
}

void BlackHoleRecorder::onChunk(const float* samples, int64_t frames, int64_t captureNs) {
    if (!m_running.load(std::memory_order_relaxed))
        return;
    // The device keeps recording through pauses: the paused stretch stays in the file.
    const int64_t streamFrame = m_timeline->place(captureNs, frames);
    const auto position = m_timeline->filePosition(streamFrame, frames, false);
    if (position && m_handOff->push(samples, frames, *position))
        m_level.store(chunkLevel(samples, frames, kChannels), std::memory_order_relaxed);
}

void BlackHoleRecorder::onEnded(const QString& reason) {
    m_endedReason = reason;
    m_ended.store(true);
    m_running.store(false);
}

void BlackHoleRecorder::finishFile() {
    if (m_handOff)
        m_handOff->stop();
    if (!m_writer)
        return;
    // Finishing is bounded: a writer that hangs (a stalled disk) must not hold the whole stop hostage.
    auto writer = std::shared_ptr<PcmFileWriter>(std::move(m_writer));
    auto handOff = std::shared_ptr<SampleHandOff>(std::move(m_handOff));
    auto done = std::async(std::launch::async, [writer, handOff]() -> QString {
        try {
            writer->finish();
        } catch (const Error& error) {
            return error.localizedDescription();
        }
        return {};
    });
    if (done.wait_for(std::chrono::milliseconds(kStopTimeoutMs)) != std::future_status::ready) {
        logLine(QStringLiteral("[BlackHole] Fin d'enregistrement avec erreur : délai dépassé"));
        std::thread([finishing = std::move(done)]() mutable { finishing.wait(); }).detach();
        return;
    }
    const QString error = done.get();
    if (!error.isEmpty())
        logLine(QStringLiteral("[BlackHole] Fin d'enregistrement avec erreur : ") + error);
}

std::optional<QString> BlackHoleRecorder::stopBlocking() {
    if (!m_running.load()) {
        // Never started, already stopped, or the server ended the stream: hand over what the file holds.
        if (m_ended.exchange(false)) {
            if (m_capture)
                m_capture->disconnect();
            logLine(QStringLiteral("[BlackHole] Fin d'enregistrement avec erreur : ") + m_endedReason);
            finishFile();
        }
        return m_outputURL;
    }
    std::this_thread::sleep_for(kTailWait);
    m_running.store(false);
    m_capture->disconnect();
    finishFile();
    logLine(QStringLiteral("[BlackHole] Capture arrêtée"));
    return m_outputURL;
}

} // namespace tavrel
