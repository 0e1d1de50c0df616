#pragma once

#include <QString>
#include <functional>

namespace tavrel {

/// Writes one diagnostic line to standard output ("[Component] text"), flushed at once so that the
/// line survives a crash. Safe to call from any thread.
void logLine(const QString& line);

/// Test seam: while an instance lives, every logged line is also handed to `sink`.
/// Only one capture may be active at a time.
class LogCapture {
public:
    explicit LogCapture(std::function<void(const QString&)> sink);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
};

} // namespace tavrel
