// The orchestrator with the real Linux sources: which sources run on each server, and what the merged
// recording holds.

#include "TestSupport.h"
#include "audio/AudioRecorder.h"
#include "audio/sources/SystemAudioBackends.h"
#include "core/RecordingFiles.h"

#include <QDir>
#include <QFileInfo>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kRate = 44100;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// QCoro 0.8's waitFor never returns when the task throws: catch inside.
QCoro::Task<bool> startedOk(AudioRecorder& recorder) {
    try {
        co_await recorder.startRecording();
    } catch (const std::exception& error) {
        ADD_FAILURE() << "start failed: " << error.what();
        co_return false;
    }
    co_return true;
}

struct Played {
    double atS;
    double frequencyHz;
};

class RecordingWithSystemAudioTest : public ::testing::TestWithParam<AudioServerKind> {
protected:
    void SetUp() override {
        QString missing;
        if (GetParam() == AudioServerKind::PipeWire && !PipeWireFixture::isAvailable(&missing))
            GTEST_SKIP() << "PipeWire missing: " << missing.toStdString();
        AudioServerFixture::Options options;
        options.exportHome = true;
        m_server = makeAudioServer(GetParam(), options);
        ASSERT_TRUE(m_server->start());
        ASSERT_TRUE(m_server->warmUp());
    }

    QString tone(double frequencyHz) {
        const QString path = m_dir.filePath(QStringLiteral("tone%1.wav").arg(frequencyHz));
        EXPECT_TRUE(makeTone(frequencyHz, 0.5, path, 2, kRate, 0.4));
        return path;
    }

    std::unique_ptr<AudioServerFixture> m_server;
    TempDir m_dir{QStringLiteral("sysrec")};
    ScopedEnvironment m_environment;
    std::vector<ManagedProcess> m_players;
};

// Each side plays its own tone at its own time; the merged recording holds every one of them, at its time.
TEST_P(RecordingWithSystemAudioTest, mergedRecordingHoldsEverySideAtItsTime) {
    AudioRecorder recorder(linuxSystemAudioBackends());
    const Clock::time_point start = Clock::now();
    ASSERT_TRUE(QCoro::waitFor(startedOk(recorder)));
    const bool pipeWire = GetParam() == AudioServerKind::PipeWire;
    EXPECT_EQ(recorder.usingProcessTap(), pipeWire);
    EXPECT_EQ(recorder.screenCaptureActive(), !pipeWire) << "the tap runs alone";
    EXPECT_EQ(recorder.usingBlackHole(), !pipeWire) << "the tap runs alone";
    EXPECT_TRUE(recorder.systemAudioActive());

    std::vector<Played> played;
    const auto playAt = [&](double atS, double frequencyHz, const QString& sink) {
        const QString file = tone(frequencyHz);
        std::this_thread::sleep_until(start +
                                      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(atS)));
        played.push_back(Played{secondsSince(start), frequencyHz});
        m_players.push_back(sink.isEmpty() ? m_server->playIntoMicrophone(file) : m_server->playIntoSink(sink, file));
    };
    playAt(1.5, 660, m_server->speakerSink());
    playAt(3.0, 440, QString());
    if (!pipeWire)
        playAt(4.5, 990, m_server->blackHoleSink());
    std::this_thread::sleep_until(start + (pipeWire ? 4500ms : 6000ms));
    const auto merged = QCoro::waitFor(recorder.stopRecording());

    ASSERT_TRUE(merged);
    EXPECT_TRUE(QFileInfo(*merged).fileName().startsWith("tavrel_merged_")) << merged->toStdString();
    const MediaInfo info = probe(*merged);
    ASSERT_TRUE(info.valid) << info.error.toStdString();
    EXPECT_EQ(info.codecName, "aac");
    const std::vector<float> samples = decodeToMonoFloat(*merged, kRate);
    const std::vector<double> onsets = findSoundOnsets(samples, kRate, -35.0, 300);
    ASSERT_EQ(onsets.size(), played.size()) << ::testing::PrintToString(onsets);
    for (size_t i = 0; i < played.size(); ++i)
        EXPECT_NEAR(onsets[i], played[i].atS, 0.2) << "tone " << played[i].frequencyHz;
    // Every side is late or early by the same amount (the player's own start-up): the tracks line up.
    std::string offsets;
    for (size_t i = 0; i < played.size(); ++i)
        offsets += std::to_string(onsets[i] - played[i].atS) + " ";
    for (size_t i = 1; i < played.size(); ++i)
        EXPECT_NEAR(onsets[i] - played[i].atS, onsets[0] - played[0].atS, 0.05) << "offsets: " << offsets;
    // The intermediate files are gone.
    EXPECT_TRUE(
        QDir(RecordingFiles::captureDir()).entryList({"tavrel_tap_*", "tavrel_sys_*", "tavrel_bh_*"}).isEmpty());
}

INSTANTIATE_TEST_SUITE_P(Servers, RecordingWithSystemAudioTest,
                         ::testing::Values(AudioServerKind::PulseAudio, AudioServerKind::PipeWire),
                         [](const auto& info) {
                             return info.param == AudioServerKind::PipeWire ? "PipeWire" : "PulseAudio";
                         });

} // namespace
} // namespace tavrel::test
