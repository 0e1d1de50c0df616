#include "audio/sources/MicRecorder.h"

#include "core/Log.h"

#include <cmath>
#include <pthread.h>
#include <vector>

namespace tavrel {

namespace {

// About 12 s of mono audio: room for the encoder thread to stall on a slow disk without losing anything.
constexpr std::size_t kRingSamples = std::size_t{1} << 19;
constexpr std::chrono::milliseconds kEncoderPoll{20};
constexpr std::chrono::milliseconds kConnectTimeout{3000};
// At stop, the reads that carry the last captured samples arrive within a fragment or two.
constexpr uint64_t kTailReads = 2;
constexpr std::chrono::milliseconds kTailTimeout{250};

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

MicRecorder::MicRecorder(const QString& path, Settings settings)
    : m_path(path), m_settings(std::move(settings)), m_ring(kRingSamples) {
    m_pulse = PulseContext::instance();
    m_writer = std::make_unique<M4aWriter>(path, m_settings.sampleRateHz, m_settings.channels);

    pa_sample_spec sampleSpec{};
    sampleSpec.format = PA_SAMPLE_FLOAT32NE;
    sampleSpec.rate = static_cast<uint32_t>(m_settings.sampleRateHz);
    sampleSpec.channels = static_cast<uint8_t>(m_settings.channels);
    PaProplistPtr props(pa_proplist_new());
    pa_proplist_sets(props.get(), PA_PROP_MEDIA_NAME, "Microphone");
    pa_proplist_sets(props.get(), PA_PROP_MEDIA_ROLE, "production");

    PulseContext::Lock lock(*m_pulse);
    m_stream.reset(pa_stream_new_with_proplist(m_pulse->context(), "Microphone", &sampleSpec, nullptr, props.get()));
    if (!m_stream) {
        const int error = m_pulse->lastError();
        throw PulseError(QStringLiteral("Impossible d'ouvrir le microphone : %1").arg(m_pulse->lastErrorText()), error);
    }
    pa_stream_set_read_callback(m_stream.get(), &MicRecorder::onRead, this);
}

MicRecorder::~MicRecorder() {
    try {
        stop();
    } catch (const Error& error) {
        logLine(QStringLiteral("[AudioRecorder] Fichier micro non finalisé : %1").arg(error.localizedDescription()));
    }
}

bool MicRecorder::record() {
    if (m_stopped || !m_stream)
        return false;
    if (m_connected) {
        m_paused = false;
        return true;
    }
    pa_sample_spec sampleSpec{};
    sampleSpec.format = PA_SAMPLE_FLOAT32NE;
    sampleSpec.rate = static_cast<uint32_t>(m_settings.sampleRateHz);
    sampleSpec.channels = static_cast<uint8_t>(m_settings.channels);
    pa_buffer_attr attributes{};
    attributes.maxlength = static_cast<uint32_t>(-1);
    attributes.tlength = static_cast<uint32_t>(-1);
    attributes.prebuf = static_cast<uint32_t>(-1);
    attributes.minreq = static_cast<uint32_t>(-1);
    attributes.fragsize = static_cast<uint32_t>(pa_usec_to_bytes(
        static_cast<pa_usec_t>(std::chrono::duration_cast<std::chrono::microseconds>(kFragment).count()), &sampleSpec));
    const QByteArray device = m_settings.source.toUtf8();
    {
        PulseContext::Lock lock(*m_pulse);
        if (pa_stream_connect_record(m_stream.get(), device.isEmpty() ? nullptr : device.constData(), &attributes,
                                     PA_STREAM_ADJUST_LATENCY) < 0) {
            m_lastError = m_pulse->lastErrorText();
            return false;
        }
    }
    // The encoder must run before the first callback can fill the ring.
    m_recording = true;
    m_encoder = std::jthread([this](std::stop_token token) { encodeLoop(token); });
    const bool settled = m_pulse->waitUntil(
        [this] { return pa_stream_get_state(m_stream.get()) != PA_STREAM_CREATING; }, kConnectTimeout);
    bool ready = false;
    {
        PulseContext::Lock lock(*m_pulse);
        ready = settled && pa_stream_get_state(m_stream.get()) == PA_STREAM_READY;
        if (!ready)
            m_lastError = settled ? m_pulse->lastErrorText() : QStringLiteral("le serveur audio ne répond pas");
    }
    if (!ready) {
        m_recording = false;
        disconnectStream();
        m_encoder.request_stop();
        m_encoder.join();
        return false;
    }
    m_connected = true;
    return true;
}

void MicRecorder::pause() {
    if (m_connected)
        m_paused = true;
}

void MicRecorder::stop() {
    if (m_stopped)
        return;
    m_stopped = true;
    if (m_connected && !m_paused) {
        // Let the server hand over what it captured up to now before the stream goes.
        const uint64_t seen = m_readCallbacks.load();
        const auto deadline = std::chrono::steady_clock::now() + kTailTimeout;
        while (m_readCallbacks.load() < seen + kTailReads && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    m_recording = false;
    disconnectStream();
    if (m_encoder.joinable()) {
        m_encoder.request_stop();
        m_encoder.join();
    }
    m_connected = false;
    if (m_writer) {
        auto writer = std::move(m_writer);
        writer->finish();
    }
}

void MicRecorder::disconnectStream() {
    if (!m_stream)
        return;
    PulseContext::Lock lock(*m_pulse);
    pa_stream_set_read_callback(m_stream.get(), nullptr, nullptr);
    if (pa_stream_get_state(m_stream.get()) == PA_STREAM_READY ||
        pa_stream_get_state(m_stream.get()) == PA_STREAM_CREATING)
        pa_stream_disconnect(m_stream.get());
    m_stream.reset();
}

void MicRecorder::onRead(pa_stream* stream, size_t /*bytes*/, void* userdata) {
    static_cast<MicRecorder*>(userdata)->readAvailable(stream);
}

void MicRecorder::readAvailable(pa_stream* stream) {
    const auto channels = static_cast<std::size_t>(m_settings.channels);
    while (pa_stream_readable_size(stream) > 0) {
        const void* data = nullptr;
        size_t bytes = 0;
        if (pa_stream_peek(stream, &data, &bytes) < 0 || bytes == 0)
            break;
        if (data && m_recording.load(std::memory_order_relaxed) && !m_paused.load(std::memory_order_relaxed)) {
            const auto* samples = static_cast<const float*>(data);
            const std::size_t count = bytes / sizeof(float) / channels * channels;
            const std::size_t pushed = m_ring.push(samples, count, channels);
            if (pushed < count)
                m_framesDropped.fetch_add(static_cast<int64_t>((count - pushed) / channels), std::memory_order_relaxed);
            double sum = 0.0;
            for (std::size_t i = 0; i < count; i += channels)
                sum += double(samples[i]) * double(samples[i]);
            m_meterSumSquares.fetch_add(sum, std::memory_order_relaxed);
            m_meterCount.fetch_add(static_cast<int64_t>(count / channels), std::memory_order_relaxed);
        }
        pa_stream_drop(stream);
    }
    m_readCallbacks.fetch_add(1, std::memory_order_release);
}

void MicRecorder::encodeLoop(std::stop_token stopToken) {
    pthread_setname_np(pthread_self(), "tavrel-mic");
    std::vector<float> buffer(std::size_t{8192} * static_cast<std::size_t>(m_settings.channels));
    while (!stopToken.stop_requested()) {
        drainRing(buffer);
        std::this_thread::sleep_for(kEncoderPoll);
    }
    drainRing(buffer); // whatever arrived before the stream was disconnected
}

void MicRecorder::drainRing(std::vector<float>& buffer) {
    const auto channels = static_cast<std::size_t>(m_settings.channels);
    for (;;) {
        const std::size_t count = m_ring.pop(buffer.data(), buffer.size(), channels);
        if (count == 0)
            return;
        if (m_writeFailed.load())
            continue;
        try {
            m_writer->write(buffer.data(), static_cast<int64_t>(count / channels));
            m_framesWritten.fetch_add(static_cast<int64_t>(count / channels));
        } catch (const Error& error) {
            m_writeFailed = true;
            logLine(QStringLiteral("[AudioRecorder] Écriture du micro échouée : %1").arg(error.localizedDescription()));
        }
    }
}

void MicRecorder::updateMeters() {
    const double sum = m_meterSumSquares.exchange(0.0, std::memory_order_relaxed);
    const int64_t count = m_meterCount.exchange(0, std::memory_order_relaxed);
    if (count <= 0)
        return; // no new samples since the last read: the previous value stands
    const double meanSquare = sum / static_cast<double>(count);
    const double db = meanSquare > 0.0 ? 10.0 * std::log10(meanSquare) : double(kSilenceDb);
    m_averagePowerDb.store(static_cast<float>(std::max(db, double(kSilenceDb))), std::memory_order_relaxed);
}

float MicRecorder::averagePower(int /*channel*/) const {
    return m_averagePowerDb.load(std::memory_order_relaxed);
}

} // namespace tavrel
