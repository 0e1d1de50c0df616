#pragma once

#include "audio/pulse/PulseContext.h"

#include <QString>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace tavrel {

/// One libpulse record stream of float samples on a named source, with each chunk's capture time.
///
/// Chunks reach `onChunk` on the libpulse mainloop thread with the monotonic time at which their first frame
/// was captured (arrival time less the stream's reported latency; through pipewire-pulse, arrival time less what
/// is still unread and the graph's delay): the handler must copy and return. A
/// stretch the server could not capture (a hole in the stream) comes with `interleaved` == nullptr. The
/// server converts the source's rate and channels to the stream's, so a device that changes rate (a headset
/// switching profile) changes neither pitch nor time here. Small fragments are asked for, so that data
/// arrives every few tens of ms and nothing is held back at stop. A stream the server ends (source gone,
/// server gone) is reported once through `onEnded`; `disconnect()` does not report.
class PulseCapture {
public:
    using ChunkHandler = std::function<void(const float* interleaved, int64_t frames, int64_t captureNs)>;
    using EndedHandler = std::function<void(const QString& reason)>;
    using MovedHandler = std::function<void(const QString& source)>;

    /// Large enough to keep the mainloop quiet (it wakes once per fragment and stream), small enough that
    /// the tail reaches us at stop.
    static constexpr int kFragmentMs = 40;
    /// PulseAudio hands a record stream over in pieces of a millisecond or two, each with a callback: they are
    /// left to gather until this much is there, and go on as one chunk (a callback per piece was most of the
    /// capture's CPU time).
    static constexpr int kBatchMs = 20;
    /// Through pipewire-pulse, how old the server's last timing answer may grow before another is asked for.
    static constexpr pa_usec_t kTimingRefreshUs = 100'000;

    PulseCapture(std::shared_ptr<PulseContext> pulse, QString streamName, int sampleRateHz, int channels);
    ~PulseCapture();
    PulseCapture(const PulseCapture&) = delete;
    PulseCapture& operator=(const PulseCapture&) = delete;

    /// Connects to `source` and waits until the stream runs. Throws `PulseError`. Without `onMoved` the
    /// stream is pinned to its source: when the source goes away the server ends the stream instead of
    /// moving it to the default source (which is the microphone).
    void connect(const QString& source, ChunkHandler onChunk, EndedHandler onEnded = {}, MovedHandler onMoved = {});
    /// Moves the running stream to another source (no reconnection, no gap of our own). False on failure.
    bool moveTo(const QString& source);
    /// The source the stream is on now, as the server says (empty when not connected or not known). Asks the
    /// server: libpulse's own idea can lag behind a move (pipewire-pulse does not always report them). Not from
    /// the mainloop thread.
    QString sourceName() const;
    /// Hands on what was captured and not yet delivered, stops delivery and releases the stream. Idempotent.
    void disconnect();
    bool isConnected() const { return m_connected.load(); }

private:
    static void onRead(pa_stream* stream, size_t bytes, void* userdata);
    void release(bool handOnTail);
    /// Hands on everything readable, gathered into chunks (mainloop thread, or under the lock).
    void takeReadable(pa_stream* stream, size_t readable);
    /// The monotonic time at which the oldest unread frame was captured (mainloop thread).
    int64_t oldestUnreadCaptureNs(pa_stream* stream, size_t readableBytes);
    static void onState(pa_stream* stream, void* userdata);
    static void onMoved(pa_stream* stream, void* userdata);

    std::shared_ptr<PulseContext> m_pulse;
    QString m_streamName;
    int m_sampleRateHz;
    int m_channels;
    PaStreamPtr m_stream;
    ChunkHandler m_onChunk;
    EndedHandler m_onEnded;
    MovedHandler m_onMoved;
    std::atomic<bool> m_connected{false};
    bool m_disconnecting = false;
    bool m_onPipeWire = false;     // the server is pipewire-pulse; set before the stream exists
    PaOperationPtr m_timingUpdate; // mainloop thread, or under the lock
    size_t m_batchBytes = 0;
    std::vector<float> m_batch; // pieces gathered into one chunk (mainloop thread, or under the lock)
};

} // namespace tavrel
