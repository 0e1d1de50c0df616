#pragma once

#include <QByteArray>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <chrono>
#include <optional>
#include <sys/types.h>

namespace tavrel::test {

/// A child process owned by a test: spawned with posix_spawn, remembered by PID, stopped by PID
/// (SIGTERM, then SIGKILL after a bounded wait) when the object goes away. Children also receive
/// SIGTERM if the test binary dies (crash, ctest timeout), so no daemon outlives its test.
class ManagedProcess {
public:
    struct Options {
        QString program;
        QStringList arguments;
        /// Complete environment of the child; empty means "same as the test process now".
        QProcessEnvironment environment;
        QString workingDirectory;
        /// Standard output and error are appended here; empty means /dev/null.
        QString logPath;
        /// Standard output goes to a pipe read with readStdout()/readStdoutLine() instead of the log.
        bool captureStdout = false;
        /// Standard output goes to this file (truncated) instead of the log; ignored with captureStdout.
        QString stdoutPath;
        /// Standard input is a pipe fed with writeStdin() instead of /dev/null.
        bool feedStdin = false;
        bool dieWithParent = true;
    };

    ManagedProcess() = default;
    ~ManagedProcess();
    ManagedProcess(ManagedProcess&& other) noexcept;
    ManagedProcess& operator=(ManagedProcess&& other) noexcept;
    ManagedProcess(const ManagedProcess&) = delete;
    ManagedProcess& operator=(const ManagedProcess&) = delete;

    /// Starts the process; false with errorString() when it could not be spawned.
    bool start(Options options);
    QString errorString() const { return m_error; }

    pid_t pid() const { return m_pid; }
    QString program() const { return m_options.program; }
    /// True while the child has not exited (reaps it when it has).
    bool isRunning();
    /// Waits up to `timeout` (processing Qt events meanwhile); the exit code (128+signal when
    /// killed by a signal), or nothing if still running.
    std::optional<int> wait(std::chrono::milliseconds timeout);
    std::optional<int> exitCode() const { return m_exitCode; }
    /// With feedStdin: writes all of `bytes` to the child's standard input; false when it no longer reads.
    bool writeStdin(const QByteArray& bytes);
    void sendSignal(int signal);
    /// SIGTERM, then SIGKILL after `grace`; returns the exit code. Safe to call twice.
    int stop(std::chrono::milliseconds grace = std::chrono::milliseconds(3000));

    /// With captureStdout: everything available within `timeout` (returns early once `minBytes` are read).
    QByteArray readStdout(std::chrono::milliseconds timeout, qsizetype minBytes = 1);
    /// With captureStdout: one line without its newline, or nothing on timeout/end of stream.
    std::optional<QByteArray> readStdoutLine(std::chrono::milliseconds timeout);

    QString logPath() const { return m_options.logPath; }
    /// The last lines of the log, for failure messages.
    QString logTail(int lines = 25) const;
    /// "<program> (pid N): <log tail>", ready to append to an assertion message.
    QString describe() const;

private:
    void reap(int status);
    void closeStdout();

    Options m_options;
    pid_t m_pid = -1;
    int m_stdoutFd = -1;
    int m_stdinFd = -1;
    QByteArray m_stdoutBuffer;
    std::optional<int> m_exitCode;
    QString m_error;
};

/// The last `lines` lines of a text file (empty when it does not exist).
QString fileTail(const QString& path, int lines = 25);

} // namespace tavrel::test
