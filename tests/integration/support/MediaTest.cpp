// The measuring tools the audio tests trust: if they were wrong, those tests would pass or fail for
// the wrong reason.
#include "Media.h"

#include "Command.h"
#include "TempDir.h"

#include <QFile>
#include <gtest/gtest.h>

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;

// Speech placed at known times is found there: what the audio tests rely on to check timing.
TEST(MediaTest, OnsetsOfPlacedSpeechAreFoundWithinAFewMilliseconds) {
    TempDir dir(QStringLiteral("tavrel-media-test"));
    const QString speech = dir.filePath(QStringLiteral("speech.wav"));
    ASSERT_TRUE(makeSpeech(QStringLiteral("Un, deux, trois."), speech));
    const MediaInfo info = probe(speech);
    EXPECT_EQ(info.codecName, QStringLiteral("pcm_s16le"));
    EXPECT_EQ(info.sampleRateHz, 44100);

    // espeak-ng starts its files with a little silence of its own: measure it, then place the speech.
    const std::vector<float> alone = decodeToMonoFloat(speech);
    const std::vector<double> own = findSoundOnsets(alone, 44100, -40.0, 300);
    ASSERT_FALSE(own.empty());
    const QString lead = dir.filePath(QStringLiteral("lead.wav"));
    const QString gap = dir.filePath(QStringLiteral("gap.wav"));
    const QString placed = dir.filePath(QStringLiteral("placed.wav"));
    ASSERT_TRUE(makeSilence(1.25, lead));
    ASSERT_TRUE(makeSilence(2.0, gap));
    ASSERT_TRUE(concatenateAudio({lead, speech, gap, speech}, placed));

    const std::vector<float> samples = decodeToMonoFloat(placed);
    const double speechSeconds = static_cast<double>(alone.size()) / 44100.0;
    const std::vector<double> onsets = findSoundOnsets(samples, 44100, -40.0, 1500);
    ASSERT_EQ(onsets.size(), 2u);
    EXPECT_NEAR(onsets[0], 1.25 + own.front(), 0.005);
    EXPECT_NEAR(onsets[1], 1.25 + speechSeconds + 2.0 + own.front(), 0.005);
    EXPECT_EQ(rmsDbBetween(samples, 44100, 0.0, 1.2), kSilenceDb);
    EXPECT_GT(rmsDbBetween(samples, 44100, onsets[0], onsets[0] + 0.5), -30.0);
}

TEST(MediaTest, ToneLevelMatchesItsAmplitudeWithChannelsAveraged) {
    TempDir dir(QStringLiteral("tavrel-media-test"));
    const QString tone = dir.filePath(QStringLiteral("tone.wav"));
    ASSERT_TRUE(makeTone(1000, 1.0, tone, 2, 48000, 0.5));
    const std::vector<float> samples = decodeToMonoFloat(tone, 48000);
    ASSERT_EQ(samples.size(), 48000u);
    // A sine of amplitude A has an RMS of A/sqrt(2): -9.03 dBFS at 0.5, channels averaged not summed.
    EXPECT_NEAR(rmsDb(samples), -9.03, 0.1);
    EXPECT_NEAR(peak(samples), 0.5f, 0.01f);
}

// The box order is read from the file itself, so that a writer's "faststart" claim is checked, not assumed.
TEST(MediaTest, ProbeReportsCodecDurationAndBoxOrder) {
    TempDir dir(QStringLiteral("tavrel-media-test"));
    const QString tone = dir.filePath(QStringLiteral("tone.wav"));
    ASSERT_TRUE(makeTone(440, 2.0, tone, 1));
    for (const bool fastStart : {false, true}) {
        SCOPED_TRACE(fastStart ? "faststart" : "plain");
        const QString m4a = dir.filePath(fastStart ? QStringLiteral("fast.m4a") : QStringLiteral("plain.m4a"));
        QStringList args{
            QStringLiteral("-nostdin"), QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"), tone,
            QStringLiteral("-c:a"),     QStringLiteral("aac")};
        if (fastStart)
            args << QStringLiteral("-movflags") << QStringLiteral("+faststart");
        const CommandResult encoded = runCommand(QStringLiteral("ffmpeg"), args << m4a, {}, 60s);
        ASSERT_TRUE(encoded.ok()) << encoded.describe().toStdString();
        const MediaInfo info = probe(m4a);
        ASSERT_TRUE(info.valid) << info.error.toStdString();
        EXPECT_EQ(info.codecName, QStringLiteral("aac"));
        EXPECT_EQ(info.channels, 1);
        EXPECT_TRUE(info.formatName.contains(QStringLiteral("mp4"))) << info.formatName.toStdString();
        EXPECT_NEAR(info.formatDurationS, 2.0, 0.05);
        EXPECT_EQ(info.moovBeforeMdat, fastStart) << info.topLevelBoxes.join(' ').toStdString();
        EXPECT_EQ(info.topLevelBoxes.value(0), QStringLiteral("ftyp"));
    }

    QFile junk(dir.filePath(QStringLiteral("junk.m4a")));
    ASSERT_TRUE(junk.open(QIODevice::WriteOnly));
    junk.write(QByteArray(1000, 'x'));
    junk.close();
    const MediaInfo info = probe(junk.fileName());
    EXPECT_FALSE(info.valid);
    EXPECT_FALSE(info.error.isEmpty());
    EXPECT_TRUE(info.topLevelBoxes.isEmpty());
}

} // namespace
} // namespace tavrel::test
