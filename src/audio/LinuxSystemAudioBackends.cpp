#include "BlackHoleRecorder.h"
#include "PipeWireHandles.h"
#include "ProcessTapRecorder.h"
#include "SystemAudioBackends.h"
#include "SystemAudioRecorder.h"
#include "TrackMerger.h"
#include "pulse/PulseContext.h"

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
    backends.makeVirtualDevice = [](const CaptureDevice& device) { return std::make_unique<BlackHoleRecorder>(device); };
    backends.merge = [](QString mic, QStringList systems) { return mergeAudioFiles(std::move(mic), std::move(systems)); };
    return backends;
}

} // namespace tavrel
