#include "ManagedProcess.h"

#include "TempDir.h"

#include <QElapsedTimer>
#include <csignal>
#include <gtest/gtest.h>

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;

ManagedProcess::Options shell(const QString& script, const QString& log = {}) {
    ManagedProcess::Options options;
    options.program = QStringLiteral("/bin/sh");
    options.arguments = {QStringLiteral("-c"), script};
    options.logPath = log;
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
    EXPECT_FALSE(process.isRunning());
    EXPECT_NE(::kill(pid, 0), 0); // reaped, not a zombie left for later
}

TEST(ManagedProcessTest, ExitCodeAndLogTailAreReported) {
    TempDir dir;
    const QString log = dir.filePath(QStringLiteral("child.log"));
    ManagedProcess process;
    ASSERT_TRUE(process.start(shell(QStringLiteral("for i in $(seq 1 40); do echo line $i >&2; done; exit 3"), log)));
    EXPECT_EQ(process.wait(5s), 3);
    const QString description = process.describe();
    EXPECT_TRUE(description.contains(QStringLiteral("exited with 3"))) << description.toStdString();
    EXPECT_TRUE(description.contains(QStringLiteral("line 40"))) << description.toStdString();
    EXPECT_FALSE(description.contains(QStringLiteral("line 1\n"))) << "the tail, not the whole log";
}

TEST(ManagedProcessTest, MissingProgramFailsWithAMessage) {
    ManagedProcess process;
    ManagedProcess::Options options;
    options.program = QStringLiteral("/nonexistent/daemon");
    options.dieWithParent = false;
    EXPECT_FALSE(process.start(options));
    EXPECT_FALSE(process.errorString().isEmpty());
    EXPECT_FALSE(process.isRunning());
}

TEST(ManagedProcessTest, EnvironmentIsExactlyTheOneGiven) {
    ManagedProcess process;
    ManagedProcess::Options options = shell(QStringLiteral("echo \"[$TAVREL_PROBE][$HOME]\""));
    QProcessEnvironment env;
    env.insert(QStringLiteral("TAVREL_PROBE"), QStringLiteral("valeur é"));
    env.insert(QStringLiteral("PATH"), QStringLiteral("/usr/bin:/bin"));
    options.environment = env;
    options.captureStdout = true;
    ASSERT_TRUE(process.start(options));
    EXPECT_EQ(QString::fromUtf8(process.readStdoutLine(5s).value_or("")), QStringLiteral("[valeur é][]"));
}

} // namespace
} // namespace tavrel::test
