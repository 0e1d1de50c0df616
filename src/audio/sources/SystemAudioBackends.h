#pragma once

#include "audio/sources/SystemAudioSource.h"

#include <functional>
#include <memory>
#include <optional>

namespace tavrel {

/// A capture device found by name (the virtual-device source records one).
struct CaptureDevice {
    QString name;        ///< the audio server's device name (its UID)
    QString description; ///< the human-readable name, e.g. "BlackHole 2ch"
};

/// How the recording orchestrator reaches the system-audio sources. The Linux factories are made by
/// `linuxSystemAudioBackends()`; tests give their own. An empty function means "this source does not
/// exist here" and the orchestrator skips it as unavailable.
struct SystemAudioBackends {
    /// Whether the process tap can be tried at all on this system (a PipeWire daemon answers).
    std::function<bool()> processTapSupported;
    /// Whether capturing the output mix is allowed (the screen-recording permission's pre-check).
    std::function<bool()> captureAllowed;
    std::function<std::unique_ptr<SystemAudioSource>()> makeProcessTap;
    std::function<std::unique_ptr<SystemAudioSource>()> makeScreenCapture;
    std::function<std::optional<CaptureDevice>()> findVirtualDevice;
    std::function<std::unique_ptr<SystemAudioSource>(const CaptureDevice&)> makeVirtualDevice;
    /// Mixes the microphone file and the system files into one AAC .m4a in the temporary directory.
    std::function<QCoro::Task<QString>(QString mic, QStringList systems)> merge;
};

/// The real sources of this desktop (PipeWire tap, PulseAudio monitor, "BlackHole" device, merging).
SystemAudioBackends linuxSystemAudioBackends();

} // namespace tavrel
