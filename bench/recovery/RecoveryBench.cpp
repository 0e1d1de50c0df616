// What recovery adds to a launch after a crash: one interrupted recording of an hour (a fragmented microphone
// track and a fragmented stereo track of the other side, as a kill leaves them, with its journal) rebuilt by
// the recovery at launch, against the merge a normal stop makes of the same tracks, in the same run. The
// recovery runs on its own thread while this thread's event loop turns every 10 ms: the longest wait between
// two turns shows whether the tray item could show meanwhile.
//
//   bench_recovery [minutes, default 60] [work directory, default a fresh one under /tmp]

#include "audio/BackgroundTask.h"
#include "audio/files/CaptureRecovery.h"
#include "audio/files/M4aWriter.h"
#include "audio/files/RecordingJournal.h"
#include "audio/merge/TrackMerger.h"
#include "core/RecordingFiles.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTimer>
#include <cmath>
#include <cstdio>
#include <vector>

namespace {

/// `minutes` of a tone written by the recorder's own writer and left unfinished, as a crash leaves it.
void writeInterrupted(const QString& path, int channels, double frequencyHz, int minutes) {
    constexpr int kRate = 44100;
    tavrel::M4aWriter writer(path, kRate, channels);
    std::vector<float> second(static_cast<size_t>(kRate * channels));
    for (int s = 0; s < minutes * 60; ++s) {
        for (int i = 0; i < kRate; ++i)
            for (int c = 0; c < channels; ++c)
                second[static_cast<size_t>(i * channels + c)] =
                    0.2f * static_cast<float>(std::sin(2 * M_PI * frequencyHz * (s * kRate + i) / kRate));
        writer.write(second.data(), kRate);
    }
} // destroyed unfinished: fragmented, as after a kill

struct Stalls {
    qint64 longestMs = 0;
    int turns = 0;
};

QCoro::Task<> recoverWhileTheLoopTurns(tavrel::RecoveryPlan plan, Stalls* stalls, qint64* wallMs) {
    QElapsedTimer sinceTurn;
    sinceTurn.start();
    QTimer turns;
    QObject::connect(&turns, &QTimer::timeout, [&] {
        stalls->longestMs = std::max(stalls->longestMs, sinceTurn.restart());
        ++stalls->turns;
    });
    turns.start(10);
    QElapsedTimer timer;
    timer.start();
    auto recovering = tavrel::recoverRecordingsInBackground(std::move(plan));
    co_await recovering;
    *wallMs = timer.elapsed();
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const int minutes = argc > 1 ? std::max(1, std::atoi(argv[1])) : 60;
    QTemporaryDir scratch(QDir::tempPath() + QStringLiteral("/tavrel-recovery-bench-XXXXXX"));
    const QDir dir(argc > 2 ? QString::fromLocal8Bit(argv[2]) : scratch.path());
    qputenv("XDG_DATA_HOME", dir.filePath("data").toUtf8());
    qputenv("XDG_STATE_HOME", dir.filePath("state").toUtf8());

    std::printf("writing %d min of microphone (AAC mono) and other side (AAC stereo), left as a kill leaves them...\n",
                minutes);
    std::fflush(stdout);
    const QString mic = tavrel::RecordingFiles::micFile();
    const QString other = tavrel::RecordingFiles::screenCaptureFile();
    writeInterrupted(mic, 1, 440, minutes);
    writeInterrupted(other, 2, 1000, minutes);
    {
        tavrel::RecordingJournal journal(tavrel::RecordingFiles::journalFileFor(mic));
        journal.recordMic(mic);
        journal.recordTrack(other);
        journal.recordNote({90, QStringLiteral("Budget")});
    }

    // The reference: what a normal stop does with the same tracks once its writers have finished them.
    const QString plainMic = dir.filePath("plain-mic.m4a");
    const QString plainOther = dir.filePath("plain-other.m4a");
    QElapsedTimer timer;
    timer.start();
    tavrel::remuxToPlainM4a(mic, plainMic);
    tavrel::remuxToPlainM4a(other, plainOther);
    const qint64 repairMs = timer.restart();
    tavrel::mergeAudioFilesInto(plainMic, {plainOther}, dir.filePath("stop-merge.m4a"));
    const qint64 stopMergeMs = timer.elapsed();

    QLockFile lock(tavrel::RecordingFiles::captureLockFile());
    Stalls stalls;
    qint64 recoveryMs = 0;
    auto run = recoverWhileTheLoopTurns(tavrel::planRecovery(lock), &stalls, &recoveryMs);
    QCoro::waitFor(run);
    const QStringList rebuilt = QDir(tavrel::RecordingFiles::recordingsDir()).entryList({"tavrel_merged_*.m4a"});

    std::printf("audio length                      %d min\n", minutes);
    std::printf("stop's merge of the same tracks   %.2f s\n", stopMergeMs / 1000.0);
    std::printf("repair of both tracks alone       %.2f s\n", repairMs / 1000.0);
    std::printf("recovery (repair, merge, tidy)    %.2f s  -> %s\n", recoveryMs / 1000.0,
                qPrintable(rebuilt.value(0, QStringLiteral("NOTHING REBUILT"))));
    std::printf("ratio recovery / stop's merge     %.3f\n",
                static_cast<double>(recoveryMs) / static_cast<double>(stopMergeMs));
    std::printf("main loop during recovery         %d turns, longest wait %lld ms (timer every 10 ms)\n", stalls.turns,
                static_cast<long long>(stalls.longestMs));
    return rebuilt.size() == 1 ? 0 : 1;
}
