#pragma once

#include "audio/sources/CaptureSourceBase.h"

#include <QString>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace tavrel {

class CaptureTrack;
class PipeWireCapture;
class PipeWireConnection;
class PipeWireOutputWatcher;

/// The whole output mix, captured through PipeWire without touching the routing: a native capture stream on
/// the default output, written as float PCM to "tavrel_tap_<T>.caf".
///
/// An output watcher follows the default output (through filters such as an echo canceller, to the device that
/// hears everything) and the capture stream moves with it; audio is only written while the stream is linked to
/// an output device (never a microphone, which is where PipeWire falls back when a target vanishes). When the
/// daemon goes away, a supervisor builds the connection again and recording goes on in the same file, the gap
/// kept as silence.
class ProcessTapRecorder : public CaptureSourceBase {
public:
    static constexpr const char* kThreadName = "fr.tavrel.recorder.tap";
    static constexpr int kSampleRateHz = 48000;
    static constexpr int kChannels = 2;

    /// The steps of the start, each of which can fail it.
    enum class Step { connect, defaultOutput, stream, format, link, file };
    struct Options {
        /// Makes the start fail at this step, as a daemon that misbehaves there would (tests).
        std::optional<Step> failAt;
    };

    explicit ProcessTapRecorder(Options options = {});
    ~ProcessTapRecorder() override;
    ProcessTapRecorder(const ProcessTapRecorder&) = delete;
    ProcessTapRecorder& operator=(const ProcessTapRecorder&) = delete;

    /// Throws `SystemAudioFailure(tapFailed)` on any failure, within its time-outs, after releasing everything.
    void startBlocking() override;
    std::optional<QString> stopBlocking() override;
    float currentLevel() const override;

    /// The output the stream is meant to capture (empty before start).
    QString targetSink() const;
    /// Whether the stream runs on the daemon now.
    bool isConnected() const { return m_connected.load(); }

private:
    /// One connection with its watcher and stream; made and dropped as a whole.
    struct Session;

    bool openSession();
    void closeSession();
    void onGraphChanged();
    void onChunk(const float* samples, int64_t frames, int64_t captureNs);
    void supervise(std::stop_token stop);

    Options m_options;
    std::unique_ptr<CaptureTrack> m_track;
    std::unique_ptr<Session> m_session; // the supervisor's once started
    QString m_announcedDefault;         // loop thread
    std::atomic<std::shared_ptr<const QString>> m_target;
    std::atomic<bool> m_linkVerified{false};
    std::atomic<bool> m_connected{false};
    std::atomic<bool> m_running{false};
    std::mutex m_wakeMutex;
    std::condition_variable_any m_wake;
    std::jthread m_supervisor; // last
};

} // namespace tavrel
