#pragma once

#include "audio/pipewire/PipeWireHandles.h"

#include <QString>
#include <atomic>
#include <cstdint>
#include <functional>

namespace tavrel {

class PipeWireConnection;

/// A native PipeWire stream that captures what an output plays (`stream.capture.sink` on the output's node),
/// as 48 kHz stereo float whatever the device runs at: PipeWire converts, so a device that changes rate changes
/// neither pitch nor time here. The process callback hands each buffer on with the monotonic time of its first
/// frame and copies nothing itself.
///
/// Made, connected and dropped under the connection's lock; `onChunk` runs on PipeWire's data thread at every graph
/// cycle (it must copy and return: no lock, no allocation). Processed on the loop thread instead, the stream lost
/// buffers whenever that thread fell behind, and the track lost that audio.
class PipeWireCapture {
public:
    static constexpr int kSampleRateHz = 48000;
    static constexpr int kChannels = 2;
    /// Buffers are timed by the graph's cycles, without delivery jitter: after cycles the stream missed (no free
    /// buffer, a driver late under load: the output played nothing then) the next buffer is late by exactly their
    /// length, and anything later than this is such a gap, made silence at once like the microphone's holes.
    static constexpr int64_t kMissedCycleNs = 5'000'000;
    using ChunkHandler = std::function<void(const float* interleaved, int64_t frames, int64_t captureNs)>;

    PipeWireCapture(PipeWireConnection& connection, ChunkHandler onChunk);
    ~PipeWireCapture();
    PipeWireCapture(const PipeWireCapture&) = delete;
    PipeWireCapture& operator=(const PipeWireCapture&) = delete;

    /// Connects (or moves) the stream to the output named `sink`; false when the stream cannot be made.
    bool connect(const QString& sink);
    /// The stream runs in our format (and has not failed).
    bool isRunning() const;
    bool hasFailed() const { return m_state == PW_STREAM_STATE_ERROR; }
    /// The stream's node, or SPA_ID_INVALID before the daemon made it.
    uint32_t nodeId() const;
    const QString& sink() const { return m_sink; }

private:
    /// More buffers than a stream is given: what waits beyond this is taken at the next cycle.
    static constexpr size_t kMaxBuffersPerCycle = 16;
    static const pw_stream_events kStreamEvents;
    static void onStateChanged(void* data, pw_stream_state old, pw_stream_state state, const char* error);
    static void onParamChanged(void* data, uint32_t id, const spa_pod* param);
    static void onProcess(void* data);

    PipeWireConnection& m_connection;
    ChunkHandler m_onChunk;
    PwStreamPtr m_stream;
    spa_hook m_listener{};
    QString m_sink;
    pw_stream_state m_state = PW_STREAM_STATE_UNCONNECTED;
    std::atomic<bool> m_formatAccepted{false}; // read by the process callback on the data thread
};

} // namespace tavrel
