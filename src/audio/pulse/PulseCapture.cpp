#include "audio/pulse/PulseCapture.h"

#include "audio/timeline/RecordingClock.h"

namespace tavrel {

using namespace std::chrono_literals;

PulseCapture::PulseCapture(std::shared_ptr<PulseContext> pulse, QString streamName, int sampleRateHz, int channels)
    : m_pulse(std::move(pulse)), m_streamName(std::move(streamName)), m_sampleRateHz(sampleRateHz),
      m_channels(channels) {}

PulseCapture::~PulseCapture() {
    disconnect();
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
    const QByteArray device = source.toUtf8();
    const QByteArray name = m_streamName.toUtf8();
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
    m_connected.store(false);
    if (!m_stream)
        return;
    PulseContext::Lock lock(*m_pulse);
    m_disconnecting = true;
    pa_stream_set_read_callback(m_stream.get(), nullptr, nullptr);
    pa_stream_set_state_callback(m_stream.get(), nullptr, nullptr);
    pa_stream_set_moved_callback(m_stream.get(), nullptr, nullptr);
    const pa_stream_state_t state = pa_stream_get_state(m_stream.get());
    if (state == PA_STREAM_READY || state == PA_STREAM_CREATING)
        pa_stream_disconnect(m_stream.get());
    m_stream.reset();
}

void PulseCapture::onRead(pa_stream* stream, size_t, void* userdata) {
    auto* self = static_cast<PulseCapture*>(userdata);
    const int64_t frameBytes = static_cast<int64_t>(sizeof(float)) * self->m_channels;
    while (pa_stream_readable_size(stream) > 0) {
        const void* data = nullptr;
        size_t bytes = 0;
        if (pa_stream_peek(stream, &data, &bytes) < 0 || bytes == 0)
            break;
        const int64_t frames = static_cast<int64_t>(bytes) / frameBytes;
        pa_usec_t latencyUs = 0;
        int negative = 0;
        if (pa_stream_get_latency(stream, &latencyUs, &negative) < 0 || negative)
            latencyUs = 0;
        // The oldest unread frame was captured `latency` ago; a hole (data == nullptr) is silence.
        const int64_t captureNs = monotonicNowNs() - static_cast<int64_t>(latencyUs) * 1000;
        self->m_onChunk(static_cast<const float*>(data), frames, captureNs);
        pa_stream_drop(stream);
    }
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
