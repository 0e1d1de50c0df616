#include "Command.h"

#include <QProcess>

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
                         std::chrono::milliseconds timeout, const QByteArray& standardInput) {
    CommandResult result;
    result.command = (QStringList{program} + arguments).join(' ');
    QProcess process;
    process.setProcessEnvironment(environment.isEmpty() ? QProcessEnvironment::systemEnvironment() : environment);
    process.start(program, arguments);
    if (!process.waitForStarted(10000)) {
        result.error = process.errorString();
        return result;
    }
    if (!standardInput.isEmpty())
        process.write(standardInput);
    process.closeWriteChannel();
    if (!process.waitForFinished(static_cast<int>(timeout.count()))) {
        result.error = QStringLiteral("timed out after %1 ms").arg(timeout.count());
        process.kill();
        process.waitForFinished(2000);
        result.standardOutput = process.readAllStandardOutput();
        result.standardError = process.readAllStandardError();
        return result;
    }
    result.standardOutput = process.readAllStandardOutput();
    result.standardError = process.readAllStandardError();
    if (process.exitStatus() == QProcess::CrashExit) {
        result.error = QStringLiteral("crashed");
        return result;
    }
    result.exitCode = process.exitCode();
    return result;
}

} // namespace tavrel::test
