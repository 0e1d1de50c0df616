#include "QuitSignals.h"

#include "core/Log.h"

#include <QCoreApplication>
#include <QSocketNotifier>
#include <array>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace tavrel {

namespace {

constexpr std::array kQuitSignals{SIGTERM, SIGINT, SIGHUP};

// The self-pipe: the handler may only write() (async-signal-safe); the event loop reads the other end.
int g_pipe[2] = {-1, -1};

void onQuitSignal(int signal) {
    const auto number = static_cast<unsigned char>(signal);
    ssize_t ignored = ::write(g_pipe[1], &number, 1);
    (void)ignored;
}

} // namespace

QuitSignals::QuitSignals(QObject* parent) : QObject(parent) {
    if (g_pipe[0] >= 0 || ::pipe2(g_pipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        logLine(
            QStringLiteral("[App] signaux de fin non suivis : %1").arg(QString::fromLocal8Bit(std::strerror(errno))));
        return;
    }
    m_notifier = new QSocketNotifier(g_pipe[0], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &QuitSignals::onSignalled);
    struct sigaction action = {};
    action.sa_handler = &onQuitSignal;
    sigemptyset(&action.sa_mask);
    // SA_RESETHAND: a second signal takes the default action, for a program that cannot wind down.
    action.sa_flags = SA_RESTART | SA_RESETHAND;
    for (const int signal : kQuitSignals)
        ::sigaction(signal, &action, nullptr);
}

QuitSignals::~QuitSignals() {
    if (!m_notifier)
        return;
    for (const int signal : kQuitSignals)
        std::signal(signal, SIG_DFL);
    ::close(g_pipe[0]);
    ::close(g_pipe[1]);
    g_pipe[0] = g_pipe[1] = -1;
}

void QuitSignals::onSignalled() {
    unsigned char number = 0;
    while (::read(g_pipe[0], &number, 1) == 1) {
    }
    logLine(QStringLiteral("[App] signal %1 reçu : fin du programme, les fichiers en cours sont fermés").arg(number));
    QCoreApplication::quit();
}

} // namespace tavrel
