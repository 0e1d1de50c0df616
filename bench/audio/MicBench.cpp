// Microphone recording on a private PulseAudio server, each figure beside a reference measured in the same
// run:
//   - start latency: from `startRecording()` to the first microphone sample handed to the encoder, against a
//     bare pa_simple record stream (same 20 ms fragments) from creation to its first read;
//   - CPU: one recording of N seconds of speech (finishing the file included) as a share of one core, against
//     `parecord | ffmpeg -c:a aac` recording the same source for the same time.
// TAVREL_BENCH_THREADS=1 also prints the CPU ticks of each thread of ours before the stop.
//
//   bench_audio_mic [seconds, default 60] [latency rounds, default 10]

#include "Media.h"
#include "PulseAudioFixture.h"
#include "audio/AudioRecorder.h"

#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <pulse/simple.h>
#include <sys/resource.h>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double cpuSeconds(int who) {
    rusage usage{};
    getrusage(who, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0.0 : values[values.size() / 2];
}

double ms(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

// A start that failed yields false (QCoro's waitFor never returns from a task that throws).
QCoro::Task<bool> startRecorder(tavrel::AudioRecorder* recorder) {
    bool started = false;
    try {
        auto starting = recorder->startRecording();
        co_await starting;
        started = true;
    } catch (...) {
    }
    co_return started;
}

// Milliseconds from `startRecording()` being called to the first sample written; -1 on failure.
double ourStartLatencyMs() {
    tavrel::AudioRecorder recorder;
    const auto begin = Clock::now();
    const bool started = QCoro::waitFor(startRecorder(&recorder));
    double latency = -1.0;
    if (started) {
        while (recorder.micFramesWritten() == 0 && Clock::now() - begin < std::chrono::seconds(5)) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        if (recorder.micFramesWritten() > 0)
            latency = ms(Clock::now() - begin);
    }
    if (const auto file = QCoro::waitFor(recorder.stopRecording()))
        QFile::remove(*file);
    return latency;
}

double referenceStartLatencyMs() {
    const auto begin = Clock::now();
    pa_sample_spec sampleSpec{PA_SAMPLE_FLOAT32NE, 44100, 1};
    pa_buffer_attr attributes{};
    attributes.maxlength = static_cast<uint32_t>(-1);
    attributes.fragsize = static_cast<uint32_t>(pa_usec_to_bytes(20000, &sampleSpec));
    int error = 0;
    pa_simple* stream = pa_simple_new(nullptr, "bench", PA_STREAM_RECORD, nullptr, "reference", &sampleSpec, nullptr,
                                      &attributes, &error);
    if (!stream)
        return -1.0;
    std::vector<float> buffer(441);
    const int result = pa_simple_read(stream, buffer.data(), buffer.size() * sizeof(float), &error);
    const double latency = result < 0 ? -1.0 : ms(Clock::now() - begin);
    pa_simple_free(stream);
    return latency;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    using namespace tavrel::test;
    const int seconds = argc > 1 ? std::max(5, std::atoi(argv[1])) : 60;
    const int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 10;
    QTemporaryDir scratch(QDir::tempPath() + QStringLiteral("/tavrel-mic-bench-XXXXXX"));
    qputenv("TMPDIR", scratch.path().toUtf8());
    qputenv("XDG_DATA_HOME", scratch.filePath("data").toUtf8());
    qputenv("XDG_STATE_HOME", scratch.filePath("state").toUtf8());

    PulseAudioFixture server;
    if (!server.start() || !server.warmUp()) {
        std::fprintf(stderr, "cannot start PulseAudio\n");
        return 1;
    }
    // Speech, not a tone: the AAC encoder works harder on it, as it will on a real call.
    const QString sentence = speechFile(QStringLiteral(
        "Bonjour à tous, nous commençons la réunion de ce matin. Le premier point concerne le budget de l'année "
        "prochaine, puis nous parlerons du calendrier des livraisons."));
    const double sentenceS = sentence.isEmpty() ? 0.0 : probe(sentence).formatDurationS;
    const QString speech = scratch.filePath("speech.wav");
    QStringList parts;
    for (double total = 0.0; sentenceS > 0.0 && total < 2 * seconds + 30; total += sentenceS)
        parts << sentence;
    if (parts.isEmpty() || !concatenateAudio(parts, speech)) {
        std::fprintf(stderr, "cannot make the speech\n");
        return 1;
    }
    auto mic = server.playIntoMicrophone(speech);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));

    // Latency: the first start also connects to the server; later ones reuse the connection.
    std::vector<double> ours;
    std::vector<double> reference;
    double firstOurs = 0.0;
    for (int i = 0; i < rounds; ++i) {
        const double a = ourStartLatencyMs();
        if (i == 0)
            firstOurs = a;
        else
            ours.push_back(a);
        reference.push_back(referenceStartLatencyMs());
    }
    std::printf("start to first microphone sample, %d rounds\n", rounds);
    std::printf("  first start (connects)           %7.1f ms\n", firstOurs);
    std::printf("  ours, median                     %7.1f ms (target < 150 ms)\n", median(ours));
    std::printf("  bare pa_simple read, median      %7.1f ms\n", median(reference));
    if (median(reference) > 0)
        std::printf("  ratio ours / reference           %7.2f\n", median(ours) / median(reference));

    // CPU: the reference pipeline first, as child processes.
    const double childrenBefore = cpuSeconds(RUSAGE_CHILDREN);
    const auto referenceBegin = Clock::now();
    QProcess pipeline;
    pipeline.start(QStringLiteral("sh"),
                   {QStringLiteral("-c"),
                    QStringLiteral("timeout -s INT %1 parecord --raw --format=float32le --rate=44100 --channels=1 "
                                   "--latency-msec=20 -d %2 | ffmpeg -v error -y -f f32le -ar 44100 -ac 1 -i - "
                                   "-c:a aac %3")
                        .arg(seconds)
                        .arg(server.micSource(), scratch.filePath("reference.m4a"))});
    pipeline.waitForFinished(1000 * (seconds + 60));
    const double referenceWall = std::chrono::duration<double>(Clock::now() - referenceBegin).count();
    const double referenceShare = (cpuSeconds(RUSAGE_CHILDREN) - childrenBefore) / referenceWall;

    const double selfBefore = cpuSeconds(RUSAGE_SELF);
    const auto oursBegin = Clock::now();
    tavrel::AudioRecorder recorder;
    std::optional<QString> file;
    QCoro::waitFor(startRecorder(&recorder));
    const auto end = oursBegin + std::chrono::seconds(seconds);
    while (Clock::now() < end) { // the panel polls the level at 20 Hz
        (void)recorder.currentMicLevel();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (qEnvironmentVariableIsSet("TAVREL_BENCH_THREADS")) {
        for (const QString& task : QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            QFile stat("/proc/self/task/" + task + "/stat");
            stat.open(QIODevice::ReadOnly);
            const QString line = QString::fromUtf8(stat.readAll());
            const QStringList fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
            std::printf("  thread %s %s utime %s stime %s\n", qPrintable(task),
                        qPrintable(line.section('(', 1).section(')', 0, 0)), qPrintable(fields.value(11)),
                        qPrintable(fields.value(12)));
        }
    }
    file = QCoro::waitFor(recorder.stopRecording());
    const double oursWall = std::chrono::duration<double>(Clock::now() - oursBegin).count();
    const double oursShare = (cpuSeconds(RUSAGE_SELF) - selfBefore) / oursWall;

    std::printf("CPU of %d s of recording (finishing the file included)\n", seconds);
    std::printf("  ours                             %7.2f %% of one core (target < 1 %%)\n", 100.0 * oursShare);
    std::printf("  parecord | ffmpeg -c:a aac       %7.2f %% of one core\n", 100.0 * referenceShare);
    if (referenceShare > 0)
        std::printf("  ratio ours / reference           %7.2f\n", oursShare / referenceShare);
    if (file)
        std::printf("  our file: %.2f s, reference file: %.2f s\n", probe(*file).formatDurationS,
                    probe(scratch.filePath("reference.m4a")).formatDurationS);
    return 0;
}
