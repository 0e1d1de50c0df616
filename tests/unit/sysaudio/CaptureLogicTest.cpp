#include "ClockSimulation.h"
#include "Media.h"
#include "ScopedEnvironment.h"
#include "TempDir.h"
#include "audio/files/AiffWriter.h"
#include "audio/files/CafWriter.h"
#include "audio/files/M4aWriter.h"
#include "audio/pulse/PulseContext.h"
#include "audio/sources/BlackHoleRecorder.h"
#include "audio/sources/OutputChain.h"
#include "audio/sources/ProcessTapRecorder.h"
#include "audio/sources/SystemAudioRecorder.h"
#include "audio/timeline/CaptureTrack.h"
#include "audio/timeline/SampleHandOff.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <mutex>

namespace tavrel::test {
namespace {

// ---- The recording's clock, over an hour ---------------------------------------------------------------

struct AlignmentCase {
    const char* name;
    SimulatedSide microphone;
    SimulatedSide system;
};

class AlignmentTest : public ::testing::TestWithParam<AlignmentCase> {};

// A click sounds on both sides every 10 s of real time for an hour with two pauses; each side's device clock
// drifts, delivers late, goes quiet or loses chunks. Every click must land within 40 ms of its place (its time
// less the paused time) on each side, and so within 40 ms of the other side's.
TEST_P(AlignmentTest, clicksOfBothSidesStayTogetherForAnHour) {
    SimulatedRecording recording;
    recording.pauses = {{1200.0, 1260.0}, {2400.5, 2403.5}};
    const std::vector<double> expected = expectedClickPositions(recording);
    const std::vector<double> mic = simulatedClickPositions(GetParam().microphone, recording);
    const std::vector<double> sys = simulatedClickPositions(GetParam().system, recording);
    ASSERT_EQ(mic.size(), expected.size());
    ASSERT_EQ(sys.size(), expected.size());
    double worstMs = 0.0;
    size_t heard = 0;
    for (size_t i = 0; i < expected.size(); ++i) {
        for (double position : {mic[i], sys[i]})
            if (position >= 0.0)
                worstMs = std::max(worstMs, 1000.0 * std::abs(position - expected[i]));
        if (mic[i] >= 0.0 && sys[i] >= 0.0) {
            worstMs = std::max(worstMs, 1000.0 * std::abs(mic[i] - sys[i]));
            ++heard;
        }
    }
    EXPECT_GT(heard, expected.size() / 2) << "too few clicks on both sides to tell";
    EXPECT_LE(worstMs, 40.0);
}

INSTANTIATE_TEST_SUITE_P(
    Clocks, AlignmentTest,
    ::testing::Values(AlignmentCase{"steady", {1.0, 40, 0, {}, 0}, {1.0, 20, 0, {}, 0}},
                      AlignmentCase{"jittery", {1.0, 40, 30, {}, 0}, {1.0, 20, 30, {}, 0}},
                      AlignmentCase{"driftingApart", {1.0001, 40, 10, {}, 0}, {0.9999, 20, 10, {}, 0}},
                      AlignmentCase{"idleOutput", {1.0, 40, 10, {}, 0}, {1.00005, 20, 10, {{600, 1800}}, 0}},
                      AlignmentCase{"dropOuts",
                                    {0.99995, 40, 30, {{100, 102}}, 97},
                                    {1.0001, 20, 30, {{1250, 1300}, {3000, 3001}}, 211}}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- Hand-off ---------------------------------------------------------------------------------------

// Chunks that do not fit are counted, and the next chunk that goes through says how much went missing before
// it, so that the timeline can put silence of that length in their place.
TEST(SampleHandOffTest, chunksArriveInOrderAndLostOnesAreAccountedFor) {
    std::vector<SampleHandOff::Chunk> received;
    std::vector<float> lastSamples;
    std::mutex gate; // holds the writer back so that the ring fills up
    std::unique_lock hold(gate);
    int accepted = 0;
    {
        SampleHandOff handOff(
            2, 4096,
            [&](const SampleHandOff::Chunk& chunk) {
                std::lock_guard wait(gate);
                received.push_back(chunk);
                lastSamples.push_back(chunk.samples ? chunk.samples[2 * chunk.frames - 1] : -1.0f);
            },
            {}, "test-handoff");
        std::vector<float> chunk(2 * 1000);
        for (int i = 0; i < 8; ++i) {
            std::fill(chunk.begin(), chunk.end(), static_cast<float>(i));
            if (handOff.push(chunk.data(), 1000, i * 1000LL))
                ++accepted;
            else
                EXPECT_GE(i, 4) << "room for 4096 frames (and one chunk in the writer's hands)";
        }
        EXPECT_LE(accepted, 5);
        EXPECT_EQ(handOff.droppedFrames(), (8 - accepted) * 1000);
        hold.unlock();
        EXPECT_TRUE(handOff.pushHole(500, 9000));
        handOff.stop();
    }
    ASSERT_EQ(received.size(), static_cast<size_t>(accepted + 1));
    for (int i = 0; i < accepted; ++i) {
        EXPECT_EQ(received[i].captureNs, i * 1000);
        EXPECT_EQ(received[i].missingFrames, 0);
        EXPECT_EQ(lastSamples[i], static_cast<float>(i));
    }
    EXPECT_EQ(received.back().samples, nullptr) << "a hole carries no samples";
    EXPECT_EQ(received.back().frames, 500);
    EXPECT_EQ(received.back().missingFrames, (8 - accepted) * 1000);
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

// ---- Track files ------------------------------------------------------------------------------------------

enum class Writer { caf, m4a, aiff };

const char* extensionOf(Writer writer) {
    return writer == Writer::caf ? "caf" : writer == Writer::m4a ? "m4a" : "aiff";
}

std::unique_ptr<TrackFile> makeWriter(Writer writer, const QString& path, int rateHz) {
    if (writer == Writer::caf)
        return std::make_unique<CafWriter>(path, rateHz, 2);
    if (writer == Writer::m4a)
        return std::make_unique<M4aWriter>(path, rateHz, 2);
    return std::make_unique<AiffWriter>(path, rateHz, 2);
}

QByteArray readAll(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

std::vector<float> stereoTone(int rateHz, double seconds) {
    std::vector<float> samples(2 * static_cast<size_t>(seconds * rateHz));
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = 0.5f * std::sin(2.0f * 3.14159265f * 441.0f * static_cast<float>(i / 2) / rateHz);
    return samples;
}

class TrackFileTest : public ::testing::TestWithParam<Writer> {};

// A position past the end is preceded by silence, frames before the end are dropped, and ffmpeg reads the
// result at its exact length.
TEST_P(TrackFileTest, positionsFillGapsAndDropOverlaps) {
    constexpr int kRateHz = 44100;
    TempDir dir(QStringLiteral("trackfile"));
    const QString path = dir.filePath(QStringLiteral("gaps.") + extensionOf(GetParam()));
    const std::vector<float> second = stereoTone(kRateHz, 1.0);
    {
        const std::unique_ptr<TrackFile> file = makeWriter(GetParam(), path, kRateHz);
        file->write(second.data(), kRateHz, 0);
        file->write(second.data(), kRateHz, 2 * kRateHz);               // one second of silence before it
        file->write(second.data(), kRateHz, 2 * kRateHz + kRateHz / 2); // half overlaps: only its last half is kept
        file->finish();
    }
    const MediaInfo info = probe(path);
    EXPECT_NEAR(info.formatDurationS, 3.5, 0.002);
    if (GetParam() == Writer::m4a) { // an ordinary AAC file, index first, and no temporary from the rewrite left
        EXPECT_EQ(info.codecName, "aac");
        EXPECT_TRUE(info.moovBeforeMdat) << info.topLevelBoxes.join(',').toStdString();
        EXPECT_FALSE(info.topLevelBoxes.contains("moof"));
        EXPECT_EQ(QDir(dir.path()).entryList({"*.m4a*"}, QDir::Files | QDir::Hidden), QStringList{"gaps.m4a"});
    }
    const std::vector<float> decoded = decodeToMonoFloat(path, kRateHz);
    EXPECT_GT(rmsDbBetween(decoded, kRateHz, 0.2, 0.8), -12.0);
    EXPECT_LT(rmsDbBetween(decoded, kRateHz, 1.2, 1.8), -60.0);
    EXPECT_GT(rmsDbBetween(decoded, kRateHz, 2.6, 3.4), -12.0);
}

// A tap's file whose writer never finished (the process was killed) still reads up to its last flush. (An AAC
// track killed so is recovered at the next launch: CaptureRecoveryTest, and the real program killed in
// CrashRecoveryTest.)
TEST(CafWriterTest, anUnfinishedFileIsReadableUpToItsLastFlush) {
    constexpr int kRateHz = 44100;
    TempDir dir(QStringLiteral("trackfile"));
    const QString path = dir.filePath(QStringLiteral("live.caf"));
    const QString snapshot = dir.filePath(QStringLiteral("crashed.caf"));
    const std::vector<float> audio = stereoTone(kRateHz, 3.0);
    const std::unique_ptr<TrackFile> file = makeWriter(Writer::caf, path, kRateHz);
    file->write(audio.data(), 3 * kRateHz, 0);
    ASSERT_TRUE(QFile::copy(path, snapshot)); // what a crash at this moment would leave on disk
    const std::vector<float> decoded = decodeToMonoFloat(snapshot, kRateHz);
    EXPECT_GE(static_cast<double>(decoded.size()) / kRateHz, 1.0);
    EXPECT_GT(rmsDbBetween(decoded, kRateHz, 0.1, 0.9), -12.0);
}

// Whatever the writer, the track tells of the first failed write once, goes on without crashing, and what
// reached the file before stays readable.
TEST_P(TrackFileTest, aFullDiskIsToldOnceAndTheFileStaysReadable) {
    constexpr int kRateHz = 44100;
    TempDir dir(QStringLiteral("writefail"));
    const QString path = dir.filePath(QStringLiteral("track.") + extensionOf(GetParam()));
    std::unique_ptr<TrackFile> file = makeWriter(GetParam(), path, kRateHz);
    std::mutex mutex;
    std::vector<CaptureEvent> events;
    CaptureTrack::Settings settings;
    settings.sampleRateHz = kRateHz;
    settings.bufferSeconds = 30;
    {
        FileSizeLimit limit(96 * 1024);
        CaptureTrack track(std::move(file), std::make_shared<RecordingClock>(0), settings,
                           [&](const CaptureEvent& event) {
                               std::lock_guard lock(mutex);
                               events.push_back(event);
                           });
        std::vector<float> chunk(2 * 882);
        for (int64_t i = 0; i < 1000; ++i) { // 20 s of a 441 Hz tone in 20 ms chunks
            for (size_t frame = 0; frame < 882; ++frame)
                chunk[2 * frame] = chunk[2 * frame + 1] = 0.3f * std::sin(2.0f * 3.14159265f * frame / 100.0f);
            track.push(chunk.data(), 882, i * 20'000'000);
        }
        try {
            track.finish();
        } catch (const Error&) {
            // Finishing needs room too; the file stays as it was written.
        }
        EXPECT_TRUE(track.writeFailed());
    }
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].kind, CaptureEvent::Kind::writeFailed);
    EXPECT_EQ(events[0].detail, QString::fromLocal8Bit(std::strerror(EFBIG)));
    const std::vector<float> decoded = decodeToMonoFloat(path, kRateHz);
    const double seconds = static_cast<double>(decoded.size()) / kRateHz;
    EXPECT_GT(seconds, 0.2);
    EXPECT_LT(seconds, 19.0);
    EXPECT_GT(rmsDbBetween(decoded, kRateHz, 0.0, seconds - 0.05), -20.0) << "what was written is the tone";
    EXPECT_EQ(writeFailureReason(std::make_exception_ptr(FileWriteError(QStringLiteral("x"), ENOSPC))),
              QStringLiteral("Espace disque insuffisant"));
}

INSTANTIATE_TEST_SUITE_P(Writers, TrackFileTest, ::testing::Values(Writer::caf, Writer::m4a, Writer::aiff),
                         [](const auto& info) { return std::string(extensionOf(info.param)); });

// A file shorter than one AAC frame keeps its length; formats and paths the writer cannot take are refused; the
// launch's recovery leaves a finished file, a missing one and one it cannot read as they are.
TEST(M4aWriterTest, shortFilesBadFormatsAndFilesNotToRecover) {
    TempDir dir;
    const QString path = dir.filePath("short.m4a");
    const std::vector<float> audio = stereoTone(44100, 0.01);
    M4aWriter writer(path, 44100, 2);
    writer.write(audio.data(), 441);
    writer.finish();
    EXPECT_NEAR(probe(path).formatDurationS, 0.01, 0.002);
    const QByteArray finished = readAll(path);
    EXPECT_EQ(recoverInterruptedRecording(path), RecoveryResult::untouched);
    EXPECT_EQ(readAll(path), finished);
    EXPECT_EQ(recoverInterruptedRecording(dir.filePath("missing.m4a")), RecoveryResult::untouched);
    const QString garbage = dir.filePath("garbage.m4a");
    QFile file(garbage);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QByteArray("\x00\x00\x00\x08moof\xff\xff\xff\xffmdatxxxxxxxx", 24));
    file.close();
    EXPECT_EQ(recoverInterruptedRecording(garbage), RecoveryResult::failed);
    EXPECT_TRUE(QFileInfo::exists(garbage));
    for (const auto& [rateHz, channels] : std::initializer_list<std::pair<int, int>>{{0, 1}, {44100, 0}, {44100, 9}})
        EXPECT_THROW(M4aWriter(dir.filePath("bad.m4a"), rateHz, channels), FfmpegError);
    EXPECT_THROW(M4aWriter(dir.filePath("missing/dir/d.m4a"), 44100, 1), FfmpegError);
}

// ---- Device choice and levels ------------------------------------------------------------------------

PulseDeviceInfo source(const char* name, const char* description, bool monitor) {
    PulseDeviceInfo info;
    info.name = name;
    info.description = description;
    info.monitorOfSink = monitor ? 3 : PA_INVALID_INDEX;
    return info;
}

// The virtual device is known by its description; a real source of it comes before the monitor of an output.
TEST(BlackHoleDeviceTest, isFoundByItsNameRealSourcesFirst) {
    for (const auto& [description, matches] :
         std::initializer_list<std::pair<const char*, bool>>{{"BlackHole 2ch", true},
                                                             {"BLACKHOLE 2ch", true},
                                                             {"My blackhole loop", true},
                                                             {"BlackHole 16ch", true},
                                                             {"Monitor of BlackHole 2ch", true},
                                                             {"Black Hole", false},
                                                             {"Haut-parleurs", false}})
        EXPECT_EQ(BlackHoleRecorder::isBlackHoleName(description), matches) << description;
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

// The virtual device's level is the first channel's average power over the chunk, on the meter's decibel scale
// (the scale itself: LogTest).
TEST(ChunkLevelTest, firstChannelPowerMapsOntoTheMeter) {
    std::vector<float> interleaved(2 * 480, 0.9f); // the second channel is loud, and not heard
    for (size_t i = 0; i < 480; ++i)
        interleaved[2 * i] = (i % 2 ? 1.0f : -1.0f) * 0.056234f; // a square wave at -25 dB
    EXPECT_NEAR(BlackHoleRecorder::chunkLevel(interleaved.data(), 480, 2), 0.5f, 1e-4);
    for (size_t i = 0; i < 480; ++i)
        interleaved[2 * i] = 0.0f;
    EXPECT_EQ(BlackHoleRecorder::chunkLevel(interleaved.data(), 480, 2), 0.0f);
}

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
