#pragma once

#include "audio/pipewire/PipeWireHandles.h"
#include "audio/sources/CaptureSourceBase.h"
#include "audio/timeline/CaptureTimeline.h"

#include <QString>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <spa/utils/hook.h>

namespace tavrel {

class CafWriter;
class SampleHandOff;

/// The whole output mix, captured through PipeWire without touching the routing: a native capture
/// stream on the default output (`stream.capture.sink`), written as float PCM to "tavrel_tap_<T>.caf".
///
/// The stream follows the default output when it changes (a filter in front of a device, such as an echo
/// canceller, is looked through: the device hears everything), only ever writes while it is linked to an
/// output device (never to a microphone, which is where PipeWire falls back when a target vanishes), and
/// keeps the track on real time through idle stretches (see CaptureTimeline).
class ProcessTapRecorder : public CaptureSourceBase {
public:
    static constexpr const char* kThreadName = "fr.tavrel.recorder.tap";
    static constexpr int kSampleRateHz = 48000;
    static constexpr int kChannels = 2;

    ProcessTapRecorder();
    ~ProcessTapRecorder() override;
    ProcessTapRecorder(const ProcessTapRecorder&) = delete;
    ProcessTapRecorder& operator=(const ProcessTapRecorder&) = delete;

    /// Throws `SystemAudioFailure(tapFailed)` on any failure, after releasing what it made.
    void startBlocking() override;
    std::optional<QString> stopBlocking() override;
    float currentLevel() const override;

    /// The sink the stream is currently meant to capture (empty before start).
    QString targetSink() const;

private:
    struct NodeFacts {
        QString name;
        QString mediaClass;
        QString masterDevice;
        QString linkGroup;
    };
    /// Filters show how they are chained only in their full properties, which the registry leaves out:
    /// sinks and playback streams are bound to read them.
    struct BoundNode {
        ProcessTapRecorder* owner = nullptr;
        uint32_t id = 0;
        PwProxyPtr proxy;
        spa_hook listener{};
    };
    struct LinkFacts {
        uint32_t outputNode = 0;
        uint32_t inputNode = 0;
    };

    /// Everything of the start that runs under the loop lock; false on any failure.
    bool connectLocked();
    void connectStream();
    bool waitLocked(const std::function<bool()>& condition, std::chrono::milliseconds timeout);
    void roundTrip();
    std::optional<uint32_t> linkedSourceNode() const;
    bool linkedToTargetSink() const;
    QString endOfDefaultChain() const;
    void followDefaultChain();
    void releaseAll();

    // Callbacks on the loop thread.
    static void onGlobal(void* data, uint32_t id, uint32_t permissions, const char* type, uint32_t version,
                         const spa_dict* props);
    static void onGlobalRemove(void* data, uint32_t id);
    static void onNodeInfo(void* data, const pw_node_info* info);
    void bindNode(uint32_t id);
    void unbindNode(uint32_t id);
    static int onMetadataProperty(void* data, uint32_t subject, const char* key, const char* type, const char* value);
    static void onCoreDone(void* data, uint32_t id, int seq);
    static void onCoreError(void* data, uint32_t id, int seq, int res, const char* message);
    static void onStreamState(void* data, pw_stream_state old, pw_stream_state state, const char* error);
    static void onStreamParamChanged(void* data, uint32_t id, const spa_pod* param);
    static void onProcess(void* data);
    void updateLevel(const float* samples, uint32_t count);

    PwThreadLoopPtr m_loop; // destroyed last among PipeWire objects (declared first)
    PwContextPtr m_context;
    PwCorePtr m_core;
    PwProxyPtr m_registry;
    PwProxyPtr m_metadata;
    PwStreamPtr m_stream;
    spa_hook m_coreListener{};
    spa_hook m_registryListener{};
    spa_hook m_metadataListener{};
    spa_hook m_streamListener{};

    // Loop-thread state (read elsewhere only under the loop lock).
    std::map<uint32_t, NodeFacts> m_nodes;
    std::map<uint32_t, LinkFacts> m_links;
    std::map<uint32_t, std::unique_ptr<BoundNode>> m_boundNodes;
    uint32_t m_metadataId = 0;
    QString m_defaultSink;
    QString m_targetSink;
    QString m_announcedDefault; // the default output last written to the log
    int m_pendingSeq = -1;
    bool m_roundTripDone = false;
    pw_stream_state m_streamState = PW_STREAM_STATE_UNCONNECTED;
    bool m_formatKnown = false;
    bool m_started = false;
    std::optional<CaptureTimeline> m_timeline;

    std::unique_ptr<CafWriter> m_file;
    std::unique_ptr<SampleHandOff> m_handOff;
    int64_t m_startNs = 0;

    std::atomic<bool> m_writing{false};
    std::atomic<bool> m_linkVerified{false};
};

} // namespace tavrel
