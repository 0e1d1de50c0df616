// The call monitor's cost, on a private PulseAudio server.
//
// 1. Idle: the real monitor polling every two seconds while nobody records, against this same process
//    running its event loop for as long without the monitor: the difference is the monitor's share of one
//    core (goal: at most 0.1 %).
// 2. One poll with a few recording clients (the microphone-use query over the shared libpulse connection)
//    against `pactl list short source-outputs`, the cheapest command-line answer to "who records": wall
//    time, this process's CPU (the query) or the children's CPU (pactl), and the server's CPU, per round.
//
//   bench_calls_poll [rounds, default 200] [idle seconds, default 30]

#include "PulseAudioFixture.h"
#include "audio/pulse/PulseMicInputQuery.h"
#include "core/CallMonitor.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QThread>
#include <QTimer>
#include <chrono>
#include <cstdio>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace {

double cpuSeconds(int who) {
    rusage usage{};
    getrusage(who, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// utime + stime of a process, from /proc/<pid>/stat.
double processCpuSeconds(pid_t pid) {
    QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray stat = file.readAll();
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    if (fields.size() < 13)
        return 0;
    return (fields[11].toDouble() + fields[12].toDouble()) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

struct Cost {
    double wallMs = 0;
    double clientCpuMs = 0;
    double serverCpuMs = 0;
};

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    using namespace tavrel;
    using namespace tavrel::test;
    const int rounds = argc > 1 ? std::max(10, std::atoi(argv[1])) : 200;
    const int idleSeconds = argc > 2 ? std::max(4, std::atoi(argv[2])) : 30;

    PulseAudioFixture server;
    if (!server.start()) {
        std::fprintf(stderr, "cannot start PulseAudio\n");
        return 1;
    }

    // CPU of this process while its event loop runs for `idleSeconds`, the monitor polling or not.
    const auto idleCpuSeconds = [&](bool monitoring) {
        CallMonitor monitor(std::make_unique<PulseMicInputQuery>());
        if (monitoring)
            monitor.start();
        const double before = cpuSeconds(RUSAGE_SELF);
        QEventLoop loop;
        QTimer::singleShot(std::chrono::seconds(idleSeconds), &loop, &QEventLoop::quit);
        loop.exec();
        return cpuSeconds(RUSAGE_SELF) - before;
    };
    // The shared connection is made before measuring, as it is in the program long before any poll.
    PulseMicInputQuery{}.inputApplications();
    const double withoutMonitor = idleCpuSeconds(false);
    const double withMonitor = idleCpuSeconds(true);
    std::printf("idle for %d s: process CPU %.1f ms without the monitor, %.1f ms with it\n", idleSeconds,
                withoutMonitor * 1000, withMonitor * 1000);
    std::printf("call monitor while idle: %.4f %% of one core (goal <= 0.1 %%)\n",
                std::max(0.0, withMonitor - withoutMonitor) / idleSeconds * 100);
    std::vector<ManagedProcess> clients;
    clients.push_back(server.startRecordingClient());
    RecordingClientOptions unknown;
    unknown.applicationId.clear();
    unknown.processBinary = QStringLiteral("obs");
    clients.push_back(server.startRecordingClient(unknown));
    RecordingClientOptions monitor;
    monitor.source = server.monitorOf(server.speakerSink());
    clients.push_back(server.startRecordingClient(monitor));

    PulseMicInputQuery query;
    // Connection made and every client listed before measuring.
    for (int i = 0; i < 50 && query.inputApplications().value_or(QStringList{}).size() < 2; ++i)
        QThread::msleep(50);
    const QStringList seen = query.inputApplications().value_or(QStringList{});

    const auto measure = [&](int who, auto&& body) {
        Cost cost;
        const double cpuBefore = cpuSeconds(who);
        const double serverBefore = processCpuSeconds(server.daemonPid());
        const auto wallBefore = std::chrono::steady_clock::now();
        for (int i = 0; i < rounds; ++i)
            body();
        cost.wallMs =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - wallBefore).count() / rounds;
        cost.clientCpuMs = (cpuSeconds(who) - cpuBefore) * 1000 / rounds;
        cost.serverCpuMs = (processCpuSeconds(server.daemonPid()) - serverBefore) * 1000 / rounds;
        return cost;
    };

    const QProcessEnvironment env = server.environment();
    const Cost pactl = measure(RUSAGE_CHILDREN, [&] {
        QProcess process;
        process.setProcessEnvironment(env);
        process.start(QStringLiteral("pactl"),
                      {QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("source-outputs")});
        process.waitForFinished(5000);
    });
    const Cost poll = measure(RUSAGE_SELF, [&] { query.inputApplications(); });

    std::printf("rounds: %d; the query sees: %s\n", rounds, qPrintable(seen.join(QStringLiteral(", "))));
    std::printf("%-34s %10s %14s %14s\n", "per round", "wall ms", "client CPU ms", "server CPU ms");
    std::printf("%-34s %10.3f %14.3f %14.3f\n", "pactl list short source-outputs", pactl.wallMs, pactl.clientCpuMs,
                pactl.serverCpuMs);
    std::printf("%-34s %10.3f %14.3f %14.3f\n", "poll (sources+clients+outputs)", poll.wallMs, poll.clientCpuMs,
                poll.serverCpuMs);
    std::printf("ratio poll / pactl: wall %.3f, client CPU %.3f, server CPU %.3f\n", poll.wallMs / pactl.wallMs,
                poll.clientCpuMs / pactl.clientCpuMs,
                pactl.serverCpuMs > 0 ? poll.serverCpuMs / pactl.serverCpuMs : 0.0);
    std::printf("CPU share of one core at one poll every 2 s: %.4f %%\n", poll.clientCpuMs / 2000 * 100);
    return 0;
}
