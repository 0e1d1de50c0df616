#pragma once

#include "audio/sources/CaptureSourceBase.h"
#include "audio/sources/SystemAudioBackends.h"
#include "core/Error.h"

#include <QString>
#include <atomic>
#include <memory>
#include <optional>
#include <vector>

namespace tavrel {

class CaptureTrack;
class PulseStreamKeeper;
struct PulseDeviceInfo;

/// Errors of the virtual-device source.
enum class BlackHoleError { deviceMissing, sessionFailed };
QString errorDescription(BlackHoleError error);
QString caseName(BlackHoleError error);
using BlackHoleFailure = CodedError<BlackHoleError>;

/// Records the "BlackHole" virtual device (an audio-server source whose name says so: the loopback that
/// telephone relays are routed through) into "tavrel_bh_<T>.m4a", or ".aiff" where this FFmpeg cannot
/// write AAC. The stream stays on that device: when the device goes away the track keeps its file and real
/// time, and recording resumes when the device (or the audio server) comes back. Paused stretches are left
/// out, as on every other track.
class BlackHoleRecorder : public CaptureSourceBase {
public:
    static constexpr int kSampleRateHz = 44100;
    static constexpr int kChannels = 2;

    explicit BlackHoleRecorder(CaptureDevice device);
    ~BlackHoleRecorder() override;
    BlackHoleRecorder(const BlackHoleRecorder&) = delete;
    BlackHoleRecorder& operator=(const BlackHoleRecorder&) = delete;

    /// The device to record, or none: first among the sources that are not monitors, then among all
    /// sources (a loopback made as an output shows up only as its monitor, "Monitor of BlackHole 2ch").
    static std::optional<CaptureDevice> findDevice();
    /// The same choice over given lists (typed discovery, then the older list of every source).
    static std::optional<CaptureDevice> findDeviceIn(const std::vector<PulseDeviceInfo>& sources);
    /// Whether a device's display name designates the virtual device.
    static bool isBlackHoleName(const QString& description);
    /// Whether this FFmpeg can write AAC into .m4a (otherwise the file is AIFF).
    static bool canWriteM4a();

    /// Throws `BlackHoleFailure(sessionFailed)` when the device cannot be opened or recorded.
    void startBlocking() override;
    std::optional<QString> stopBlocking() override;
    float currentLevel() const override;
    bool isRunning() const { return m_running.load(); }
    /// Whether the stream is on the device now.
    bool isConnected() const;

    /// Unsmoothed level of one chunk: average power of the first channel, mapped from -50...0 dB.
    static float chunkLevel(const float* interleaved, int64_t frames, int channels);

private:
    CaptureDevice m_device;
    std::unique_ptr<CaptureTrack> m_track;
    std::unique_ptr<PulseStreamKeeper> m_keeper;
    std::atomic<bool> m_running{false};
};

} // namespace tavrel
