#include "audio/merge/TrackMerger.h"
#include "audio/pipewire/PipeWireHandles.h"
#include "audio/pulse/PulseContext.h"
#include "audio/sources/BlackHoleRecorder.h"
#include "audio/sources/ProcessTapRecorder.h"
#include "audio/sources/SystemAudioBackends.h"
#include "audio/sources/SystemAudioRecorder.h"

namespace tavrel {

SystemAudioBackends linuxSystemAudioBackends() {
    SystemAudioBackends backends;
    backends.processTapSupported = [] { return pipeWireAnswers(); };
    backends.captureAllowed = [] {
        // Capturing the output mix is refused only when the server refuses this client outright.
        try {
            PulseContext::instance()->serverInfo();
        } catch (const PulseError& error) {
            return error.paError() != PA_ERR_ACCESS;
        }
        return true;
    };
    backends.makeProcessTap = [] { return std::make_unique<ProcessTapRecorder>(); };
    backends.makeScreenCapture = [] { return std::make_unique<SystemAudioRecorder>(); };
    backends.findVirtualDevice = [] { return BlackHoleRecorder::findDevice(); };
    backends.makeVirtualDevice = [](const CaptureDevice& device) {
        return std::make_unique<BlackHoleRecorder>(device);
    };
    backends.merge = [](QString mic, QStringList systems) {
        return mergeAudioFiles(std::move(mic), std::move(systems));
    };
    return backends;
}

} // namespace tavrel
