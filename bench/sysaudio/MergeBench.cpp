// Time to merge a long microphone track (AAC mono) with a long tap track (float stereo CAF), against
// ffmpeg's own amix writing AAC from the same inputs in the same run, and against our own merge without
// echo removal. The microphone hears the far end all along (the tap's noise, 120 ms late and 6 dB down):
// the canceller works on every second of it, the worst case.
//
//   bench_sysaudio_merge [minutes, default 60] [work directory, default a fresh one under /tmp]
//
// The inputs are generated here (ffmpeg lavfi) and removed at the end.

#include "audio/merge/TrackMerger.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>
#include <cstdio>
#include <sys/resource.h>
#include <thread>

namespace {

double cpuSeconds(int who) {
    rusage usage{};
    getrusage(who, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

bool runFfmpeg(const QStringList& arguments, qint64* elapsedMs = nullptr) {
    QProcess ffmpeg;
    QElapsedTimer timer;
    timer.start();
    ffmpeg.start(QStringLiteral("ffmpeg"), QStringList{"-v", "error", "-y"} + arguments);
    if (!ffmpeg.waitForFinished(-1) || ffmpeg.exitCode() != 0) {
        std::fprintf(stderr, "ffmpeg failed: %s\n", ffmpeg.readAllStandardError().constData());
        return false;
    }
    if (elapsedMs)
        *elapsedMs = timer.elapsed();
    return true;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const int minutes = argc > 1 ? std::max(1, std::atoi(argv[1])) : 60;
    QTemporaryDir scratch(QDir::tempPath() + QStringLiteral("/tavrel-merge-bench-XXXXXX"));
    const QDir dir(argc > 2 ? QString::fromLocal8Bit(argv[2]) : scratch.path());
    const QString seconds = QString::number(minutes * 60);
    const QString mic = dir.filePath("mic.m4a");
    const QString tap = dir.filePath("tap.caf");

    std::printf("generating %d min of microphone (AAC mono 44.1 kHz) and tap (f32 stereo 48 kHz CAF)...\n", minutes);
    std::fflush(stdout);
    const QString farEnd = "anoisesrc=color=pink:sample_rate=48000:amplitude=0.1:seed=7:duration=" + seconds;
    if (!runFfmpeg({"-f", "lavfi", "-i", "sine=frequency=220:sample_rate=44100:duration=" + seconds, "-f", "lavfi",
                    "-i", farEnd, "-filter_complex",
                    "[1]adelay=120,volume=0.5,aresample=44100[echo];[0]volume=0.005[user];"
                    "[user][echo]amix=inputs=2:normalize=0:duration=first",
                    "-c:a", "aac", mic}) ||
        !runFfmpeg({"-f", "lavfi", "-i", farEnd, "-ac", "2", "-c:a", "pcm_f32le", tap}))
        return 1;

    qint64 referenceMs = 0;
    const double childCpuBefore = cpuSeconds(RUSAGE_CHILDREN);
    if (!runFfmpeg({"-i", mic, "-i", tap, "-filter_complex", "amix=inputs=2:normalize=0", "-c:a", "aac",
                    dir.filePath("reference.m4a")},
                   &referenceMs))
        return 1;

    const double referenceCpu = cpuSeconds(RUSAGE_CHILDREN) - childCpuBefore;
    struct Run {
        qint64 wallMs = 0;
        double cpuS = 0.0;
        double mergeThreadCpuS = 0.0; // mixing and echo removal; decoders and encoders have their own threads
    };
    tavrel::EchoCanceller::Report echo;
    const auto merge = [&](tavrel::EchoRemoval echoRemoval, Run& run) {
        const double cpuBefore = cpuSeconds(RUSAGE_SELF);
        const double threadCpuBefore = cpuSeconds(RUSAGE_THREAD);
        QElapsedTimer timer;
        timer.start();
        try {
            const auto report = tavrel::mergeAudioFilesInto(mic, {tap}, dir.filePath("merged.m4a"), {}, echoRemoval);
            if (echoRemoval == tavrel::EchoRemoval::automatic)
                echo = report;
        } catch (const std::exception& error) {
            std::fprintf(stderr, "merge failed: %s\n", error.what());
            return false;
        }
        run.wallMs = timer.elapsed();
        run.cpuS = cpuSeconds(RUSAGE_SELF) - cpuBefore;
        run.mergeThreadCpuS = cpuSeconds(RUSAGE_THREAD) - threadCpuBefore;
        return true;
    };
    Run ours;
    Run plain; // the same merge without echo removal: what the canceller costs
    if (!merge(tavrel::EchoRemoval::automatic, ours) || !merge(tavrel::EchoRemoval::off, plain))
        return 1;
    const qint64 oursMs = ours.wallMs;
    const double oursCpu = ours.cpuS;

    std::printf("audio length             %d min, encoders on %u threads\n", minutes,
                std::max(1u, std::thread::hardware_concurrency()));
    std::printf("echo                     %s, %.1f dB removed, delay %.0f ms\n", echo.echoFound ? "found" : "not found",
                echo.removedDb, echo.delayMs);
    std::printf("ffmpeg amix -> AAC       %.2f s (CPU %.2f s)\n", referenceMs / 1000.0, referenceCpu);
    std::printf("mergeAudioFiles          %.2f s (CPU %.2f s, %.2f s of it on the merging thread)\n", oursMs / 1000.0,
                oursCpu, ours.mergeThreadCpuS);
    std::printf("  without echo removal   %.2f s (CPU %.2f s, %.2f s of it on the merging thread)\n",
                plain.wallMs / 1000.0, plain.cpuS, plain.mergeThreadCpuS);
    std::printf("wall ratio (goal <= 0.5) %.3f (without echo removal %.3f)\n",
                static_cast<double>(oursMs) / static_cast<double>(referenceMs),
                static_cast<double>(plain.wallMs) / static_cast<double>(referenceMs));
    // On a machine shared with other work the wall times swing; the CPU ratios are the steadier figures.
    std::printf("CPU ratio to ffmpeg      %.3f (without echo removal %.3f)\n", oursCpu / referenceCpu,
                plain.cpuS / referenceCpu);
    std::printf("echo removal costs       %.2f s CPU, %.0fx real time\n", oursCpu - plain.cpuS,
                minutes * 60.0 / std::max(1e-3, oursCpu - plain.cpuS));
    std::printf("speed                    %.0fx real time\n", minutes * 60000.0 / static_cast<double>(oursMs));
    return 0;
}
