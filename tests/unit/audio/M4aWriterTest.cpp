#include "audio/files/M4aWriter.h"

#include "Media.h"
#include "TempDir.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cmath>
#include <gtest/gtest.h>
#include <numbers>
#include <vector>

using namespace tavrel;
using namespace tavrel::test;

namespace {

std::vector<float> sine(int sampleRateHz, int channels, double seconds, double frequencyHz = 440.0,
                        float amplitude = 0.5f) {
    const auto frames = static_cast<size_t>(seconds * sampleRateHz);
    std::vector<float> samples(frames * static_cast<size_t>(channels));
    for (size_t i = 0; i < frames; ++i) {
        const auto value =
            amplitude * static_cast<float>(std::sin(2.0 * std::numbers::pi * frequencyHz * double(i) / sampleRateHz));
        for (int c = 0; c < channels; ++c)
            samples[i * static_cast<size_t>(channels) + static_cast<size_t>(c)] = value;
    }
    return samples;
}

// Feeds the writer in uneven chunks, the way a capture thread hands over whatever arrived.
void writeInChunks(M4aWriter& writer, const std::vector<float>& samples, int channels) {
    const int64_t frames = static_cast<int64_t>(samples.size()) / channels;
    int64_t done = 0;
    int64_t chunk = 337;
    while (done < frames) {
        const int64_t n = std::min(chunk, frames - done);
        writer.write(samples.data() + done * channels, n);
        done += n;
        chunk = chunk * 7 % 3001 + 1;
    }
}

struct Format {
    int sampleRateHz;
    int channels;
    double seconds;
};

class M4aWriterFormat : public ::testing::TestWithParam<Format> {};

} // namespace

TEST_P(M4aWriterFormat, finishedFileIsPlainAacWithExactDuration) {
    const Format format = GetParam();
    TempDir dir;
    const QString path = dir.filePath("out.m4a");
    M4aWriter writer(path, format.sampleRateHz, format.channels);
    writeInChunks(writer, sine(format.sampleRateHz, format.channels, format.seconds), format.channels);
    writer.finish();

    const MediaInfo info = probe(path);
    ASSERT_TRUE(info.valid) << info.error.toStdString();
    EXPECT_EQ(info.codecName, "aac");
    EXPECT_EQ(info.sampleRateHz, format.sampleRateHz);
    EXPECT_EQ(info.channels, format.channels);
    EXPECT_NEAR(info.formatDurationS, format.seconds, 0.002);
    EXPECT_TRUE(info.moovBeforeMdat) << info.topLevelBoxes.join(',').toStdString();
    EXPECT_FALSE(info.topLevelBoxes.contains("moof"));
    // Nothing but the recording is left in the folder (no temporary from the rewrite).
    EXPECT_EQ(QDir(dir.path()).entryList({"*.m4a"}, QDir::Files | QDir::Hidden), QStringList{"out.m4a"});
}

INSTANTIATE_TEST_SUITE_P(Formats, M4aWriterFormat,
                         ::testing::Values(Format{44100, 1, 2.5}, Format{44100, 2, 1.3}, Format{48000, 2, 0.7},
                                           Format{44100, 1, 0.01}));

TEST(M4aWriter, unfinishedFileIsReadableAndRecoverable) {
    TempDir dir;
    const QString path = dir.filePath("live.m4a");
    const QString snapshot = dir.filePath("snapshot.m4a");
    const auto audio = sine(44100, 1, 3.0);
    M4aWriter writer(path, 44100, 1);
    writeInChunks(writer, audio, 1);
    // What a crash at this moment would leave on disk.
    ASSERT_TRUE(QFile::copy(path, snapshot));
    ASSERT_TRUE(isFragmentedMp4(snapshot));
    const double readableS = double(decodeToMonoFloat(snapshot).size()) / 44100.0;
    EXPECT_GT(readableS, 3.0 - 1.2);

    EXPECT_EQ(recoverInterruptedRecording(snapshot), RecoveryResult::recovered);
    EXPECT_FALSE(isFragmentedMp4(snapshot));
    const MediaInfo recovered = probe(snapshot);
    EXPECT_TRUE(recovered.moovBeforeMdat) << recovered.topLevelBoxes.join(',').toStdString();
    EXPECT_NEAR(recovered.formatDurationS, readableS, 0.1);
    writer.finish();
}

TEST(M4aWriter, writerDestroyedWithoutFinishLeavesAReadableFragmentedFile) {
    TempDir dir;
    const QString path = dir.filePath("dropped.m4a");
    {
        M4aWriter writer(path, 44100, 1);
        const auto audio = sine(44100, 1, 1.5);
        writeInChunks(writer, audio, 1);
    }
    EXPECT_TRUE(isFragmentedMp4(path));
    EXPECT_NEAR(probe(path).formatDurationS, 1.5, 0.05);
    EXPECT_EQ(recoverInterruptedRecording(path), RecoveryResult::recovered);
    const MediaInfo recovered = probe(path);
    EXPECT_NEAR(recovered.formatDurationS, 1.5, 0.05);
    EXPECT_TRUE(recovered.moovBeforeMdat);
}

TEST(M4aWriter, recoveryLeavesOtherFilesAlone) {
    TempDir dir;
    const QString good = dir.filePath("good.m4a");
    {
        M4aWriter writer(good, 44100, 1);
        const auto audio = sine(44100, 1, 0.5);
        writer.write(audio.data(), 22050);
        writer.finish();
    }
    const QByteArray before = [&] {
        QFile f(good);
        f.open(QIODevice::ReadOnly);
        return f.readAll();
    }();
    EXPECT_EQ(recoverInterruptedRecording(good), RecoveryResult::untouched);
    QFile after(good);
    ASSERT_TRUE(after.open(QIODevice::ReadOnly));
    EXPECT_EQ(after.readAll(), before);

    EXPECT_EQ(recoverInterruptedRecording(dir.filePath("missing.m4a")), RecoveryResult::untouched);
    const QString garbage = dir.filePath("garbage.m4a");
    QFile g(garbage);
    ASSERT_TRUE(g.open(QIODevice::WriteOnly));
    g.write(QByteArray("\x00\x00\x00\x08moof\xff\xff\xff\xffmdatxxxxxxxx", 24));
    g.close();
    EXPECT_EQ(recoverInterruptedRecording(garbage), RecoveryResult::failed);
    EXPECT_TRUE(QFileInfo::exists(garbage));
}

TEST(M4aWriter, rejectsFormatsAndPathsItCannotWrite) {
    TempDir dir;
    EXPECT_THROW(M4aWriter(dir.filePath("a.m4a"), 0, 1), FfmpegError);
    EXPECT_THROW(M4aWriter(dir.filePath("b.m4a"), 44100, 0), FfmpegError);
    EXPECT_THROW(M4aWriter(dir.filePath("c.m4a"), 44100, 9), FfmpegError);
    EXPECT_THROW(M4aWriter(dir.filePath("missing/dir/d.m4a"), 44100, 1), FfmpegError);
}
