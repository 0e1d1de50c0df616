#include "ManagedProcess.h"

#include <QCoreApplication>
#include <QFile>
#include <QStandardPaths>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

extern char** environ;

namespace tavrel::test {

namespace {

using Clock = std::chrono::steady_clock;

void pumpEvents() {
    if (QCoreApplication::instance())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
}

int statusToExitCode(int status) {
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return -1;
}

// posix_spawn wants NUL-terminated char* arrays that outlive the call.
class CStringArray {
public:
    explicit CStringArray(const QStringList& items) {
        m_storage.reserve(static_cast<std::size_t>(items.size()));
        for (const QString& item : items)
            m_storage.push_back(item.toLocal8Bit());
        for (QByteArray& s : m_storage)
            m_pointers.push_back(s.data());
        m_pointers.push_back(nullptr);
    }
    char** data() { return m_pointers.data(); }

private:
    std::vector<QByteArray> m_storage;
    std::vector<char*> m_pointers;
};

} // namespace

ManagedProcess::~ManagedProcess() {
    stop();
}

ManagedProcess::ManagedProcess(ManagedProcess&& other) noexcept {
    *this = std::move(other);
}

ManagedProcess& ManagedProcess::operator=(ManagedProcess&& other) noexcept {
    if (this != &other) {
        stop();
        m_options = std::move(other.m_options);
        m_pid = std::exchange(other.m_pid, -1);
        m_stdoutFd = std::exchange(other.m_stdoutFd, -1);
        m_stdinFd = std::exchange(other.m_stdinFd, -1);
        m_stdoutBuffer = std::move(other.m_stdoutBuffer);
        m_exitCode = other.m_exitCode;
        m_error = other.m_error;
    }
    return *this;
}

bool ManagedProcess::start(Options options) {
    stop();
    m_options = std::move(options);
    m_exitCode.reset();
    m_error.clear();
    m_stdoutBuffer.clear();

    const QString resolved = QStandardPaths::findExecutable(m_options.program).isEmpty()
                                 ? m_options.program
                                 : QStandardPaths::findExecutable(m_options.program);
    QStringList argv;
    if (m_options.dieWithParent) {
        // setpriv sets the parent-death signal and then execs, so the PID stays the daemon's own.
        argv << QStringLiteral("setpriv") << QStringLiteral("--pdeathsig") << QStringLiteral("TERM")
             << QStringLiteral("--");
    }
    argv << resolved << m_options.arguments;
    const QString executable = m_options.dieWithParent ? QStandardPaths::findExecutable("setpriv") : resolved;
    if (executable.isEmpty()) {
        m_error = QStringLiteral("cannot find executable for %1").arg(m_options.program);
        return false;
    }

    QStringList envList = m_options.environment.isEmpty() ? QProcessEnvironment::systemEnvironment().toStringList()
                                                          : m_options.environment.toStringList();
    CStringArray args(argv);
    CStringArray env(envList);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    int stdinFds[2] = {-1, -1};
    if (m_options.feedStdin && ::pipe2(stdinFds, O_CLOEXEC) == 0)
        posix_spawn_file_actions_adddup2(&actions, stdinFds[0], STDIN_FILENO);
    else
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    const QByteArray log = m_options.logPath.isEmpty() ? QByteArray("/dev/null") : m_options.logPath.toLocal8Bit();
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log.constData(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    int pipeFds[2] = {-1, -1};
    const QByteArray stdoutFile = m_options.stdoutPath.toLocal8Bit();
    if (m_options.captureStdout) {
        if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
            m_error = QStringLiteral("pipe: %1").arg(QString::fromLocal8Bit(std::strerror(errno)));
            posix_spawn_file_actions_destroy(&actions);
            return false;
        }
        posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    } else if (!stdoutFile.isEmpty()) {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, stdoutFile.constData(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
    } else {
        posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    }
    const QByteArray cwd = m_options.workingDirectory.toLocal8Bit();
    if (!cwd.isEmpty())
        posix_spawn_file_actions_addchdir_np(&actions, cwd.constData());

    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    // Own process group: a terminal's Ctrl-C goes to the test, which then stops its children in order.
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawnattr_setpgroup(&attr, 0);
    sigset_t empty;
    sigemptyset(&empty);
    posix_spawnattr_setsigmask(&attr, &empty);
    sigset_t defaults;
    sigemptyset(&defaults);
    for (int sig : {SIGTERM, SIGINT, SIGPIPE, SIGCHLD, SIGHUP, SIGUSR1, SIGUSR2})
        sigaddset(&defaults, sig);
    posix_spawnattr_setsigdefault(&attr, &defaults);

    const QByteArray exe = executable.toLocal8Bit();
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, exe.constData(), &actions, &attr, args.data(), env.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    for (const int childEnd : {pipeFds[1], stdinFds[0]})
        if (childEnd >= 0)
            ::close(childEnd);
    if (rc != 0) {
        for (const int ourEnd : {pipeFds[0], stdinFds[1]})
            if (ourEnd >= 0)
                ::close(ourEnd);
        m_error =
            QStringLiteral("cannot start %1: %2").arg(m_options.program, QString::fromLocal8Bit(std::strerror(rc)));
        return false;
    }
    m_pid = pid;
    m_stdoutFd = pipeFds[0];
    m_stdinFd = stdinFds[1];
    return true;
}

void ManagedProcess::reap(int status) {
    m_exitCode = statusToExitCode(status);
    m_pid = -1;
}

bool ManagedProcess::isRunning() {
    if (m_pid <= 0)
        return false;
    int status = 0;
    const pid_t r = ::waitpid(m_pid, &status, WNOHANG);
    if (r == m_pid) {
        reap(status);
        return false;
    }
    if (r < 0 && errno == ECHILD) {
        // Someone else reaped it (should not happen); treat as gone.
        m_exitCode = -1;
        m_pid = -1;
        return false;
    }
    return true;
}

std::optional<int> ManagedProcess::wait(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (isRunning()) {
        if (Clock::now() >= deadline)
            return std::nullopt;
        pumpEvents();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return m_exitCode;
}

void ManagedProcess::sendSignal(int signal) {
    if (isRunning())
        ::kill(m_pid, signal);
}

int ManagedProcess::stop(std::chrono::milliseconds grace) {
    if (isRunning()) {
        ::kill(m_pid, SIGTERM);
        const auto deadline = Clock::now() + grace;
        while (isRunning() && Clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            int status = 0;
            while (::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
            }
            reap(status);
        }
    }
    closeStdout();
    if (m_stdinFd >= 0)
        ::close(std::exchange(m_stdinFd, -1));
    return m_exitCode.value_or(-1);
}

void ManagedProcess::closeStdout() {
    if (m_stdoutFd >= 0)
        ::close(std::exchange(m_stdoutFd, -1));
}

bool ManagedProcess::writeStdin(const QByteArray& bytes) {
    std::signal(SIGPIPE, SIG_IGN); // a child gone away fails the write instead of killing the test
    for (qsizetype done = 0; done < bytes.size();) {
        const ssize_t n = m_stdinFd < 0 ? -1 : ::write(m_stdinFd, bytes.constData() + done, bytes.size() - done);
        if (n < 0 && errno != EINTR)
            return false;
        done += std::max<ssize_t>(n, 0);
    }
    return true;
}

QByteArray ManagedProcess::readStdout(std::chrono::milliseconds timeout, qsizetype minBytes) {
    const auto deadline = Clock::now() + timeout;
    while (m_stdoutFd >= 0 && m_stdoutBuffer.size() < minBytes) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0)
            break;
        pollfd pfd{m_stdoutFd, POLLIN, 0};
        const int r = ::poll(&pfd, 1, static_cast<int>(std::min<long long>(left, 20)));
        if (r < 0 && errno != EINTR)
            break;
        if (r > 0) {
            char buf[65536];
            const ssize_t n = ::read(m_stdoutFd, buf, sizeof buf);
            if (n > 0)
                m_stdoutBuffer.append(buf, n);
            else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
                closeStdout();
                break;
            }
        } else {
            pumpEvents();
        }
    }
    QByteArray out;
    out.swap(m_stdoutBuffer);
    return out;
}

std::optional<QByteArray> ManagedProcess::readStdoutLine(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (true) {
        const qsizetype nl = m_stdoutBuffer.indexOf('\n');
        if (nl >= 0) {
            QByteArray line = m_stdoutBuffer.left(nl);
            m_stdoutBuffer.remove(0, nl + 1);
            return line;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0 || m_stdoutFd < 0)
            return std::nullopt;
        // readStdout hands back the whole buffer, old bytes included.
        m_stdoutBuffer = readStdout(left, m_stdoutBuffer.size() + 1);
    }
}

QString ManagedProcess::logTail(int lines) const {
    return fileTail(m_options.logPath, lines);
}

QString ManagedProcess::describe() const {
    QString text = QStringLiteral("%1 %2").arg(m_options.program, m_options.arguments.join(' '));
    if (m_exitCode)
        text += QStringLiteral(" (exited with %1)").arg(*m_exitCode);
    else if (m_pid > 0)
        text += QStringLiteral(" (pid %1, running)").arg(m_pid);
    const QString tail = logTail();
    if (!tail.isEmpty())
        text += QStringLiteral("\n--- last lines of %1 ---\n%2").arg(m_options.logPath, tail);
    return text;
}

QString fileTail(const QString& path, int lines) {
    if (path.isEmpty())
        return {};
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    constexpr qint64 kMaxBytes = 16 * 1024;
    if (file.size() > kMaxBytes)
        file.seek(file.size() - kMaxBytes);
    QStringList all = QString::fromUtf8(file.readAll()).split('\n');
    while (!all.isEmpty() && all.last().isEmpty())
        all.removeLast();
    return all.mid(std::max<qsizetype>(0, all.size() - lines)).join('\n');
}

} // namespace tavrel::test
