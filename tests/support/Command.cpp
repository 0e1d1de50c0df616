#include "Command.h"

#include "ManagedProcess.h"
#include "TempDir.h"

#include <QFile>
#include <limits>

namespace tavrel::test {

QString CommandResult::describe() const {
    QString text = QStringLiteral("`%1` exited with %2").arg(command).arg(exitCode);
    if (!error.isEmpty())
        text += QStringLiteral(" (%1)").arg(error);
    const QString err = QString::fromUtf8(standardError).trimmed();
    if (!err.isEmpty())
        text += QStringLiteral(": ") + err.right(2000);
    return text;
}

CommandResult runCommand(const QString& program, const QStringList& arguments, const QProcessEnvironment& environment,
                         std::chrono::milliseconds timeout) {
    using Clock = std::chrono::steady_clock;
    CommandResult result;
    result.command = (QStringList{program} + arguments).join(' ');
    const TempDir scratch(QStringLiteral("command"));
    ManagedProcess::Options options;
    options.program = program;
    options.arguments = arguments;
    options.environment = environment;
    options.logPath = scratch.filePath(QStringLiteral("stderr"));
    options.captureStdout = true;
    options.dieWithParent = false;
    ManagedProcess process;
    if (!process.start(options)) {
        result.error = process.errorString();
        return result;
    }
    const auto deadline = Clock::now() + timeout;
    // Until the command closes its output (it ends), then its exit status.
    result.standardOutput = process.readStdout(timeout, std::numeric_limits<qsizetype>::max());
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    const std::optional<int> exitCode = process.wait(std::max(left, std::chrono::milliseconds(0)));
    if (!exitCode) {
        result.error = QStringLiteral("timed out after %1 ms").arg(timeout.count());
        process.stop();
    } else {
        result.exitCode = *exitCode;
    }
    QFile standardError(options.logPath);
    if (standardError.open(QIODevice::ReadOnly))
        result.standardError = standardError.readAll();
    return result;
}

} // namespace tavrel::test
