#pragma once

#include "audio/files/M4aWriter.h"
#include "audio/pulse/PulseContext.h"
#include "audio/timeline/SampleRing.h"

#include <QString>
#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <thread>

namespace tavrel {

/// Records the microphone (the audio server's default source) into an AAC .m4a, 44 100 Hz mono: a libpulse
/// record stream whose callback only copies samples into a ring, and an encoder thread that drains the ring
/// into the file. Paused samples are dropped, so the file has no gap. Levels are the average power of channel
/// 0 over the samples since the previous `updateMeters()`.
///
/// Created, `record()`ed, paused and resumed from one thread (the orchestrator's); `updateMeters()` and
/// `averagePower()` from the thread that shows the levels; `stop()` blocks until the file is finished.
class MicRecorder {
public:
    static constexpr int kSampleRateHz = 44100;
    static constexpr int kChannels = 1;
    /// Small fragments so that samples arrive every few tens of ms and the tail reaches the file at stop.
    static constexpr std::chrono::milliseconds kFragment{20};
    static constexpr float kSilenceDb = -160.0f;

    struct Settings {
        int sampleRateHz = kSampleRateHz;
        int channels = kChannels;
        QString source; ///< empty: the server's default source
    };

    enum class Access { authorized, denied };
    /// Whether the audio server lets this client read the default source. A server that cannot be reached
    /// counts as authorised: opening the stream then reports the real failure.
    static Access microphoneAccess();

    /// Creates the file and the record stream. Throws `PulseError` or `FfmpegError`.
    MicRecorder(const QString& path, Settings settings);
    explicit MicRecorder(const QString& path) : MicRecorder(path, Settings{}) {}
    ~MicRecorder();
    MicRecorder(const MicRecorder&) = delete;
    MicRecorder& operator=(const MicRecorder&) = delete;

    /// Starts capturing, or resumes after `pause()`. False when the stream cannot be connected.
    bool record();
    void pause();
    /// Captures what the server still holds up to this moment, finishes the file. Throws `Error` when the file
    /// cannot be finished (it then stays readable but fragmented). Further calls do nothing.
    void stop();

    void updateMeters();
    /// dBFS of the last `updateMeters()` (kSilenceDb before any sample).
    float averagePower(int channel) const;

    bool isRecording() const { return m_recording.load() && !m_paused.load(); }
    const QString& path() const { return m_path; }
    /// Frames handed to the encoder so far (drop-outs and paused time excluded).
    int64_t framesWritten() const { return m_framesWritten.load(); }
    /// Frames lost because the encoder thread fell behind.
    int64_t framesDropped() const { return m_framesDropped.load(); }
    /// Why `record()` failed, for the log.
    QString lastError() const { return m_lastError; }

private:
    static void onRead(pa_stream* stream, size_t bytes, void* userdata);
    void readAvailable(pa_stream* stream);
    void encodeLoop(std::stop_token stopToken);
    void drainRing(std::vector<float>& buffer);
    void disconnectStream();

    QString m_path;
    Settings m_settings;
    std::shared_ptr<PulseContext> m_pulse;
    PaStreamPtr m_stream;
    std::unique_ptr<M4aWriter> m_writer;
    SampleRing m_ring;
    std::jthread m_encoder;
    bool m_connected = false;
    bool m_stopped = false;
    QString m_lastError;

    std::atomic<bool> m_recording{false};
    std::atomic<bool> m_paused{false};
    std::atomic<uint64_t> m_readCallbacks{0};
    std::atomic<int64_t> m_framesWritten{0};
    std::atomic<int64_t> m_framesDropped{0};
    std::atomic<bool> m_writeFailed{false};
    std::atomic<double> m_meterSumSquares{0.0};
    std::atomic<int64_t> m_meterCount{0};
    std::atomic<float> m_averagePowerDb{kSilenceDb};
};

} // namespace tavrel
