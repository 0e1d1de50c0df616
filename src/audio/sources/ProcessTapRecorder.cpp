#include "audio/sources/ProcessTapRecorder.h"

#include "audio/files/CafWriter.h"
#include "audio/files/TemporaryCaptureFile.h"
#include "audio/sources/OutputChain.h"
#include "audio/timeline/SampleHandOff.h"
#include "core/Level.h"
#include "core/Log.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>
#include <pipewire/extensions/metadata.h>
#include <spa/param/audio/format-utils.h>
#include <spa/pod/builder.h>
#include <spa/utils/dict.h>

namespace tavrel {

namespace {

using namespace std::chrono_literals;

constexpr auto kConnectTimeout = 3000ms;
constexpr auto kLinkTimeout = 3000ms;
constexpr int64_t kHandOffSeconds = 10;

QString lookup(const spa_dict* props, const char* key) {
    const char* value = props ? spa_dict_lookup(props, key) : nullptr;
    return value ? QString::fromUtf8(value) : QString();
}

/// The metadata's default devices are JSON objects: { "name": "alsa_output..." }.
QString nameFromMetadataValue(const char* value) {
    if (!value)
        return {};
    return QJsonDocument::fromJson(QByteArray(value)).object().value(QStringLiteral("name")).toString();
}

const pw_core_events kCoreEvents = [] {
    pw_core_events events{};
    events.version = PW_VERSION_CORE_EVENTS;
    return events;
}();

const pw_registry_events kRegistryEvents = [] {
    pw_registry_events events{};
    events.version = PW_VERSION_REGISTRY_EVENTS;
    return events;
}();

const pw_metadata_events kMetadataEvents = [] {
    pw_metadata_events events{};
    events.version = PW_VERSION_METADATA_EVENTS;
    return events;
}();

const pw_node_events kNodeEvents = [] {
    pw_node_events events{};
    events.version = PW_VERSION_NODE_EVENTS;
    return events;
}();

bool mayBeInAChain(const QString& mediaClass) {
    return mediaClass == QLatin1String("Audio/Sink") || mediaClass == QLatin1String("Stream/Output/Audio");
}

const pw_stream_events kStreamEvents = [] {
    pw_stream_events events{};
    events.version = PW_VERSION_STREAM_EVENTS;
    return events;
}();

} // namespace

ProcessTapRecorder::ProcessTapRecorder() = default;

ProcessTapRecorder::~ProcessTapRecorder() {
    if (m_loop)
        stopBlocking();
}

float ProcessTapRecorder::currentLevel() const {
    return m_isPaused.load() ? 0.0f : m_level.load();
}

QString ProcessTapRecorder::targetSink() const {
    if (!m_loop)
        return m_targetSink;
    PwLoopLock lock(m_loop.get());
    return m_targetSink;
}

bool ProcessTapRecorder::waitLocked(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    timespec deadline{};
    pw_thread_loop_get_time(m_loop.get(), &deadline, std::chrono::nanoseconds(timeout).count());
    while (!condition()) {
        if (pw_thread_loop_timed_wait_full(m_loop.get(), &deadline) != 0)
            return condition();
    }
    return true;
}

void ProcessTapRecorder::roundTrip() {
    m_roundTripDone = false;
    m_pendingSeq = pw_core_sync(m_core.get(), PW_ID_CORE, 0);
    waitLocked([this] { return m_roundTripDone; }, kConnectTimeout);
}

void ProcessTapRecorder::startBlocking() {
    ensurePipeWireInitialised();
    m_startNs = timelineStartNs();
    m_loop.reset(pw_thread_loop_new(kThreadName, nullptr));
    if (m_loop)
        m_context.reset(pw_context_new(pw_thread_loop_get_loop(m_loop.get()), nullptr, 0));
    bool started = false;
    if (m_context && pw_thread_loop_start(m_loop.get()) == 0) {
        PwLoopLock lock(m_loop.get());
        started = connectLocked();
    }
    // Every failure leaves the locked scope first: the loop cannot be stopped while its lock is held.
    if (!started) {
        releaseAll();
        throw SystemAudioFailure(SystemAudioError::tapFailed);
    }
    logLine(QStringLiteral("[ProcessTap] Capture démarrée → ") + QFileInfo(*m_outputURL).fileName());
    const QString target = targetSink();
    if (target != m_announcedDefault)
        logLine(QStringLiteral("[ProcessTap] Sortie filtrée, capture du périphérique → ") + target);
}

bool ProcessTapRecorder::connectLocked() {
    m_core.reset(pw_context_connect(m_context.get(), nullptr, 0));
    if (!m_core)
        return false;
    static pw_core_events events = [] {
        pw_core_events e = kCoreEvents;
        e.done = &ProcessTapRecorder::onCoreDone;
        e.error = &ProcessTapRecorder::onCoreError;
        return e;
    }();
    pw_core_add_listener(m_core.get(), &m_coreListener, &events, this);

    m_registry.reset(reinterpret_cast<pw_proxy*>(pw_core_get_registry(m_core.get(), PW_VERSION_REGISTRY, 0)));
    if (!m_registry)
        return false;
    static pw_registry_events registryEvents = [] {
        pw_registry_events e = kRegistryEvents;
        e.global = &ProcessTapRecorder::onGlobal;
        e.global_remove = &ProcessTapRecorder::onGlobalRemove;
        return e;
    }();
    pw_registry_add_listener(reinterpret_cast<pw_registry*>(m_registry.get()), &m_registryListener, &registryEvents,
                             this);
    roundTrip(); // every global, and the "default" metadata bound
    roundTrip(); // the metadata's properties and the bound nodes' full properties
    if (m_defaultSink.isEmpty())
        return false;
    m_targetSink = endOfDefaultChain();
    m_announcedDefault = m_defaultSink;
    connectStream();
    if (!m_stream)
        return false;
    const bool connected = waitLocked(
        [this] {
            return m_streamState == PW_STREAM_STATE_ERROR ||
                   ((m_streamState == PW_STREAM_STATE_PAUSED || m_streamState == PW_STREAM_STATE_STREAMING) &&
                    m_formatKnown);
        },
        kConnectTimeout);
    if (!connected || m_streamState == PW_STREAM_STATE_ERROR)
        return false;
    // A stream whose target is not there ends up on the default microphone without a word: only an
    // established link to an output device counts as started.
    if (!waitLocked([this] { return linkedSourceNode().has_value(); }, kLinkTimeout) || !linkedToTargetSink())
        return false;
    m_linkVerified.store(true);

    const QString path = temporaryCaptureFile(QStringLiteral("tavrel_tap_"), QStringLiteral("caf"));
    m_outputURL = path;
    try {
        m_file = std::make_unique<CafWriter>(path, kSampleRateHz, kChannels);
    } catch (const Error&) {
        return false;
    }
    CafWriter* file = m_file.get();
    m_handOff = std::make_unique<SampleHandOff>(
        kChannels, kHandOffSeconds * kSampleRateHz,
        [file](const float* samples, int64_t frames, int64_t position) { file->write(samples, frames, position); },
        kThreadName);
    m_timeline.emplace(m_startNs, kSampleRateHz);
    m_started = true;
    m_writing.store(true);
    return true;
}

void ProcessTapRecorder::connectStream() {
    PwPropertiesPtr props(pw_properties_new(
        PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Capture", PW_KEY_STREAM_CAPTURE_SINK, "true",
        PW_KEY_NODE_NAME, "tavrel-tap", PW_KEY_APP_NAME, "TaVREL Recorder", PW_KEY_NODE_LATENCY, "960/48000", nullptr));
    pw_properties_set(props.get(), PW_KEY_TARGET_OBJECT, m_targetSink.toUtf8().constData());
    if (!m_stream) {
        m_stream.reset(pw_stream_new(m_core.get(), "TaVREL Tap", props.release()));
        if (!m_stream)
            return;
        static pw_stream_events events = [] {
            pw_stream_events e = kStreamEvents;
            e.state_changed = &ProcessTapRecorder::onStreamState;
            e.param_changed = &ProcessTapRecorder::onStreamParamChanged;
            e.process = &ProcessTapRecorder::onProcess;
            return e;
        }();
        pw_stream_add_listener(m_stream.get(), &m_streamListener, &events, this);
    } else {
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
    m_formatKnown = false;
    pw_stream_connect(m_stream.get(), PW_DIRECTION_INPUT, PW_ID_ANY,
                      static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS), params, 1);
}

std::optional<uint32_t> ProcessTapRecorder::linkedSourceNode() const {
    if (!m_stream)
        return std::nullopt;
    const uint32_t self = pw_stream_get_node_id(m_stream.get());
    if (self == SPA_ID_INVALID)
        return std::nullopt;
    for (const auto& [id, link] : m_links)
        if (link.inputNode == self)
            return link.outputNode;
    return std::nullopt;
}

bool ProcessTapRecorder::linkedToTargetSink() const {
    const auto source = linkedSourceNode();
    if (!source)
        return false;
    const auto node = m_nodes.find(*source);
    return node != m_nodes.end() && node->second.mediaClass == QLatin1String("Audio/Sink");
}

QString ProcessTapRecorder::endOfDefaultChain() const {
    std::vector<OutputChainSink> sinks;
    std::vector<OutputChainStream> streams;
    for (const auto& [id, node] : m_nodes) {
        if (node.mediaClass == QLatin1String("Audio/Sink")) {
            sinks.push_back(OutputChainSink{id, node.name, node.masterDevice, node.linkGroup});
        } else if (node.mediaClass == QLatin1String("Stream/Output/Audio") && !node.linkGroup.isEmpty()) {
            for (const auto& [linkId, link] : m_links)
                if (link.outputNode == id)
                    streams.push_back(OutputChainStream{node.linkGroup, link.inputNode});
        }
    }
    const OutputChainSink* end = endOfOutputChain(sinks, streams, m_defaultSink);
    return end ? end->name : m_defaultSink;
}

void ProcessTapRecorder::followDefaultChain() {
    if (!m_started || m_defaultSink.isEmpty())
        return;
    const QString target = endOfDefaultChain();
    if (target == m_targetSink)
        return;
    m_targetSink = target;
    m_linkVerified.store(false);
    pw_stream_disconnect(m_stream.get());
    connectStream();
    if (m_announcedDefault != m_defaultSink) {
        m_announcedDefault = m_defaultSink;
        logLine(QStringLiteral("[ProcessTap] Sortie par défaut changée → ") + m_defaultSink);
    }
    if (target != m_defaultSink)
        logLine(QStringLiteral("[ProcessTap] Sortie filtrée, capture du périphérique → ") + target);
}

void ProcessTapRecorder::onGlobal(void* data, uint32_t id, uint32_t, const char* type, uint32_t,
                                  const spa_dict* props) {
    auto* self = static_cast<ProcessTapRecorder*>(data);
    if (std::strcmp(type, PW_TYPE_INTERFACE_Node) == 0) {
        NodeFacts& node = self->m_nodes[id];
        node.name = lookup(props, PW_KEY_NODE_NAME);
        node.mediaClass = lookup(props, PW_KEY_MEDIA_CLASS);
        if (mayBeInAChain(node.mediaClass) && !self->m_boundNodes.contains(id))
            self->bindNode(id);
        self->followDefaultChain();
    } else if (std::strcmp(type, PW_TYPE_INTERFACE_Link) == 0) {
        self->m_links[id] =
            LinkFacts{lookup(props, PW_KEY_LINK_OUTPUT_NODE).toUInt(), lookup(props, PW_KEY_LINK_INPUT_NODE).toUInt()};
        if (self->m_started)
            self->m_linkVerified.store(self->linkedToTargetSink());
        self->followDefaultChain();
    } else if (std::strcmp(type, PW_TYPE_INTERFACE_Metadata) == 0 && !self->m_metadata &&
               lookup(props, PW_KEY_METADATA_NAME) == QLatin1String("default")) {
        self->m_metadataId = id;
        self->m_metadata.reset(static_cast<pw_proxy*>(pw_registry_bind(
            reinterpret_cast<pw_registry*>(self->m_registry.get()), id, type, PW_VERSION_METADATA, 0)));
        if (self->m_metadata) {
            static pw_metadata_events events = [] {
                pw_metadata_events e = kMetadataEvents;
                e.property = &ProcessTapRecorder::onMetadataProperty;
                return e;
            }();
            pw_metadata_add_listener(reinterpret_cast<pw_metadata*>(self->m_metadata.get()), &self->m_metadataListener,
                                     &events, self);
        }
    }
    pw_thread_loop_signal(self->m_loop.get(), false);
}

void ProcessTapRecorder::onGlobalRemove(void* data, uint32_t id) {
    auto* self = static_cast<ProcessTapRecorder*>(data);
    self->unbindNode(id);
    const bool node = self->m_nodes.erase(id) > 0;
    const bool link = self->m_links.erase(id) > 0;
    if (link && self->m_started)
        self->m_linkVerified.store(self->linkedToTargetSink());
    if (node || link)
        self->followDefaultChain();
    pw_thread_loop_signal(self->m_loop.get(), false);
}

void ProcessTapRecorder::bindNode(uint32_t id) {
    auto bound = std::make_unique<BoundNode>();
    bound->owner = this;
    bound->id = id;
    bound->proxy.reset(static_cast<pw_proxy*>(pw_registry_bind(reinterpret_cast<pw_registry*>(m_registry.get()), id,
                                                               PW_TYPE_INTERFACE_Node, PW_VERSION_NODE, 0)));
    if (!bound->proxy)
        return;
    static pw_node_events events = [] {
        pw_node_events e = kNodeEvents;
        e.info = &ProcessTapRecorder::onNodeInfo;
        return e;
    }();
    pw_node_add_listener(reinterpret_cast<pw_node*>(bound->proxy.get()), &bound->listener, &events, bound.get());
    m_boundNodes[id] = std::move(bound);
}

void ProcessTapRecorder::unbindNode(uint32_t id) {
    const auto found = m_boundNodes.find(id);
    if (found == m_boundNodes.end())
        return;
    spa_hook_remove(&found->second->listener);
    m_boundNodes.erase(found);
}

void ProcessTapRecorder::onNodeInfo(void* data, const pw_node_info* info) {
    auto* bound = static_cast<BoundNode*>(data);
    ProcessTapRecorder* self = bound->owner;
    if (!info || !(info->change_mask & PW_NODE_CHANGE_MASK_PROPS))
        return;
    const auto node = self->m_nodes.find(bound->id);
    if (node == self->m_nodes.end())
        return;
    node->second.masterDevice = lookup(info->props, "device.master_device");
    node->second.linkGroup = lookup(info->props, "node.link-group");
    self->followDefaultChain();
    pw_thread_loop_signal(self->m_loop.get(), false);
}

int ProcessTapRecorder::onMetadataProperty(void* data, uint32_t subject, const char* key, const char*,
                                           const char* value) {
    auto* self = static_cast<ProcessTapRecorder*>(data);
    if (subject != PW_ID_CORE || !key || std::strcmp(key, "default.audio.sink") != 0)
        return 0;
    self->m_defaultSink = nameFromMetadataValue(value);
    self->followDefaultChain();
    pw_thread_loop_signal(self->m_loop.get(), false);
    return 0;
}

void ProcessTapRecorder::onCoreDone(void* data, uint32_t id, int seq) {
    auto* self = static_cast<ProcessTapRecorder*>(data);
    if (id == PW_ID_CORE && seq == self->m_pendingSeq) {
        self->m_roundTripDone = true;
        pw_thread_loop_signal(self->m_loop.get(), false);
    }
}

void ProcessTapRecorder::onCoreError(void* data, uint32_t id, int, int, const char*) {
    auto* self = static_cast<ProcessTapRecorder*>(data);
    if (id == PW_ID_CORE) {
        // The daemon went away: release any waiter; the stream state reports the rest.
        self->m_roundTripDone = true;
        pw_thread_loop_signal(self->m_loop.get(), false);
    }
}

void ProcessTapRecorder::onStreamState(void* data, pw_stream_state, pw_stream_state state, const char*) {
    auto* self = static_cast<ProcessTapRecorder*>(data);
    self->m_streamState = state;
    pw_thread_loop_signal(self->m_loop.get(), false);
}

void ProcessTapRecorder::onStreamParamChanged(void* data, uint32_t id, const spa_pod* param) {
    auto* self = static_cast<ProcessTapRecorder*>(data);
    if (id != SPA_PARAM_Format || !param)
        return;
    spa_audio_info_raw info{};
    if (spa_format_audio_raw_parse(param, &info) < 0)
        return;
    self->m_formatKnown = info.format == SPA_AUDIO_FORMAT_F32 && info.rate == static_cast<uint32_t>(kSampleRateHz) &&
                          info.channels == static_cast<uint32_t>(kChannels);
    pw_thread_loop_signal(self->m_loop.get(), false);
}

void ProcessTapRecorder::onProcess(void* data) {
    auto* self = static_cast<ProcessTapRecorder*>(data);
    pw_buffer* buffer = pw_stream_dequeue_buffer(self->m_stream.get());
    if (!buffer)
        return;
    const spa_data& block = buffer->buffer->datas[0];
    if (block.data && block.chunk && block.chunk->size > 0 && self->m_writing.load(std::memory_order_relaxed)) {
        const auto* samples =
            reinterpret_cast<const float*>(static_cast<const uint8_t*>(block.data) + block.chunk->offset);
        const int64_t frames = block.chunk->size / (sizeof(float) * kChannels);
        pw_time time{};
        int64_t cycleNs = 0;
        if (pw_stream_get_time_n(self->m_stream.get(), &time, sizeof time) == 0)
            cycleNs = time.now;
        if (cycleNs <= 0)
            cycleNs = monotonicNowNs();
        // The buffer holds the cycle that just ended.
        const int64_t captureNs = cycleNs - frames * 1'000'000'000 / kSampleRateHz;
        const int64_t streamFrame = self->m_timeline->place(captureNs, frames);
        const auto position =
            self->m_timeline->filePosition(streamFrame, frames, self->m_isPaused.load(std::memory_order_relaxed));
        // Audio from anything but an output device (the fallback microphone) is never written: that stretch
        // stays silent in the file.
        if (position && self->m_linkVerified.load(std::memory_order_relaxed) &&
            self->m_handOff->push(samples, frames, *position))
            self->updateLevel(samples, static_cast<uint32_t>(frames));
    }
    pw_stream_queue_buffer(self->m_stream.get(), buffer);
}

void ProcessTapRecorder::updateLevel(const float* samples, uint32_t count) {
    if (count == 0)
        return;
    // The first `count` values at the first channel's pointer, as the meter has always read them.
    float sum = 0.0f;
    for (uint32_t i = 0; i < count; ++i)
        sum += samples[i] * samples[i];
    const float rms = std::max(std::sqrt(sum / static_cast<float>(count)), 1e-7f);
    m_level.store(levelFromDecibels(20.0f * std::log10(rms)), std::memory_order_relaxed);
}

void ProcessTapRecorder::releaseAll() {
    m_writing.store(false);
    if (m_loop) {
        {
            PwLoopLock lock(m_loop.get());
            m_started = false;
            if (m_stream) {
                pw_stream_disconnect(m_stream.get());
                spa_hook_remove(&m_streamListener);
                m_stream.reset();
            }
        }
        pw_thread_loop_stop(m_loop.get());
    }
    if (m_handOff)
        m_handOff->stop();
    if (m_file)
        m_file->finish();
    m_handOff.reset();
    m_file.reset();
    while (!m_boundNodes.empty())
        unbindNode(m_boundNodes.begin()->first);
    if (m_metadata) {
        spa_hook_remove(&m_metadataListener);
        m_metadata.reset();
    }
    if (m_registry) {
        spa_hook_remove(&m_registryListener);
        m_registry.reset();
    }
    if (m_core) {
        spa_hook_remove(&m_coreListener);
        m_core.reset();
    }
    m_context.reset();
    m_loop.reset();
    m_nodes.clear();
    m_links.clear();
}

std::optional<QString> ProcessTapRecorder::stopBlocking() {
    releaseAll();
    logLine(QStringLiteral("[ProcessTap] Capture arrêtée"));
    return m_outputURL;
}

} // namespace tavrel
