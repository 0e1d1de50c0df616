#include "audio/pulse/PulseCapture.h"

#include "audio/timeline/RecordingClock.h"

#include <algorithm>

namespace tavrel {

using namespace std::chrono_literals;

PulseCapture::PulseCapture(std::shared_ptr<PulseContext> pulse, QString streamName, int sampleRateHz, int channels)
    : m_pulse(std::move(pulse)), m_streamName(std::move(streamName)), m_sampleRateHz(sampleRateHz),
      m_channels(channels) {}

PulseCapture::~PulseCapture() {
    release(false); // whoever receives the chunks may be going away too
}

void PulseCapture::connect(const QString& source, ChunkHandler onChunk, EndedHandler onEnded, MovedHandler onMoved) {
    m_onChunk = std::move(onChunk);
    m_onEnded = std::move(onEnded);
    m_onMoved = std::move(onMoved);
    pa_sample_spec sampleSpec{};
    sampleSpec.format = PA_SAMPLE_FLOAT32NE;
    sampleSpec.rate = static_cast<uint32_t>(m_sampleRateHz);
    sampleSpec.channels = static_cast<uint8_t>(m_channels);
    pa_buffer_attr attributes{};
    attributes.maxlength = static_cast<uint32_t>(-1);
    attributes.tlength = static_cast<uint32_t>(-1);
    attributes.prebuf = static_cast<uint32_t>(-1);
    attributes.minreq = static_cast<uint32_t>(-1);
    attributes.fragsize = static_cast<uint32_t>(pa_usec_to_bytes(kFragmentMs * 1000, &sampleSpec));
    m_batchBytes = pa_usec_to_bytes(kBatchMs * 1000, &sampleSpec);
    m_batch.assign(static_cast<size_t>(m_sampleRateHz) * m_channels * kFragmentMs * 4 / 1000, 0.0f);
    const QByteArray device = source.toUtf8();
    const QByteArray name = m_streamName.toUtf8();
    try {
        m_onPipeWire = m_pulse->runsOnPipeWire();
    } catch (const PulseError&) {
        m_onPipeWire = false; // the connection below fails and says why
    }
    {
        PulseContext::Lock lock(*m_pulse);
        PaProplistPtr props(pa_proplist_new());
        pa_proplist_sets(props.get(), PA_PROP_MEDIA_NAME, name.constData());
        pa_proplist_sets(props.get(), PA_PROP_MEDIA_ROLE, "production");
        m_stream.reset(
            pa_stream_new_with_proplist(m_pulse->context(), name.constData(), &sampleSpec, nullptr, props.get()));
        if (!m_stream)
            throw PulseError(m_pulse->lastErrorText(), m_pulse->lastError());
        pa_stream_set_read_callback(m_stream.get(), &PulseCapture::onRead, this);
        pa_stream_set_state_callback(m_stream.get(), &PulseCapture::onState, this);
        pa_stream_set_moved_callback(m_stream.get(), &PulseCapture::onMoved, this);
        auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY | PA_STREAM_INTERPOLATE_TIMING |
                                                    PA_STREAM_AUTO_TIMING_UPDATE);
        if (!m_onMoved)
            flags = static_cast<pa_stream_flags_t>(flags | PA_STREAM_DONT_MOVE);
        if (pa_stream_connect_record(m_stream.get(), device.constData(), &attributes, flags) < 0) {
            const int error = m_pulse->lastError();
            pa_stream_set_read_callback(m_stream.get(), nullptr, nullptr);
            pa_stream_set_state_callback(m_stream.get(), nullptr, nullptr);
            pa_stream_set_moved_callback(m_stream.get(), nullptr, nullptr);
            m_stream.reset();
            throw PulseError(m_pulse->lastErrorText(), error);
        }
    }
    const bool settled =
        m_pulse->waitUntil([this] { return pa_stream_get_state(m_stream.get()) != PA_STREAM_CREATING; }, 3000ms);
    bool ready = false;
    int error = 0;
    {
        PulseContext::Lock lock(*m_pulse);
        ready = settled && pa_stream_get_state(m_stream.get()) == PA_STREAM_READY;
        error = ready ? 0 : m_pulse->lastError();
    }
    if (!ready) {
        disconnect();
        throw PulseError(settled ? pulseErrorText(error) : QStringLiteral("le serveur audio ne répond pas"), error);
    }
    m_connected.store(true);
}

bool PulseCapture::moveTo(const QString& source) {
    uint32_t index = PA_INVALID_INDEX;
    {
        PulseContext::Lock lock(*m_pulse);
        if (!m_stream)
            return false;
        index = pa_stream_get_index(m_stream.get());
    }
    const QByteArray device = source.toUtf8();
    try {
        m_pulse->run([&](pa_context* context, PulseQuery& query) {
            return pa_context_move_source_output_by_name(
                context, index, device.constData(),
                [](pa_context*, int success, void* userdata) {
                    auto* q = static_cast<PulseQuery*>(userdata);
                    if (success)
                        q->finish();
                    else
                        q->fail(PA_ERR_UNKNOWN);
                },
                &query);
        });
    } catch (const PulseError&) {
        return false;
    }
    return true;
}

namespace {

uint32_t sourceOfOutput(const pa_source_output_info* output) {
    return output->source;
}

} // namespace

QString PulseCapture::sourceName() const {
    uint32_t index = PA_INVALID_INDEX;
    {
        PulseContext::Lock lock(*m_pulse);
        if (!m_stream || pa_stream_get_state(m_stream.get()) != PA_STREAM_READY)
            return {};
        index = pa_stream_get_index(m_stream.get());
    }
    try {
        const std::vector<uint32_t> sources = m_pulse->list<pa_source_output_info>(
            [index](pa_context* c, auto callback, void* userdata) {
                return pa_context_get_source_output_info(c, index, callback, userdata);
            },
            &sourceOfOutput);
        if (sources.empty())
            return {};
        // Looked up in the whole list: pipewire-pulse answers no query by index for a monitor.
        for (const PulseDeviceInfo& source : m_pulse->sources())
            if (source.index == sources.front())
                return source.name;
        return {};
    } catch (const PulseError&) {
        return {};
    }
}

void PulseCapture::disconnect() {
    release(true);
}

void PulseCapture::release(bool handOnTail) {
    m_connected.store(false);
    if (!m_stream)
        return;
    PulseContext::Lock lock(*m_pulse);
    m_disconnecting = true;
    // What is still held back for a batch is handed on (the mainloop thread waits on the lock meanwhile).
    if (handOnTail && pa_stream_get_state(m_stream.get()) == PA_STREAM_READY) {
        const size_t readable = pa_stream_readable_size(m_stream.get());
        if (readable > 0 && readable != static_cast<size_t>(-1))
            takeReadable(m_stream.get(), readable);
    }
    pa_stream_set_read_callback(m_stream.get(), nullptr, nullptr);
    pa_stream_set_state_callback(m_stream.get(), nullptr, nullptr);
    pa_stream_set_moved_callback(m_stream.get(), nullptr, nullptr);
    if (m_timingUpdate) {
        pa_operation_cancel(m_timingUpdate.get());
        m_timingUpdate.reset();
    }
    const pa_stream_state_t state = pa_stream_get_state(m_stream.get());
    if (state == PA_STREAM_READY || state == PA_STREAM_CREATING)
        pa_stream_disconnect(m_stream.get());
    m_stream.reset();
}

int64_t PulseCapture::oldestUnreadCaptureNs(pa_stream* stream, size_t readableBytes) {
    const int64_t nowNs = monotonicNowNs();
    if (!m_onPipeWire) {
        // The oldest unread frame was captured `latency` ago.
        pa_usec_t latencyUs = 0;
        int negative = 0;
        if (pa_stream_get_latency(stream, &latencyUs, &negative) < 0 || negative)
            latencyUs = 0;
        return nowNs - static_cast<int64_t>(latencyUs) * 1000;
    }
    // pipewire-pulse answers a timing query with its write index as of its last graph cycle but the time of the
    // answer, and libpulse's interpolation between two answers (1.5 s apart once a stream runs) drifts late by
    // tens of ms. Two bounds instead, each only ever late: what arrived was captured before it arrived, before
    // everything still unread; and what the server had written when it answered was captured before the answer
    // (this one holds when our reading fell behind). Both less the graph's delay the server reported.
    const int64_t frameBytes = static_cast<int64_t>(sizeof(float)) * m_channels;
    const auto bytesNs = [&](int64_t bytes) { return bytes / frameBytes * 1'000'000'000 / m_sampleRateHz; };
    const pa_timing_info* timing = pa_stream_get_timing_info(stream);
    const int64_t delayNs = timing ? static_cast<int64_t>(timing->source_usec) * 1000 : 0;
    int64_t captureNs = nowNs - bytesNs(static_cast<int64_t>(readableBytes)) - delayNs;
    if (timing && !timing->write_index_corrupt && !timing->read_index_corrupt) {
        const int64_t answeredNs = nowNs - static_cast<int64_t>(pa_timeval_age(&timing->timestamp)) * 1000;
        captureNs = std::min(captureNs, answeredNs - bytesNs(timing->write_index - timing->read_index) - delayNs);
    }
    // Fresh answers keep the second bound close, and show a change of the graph's delay soon.
    if ((!timing || pa_timeval_age(&timing->timestamp) > kTimingRefreshUs) &&
        (!m_timingUpdate || pa_operation_get_state(m_timingUpdate.get()) != PA_OPERATION_RUNNING))
        m_timingUpdate.reset(pa_stream_update_timing_info(stream, nullptr, nullptr));
    return captureNs;
}

void PulseCapture::onRead(pa_stream* stream, size_t, void* userdata) {
    auto* self = static_cast<PulseCapture*>(userdata);
    const size_t readable = pa_stream_readable_size(stream);
    if (readable != static_cast<size_t>(-1) && readable >= self->m_batchBytes)
        self->takeReadable(stream, readable);
}

void PulseCapture::takeReadable(pa_stream* stream, size_t readable) {
    const int64_t frameBytes = static_cast<int64_t>(sizeof(float)) * m_channels;
    // One capture time for all that is read now; what follows the oldest frame is counted from it.
    const int64_t firstNs = oldestUnreadCaptureNs(stream, readable);
    int64_t takenFrames = 0;
    int64_t batchFrames = 0;
    const auto handOn = [&] {
        if (batchFrames > 0)
            m_onChunk(m_batch.data(), batchFrames,
                      firstNs + (takenFrames - batchFrames) * 1'000'000'000 / m_sampleRateHz);
        batchFrames = 0;
    };
    const auto batchCapacity = static_cast<int64_t>(m_batch.size()) / m_channels;
    for (; readable > 0 && readable != static_cast<size_t>(-1); readable = pa_stream_readable_size(stream)) {
        const void* data = nullptr;
        size_t bytes = 0;
        if (pa_stream_peek(stream, &data, &bytes) < 0 || bytes == 0)
            break;
        const int64_t frames = static_cast<int64_t>(bytes) / frameBytes;
        if (!data || batchFrames + frames > batchCapacity)
            handOn();
        if (!data) // a hole: silence
            m_onChunk(nullptr, frames, firstNs + takenFrames * 1'000'000'000 / m_sampleRateHz);
        else if (frames > batchCapacity)
            m_onChunk(static_cast<const float*>(data), frames, firstNs + takenFrames * 1'000'000'000 / m_sampleRateHz);
        else {
            std::copy_n(static_cast<const float*>(data), frames * m_channels,
                        m_batch.data() + batchFrames * m_channels);
            batchFrames += frames;
        }
        takenFrames += frames;
        pa_stream_drop(stream);
    }
    handOn();
}

void PulseCapture::onState(pa_stream* stream, void* userdata) {
    auto* self = static_cast<PulseCapture*>(userdata);
    const pa_stream_state_t state = pa_stream_get_state(stream);
    if ((state == PA_STREAM_FAILED || state == PA_STREAM_TERMINATED) && !self->m_disconnecting &&
        self->m_connected.exchange(false)) {
        const QString reason = pulseErrorText(pa_context_errno(pa_stream_get_context(stream)));
        if (self->m_onEnded)
            self->m_onEnded(reason);
    }
    pa_threaded_mainloop_signal(self->m_pulse->mainloop(), 0);
}

void PulseCapture::onMoved(pa_stream* stream, void* userdata) {
    auto* self = static_cast<PulseCapture*>(userdata);
    const char* name = pa_stream_get_device_name(stream);
    if (self->m_onMoved)
        self->m_onMoved(name ? QString::fromUtf8(name) : QString());
}

} // namespace tavrel
