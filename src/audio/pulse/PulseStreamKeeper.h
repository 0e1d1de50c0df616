#pragma once

#include "audio/CaptureEvent.h"
#include "audio/pulse/PulseContext.h"

#include <QString>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace tavrel {

class CaptureTrack;
class PulseCapture;

/// Keeps one side's libpulse record stream running for a whole recording, whatever the audio server does.
///
/// A watcher thread follows where the side should record (the default microphone, the default output's
/// monitor) when the server reports a change, and moves the stream there; it reconnects after the server went
/// away (PulseAudio or pipewire-pulse restarted), the gap staying silence in the track; and it reports the
/// side lost when it cannot come back for `kLostAfter`, and back when it does. Only audio from the source the
/// side means is handed to the track: a stream the server parked elsewhere (a monitor moved to the microphone
/// when its output vanished) delivers nothing until it is back where it belongs.
///
///     PulseStreamKeeper keeper(settings, resolve, track, events);
///     keeper.start(PulseContext::instance(), *resolve(*pulse));   // throws PulseError
///     ...
///     keeper.stop();
class PulseStreamKeeper {
public:
    /// Where the side should record now.
    struct Target {
        QString source;     ///< the source to record
        bool inUse = false; ///< the device is in use: only then does digital silence count against the side
        QString label;      ///< logged after `Settings::changeLog` when it changes (the default device's name)
        QString note;       ///< a further line logged when the target changes, or empty
    };
    /// Asks the server where the side should record; none when nowhere for now. Runs on the watcher thread
    /// (and in `start()`'s caller); may throw `PulseError`.
    using Resolve = std::function<std::optional<Target>(PulseContext&)>;

    struct Settings {
        QString streamName;
        int sampleRateHz = 44100;
        int channels = 2;
        /// Move the stream when the target changes; otherwise it stays on its first source and the server
        /// ends it (rather than moving it to the microphone) when that source goes away.
        bool follow = true;
        /// Server events that may move the target or change whether the device is in use.
        pa_subscription_mask_t events = PA_SUBSCRIPTION_MASK_NULL;
        QString logPrefix; ///< e.g. "[SystemAudio]"
        QString changeLog; ///< e.g. "[SystemAudio] Sortie par défaut changée → "
        const char* threadName = "tavrel-keeper";
        CaptureSide side = CaptureSide::systemAudio;
    };

    /// How long a side may stay disconnected before the user is told.
    static constexpr std::chrono::milliseconds kLostAfter{10000};
    /// How often a lost stream is tried again.
    static constexpr std::chrono::milliseconds kRetryInterval{250};
    /// How often a running stream's target is looked at without any event.
    static constexpr std::chrono::milliseconds kPollInterval{2000};
    /// How soon after a move the stream is looked at again, to see that the move stuck.
    static constexpr std::chrono::milliseconds kMoveCheckInterval{300};
    /// How long a burst of server events is left to settle before the target is looked at.
    static constexpr std::chrono::milliseconds kSettle{100};
    /// What the server still holds when the recording stops arrives within this after it was captured.
    static constexpr std::chrono::milliseconds kTailWait{120};

    PulseStreamKeeper(Settings settings, Resolve resolve, CaptureTrack& track, CaptureEvents events);
    ~PulseStreamKeeper();
    PulseStreamKeeper(const PulseStreamKeeper&) = delete;
    PulseStreamKeeper& operator=(const PulseStreamKeeper&) = delete;

    /// Connects to `first` and starts watching. Throws `PulseError` when the stream cannot run.
    void start(std::shared_ptr<PulseContext> pulse, const Target& first);
    /// Lets the server hand over what it captured up to `capturedUntilNs` (monotonic; now when not given), then
    /// ends the stream and the watching.
    void stop(std::optional<int64_t> capturedUntilNs = std::nullopt);

    /// The source the side means now.
    QString target() const;
    bool isConnected() const { return m_connected.load(); }

private:
    void connect(std::shared_ptr<PulseContext> pulse, const Target& target);
    void disconnect();
    void watch(std::stop_token stop);
    void reconnect();
    void refresh();
    void setTarget(const Target& target);
    void wake();

    // Mainloop thread.
    void onChunk(const float* samples, int64_t frames, int64_t captureNs);
    void onEnded(const QString& reason);
    void onMoved(const QString& source);

    Settings m_settings;
    Resolve m_resolve;
    CaptureTrack& m_track;
    CaptureEvents m_events;

    // Watcher thread (and start/stop while it does not run).
    std::shared_ptr<PulseContext> m_pulse;
    std::unique_ptr<PulseCapture> m_capture;
    PulseSubscription m_subscription;
    QString m_label;
    QString m_movedTo; // the last target the stream was moved to (a move is tried once per target)
    bool m_recheckSoon = false;
    int64_t m_lostSinceNs = 0;
    bool m_lostReported = false;

    std::mutex m_mutex;
    std::condition_variable_any m_wake;
    bool m_wakePending = false; // under m_mutex
    QString m_endReason;        // under m_mutex

    std::atomic<std::shared_ptr<const QString>> m_expected;
    std::atomic<bool> m_verified{false};
    std::atomic<bool> m_connected{false};
    std::atomic<bool> m_ended{false};
    std::jthread m_watcher; // last
};

} // namespace tavrel
