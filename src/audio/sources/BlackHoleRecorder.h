#pragma once

#include "audio/sources/CaptureSourceBase.h"
#include "audio/sources/SystemAudioBackends.h"
#include "audio/timeline/CaptureTimeline.h"
#include "core/Error.h"

#include <QString>
#include <atomic>
#include <memory>
#include <optional>
#include <vector>

namespace tavrel {

class PcmFileWriter;
class PulseCapture;
class PulseContext;
class SampleHandOff;
struct PulseDeviceInfo;

/// Errors of the virtual-device source.
enum class BlackHoleError { deviceMissing, sessionFailed };
QString errorDescription(BlackHoleError error);
QString caseName(BlackHoleError error);
using BlackHoleFailure = CodedError<BlackHoleError>;

/// Records the "BlackHole" virtual device (an audio-server source whose name says so: the loopback that
/// telephone relays are routed through) into "tavrel_bh_<T>.m4a", or ".aiff" where this FFmpeg cannot
/// write AAC. Pausing only silences the level: the file keeps running, paused stretch included.
class BlackHoleRecorder : public CaptureSourceBase {
public:
    static constexpr int kSampleRateHz = 44100;
    static constexpr int kChannels = 2;
    /// The longest `stop()` waits for the file to be finished.
    static constexpr int kStopTimeoutMs = 10000;

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

    /// Unsmoothed level of one chunk: average power of the first channel, mapped from -50...0 dB.
    static float chunkLevel(const float* interleaved, int64_t frames, int channels);

private:
    void onChunk(const float* samples, int64_t frames, int64_t captureNs);
    void onEnded(const QString& reason);
    void finishFile();

    CaptureDevice m_device;
    std::shared_ptr<PulseContext> m_pulse;
    std::unique_ptr<PcmFileWriter> m_writer;
    std::unique_ptr<SampleHandOff> m_handOff;
    std::unique_ptr<PulseCapture> m_capture;
    std::optional<CaptureTimeline> m_timeline;
    QString m_endedReason;

    std::atomic<bool> m_running{false};
    std::atomic<bool> m_ended{false};
};

} // namespace tavrel
