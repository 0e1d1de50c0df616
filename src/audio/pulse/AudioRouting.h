#pragma once

#include <QString>
#include <cstdint>
#include <optional>
#include <vector>

namespace tavrel {

/// Lookups of the audio server's devices (its sinks and sources). A device's unique identifier is its
/// server name; "destroying" one unloads the module that created it. Nothing here throws: an unreachable
/// server gives an empty list, none or false.
class AudioRouting {
public:
    /// A routing change in progress (an output switched to an aggregate). Nothing makes one today.
    struct Session {
        uint32_t previousOutput = 0;
        uint32_t aggregate = 0;
    };

    enum class DeviceKind { sink, source };

    struct Device {
        DeviceKind kind = DeviceKind::sink;
        uint32_t index = 0;
        QString uid; ///< the server's name of the device
        QString description;
        uint32_t ownerModule = UINT32_MAX; ///< UINT32_MAX when no module owns it
    };

    AudioRouting() = delete;

    /// Every sink, then every source, in the server's order.
    static std::vector<Device> allDevices();
    /// The first device whose identifier equals `uid`.
    static std::optional<Device> device(const QString& uid);
    /// Unloads the module that owns `device`; false when it has none or the server refuses.
    static bool destroy(const Device& device);
};

} // namespace tavrel
