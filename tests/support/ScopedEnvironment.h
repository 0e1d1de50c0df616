#pragma once

#include <QByteArray>
#include <QProcessEnvironment>
#include <csignal>
#include <optional>
#include <sys/resource.h>
#include <utility>
#include <vector>

namespace tavrel::test {

/// Sets environment variables of the test process and puts the previous values back (or unsets
/// them) when destroyed, so that in-process code (libpulse, QtDBus, Qt's platform plugins) reaches
/// the fixture's private daemons while it lives.
class ScopedEnvironment {
public:
    ScopedEnvironment() = default;
    ~ScopedEnvironment();
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

    void set(const QByteArray& name, const QByteArray& value);
    /// Sets every variable of `variables`.
    void apply(const QProcessEnvironment& variables);
    /// Restores now instead of at destruction.
    void restore();

private:
    void remember(const QByteArray& name);

    std::vector<std::pair<QByteArray, std::optional<QByteArray>>> m_saved;
};

/// The environment of the test process with each part's variables laid over it, in order; for
/// starting a child (the real program) that must reach every fixture at once:
/// `mergedEnvironment({pulse.variables(), bus.variables(), xvfb.variables()})`.
QProcessEnvironment mergedEnvironment(std::initializer_list<QProcessEnvironment> parts);

/// No file of the test process may grow past `bytes` while this lives, and writes past it fail with EFBIG
/// instead of killing the process: a full disk for one test, without mounting one.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes);
    ~FileSizeLimit() { restore(); }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;
    /// Lifts the limit now instead of at destruction.
    void restore();

private:
    rlimit m_saved{};
    void (*m_handler)(int) = nullptr;
    bool m_active = true;
};

} // namespace tavrel::test
