// Recovery at launch on what a crash leaves in the middle of finishing a recording, where the real program
// cannot be stopped on purpose: between the mix and its move, after the microphone file was sent alone, with a
// full disk at every launch. (Kills of the real program at random moments are in app_recovery_tests.)
#include "audio/files/CaptureRecovery.h"

#include "Media.h"
#include "ScopedEnvironment.h"
#include "TempDir.h"
#include "audio/files/M4aWriter.h"
#include "audio/files/RecordingJournal.h"
#include "core/RecordingFiles.h"

#include <QDir>
#include <QFile>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/resource.h>

namespace tavrel::test {
namespace {

class CaptureRecoveryTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_env.set("XDG_DATA_HOME", QFile::encodeName(m_home.filePath("data")));
        m_env.set("XDG_STATE_HOME", QFile::encodeName(m_home.filePath("state")));
    }

    /// An ordinary AAC file with a tone, in `folder`.
    static QString track(const QString& folder, const QString& name, double frequencyHz) {
        const QString path = folder + '/' + name;
        const QString error =
            generateAudio(path, toneBetween(frequencyHz, 0.3, 0.5, 1.5), 2.0, 44100, 1, {"-c:a", "aac"});
        EXPECT_TRUE(error.isEmpty()) << error.toStdString();
        return path;
    }
    static QString capture() { return RecordingFiles::captureDir(); }
    static QString recordings() { return RecordingFiles::recordingsDir(); }
    static QStringList filesIn(const QString& folder) {
        return QDir(folder).entryList(QDir::Files | QDir::Hidden, QDir::Name);
    }
    static QString read(const QString& path) {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }
    static int launch() {
        QLockFile lock(RecordingFiles::captureLockFile());
        return recoverRecordings(planRecovery(lock));
    }

    TempDir m_home;
    ScopedEnvironment m_env;
};

// Killed after the mix was made, before it was moved in: the mix goes in, with the notes from the journal (a line
// cut by the crash is ignored), and the pieces go. Beside it, a recording whose tracks were kept after a failed
// mix but whose microphone file has been sent since, a capture file of no recording, a working copy of a
// finished file, a microphone file whose journal was lost, and a recording killed before its first sound.
TEST_F(CaptureRecoveryTest, finishesWhatTheStopLeftAndClearsWhatBelongsToNoRecording) {
    const QString mic = track(recordings(), "tavrel_mic_10.m4a", 440);
    const QString system = track(capture(), "tavrel_sys_10.m4a", 1000);
    const QString mix = track(capture(), "tavrel_merged_12.m4a", 700);
    const QString destination = recordings() + "/tavrel_merged_12.m4a";
    {
        RecordingJournal journal(RecordingFiles::journalFileFor(mic));
        journal.recordMic(mic);
        journal.recordTrack(system);
        journal.recordNote({75, "Budget : 100 %\nsur deux lignes"});
        journal.recordMerged(mix, destination);
    }
    QFile torn(RecordingFiles::journalFileFor(mic));
    ASSERT_TRUE(torn.open(QIODevice::Append));
    torn.write("note 80 coup");
    torn.close();

    const QString sentMic = recordings() + "/tavrel_mic_20.m4a";
    const QString keptTrack = track(capture(), "tavrel_bh_20.m4a", 500);
    {
        RecordingJournal journal(RecordingFiles::journalFileFor(sentMic));
        journal.recordMic(sentMic);
        journal.recordTrack(keptTrack);
        journal.recordKept();
    }
    track(capture(), "tavrel_tap_30.m4a", 300);
    track(recordings(), ".tavrel_mic_40.part-99.m4a", 300);
    QFile(capture() + "/autre.txt").open(QIODevice::WriteOnly);
    {
        M4aWriter interrupted(recordings() + "/tavrel_mic_50.m4a", 44100, 1);
        const std::vector<float> second(44100, 0.1f);
        interrupted.write(second.data(), 44100);
    }
    // Killed before the microphone's first fragment: what the writer had put on disk by then.
    const QString unborn = recordings() + "/tavrel_mic_60.m4a";
    {
        M4aWriter opening(recordings() + "/opening.m4a", 44100, 1);
        ASSERT_TRUE(QFile::copy(recordings() + "/opening.m4a", unborn));
    }
    QFile::remove(recordings() + "/opening.m4a");
    {
        RecordingJournal journal(RecordingFiles::journalFileFor(unborn));
        journal.recordMic(unborn);
        journal.recordTrack(track(capture(), "tavrel_sys_60.m4a", 800));
    }

    EXPECT_EQ(launch(), 2);
    EXPECT_EQ(filesIn(recordings()),
              (QStringList{"tavrel_merged_12.m4a", "tavrel_merged_12.notes.txt", "tavrel_mic_50.m4a"}));
    EXPECT_EQ(read(RecordingFiles::notesFileFor(destination)), "[1:15] Budget : 100 %\nsur deux lignes");
    EXPECT_FALSE(isFragmentedMp4(recordings() + "/tavrel_mic_50.m4a"));
    const MediaInfo interrupted = probe(recordings() + "/tavrel_mic_50.m4a");
    EXPECT_TRUE(interrupted.moovBeforeMdat) << interrupted.topLevelBoxes.join(',').toStdString();
    EXPECT_NEAR(interrupted.formatDurationS, 1.0, 0.05) << "the writer's last flush";
    EXPECT_EQ(filesIn(capture()), (QStringList{"autre.txt"})) << "the lock is let go, a file not ours stays";
}

// A disk too full to take the mix: the microphone file is the recording at once, with its notes; the tracks wait
// for two more launches and are then given up, so that nothing piles up.
TEST_F(CaptureRecoveryTest, aMixThatFailsAtEveryLaunchIsGivenUpAfterTheThird) {
    const QString mic = track(recordings(), "tavrel_mic_10.m4a", 440);
    const QString system = track(capture(), "tavrel_sys_10.m4a", 1000);
    {
        RecordingJournal journal(RecordingFiles::journalFileFor(mic));
        journal.recordMic(mic);
        journal.recordTrack(system);
        journal.recordNote({3, "Intro"});
    }
    const QStringList tracksAndJournal = filesIn(capture());

    // Writes past 8 KiB fail as on a full disk (EFBIG instead of the signal).
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit previousLimit{};
    getrlimit(RLIMIT_FSIZE, &previousLimit);
    rlimit limit = previousLimit;
    limit.rlim_cur = 8 * 1024;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    std::vector<QStringList> captureAfter;
    for (int launches = 0; launches < 3; ++launches) {
        EXPECT_EQ(launch(), 0);
        captureAfter.push_back(filesIn(capture()));
    }
    setrlimit(RLIMIT_FSIZE, &previousLimit);
    std::signal(SIGXFSZ, previousHandler);

    EXPECT_EQ(captureAfter[0], tracksAndJournal);
    EXPECT_EQ(captureAfter[1], tracksAndJournal);
    EXPECT_TRUE(captureAfter[2].isEmpty()) << captureAfter[2].join(' ').toStdString();
    EXPECT_EQ(filesIn(recordings()), (QStringList{"tavrel_mic_10.m4a", "tavrel_mic_10.notes.txt"}));
    EXPECT_EQ(read(RecordingFiles::notesFileFor(mic)), "[0:03] Intro");
    EXPECT_TRUE(probe(mic).valid);
}

} // namespace
} // namespace tavrel::test
