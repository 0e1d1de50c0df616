#pragma once

#include <QByteArray>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <chrono>

namespace tavrel::test {

/// What a short command (pactl, ffprobe, ffmpeg...) printed and how it ended.
struct CommandResult {
    int exitCode = -1; ///< -1 when it could not start or timed out
    QByteArray standardOutput;
    QByteArray standardError;
    QString error;   ///< why it failed to start or finish, empty otherwise
    QString command; ///< the command line, for messages

    bool ok() const { return exitCode == 0 && error.isEmpty(); }
    /// One line for assertion messages: the command, its exit code and its standard error.
    QString describe() const;
};

/// Runs a command to completion (killed after `timeout`). `environment` empty: the test process's.
/// Spawned with posix_spawn like every child of a test, never with QProcess (see README.md).
CommandResult runCommand(const QString& program, const QStringList& arguments,
                         const QProcessEnvironment& environment = {},
                         std::chrono::milliseconds timeout = std::chrono::seconds(30));

} // namespace tavrel::test
