// CPU share of one core while the microphone and one system source record, on a private PulseAudio
// server, against the same server with two `parecord | ffmpeg -c:a aac` pipelines doing the same work
// (the reference: microphone mono, monitor stereo, both to AAC), measured in the same run.
//
//   bench_sysaudio_cpu [seconds, default 30]

#include "PulseAudioFixture.h"
#include "audio/sources/MicRecorder.h"
#include "audio/sources/SystemAudioRecorder.h"
#include "audio/timeline/RecordingClock.h"

#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <chrono>
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

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    using namespace tavrel;
    using namespace tavrel::test;
    const int seconds = argc > 1 ? std::max(5, std::atoi(argv[1])) : 30;
    QTemporaryDir scratch(QDir::tempPath() + QStringLiteral("/tavrel-cpu-bench-XXXXXX"));
    qputenv("TMPDIR", scratch.path().toUtf8());

    PulseAudioFixture server;
    if (!server.start() || !server.warmUp()) {
        std::fprintf(stderr, "cannot start PulseAudio\n");
        return 1;
    }
    // Broadband sound like a voice, long enough for both runs; a steady pure tone is a pathological (slow) case for the
    // AAC encoder.
    const QString tone = scratch.filePath("noise.wav");
    if (QProcess::execute(
            QStringLiteral("ffmpeg"),
            {"-v", "error", "-y", "-f", "lavfi", "-i",
             QStringLiteral("anoisesrc=color=pink:sample_rate=44100:amplitude=0.1:duration=%1").arg(2 * seconds + 10),
             "-ac", "2", tone}) != 0) {
        std::fprintf(stderr, "cannot make the signal\n");
        return 1;
    }
    auto speaker = server.playIntoSink(server.speakerSink(), tone);
    auto mic = server.playIntoMicrophone(tone);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));

    const auto measure = [&](auto&& body) {
        const double cpuBefore = cpuSeconds(RUSAGE_SELF);
        const auto wallBefore = std::chrono::steady_clock::now();
        body();
        const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wallBefore).count();
        return (cpuSeconds(RUSAGE_SELF) - cpuBefore) / wall;
    };

    const double idle = measure([&] { std::this_thread::sleep_for(std::chrono::seconds(2)); });

    // The reference, as child processes.
    const double childrenBefore = cpuSeconds(RUSAGE_CHILDREN);
    const auto referenceBegin = std::chrono::steady_clock::now();
    const QString pipe =
        QStringLiteral("timeout -s INT %1 parecord --raw --format=float32le --rate=44100 --channels=%2 "
                       "--latency-msec=40 -d %3 | ffmpeg -v error -y -f f32le -ar 44100 -ac %2 -i - "
                       "-c:a aac %4");
    QProcess reference;
    reference.start(
        QStringLiteral("sh"),
        {QStringLiteral("-c"), pipe.arg(seconds).arg(1).arg(server.micSource(), scratch.filePath("reference-mic.m4a")) +
                                   QStringLiteral(" & ") +
                                   pipe.arg(seconds).arg(2).arg(AudioServerFixture::monitorOf(server.speakerSink()),
                                                                scratch.filePath("reference-sys.m4a")) +
                                   QStringLiteral("; wait")});
    reference.waitForFinished(1000 * (seconds + 60));
    const double referenceWall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - referenceBegin).count();
    const double referenceShare = (cpuSeconds(RUSAGE_CHILDREN) - childrenBefore) / referenceWall;

    const double recording = measure([&] {
        MicRecorder micRecorder(scratch.filePath("mic.m4a"), std::make_shared<RecordingClock>());
        micRecorder.record();
        SystemAudioRecorder system;
        system.startBlocking();
        for (int i = 0; i < seconds * 20; ++i) { // the panel polls the levels at 20 Hz
            micRecorder.updateMeters();
            (void)system.currentLevel();
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        system.stopBlocking();
        micRecorder.stop();
    });
    std::printf("recording time                     %d s\n", seconds);
    std::printf("idle process                       %.2f %% of one core\n", 100.0 * idle);
    std::printf("microphone + monitor source        %.2f %% of one core (target < 2 %%)\n", 100.0 * recording);
    std::printf("  (includes finishing both files: stream copy of the fragmented .m4a into a plain one)\n");
    std::printf("two parecord | ffmpeg -c:a aac      %.2f %% of one core (reference)\n", 100.0 * referenceShare);
    if (referenceShare > 0)
        std::printf("ratio ours / reference             %.2f\n", recording / referenceShare);
    return 0;
}
