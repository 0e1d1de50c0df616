#pragma once

#include "audio/CaptureEvent.h"
#include "core/Error.h"

#include <QCoro/QCoroTask>
#include <QString>
#include <memory>
#include <optional>

namespace tavrel {

class RecordingClock;

/// Errors of the system-audio sources and of track merging.
enum class SystemAudioError { permissionDenied, noDisplay, mergeFailed, tapFailed };
QString errorDescription(SystemAudioError error);
QString caseName(SystemAudioError error);
using SystemAudioFailure = CodedError<SystemAudioError>;

/// One way of capturing what the computer plays (the other party of a call) into a file of its own.
/// An instance serves one recording: created, started once, paused/resumed any number of times, stopped
/// once. `pause()`, `resume()` and `currentLevel()` return at once and may be called from the main
/// thread while the source's capture thread writes.
class SystemAudioSource {
public:
    virtual ~SystemAudioSource() = default;

    /// The file the source writes; none before `start()` has chosen it.
    virtual std::optional<QString> outputURL() const = 0;
    /// Begins capturing into a new file in the temporary directory; throws (an `Error`) when the
    /// source cannot run.
    virtual QCoro::Task<> start() = 0;
    /// Ends capturing, finishes the file, releases every resource; yields the file or none.
    virtual QCoro::Task<std::optional<QString>> stop() = 0;
    virtual void pause() = 0;
    virtual void resume() = 0;
    /// Level in 0...1, 0 while paused.
    virtual float currentLevel() const = 0;
    /// The recording's clock (time zero and pauses, shared by every track so that they line up) and where to
    /// report what the user must know, given before `start()`. A source that is not told keeps a clock of its
    /// own that starts at its `start()`, and reports nothing.
    virtual void setCaptureContext(std::shared_ptr<RecordingClock> clock, CaptureEvents events) {
        (void)clock;
        (void)events;
    }
};

} // namespace tavrel
