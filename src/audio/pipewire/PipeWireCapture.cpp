#include "audio/pipewire/PipeWireCapture.h"

#include "audio/pipewire/PipeWireConnection.h"
#include "audio/timeline/RecordingClock.h"

#include <array>
#include <spa/param/audio/format-utils.h>
#include <spa/pod/builder.h>

namespace tavrel {

const pw_stream_events PipeWireCapture::kStreamEvents{
    .version = PW_VERSION_STREAM_EVENTS,
    .state_changed = &PipeWireCapture::onStateChanged,
    .param_changed = &PipeWireCapture::onParamChanged,
    .process = &PipeWireCapture::onProcess,
};

PipeWireCapture::PipeWireCapture(PipeWireConnection& connection, ChunkHandler onChunk)
    : m_connection(connection), m_onChunk(std::move(onChunk)) {}

PipeWireCapture::~PipeWireCapture() {
    if (!m_stream)
        return;
    pw_stream_disconnect(m_stream.get());
    spa_hook_remove(&m_listener);
    m_stream.reset();
}

bool PipeWireCapture::connect(const QString& sink) {
    m_sink = sink;
    PwPropertiesPtr props(pw_properties_new(
        PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Capture", PW_KEY_STREAM_CAPTURE_SINK, "true",
        PW_KEY_NODE_NAME, "tavrel-tap", PW_KEY_APP_NAME, "TaVREL Recorder", PW_KEY_NODE_LATENCY, "960/48000", nullptr));
    pw_properties_set(props.get(), PW_KEY_TARGET_OBJECT, sink.toUtf8().constData());
    if (!m_stream) {
        m_stream.reset(pw_stream_new(m_connection.core(), "TaVREL Tap", props.release()));
        if (!m_stream)
            return false;
        pw_stream_add_listener(m_stream.get(), &m_listener, &kStreamEvents, this);
    } else {
        pw_stream_disconnect(m_stream.get());
        pw_stream_update_properties(m_stream.get(), &props->dict);
    }
    uint8_t buffer[1024];
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, buffer, sizeof buffer);
    spa_audio_info_raw info{};
    info.format = SPA_AUDIO_FORMAT_F32;
    info.rate = kSampleRateHz;
    info.channels = kChannels;
    info.position[0] = SPA_AUDIO_CHANNEL_FL;
    info.position[1] = SPA_AUDIO_CHANNEL_FR;
    const spa_pod* params[1] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
    m_formatAccepted = false;
    return pw_stream_connect(m_stream.get(), PW_DIRECTION_INPUT, PW_ID_ANY,
                             static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS |
                                                          PW_STREAM_FLAG_RT_PROCESS),
                             params, 1) == 0;
}

bool PipeWireCapture::isRunning() const {
    return (m_state == PW_STREAM_STATE_PAUSED || m_state == PW_STREAM_STATE_STREAMING) && m_formatAccepted;
}

uint32_t PipeWireCapture::nodeId() const {
    return m_stream ? pw_stream_get_node_id(m_stream.get()) : SPA_ID_INVALID;
}

void PipeWireCapture::onStateChanged(void* data, pw_stream_state, pw_stream_state state, const char*) {
    auto* self = static_cast<PipeWireCapture*>(data);
    self->m_state = state;
    self->m_connection.signal();
}

void PipeWireCapture::onParamChanged(void* data, uint32_t id, const spa_pod* param) {
    auto* self = static_cast<PipeWireCapture*>(data);
    if (id != SPA_PARAM_Format || !param)
        return;
    spa_audio_info_raw info{};
    if (spa_format_audio_raw_parse(param, &info) < 0)
        return;
    self->m_formatAccepted = info.format == SPA_AUDIO_FORMAT_F32 && info.rate == static_cast<uint32_t>(kSampleRateHz) &&
                             info.channels == static_cast<uint32_t>(kChannels);
    self->m_connection.signal();
}

void PipeWireCapture::onProcess(void* data) {
    auto* self = static_cast<PipeWireCapture*>(data);
    // Late to a cycle, the callback may find several buffers waiting. All are taken, oldest first, and timed back
    // from the cycle that just ended; taken one at a time, each would be timed by a later cycle than its own, and
    // the backlog would shift everything after it.
    std::array<pw_buffer*, kMaxBuffersPerCycle> buffers{};
    std::array<int64_t, kMaxBuffersPerCycle> frames{};
    size_t count = 0;
    int64_t totalFrames = 0;
    while (count < buffers.size()) {
        pw_buffer* buffer = pw_stream_dequeue_buffer(self->m_stream.get());
        if (!buffer)
            break;
        const spa_data& block = buffer->buffer->datas[0];
        const bool filled = block.data && block.chunk && block.chunk->size > 0 && self->m_formatAccepted;
        frames[count] = filled ? block.chunk->size / (sizeof(float) * kChannels) : 0;
        totalFrames += frames[count];
        buffers[count++] = buffer;
    }
    if (count == 0)
        return;
    pw_time time{};
    int64_t cycleNs = 0;
    if (pw_stream_get_time_n(self->m_stream.get(), &time, sizeof time) == 0)
        cycleNs = time.now;
    if (cycleNs <= 0)
        cycleNs = monotonicNowNs();
    // The last buffer holds the cycle that just ended.
    int64_t framesLeft = totalFrames;
    for (size_t i = 0; i < count; ++i) {
        if (frames[i] > 0) {
            const spa_data& block = buffers[i]->buffer->datas[0];
            const auto* samples =
                reinterpret_cast<const float*>(static_cast<const uint8_t*>(block.data) + block.chunk->offset);
            self->m_onChunk(samples, frames[i], cycleNs - framesLeft * 1'000'000'000 / kSampleRateHz);
            framesLeft -= frames[i];
        }
        pw_stream_queue_buffer(self->m_stream.get(), buffers[i]);
    }
}

} // namespace tavrel
