#include "audio/pulse/AudioRouting.h"

#include "audio/pulse/PulseContext.h"

#include <chrono>
#include <thread>

namespace tavrel {

namespace {

AudioRouting::Device toDevice(AudioRouting::DeviceKind kind, const PulseDeviceInfo& info) {
    AudioRouting::Device device;
    device.kind = kind;
    device.index = info.index;
    device.uid = info.name;
    device.description = info.description;
    device.ownerModule = info.ownerModule == PA_INVALID_INDEX ? UINT32_MAX : info.ownerModule;
    return device;
}

} // namespace

std::vector<AudioRouting::Device> AudioRouting::allDevices() {
    std::vector<Device> devices;
    try {
        auto pulse = PulseContext::instance();
        for (const PulseDeviceInfo& sink : pulse->sinks())
            devices.push_back(toDevice(DeviceKind::sink, sink));
        for (const PulseDeviceInfo& source : pulse->sources())
            devices.push_back(toDevice(DeviceKind::source, source));
    } catch (const PulseError&) {
        return {};
    }
    return devices;
}

std::optional<AudioRouting::Device> AudioRouting::device(const QString& uid) {
    for (Device& device : allDevices())
        if (device.uid == uid)
            return device;
    return std::nullopt;
}

bool AudioRouting::destroy(const Device& device) {
    if (device.ownerModule == UINT32_MAX)
        return false;
    try {
        auto pulse = PulseContext::instance();
        pulse->run([&](pa_context* context, PulseQuery& query) {
            return pa_context_unload_module(
                context, device.ownerModule,
                [](pa_context*, int success, void* userdata) {
                    auto* q = static_cast<PulseQuery*>(userdata);
                    if (success)
                        q->finish();
                    else
                        q->fail(PA_ERR_NOENTITY);
                },
                &query);
        });
    } catch (const PulseError&) {
        return false;
    }
    // The server answers before it has taken the module's devices away: wait until they are gone, so that
    // whoever looks next does not find the device again.
    for (int attempt = 0; attempt < 40 && AudioRouting::device(device.uid); ++attempt)
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    return true;
}

} // namespace tavrel
