// Upload throughput of a large recording to the reference backend on loopback, against curl posting the
// very same body to the same server in the same run, and the memory the upload costs.
//   bench_net_upload [megabytes, default 50] [rounds, default 3] [raw: the server does not parse the form]
#include "ReferenceBackend.h"
#include "net/UploadService.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <algorithm>
#include <cstdio>
#include <sys/resource.h>
#include <vector>

using namespace tavrel;
using namespace tavrel::test;

namespace {

long peakRssKb() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
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
    const int megabytes = argc > 1 ? std::max(1, atoi(argv[1])) : 50;
    const int rounds = argc > 2 ? std::max(1, atoi(argv[2])) : 3;

    ReferenceBackend backend;
    if (!backend.isRunning()) {
        std::fprintf(stderr, "reference backend did not start: %s\n", qPrintable(backend.describe()));
        return 1;
    }
    TempDir files(QStringLiteral("netbench"));
    const QString recording = files.filePath(QStringLiteral("tavrel_merged_1731772800.m4a"));
    if (!writeRandomFile(recording, megabytes)) {
        std::fprintf(stderr, "cannot write %s\n", qPrintable(recording));
        return 1;
    }
    // The server answers at once without parsing, so that the transfer itself is measured; the stored raw
    // body still lets curl send exactly the same bytes.
    if (argc > 3 && QByteArray(argv[3]) == "raw") {
        backend.control({{QStringLiteral("fault"),
                          QJsonObject{{QStringLiteral("route"), QStringLiteral("upload")},
                                      {QStringLiteral("status"), 200},
                                      {QStringLiteral("body"), QStringLiteral("{\"id\": 1, \"job_id\": \"j\"}")}}}});
    }
    const long baselineKb = peakRssKb();

    std::vector<double> ours;
    std::vector<double> curl;
    for (int round = 0; round < rounds; ++round) {
        QElapsedTimer timer;
        timer.start();
        const auto outcome = runTask(
            UploadService::uploadAsync(recording, QStringLiteral("Banc d'essai"), 42, QStringLiteral("professional"),
                                       QStringLiteral("normal"), QStringLiteral("[0:01] note")),
            std::chrono::minutes(5));
        ours.push_back(timer.nsecsElapsed() / 1e9);
        // The finished reply (and the body it holds) goes at the next turn of the event loop, as it would in
        // the program; without this, two bodies would count in the next round's peak.
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        if (!outcome.value) {
            std::fprintf(stderr, "upload failed: %s\n", qPrintable(outcome.errorText()));
            return 1;
        }

        // curl sends the body our client produced, byte for byte, with the same headers.
        const int number = backend.uploadCount();
        const QString body = backend.dataDir() + QStringLiteral("/uploads/%1/body.bin").arg(number);
        const QString contentType = backend.upload(number).value(QStringLiteral("content_type")).toString();
        QProcess process;
        timer.restart();
        process.start(QStringLiteral("curl"),
                      {QStringLiteral("-sS"), QStringLiteral("-o"), QStringLiteral("/dev/null"), QStringLiteral("-H"),
                       QStringLiteral("Content-Type: ") + contentType, QStringLiteral("-H"),
                       QStringLiteral("Authorization: Bearer "), QStringLiteral("--data-binary"),
                       QLatin1Char('@') + body, backend.baseURL() + QStringLiteral("/transcriptions/upload-async")});
        if (!process.waitForFinished(300000) || process.exitCode() != 0) {
            std::fprintf(stderr, "curl failed: %s\n", process.readAllStandardError().constData());
            return 1;
        }
        curl.push_back(timer.nsecsElapsed() / 1e9);
    }
    const long peakKb = peakRssKb();

    const double oursS = median(ours);
    const double curlS = median(curl);
    std::printf("upload of %d MB to the reference backend on loopback, median of %d rounds\n", megabytes, rounds);
    std::printf("  UploadService: %.3f s (%.1f MB/s)\n", oursS, megabytes / oursS);
    std::printf("  curl, same body: %.3f s (%.1f MB/s)\n", curlS, megabytes / curlS);
    std::printf("  time ratio UploadService / curl: %.2f\n", oursS / curlS);
    std::printf("  peak RSS growth during uploads: %.1f MB (%.2f x the file)\n", (peakKb - baselineKb) / 1024.0,
                (peakKb - baselineKb) / 1024.0 / megabytes);
    return 0;
}
