// Time to merge a long microphone track (AAC mono) with a long tap track (float stereo CAF), against
// ffmpeg's own amix writing AAC from the same inputs in the same run, and against our own merge with the
// whole timeline on one encoder thread.
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
    if (!runFfmpeg({"-f", "lavfi", "-i", "sine=frequency=220:sample_rate=44100:duration=" + seconds, "-af",
                    "volume=0.3", "-c:a", "aac", mic}) ||
        !runFfmpeg({"-f", "lavfi", "-i", "anoisesrc=color=pink:sample_rate=48000:amplitude=0.1:duration=" + seconds,
                    "-ac", "2", "-c:a", "pcm_f32le", tap}))
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
    };
    const auto merge = [&](const tavrel::ParallelM4aWriter::Tuning& encoding, Run& run) {
        const double cpuBefore = cpuSeconds(RUSAGE_SELF);
        QElapsedTimer timer;
        timer.start();
        try {
            tavrel::mergeAudioFilesInto(mic, {tap}, dir.filePath("merged.m4a"), encoding);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "merge failed: %s\n", error.what());
            return false;
        }
        run.wallMs = timer.elapsed();
        run.cpuS = cpuSeconds(RUSAGE_SELF) - cpuBefore;
        return true;
    };
    Run ours;
    Run oneEncoder; // the same merge with the whole timeline on one encoder thread: what the segments buy
    if (!merge({}, ours) || !merge({int64_t{1} << 40, 1}, oneEncoder))
        return 1;
    const qint64 oursMs = ours.wallMs;
    const double oursCpu = ours.cpuS;

    std::printf("audio length            %d min\n", minutes);
    std::printf("ffmpeg amix -> AAC       %.2f s\n", referenceMs / 1000.0);
    std::printf("mergeAudioFiles          %.2f s\n", oursMs / 1000.0);
    std::printf("wall ratio (goal <= 0.5) %.3f\n", static_cast<double>(oursMs) / static_cast<double>(referenceMs));
    std::printf("CPU: ffmpeg %.2f s, ours %.2f s, ratio %.3f\n", referenceCpu, oursCpu, oursCpu / referenceCpu);
    std::printf("one encoder thread       %.2f s (CPU %.2f s), segments on %u threads are %.2fx faster\n",
                oneEncoder.wallMs / 1000.0, oneEncoder.cpuS, std::max(1u, std::thread::hardware_concurrency()),
                static_cast<double>(oneEncoder.wallMs) / static_cast<double>(oursMs));
    // On a machine shared with other work the wall times swing; the CPU ratio is the steadier figure.
    std::printf("speed                    %.0fx real time\n", minutes * 60000.0 / static_cast<double>(oursMs));
    return 0;
}
