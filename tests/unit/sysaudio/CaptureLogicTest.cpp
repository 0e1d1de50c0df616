#include "Media.h"
#include "SignalTools.h"
#include "TempDir.h"
#include "audio/files/CafWriter.h"
#include "audio/pulse/PulseContext.h"
#include "audio/sources/BlackHoleRecorder.h"
#include "audio/sources/OutputChain.h"
#include "audio/sources/ProcessTapRecorder.h"
#include "audio/sources/SystemAudioRecorder.h"
#include "audio/timeline/CaptureTimeline.h"
#include "audio/timeline/SampleHandOff.h"

#include <QFile>
#include <QProcess>
#include <cmath>
#include <gtest/gtest.h>
#include <random>
#include <thread>

namespace tavrel::test {
namespace {

constexpr int kRate = 48000;
constexpr int64_t kMs = 1'000'000;
constexpr int64_t kChunk = 960; // 20 ms

int64_t framesOf(int64_t ns) {
    return ns * kRate / 1'000'000'000;
}

// ---- CaptureTimeline -------------------------------------------------------------------------------

struct TimelineCase {
    const char* name;
    double clockRatio;   // device frames per system-clock frame (1.0001 = 100 ppm fast)
    int64_t jitterMaxMs; // late delivery of chunks, uniformly 0...max
    int64_t holeFromS;   // no data from this second...
    int64_t holeToS;     // ...to this one (0 = no hole)
};

class TimelineTest : public ::testing::TestWithParam<TimelineCase> {};

// Chunks carry the time of their first frame (late by scheduling jitter, or absent during a hole); over
// an hour the position given to each must stay within a few tens of ms of its real time, and the
// positions must never run backwards by more than a drift correction.
TEST_P(TimelineTest, everyChunkStaysNearItsRealTime) {
    const TimelineCase c = GetParam();
    const int64_t startNs = 5'000 * kMs;
    CaptureTimeline timeline(startNs, kRate);
    std::mt19937 random(7);
    std::uniform_int_distribution<int64_t> jitter(0, c.jitterMaxMs * kMs);
    int64_t worstErrorFrames = 0;
    const int64_t chunks = 3600LL * 1000 / 20;
    for (int64_t i = 0; i < chunks; ++i) {
        // The device produced chunk i at this real time (its clock may run fast or slow).
        const auto realNs = static_cast<int64_t>(static_cast<double>(i * 20 * kMs) / c.clockRatio) + 200 * kMs;
        const int64_t second = realNs / (1000 * kMs);
        if (c.holeToS > 0 && second >= c.holeFromS && second < c.holeToS)
            continue;
        const int64_t position = timeline.place(startNs + realNs + jitter(random), kChunk);
        worstErrorFrames = std::max(worstErrorFrames, std::abs(position - framesOf(realNs)));
    }
    EXPECT_LT(worstErrorFrames, framesOf(40 * kMs)) << "worst error " << worstErrorFrames * 1000 / kRate << " ms";
}

INSTANTIATE_TEST_SUITE_P(Clocks, TimelineTest,
                         ::testing::Values(TimelineCase{"steady", 1.0, 0, 0, 0}, TimelineCase{"jittery", 1.0, 30, 0, 0},
                                           TimelineCase{"fast100ppm", 1.0001, 10, 0, 0},
                                           TimelineCase{"slow100ppm", 0.9999, 10, 0, 0},
                                           TimelineCase{"idleOutput", 1.0, 10, 600, 1800},
                                           TimelineCase{"slowWithHoles", 0.99995, 30, 100, 102}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(TimelinePauseTest, pausedStretchesAreLeftOutAndAddUp) {
    CaptureTimeline timeline(0, kRate);
    int64_t stream = 0;
    std::vector<int64_t> positions;
    const auto chunk = [&](bool paused) {
        const auto position = timeline.filePosition(stream, kChunk, paused);
        stream += kChunk;
        return position;
    };
    for (int i = 0; i < 50; ++i)
        ASSERT_EQ(chunk(false), i * kChunk);
    for (int i = 0; i < 500; ++i) // 10 s paused
        EXPECT_FALSE(chunk(true));
    EXPECT_EQ(chunk(false), 50 * kChunk) << "no gap after the pause";
    EXPECT_EQ(timeline.pauseOffsetFrames(), 500 * kChunk);
    for (int i = 0; i < 250; ++i) // 5 s more
        chunk(true);
    EXPECT_EQ(chunk(false), 51 * kChunk);
    EXPECT_EQ(timeline.pauseOffsetFrames(), 750 * kChunk);
}

TEST(TimelinePauseTest, pauseBeforeAnyAudioShiftsNothing) {
    CaptureTimeline timeline(0, kRate);
    EXPECT_FALSE(timeline.filePosition(0, kChunk, true));
    EXPECT_EQ(timeline.filePosition(kChunk * 10, kChunk, false), kChunk * 10);
    EXPECT_EQ(timeline.filePosition(kChunk * 11, kChunk, false), kChunk * 11);
    EXPECT_EQ(timeline.pauseOffsetFrames(), 0);
}

// ---- CafWriter -------------------------------------------------------------------------------------

TEST(CafWriterTest, positionsFillGapsAndDropOverlapsAndFfmpegReadsTheFile) {
    TempDir dir(QStringLiteral("caf"));
    const QString path = dir.filePath("t.caf");
    {
        CafWriter writer(path, kRate, 2);
        std::vector<float> ones(2 * kRate / 10, 0.5f); // 100 ms
        writer.write(ones.data(), kRate / 10, 0);
        writer.write(ones.data(), kRate / 10, kRate / 2);      // after a 400 ms hole
        writer.write(ones.data(), kRate / 10, kRate / 2 + 10); // overlaps all but 10 frames
        EXPECT_EQ(writer.endFrames(), kRate / 2 + kRate / 10 + 10);
        writer.finish();
    }
    const MediaInfo facts = probe(path);
    ASSERT_TRUE(facts.valid) << facts.error.toStdString();
    EXPECT_EQ(facts.codecName, "pcm_f32le");
    EXPECT_EQ(facts.sampleRateHz, kRate);
    EXPECT_EQ(facts.channels, 2);
    const std::vector<float> samples = decodeToMonoFloat(path, kRate);
    ASSERT_EQ(samples.size(), static_cast<size_t>(kRate / 2 + kRate / 10 + 10));
    EXPECT_NEAR(rmsDbBetween(samples, kRate, 0.0, 0.1), 20 * std::log10(0.5), 0.01);
    EXPECT_LT(rmsDbBetween(samples, kRate, 0.1, 0.5), -190.0);
    EXPECT_NEAR(rmsDbBetween(samples, kRate, 0.5, 0.6), 20 * std::log10(0.5), 0.01);
}

// A file whose writer never finished (the process was killed) still reads up to its last flush.
TEST(CafWriterTest, unfinishedFileIsReadableToItsEnd) {
    TempDir dir(QStringLiteral("caf"));
    const QString path = dir.filePath("killed.caf");
    auto writer = std::make_unique<CafWriter>(path, kRate, 2);
    std::vector<float> tone(2 * kRate * 2);
    for (size_t i = 0; i < tone.size(); ++i)
        tone[i] = 0.3f * std::sin(static_cast<float>(i / 2) * 0.05f);
    writer->write(tone.data(), 2 * kRate, 0); // 2 s: flushed every second
    const QByteArray snapshot = [&] {
        QFile file(path);
        file.open(QIODevice::ReadOnly);
        return file.readAll();
    }();
    writer.reset(); // lets the handle go; the copy above is what a crash would have left
    QFile crashed(dir.filePath("crashed.caf"));
    ASSERT_TRUE(crashed.open(QIODevice::WriteOnly));
    crashed.write(snapshot);
    crashed.close();
    const std::vector<float> samples = decodeToMonoFloat(crashed.fileName(), kRate);
    EXPECT_GE(static_cast<double>(samples.size()) / kRate, 1.0);
}

// ---- Hand-off ---------------------------------------------------------------------------------------

TEST(SampleHandOffTest, everyChunkArrivesInOrderWithItsPosition) {
    std::vector<std::pair<int64_t, float>> received;
    {
        SampleHandOff handOff(
            2, 4096,
            [&](const float* samples, int64_t frames, int64_t position) {
                received.emplace_back(position, samples[2 * frames - 1]);
            },
            "test-handoff");
        std::vector<float> chunk(2 * 1000);
        int pushed = 0;
        for (int i = 0; i < 200; ++i) {
            std::fill(chunk.begin(), chunk.end(), static_cast<float>(i));
            while (!handOff.push(chunk.data(), 1000, i * 1000LL))
                std::this_thread::sleep_for(std::chrono::milliseconds(1)); // ring smaller than the stream
            ++pushed;
        }
        handOff.stop();
        EXPECT_EQ(pushed, 200);
    }
    ASSERT_EQ(received.size(), 200u);
    for (size_t i = 0; i < received.size(); ++i) {
        EXPECT_EQ(received[i].first, static_cast<int64_t>(i) * 1000);
        EXPECT_EQ(received[i].second, static_cast<float>(i));
    }
}

// ---- The device behind a filter output ----------------------------------------------------------------

struct ChainCase {
    const char* name;
    std::vector<OutputChainSink> sinks;
    std::vector<OutputChainStream> streams;
    const char* start;
    const char* expected; // nullptr: no such sink
};

class OutputChainTest : public ::testing::TestWithParam<ChainCase> {};

TEST_P(OutputChainTest, endsAtTheDeviceThatHearsEverything) {
    const ChainCase& c = GetParam();
    const OutputChainSink* end = endOfOutputChain(c.sinks, c.streams, QString::fromUtf8(c.start));
    if (!c.expected) {
        EXPECT_EQ(end, nullptr);
        return;
    }
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(end->name, QString::fromUtf8(c.expected));
}

const OutputChainSink kSpeaker{1, "speaker", {}, {}};
const OutputChainSink kHeadset{2, "headset", {}, {}};

INSTANTIATE_TEST_SUITE_P(
    Chains, OutputChainTest,
    ::testing::Values(
        ChainCase{"deviceIsItsOwnEnd", {kSpeaker, kHeadset}, {}, "speaker", "speaker"},
        ChainCase{"unknownSink", {kSpeaker}, {}, "gone", nullptr},
        // PulseAudio's echo canceller in front of a remapping sink in front of the speakers.
        ChainCase{"masterNamesAreFollowedToTheEnd",
                  {kSpeaker, {3, "remap", "speaker", {}}, {4, "ec_sink", "remap", {}}},
                  {},
                  "ec_sink",
                  "speaker"},
        ChainCase{"missingMasterStopsAtTheFilter", {kSpeaker, {4, "ec_sink", "gone", {}}}, {}, "ec_sink", "ec_sink"},
        // PipeWire: the filter's playback stream shares its link group and feeds the headset; an ordinary app
        // stream on the speakers and the filter's capture side are no part of the chain.
        ChainCase{"linkGroupStreamIsFollowed",
                  {kSpeaker, kHeadset, {5, "echo-cancel-sink", {}, "ec-1"}},
                  {{{}, 1}, {"ec-1", 2}},
                  "echo-cancel-sink",
                  "headset"},
        ChainCase{"unlinkedFilterIsItsOwnEnd",
                  {kSpeaker, {5, "echo-cancel-sink", {}, "ec-1"}},
                  {{"other", 1}},
                  "echo-cancel-sink",
                  "echo-cancel-sink"},
        ChainCase{"loopStopsWhereItCloses", {{6, "a", "b", {}}, {7, "b", "a", {}}}, {}, "a", "b"}),
    [](const ::testing::TestParamInfo<ChainCase>& info) { return std::string(info.param.name); });

// ---- Device choice and levels ------------------------------------------------------------------------

PulseDeviceInfo source(const char* name, const char* description, bool monitor) {
    PulseDeviceInfo info;
    info.name = name;
    info.description = description;
    info.monitorOfSink = monitor ? 3 : PA_INVALID_INDEX;
    return info;
}

struct NameCase {
    const char* description;
    bool matches;
};

class BlackHoleNameTest : public ::testing::TestWithParam<NameCase> {};

TEST_P(BlackHoleNameTest, descriptionDecides) {
    EXPECT_EQ(BlackHoleRecorder::isBlackHoleName(GetParam().description), GetParam().matches);
}

INSTANTIATE_TEST_SUITE_P(Names, BlackHoleNameTest,
                         ::testing::Values(NameCase{"BlackHole 2ch", true}, NameCase{"BLACKHOLE 2ch", true},
                                           NameCase{"My blackhole loop", true}, NameCase{"BlackHole 16ch", true},
                                           NameCase{"Monitor of BlackHole 2ch", true}, NameCase{"Black Hole", false},
                                           NameCase{"Haut-parleurs", false}));

TEST(BlackHoleDeviceTest, realSourcesComeBeforeMonitors) {
    const std::vector<PulseDeviceInfo> sources{source("speaker.monitor", "Monitor of Haut-parleurs", true),
                                               source("bh.monitor", "Monitor of BlackHole 2ch", true),
                                               source("vmic", "Microphone virtuel", false),
                                               source("bh16", "BlackHole 16ch", false)};
    const auto typed = BlackHoleRecorder::findDeviceIn(sources);
    ASSERT_TRUE(typed);
    EXPECT_EQ(typed->name, "bh16");

    const std::vector<PulseDeviceInfo> onlyMonitor{sources[0], sources[1], sources[2]};
    const auto older = BlackHoleRecorder::findDeviceIn(onlyMonitor);
    ASSERT_TRUE(older);
    EXPECT_EQ(older->name, "bh.monitor");
    EXPECT_EQ(older->description, "Monitor of BlackHole 2ch");

    EXPECT_FALSE(BlackHoleRecorder::findDeviceIn({sources[0], sources[2]}));
    EXPECT_FALSE(BlackHoleRecorder::findDeviceIn({}));
}

struct LevelCase {
    const char* name;
    float amplitude; // of a full square wave on channel 0 (channel 1 stays silent)
    float expected;
};

class ChunkLevelTest : public ::testing::TestWithParam<LevelCase> {};

// The virtual device's level is the first channel's average power over the chunk.
TEST_P(ChunkLevelTest, firstChannelPowerMapsOntoTheMeter) {
    std::vector<float> interleaved(2 * 480, 0.0f);
    for (size_t i = 0; i < 480; ++i) {
        interleaved[2 * i] = (i % 2 ? 1.0f : -1.0f) * GetParam().amplitude;
        interleaved[2 * i + 1] = 0.9f;
    }
    EXPECT_NEAR(BlackHoleRecorder::chunkLevel(interleaved.data(), 480, 2), GetParam().expected, 1e-4);
}

INSTANTIATE_TEST_SUITE_P(Levels, ChunkLevelTest,
                         ::testing::Values(LevelCase{"minus60dB", 0.001f, 0.0f},
                                           LevelCase{"minus50dB", 0.0031623f, 0.0f},
                                           LevelCase{"minus25dB", 0.056234f, 0.5f},
                                           LevelCase{"minus10dB", 0.31623f, 0.8f}, LevelCase{"fullScale", 1.0f, 1.0f},
                                           LevelCase{"silence", 0.0f, 0.0f}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(SmoothedLevelTest, readsEverySixteenthSampleAndSmooths) {
    // Only indices 0, 16, 32... are loud: the level sees a full-scale signal.
    std::vector<float> sparse(1024, 0.0f);
    for (size_t i = 0; i < sparse.size(); i += 16)
        sparse[i] = 1.0f;
    EXPECT_NEAR(SystemAudioRecorder::smoothedLevel(0.0f, sparse.data(), 1024), 0.4f, 1e-5);
    EXPECT_NEAR(SystemAudioRecorder::smoothedLevel(0.5f, sparse.data(), 1024), 0.7f, 1e-5);
    // Silence: -120 dB, so the level decays by 0.6 per buffer.
    std::vector<float> silence(1024, 0.0f);
    EXPECT_NEAR(SystemAudioRecorder::smoothedLevel(0.5f, silence.data(), 1024), 0.3f, 1e-6);
    // A full-scale sine (-3 dB) gives about 0.94 before smoothing.
    std::vector<float> sine(4096);
    for (size_t i = 0; i < sine.size(); ++i)
        sine[i] = std::sin(static_cast<float>(i) * 0.37f);
    EXPECT_NEAR(SystemAudioRecorder::smoothedLevel(0.0f, sine.data(), 4096) / 0.4f, 0.94f, 0.02f);
    // Nothing to read leaves the level as it was.
    EXPECT_EQ(SystemAudioRecorder::smoothedLevel(0.25f, sine.data(), 0), 0.25f);
}

TEST(SourceContractTest, sourcesThatNeverStartedGiveNothingAndLevelZero) {
    SystemAudioRecorder monitor;
    EXPECT_EQ(monitor.currentLevel(), 0.0f);
    EXPECT_EQ(monitor.stopBlocking(), std::nullopt);
    EXPECT_EQ(monitor.outputURL(), std::nullopt);
    BlackHoleRecorder device(CaptureDevice{"bh.monitor", "BlackHole 2ch"});
    EXPECT_EQ(device.currentLevel(), 0.0f);
    EXPECT_EQ(device.stopBlocking(), std::nullopt);
    ProcessTapRecorder tap;
    EXPECT_EQ(tap.currentLevel(), 0.0f);
    EXPECT_EQ(tap.stopBlocking(), std::nullopt);
    EXPECT_EQ(errorDescription(BlackHoleError::deviceMissing), QStringLiteral("Périphérique BlackHole introuvable."));
}

} // namespace
} // namespace tavrel::test
