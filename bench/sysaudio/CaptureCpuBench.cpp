// CPU share of one core while the microphone and one system source record, on a private PulseAudio
// server, against the same server with a plain `parecord` pair doing the same (the reference).
//
//   bench_sysaudio_cpu [seconds, default 30]

#include "PulseAudioFixture.h"

#include "audio/MicRecorder.h"
#include "audio/SystemAudioRecorder.h"

#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QTemporaryDir>

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
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
    // Broadband sound like a voice; a steady pure tone is a pathological (slow) case for the AAC encoder.
    const QString tone = scratch.filePath("noise.wav");
    if (QProcess::execute(QStringLiteral("ffmpeg"),
                          {"-v", "error", "-y", "-f", "lavfi", "-i",
                           QStringLiteral("anoisesrc=color=pink:sample_rate=44100:amplitude=0.1:duration=%1").arg(seconds + 5),
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
    const double recording = measure([&] {
        MicRecorder micRecorder(scratch.filePath("mic.m4a"));
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
    return 0;
}
