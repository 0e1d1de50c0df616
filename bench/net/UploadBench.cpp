// Upload of a long recording to the reference backend on loopback, as the program sends it (streamed from
// disk by libcurl on a thread of its own), against `curl -F` posting the same file and fields to the same server in the
// same run; the memory the upload costs the process and the longest stall of a 10 ms main-thread timer.
// The server only hashes what it receives, so that the transfer itself is measured.
//   bench_net_upload [megabytes, default 58: an hour of AAC at 128 kbit/s] [rounds, default 3]
#include "ReferenceBackend.h"
#include "net/UploadService.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTimer>
#include <algorithm>
#include <cstdio>
#include <vector>

using namespace tavrel;
using namespace tavrel::test;

namespace {

/// VmHWM or VmRSS of this process, in kB.
long statusKb(const char* field) {
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith(field))
            return line.mid(static_cast<qsizetype>(std::strlen(field))).trimmed().split(' ').value(0).toLong();
    }
    return 0;
}

/// Resets the peak RSS that VmHWM reports (Linux 4.0 and later).
void resetPeak() {
    QFile clear(QStringLiteral("/proc/self/clear_refs"));
    if (clear.open(QIODevice::WriteOnly))
        clear.write("5");
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// Written a megabyte at a time so that making the file does not raise the process's memory peak.
bool writeRandomFile(const QString& path, int megabytes) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    QByteArray chunk(1 << 20, Qt::Uninitialized);
    for (int i = 0; i < megabytes; ++i) {
        QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(chunk.data()), chunk.size() / 4);
        if (file.write(chunk) != chunk.size())
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const int megabytes = argc > 1 ? std::max(1, atoi(argv[1])) : 58;
    const int rounds = argc > 2 ? std::max(1, atoi(argv[2])) : 3;

    ReferenceBackend backend;
    if (!backend.isRunning()) {
        std::fprintf(stderr, "reference backend did not start: %s\n", qPrintable(backend.describe()));
        return 1;
    }
    backend.control(R"({"digest_only": true})");
    TempDir files(QStringLiteral("netbench"));
    const QString recording = files.filePath(QStringLiteral("tavrel_merged_1731772800.m4a"));
    if (!writeRandomFile(recording, megabytes)) {
        std::fprintf(stderr, "cannot write %s\n", qPrintable(recording));
        return 1;
    }
    const long restingKb = statusKb("VmRSS:");
    resetPeak();

    std::vector<double> ours;
    std::vector<double> curl;
    double longestLateMs = 0;
    for (int round = 0; round < rounds; ++round) {
        QElapsedTimer clock;
        QTimer watch;
        watch.setTimerType(Qt::PreciseTimer);
        qint64 lastTickNs = 0;
        watch.callOnTimeout([&] {
            const qint64 now = clock.nsecsElapsed();
            longestLateMs = std::max(longestLateMs, static_cast<double>(now - lastTickNs) / 1e6 - 10.0);
            lastTickNs = now;
        });
        clock.start();
        watch.start(10);
        const auto outcome = runTask(
            UploadService::uploadAsync(recording, QStringLiteral("Banc d'essai"), 42, QStringLiteral("professional"),
                                       QStringLiteral("normal"), QStringLiteral("[0:01] note")),
            std::chrono::minutes(5));
        ours.push_back(static_cast<double>(clock.nsecsElapsed()) / 1e9);
        watch.stop();
        if (!outcome.value) {
            std::fprintf(stderr, "upload failed: %s\n", qPrintable(outcome.errorText()));
            return 1;
        }

        // curl builds its own form of the same fields and file.
        QProcess process;
        clock.restart();
        process.start(QStringLiteral("curl"),
                      {QStringLiteral("-sS"), QStringLiteral("-o"), QStringLiteral("/dev/null"), QStringLiteral("-H"),
                       QStringLiteral("Authorization: Bearer "), QStringLiteral("-F"),
                       QStringLiteral("title=Banc d'essai"), QStringLiteral("-F"),
                       QStringLiteral("synthesis_type=professional"), QStringLiteral("-F"),
                       QStringLiteral("synthesis_depth=normal"), QStringLiteral("-F"), QStringLiteral("client_id=42"),
                       QStringLiteral("-F"), QStringLiteral("notes=[0:01] note"), QStringLiteral("-F"),
                       QStringLiteral("file=@%1;type=audio/m4a").arg(recording),
                       backend.baseURL() + QStringLiteral("/transcriptions/upload-async")});
        if (!process.waitForFinished(300000) || process.exitCode() != 0) {
            std::fprintf(stderr, "curl failed: %s\n", process.readAllStandardError().constData());
            return 1;
        }
        curl.push_back(static_cast<double>(clock.nsecsElapsed()) / 1e9);
    }
    const long peakKb = statusKb("VmHWM:");

    const double oursS = median(ours);
    const double curlS = median(curl);
    std::printf("upload of %d MB to the reference backend on loopback, median of %d rounds\n", megabytes, rounds);
    std::printf("  the program's upload: %.3f s (%.1f MB/s)\n", oursS, megabytes / oursS);
    std::printf("  curl -F, same file:   %.3f s (%.1f MB/s)\n", curlS, megabytes / curlS);
    std::printf("  time ratio program / curl: %.2f (goal <= 1.2)\n", oursS / curlS);
    std::printf("  peak RSS above rest during the uploads: %.1f MB (%.3f x the file)\n",
                static_cast<double>(peakKb - restingKb) / 1024.0,
                static_cast<double>(peakKb - restingKb) / 1024.0 / megabytes);
    std::printf("  longest main-thread stall (10 ms timer lateness): %.1f ms\n", longestLateMs);
    return 0;
}
