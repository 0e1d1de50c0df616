#pragma once

#include "core/MicInputQuery.h"

#include <QString>
#include <chrono>
#include <cstdint>
#include <optional>

namespace tavrel {

/// Which applications capture audio input, asked of the PulseAudio (or pipewire-pulse) server through the
/// process's shared connection: the record streams on sources that are not monitors, less the streams the
/// audio stack makes for itself (virtual-source and loopback filters, level meters of mixer applications).
/// A corked stream counts: a meeting client that mutes the user keeps the microphone all the same. One
/// poll costs one list operation while nobody records, three otherwise (record streams, sources,
/// clients); nothing is spawned. Blocks for up to a few time-outs: not for the main thread.
class PulseMicInputQuery : public MicInputQuery {
public:
    static constexpr std::chrono::milliseconds kQueryTimeoutMs{1500};
    /// Our own identifier; our own record streams are reported under it whatever they declare.
    static constexpr const char* kOwnApplicationId = "fr.tavrel.Recorder";

    std::optional<QStringList> inputApplications() override;

    /// What the classification reads of a record stream, with its client's properties laid under it.
    struct StreamFacts {
        bool onMonitorSource = false;
        bool capturesOutput = false; ///< a PipeWire stream that taps a sink (stream.capture.sink)
        bool hasClient = true;
        uint32_t sampleRateHz = 0;
        QString mediaRole;
        QString mediaName;
        QString applicationId;   ///< the stream's, else its client's
        QString flatpakId;       ///< pipewire.access.portal.app_id of the stream or client
        QString processId;       ///< application.process.id
        QString processBinary;   ///< application.process.binary
        QString applicationName; ///< application.name
    };

    /// The application identifier of a stream that captures input, or nothing for a stream that is not an
    /// application listening to a microphone. `ownPid` is this process's id.
    static std::optional<QString> identify(const StreamFacts& stream, qint64 ownPid);
    /// The identifier the conferencing prefixes know for a Linux executable name, or the name itself.
    static QString identifierForBinary(const QString& binary);
    /// Flatpak and desktop ids of the conferencing applications mapped to identifiers the prefixes know.
    static QString normalizedApplicationId(const QString& applicationId);
};

} // namespace tavrel
