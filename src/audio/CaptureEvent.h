#pragma once

#include <QString>
#include <exception>
#include <functional>
#include <optional>

namespace tavrel {

/// The sides of a recording, as the user knows them.
enum class CaptureSide { microphone, systemAudio, virtualDevice };

/// What a track tells the user about while it records.
struct CaptureEvent {
    enum class Kind {
        sideLost,       ///< the side's stream could not be brought back for a while; what it recorded is kept
        sideBack,       ///< the side records again
        writeFailed,    ///< the side's file could not be written (`detail`: why); the first one of a recording
        silenceStarted, ///< only digital silence arrives although the device is in use
        silenceEnded,   ///< sound again, or the device is no longer in use
    };
    Kind kind;
    CaptureSide side;
    QString detail;
};

/// Where the tracks report, from any thread.
using CaptureEvents = std::function<void(const CaptureEvent&)>;

struct Notification {
    QString title;
    QString body;
};

/// What to tell the user about an event, or none when it is only for the panel.
std::optional<Notification> notificationFor(const CaptureEvent& event);

/// The side's name inside a sentence ("le micro").
QString sideName(CaptureSide side);

/// Why a write failed, for the user: "Espace disque insuffisant" for a full disk, else the system's reason.
QString writeFailureReason(const std::exception_ptr& failure);

} // namespace tavrel
