#pragma once

#include "core/Error.h"

#include <cstdint>

namespace tavrel {

/// A write, seek or flush of a capture file failed; `errorNumber()` is the system's errno.
class FileWriteError : public Error {
public:
    FileWriteError(const QString& description, int errorNumber) : Error(description), m_errno(errorNumber) {}
    int errorNumber() const noexcept { return m_errno; }

private:
    int m_errno;
};

/// The file of one capture track. Frames are placed by position, in frames since the track's start: a
/// position past the end is preceded by silence, frames before the end are dropped. Every failure to write
/// throws an `Error` (a `FileWriteError` or an `FfmpegError`) carrying the system's reason; what was
/// written before stays readable. Used from one thread at a time.
class TrackFile {
public:
    virtual ~TrackFile() = default;
    virtual void write(const float* interleaved, int64_t frames, int64_t positionFrames) = 0;
    /// Makes the file complete. Throws when it cannot; further calls do nothing.
    virtual void finish() = 0;
};

} // namespace tavrel
