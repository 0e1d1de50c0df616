#include "ManagedProcess.h"

#include "TempDir.h"

#include <QElapsedTimer>
#include <csignal>
#include <gtest/gtest.h>

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;

ManagedProcess::Options shell(const QString& script) {
    ManagedProcess::Options options;
    options.program = QStringLiteral("/bin/sh");
    options.arguments = {QStringLiteral("-c"), script};
    return options;
}

// A daemon that ignores SIGTERM must still be gone after the bounded wait, not hang the test.
TEST(ManagedProcessTest, StopEscalatesToSigkillAfterTheGracePeriod) {
    ManagedProcess process;
    ManagedProcess::Options options = shell(QStringLiteral("trap '' TERM; echo started; while :; do sleep 0.05; done"));
    options.captureStdout = true;
    ASSERT_TRUE(process.start(options)) << process.errorString().toStdString();
    ASSERT_EQ(process.readStdoutLine(5s), QByteArray("started"));
    const pid_t pid = process.pid();
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(process.stop(300ms), 128 + SIGKILL);
    EXPECT_LT(timer.elapsed(), 3000);
    EXPECT_NE(::kill(pid, 0), 0); // reaped, not a zombie left for later
}

// The child gets exactly the environment given, and a failure message carries its exit code and the
// end of its log, not the whole log.
TEST(ManagedProcessTest, ExitCodeAndLogTailOfAChildWithItsOwnEnvironment) {
    TempDir dir;
    ManagedProcess process;
    ManagedProcess::Options options = shell(
        QStringLiteral("echo \"[$TAVREL_PROBE][$HOME]\" >&2; for i in $(seq 1 40); do echo line $i >&2; done; exit 3"));
    options.logPath = dir.filePath(QStringLiteral("child.log"));
    options.environment.insert(QStringLiteral("TAVREL_PROBE"), QStringLiteral("valeur é"));
    options.environment.insert(QStringLiteral("PATH"), QStringLiteral("/usr/bin:/bin"));
    ASSERT_TRUE(process.start(options));
    EXPECT_EQ(process.wait(5s), 3);
    EXPECT_EQ(process.logTail(41).section(u'\n', 0, 0), QStringLiteral("[valeur é][]"));
    const QString description = process.describe();
    EXPECT_TRUE(description.contains(QStringLiteral("exited with 3"))) << description.toStdString();
    EXPECT_TRUE(description.contains(QStringLiteral("line 40"))) << description.toStdString();
    EXPECT_FALSE(description.contains(QStringLiteral("line 1\n"))) << "the tail, not the whole log";

    ManagedProcess missing;
    options.program = QStringLiteral("/nonexistent/daemon");
    options.dieWithParent = false;
    EXPECT_FALSE(missing.start(options));
    EXPECT_FALSE(missing.errorString().isEmpty());
}

} // namespace
} // namespace tavrel::test
