// The orchestrator with the real Linux sources: which sources run on each server, and what the merged
// recording holds.

#include "TestSupport.h"
#include "audio/AudioRecorder.h"
#include "audio/sources/SystemAudioBackends.h"
#include "core/Log.h"
#include "core/RecordingFiles.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <algorithm>
#include <chrono>
#include <cmath>
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

/// sum(a[i + lag] * b[i]) for lag in [from, to).
std::vector<double> crossCorrelation(const std::vector<float>& a, const std::vector<float>& b, int from, int to) {
    std::vector<double> values;
    for (int lag = from; lag < to; ++lag) {
        double sum = 0.0;
        for (size_t i = 0; i < b.size(); ++i)
            if (const int64_t j = static_cast<int64_t>(i) + lag; j >= 0 && j < static_cast<int64_t>(a.size()))
                sum += double(a[static_cast<size_t>(j)]) * b[i];
        values.push_back(sum);
    }
    return values;
}

// No headset: a loopback from the speakers' monitor into the microphone plays the room (60 ms, -6 dB) while
// the far end speaks, then the user. The far end is heard once in the merged recording: against the far
// end's speech, the cross-correlation's peak at the room's delay (what is left once the direct sound's own
// share there is taken out) is at least 20 dB below the direct peak.
class RoomEchoTest : public RecordingWithSystemAudioTest {};

TEST_P(RoomEchoTest, farEndHeardThroughTheRoomIsHeardOnce) {
    const auto loopback = m_server->loadModule(
        "module-loopback", QStringLiteral("source=%1 sink=%2 latency_msec=60 source_dont_move=true sink_dont_move=true")
                               .arg(m_server->monitorOf(m_server->speakerSink()), m_server->micFeedSink()));
    ASSERT_TRUE(loopback);
    ASSERT_TRUE(waitUntil(
        [&] {
            for (const auto& input : m_server->list("sink-inputs"))
                if (input.toObject().value("owner_module").toVariant().toInt() == *loopback)
                    return m_server
                        ->runPactl(
                            {"set-sink-input-volume", input.toObject().value("index").toVariant().toString(), "0.5"})
                        .ok();
            return false;
        },
        5s));
    SpeechOptions voice;
    voice.voice = QStringLiteral("fr+m3");
    const QString far = speechFile(
        QStringLiteral("Bonjour à tous, nous commençons par les ventes du trimestre, puis nous verrons les délais."),
        voice);
    voice.voice = QStringLiteral("fr+f2");
    const QString user = speechFile(QStringLiteral("Je voudrais d'abord revoir le budget de la région ouest."), voice);
    const double farSeconds = probe(far).formatDurationS;

    QStringList lines;
    LogCapture capture([&](const QString& line) { lines << line; });
    AudioRecorder recorder(linuxSystemAudioBackends());
    const Clock::time_point start = Clock::now();
    ASSERT_TRUE(QCoro::waitFor(startedOk(recorder)));
    std::this_thread::sleep_until(start + 1s);
    const double farAtS = secondsSince(start);
    m_players.push_back(m_server->playIntoSink(m_server->speakerSink(), far));
    std::this_thread::sleep_until(start + std::chrono::milliseconds(std::lround((1.5 + farSeconds) * 1000)));
    m_players.push_back(m_server->playIntoMicrophone(user));
    ASSERT_EQ(m_players.back().wait(30s), 0);
    const auto merged = QCoro::waitFor(recorder.stopRecording());
    ASSERT_TRUE(merged);

    constexpr int kAnalysisRate = 8000;
    const std::vector<float> mix = decodeToMonoFloat(*merged, kAnalysisRate);
    const std::vector<float> farSpeech = decodeToMonoFloat(far, kAnalysisRate);
    // The direct sound: the largest peak near when the far end was played.
    const int searchFrom = static_cast<int>((farAtS - 0.3) * kAnalysisRate);
    const std::vector<double> around =
        crossCorrelation(mix, farSpeech, searchFrom, searchFrom + kAnalysisRate * 6 / 10);
    const auto direct = std::max_element(around.begin(), around.end());
    const int directLag = searchFrom + static_cast<int>(direct - around.begin());
    // The echo, where the room puts it, or early if the recorder lined the tracks up imperfectly.
    const int reach = kAnalysisRate * 300 / 1000;
    const std::vector<double> aroundDirect = crossCorrelation(mix, farSpeech, directLag - reach, directLag + reach);
    const std::vector<double> ownShape = crossCorrelation(farSpeech, farSpeech, -reach, reach);
    const double zeroLag = ownShape[static_cast<size_t>(reach)];
    double echoPeak = 0.0;
    for (int i = 0; i < 2 * reach; ++i)
        if (std::abs(i - reach) > kAnalysisRate * 20 / 1000)
            echoPeak = std::max(echoPeak, std::abs(aroundDirect[static_cast<size_t>(i)] -
                                                   ownShape[static_cast<size_t>(i)] * *direct / zeroLag));
    EXPECT_LE(20.0 * std::log10(echoPeak / *direct), -20.0) << "echo peak against the direct peak (dB)";
    // The echo was there, and found.
    const QStringList echoLines = lines.filter(QStringLiteral("[TrackMerger] Écho des haut-parleurs retiré du micro"));
    EXPECT_EQ(echoLines.size(), 1) << lines.join('\n').toStdString();
}

// The canceller works on the merge's files alike whichever server recorded them: one room is enough.
INSTANTIATE_TEST_SUITE_P(PulseAudio, RoomEchoTest, ::testing::Values(AudioServerKind::PulseAudio));

INSTANTIATE_TEST_SUITE_P(Servers, RecordingWithSystemAudioTest,
                         ::testing::Values(AudioServerKind::PulseAudio, AudioServerKind::PipeWire),
                         [](const auto& info) {
                             return info.param == AudioServerKind::PipeWire ? "PipeWire" : "PulseAudio";
                         });

} // namespace
} // namespace tavrel::test
