// The orchestrator with the real Linux sources: which sources run on each server, and what the merged
// recording holds.

#include "TestSupport.h"
#include "audio/AudioRecorder.h"
#include "audio/merge/TrackMerger.h"
#include "audio/sources/ProcessTapRecorder.h"
#include "audio/sources/SystemAudioBackends.h"
#include "core/RecordingFiles.h"

#include <QDir>
#include <QFileInfo>
#include <QThreadPool>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
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

/// When a tone could have sounded, in seconds of the recording: from the player's launch (less the time the start
/// took, as time zero lies somewhere in it) to the player's end (it drains its sound before it exits). On a loaded
/// machine the player's start-up alone can take a second; a side that lost or kept a stretch it should not would be
/// seconds off.
struct Played {
    double fromS;
    double toS;
    double frequencyHz;
    bool holds(double onsetS, double slackS = 0.15) const { return onsetS > fromS - slackS && onsetS < toS + slackS; }
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

    /// Starts `recorder`; time is counted from before the start on.
    bool start(AudioRecorder& recorder) {
        m_before = Clock::now();
        const bool started = QCoro::waitFor(startedOk(recorder));
        m_startS = secondsSince(m_before);
        return started;
    }
    double secondsSinceStart() const { return secondsSince(m_before); }

    /// Plays a tone into `sink` (the microphone when empty) to its end, then leaves a stretch of silence.
    Played playToEnd(double frequencyHz, const QString& sink) {
        return playToEnd(tone(frequencyHz), sink, frequencyHz);
    }
    Played playToEnd(const QString& file, const QString& sink, double frequencyHz = 0.0) {
        const double launched = secondsSince(m_before);
        ManagedProcess player =
            sink.isEmpty() ? m_server->playIntoMicrophone(file) : m_server->playIntoSink(sink, file);
        EXPECT_EQ(player.wait(30s), 0);
        const Played played{launched - m_startS, secondsSince(m_before), frequencyHz};
        std::this_thread::sleep_for(600ms);
        return played;
    }

    std::unique_ptr<AudioServerFixture> m_server;
    TempDir m_dir{QStringLiteral("sysrec")};
    ScopedEnvironment m_environment;
    std::vector<ManagedProcess> m_players;
    Clock::time_point m_before;
    double m_startS = 0.0;
};

// A 3 s pause in the middle of a recording: the merged file leaves it out, with what was played meanwhile, and a
// tone played after it on every side at once (one player into a sink that feeds the speakers, the microphone and
// the virtual device together) sits at the same place in every track, within 50 ms.
TEST_P(RecordingWithSystemAudioTest, everyTrackLeavesThePauseOutAndStaysAligned) {
    const bool pipeWire = GetParam() == AudioServerKind::PipeWire;
    QStringList slaves{m_server->speakerSink(), m_server->micFeedSink()};
    if (!pipeWire)
        slaves << m_server->blackHoleSink();
    ASSERT_TRUE(m_server->loadModule("module-combine-sink", "sink_name=everyside slaves=" + slaves.join(',')))
        << m_server->logs().toStdString();
    // The microphone hears the feed's monitor itself, as the tap and the monitor source hear the speakers': the
    // virtual microphone's filter would add a delay of its own, which PipeWire does not report.
    ASSERT_TRUE(m_server->setDefaultSource(AudioServerFixture::monitorOf(m_server->micFeedSink())));
    // The tracks as the merge receives them, kept for a look at each one.
    QStringList tracks;
    SystemAudioBackends backends = linuxSystemAudioBackends();
    backends.merge = [&tracks, keep = m_dir.filePath("tracks", true)](QString mic, QStringList systems) {
        for (const QString& track : QStringList{mic} + systems) {
            tracks << keep + '/' + QFileInfo(track).fileName();
            QFile::copy(track, tracks.back());
        }
        return mergeAudioFiles(std::move(mic), std::move(systems));
    };
    AudioRecorder recorder(backends);
    ASSERT_TRUE(start(recorder));
    EXPECT_EQ(recorder.usingProcessTap(), pipeWire);
    EXPECT_EQ(recorder.screenCaptureActive(), !pipeWire) << "the tap runs alone";
    EXPECT_EQ(recorder.usingBlackHole(), !pipeWire) << "the tap runs alone";

    const Played before = playToEnd(660, m_server->speakerSink());
    const double pausedAt = secondsSinceStart();
    recorder.pauseRecording();
    m_players.push_back(m_server->playIntoSink(m_server->speakerSink(), tone(550)));
    playToEnd(330, m_server->micFeedSink());
    ASSERT_EQ(m_players.back().wait(30s), 0);
    std::this_thread::sleep_for(2s);
    recorder.resumeRecording();
    const double pausedS = secondsSinceStart() - pausedAt;
    std::this_thread::sleep_for(600ms);
    Played after = playToEnd(880, QStringLiteral("everyside"));
    after.fromS -= pausedS;
    after.toS -= pausedS;
    const double totalS = secondsSinceStart();
    const auto merged = QCoro::waitFor(recorder.stopRecording());

    ASSERT_TRUE(merged);
    const MediaInfo info = probe(*merged);
    ASSERT_TRUE(info.valid) << info.error.toStdString();
    EXPECT_GT(info.formatDurationS, totalS - m_startS - pausedS - 0.3) << "every track leaves the same pause out";
    EXPECT_LT(info.formatDurationS, totalS - pausedS + 0.3) << "every track leaves the same pause out";
    const std::vector<double> onsets = findSoundOnsets(decodeToMonoFloat(*merged, kRate), kRate, -35.0, 300);
    ASSERT_EQ(onsets.size(), 2u) << ::testing::PrintToString(onsets) << " (paused tones got in?)";
    EXPECT_TRUE(before.holds(onsets[0])) << onsets[0] << " not in " << before.fromS << ".." << before.toS;
    EXPECT_TRUE(after.holds(onsets[1])) << onsets[1] << " not in " << after.fromS << ".." << after.toS;
    ASSERT_EQ(tracks.size(), pipeWire ? 2 : 3);
    // The tone's beginning and end on each track (it is the last sound of every one): audio a server dropped under
    // load becomes silence in its place, and a hole over one edge of the tone moves only that edge.
    std::vector<double> trackOnsets;
    std::vector<double> trackEnds;
    for (const QString& track : tracks) {
        std::vector<float> samples = decodeToMonoFloat(track, kRate);
        trackOnsets.push_back(-1.0);
        for (double onset : findSoundOnsets(samples, kRate, -35.0, 300))
            if (onset > onsets[1] - 0.5 && trackOnsets.back() < 0.0)
                trackOnsets.back() = onset;
        const double lengthS = static_cast<double>(samples.size()) / kRate;
        std::reverse(samples.begin(), samples.end());
        const std::vector<double> fromEnd = findSoundOnsets(samples, kRate, -35.0, 300);
        trackEnds.push_back(fromEnd.empty() ? -1.0 : lengthS - fromEnd[0]);
    }
    for (size_t i = 1; i < trackOnsets.size(); ++i)
        EXPECT_LE(std::min(std::abs(trackOnsets[i] - trackOnsets[0]), std::abs(trackEnds[i] - trackEnds[0])), 0.05)
            << QFileInfo(tracks[static_cast<qsizetype>(i)]).fileName().toStdString()
            << " against the microphone: begins " << ::testing::PrintToString(trackOnsets) << ", ends "
            << ::testing::PrintToString(trackEnds);
    // The intermediate files are gone.
    EXPECT_TRUE(
        QDir(RecordingFiles::captureDir()).entryList({"tavrel_tap_*", "tavrel_sys_*", "tavrel_bh_*"}).isEmpty());
}

// The audio server goes away in the middle of a recording (PulseAudio for longer than a side may be lost without
// a word, PipeWire with pipewire-pulse only for a moment) and comes back: every side reconnects by itself within
// 3 s and goes on in the same files; the merged recording keeps wall-clock time and holds the tones played on
// both sides after the restart. Only the long outage is told, once per side.
TEST_P(RecordingWithSystemAudioTest, everySideComesBackAfterTheAudioServerRestarts) {
    const bool pipeWire = GetParam() == AudioServerKind::PipeWire;
    AudioRecorder recorder(linuxSystemAudioBackends());
    std::vector<CaptureEvent> events;
    recorder.setEventHandler([&](const CaptureEvent& event) { events.push_back(event); });
    ASSERT_TRUE(start(recorder));
    std::vector<Played> played;
    played.push_back(playToEnd(660, m_server->speakerSink()));
    played.push_back(playToEnd(440, QString()));
    const auto outage = pipeWire ? 0ms : 11000ms;
    ASSERT_TRUE(m_server->restart(outage));
    ASSERT_TRUE(m_server->warmUp());
    std::this_thread::sleep_for(3s);
    played.push_back(playToEnd(880, m_server->speakerSink()));
    played.push_back(playToEnd(330, QString()));
    const double totalS = secondsSinceStart();
    const auto merged = QCoro::waitFor(recorder.stopRecording());
    std::multiset<std::pair<CaptureEvent::Kind, CaptureSide>> expected;
    if (!pipeWire) {
        for (CaptureSide side : {CaptureSide::microphone, CaptureSide::systemAudio, CaptureSide::virtualDevice})
            expected.emplace(CaptureEvent::Kind::sideLost, side);
    }
    std::multiset<std::pair<CaptureEvent::Kind, CaptureSide>> told;
    const auto tell = [&] {
        told.clear();
        for (const CaptureEvent& event : events)
            if (event.kind == CaptureEvent::Kind::sideLost)
                told.emplace(event.kind, event.side);
        return told;
    };
    // Events still on their way reach the main thread's queue; a slow build needs more than a moment.
    waitUntil([&] { return tell() == expected; }, 5s);

    ASSERT_TRUE(merged);
    const std::vector<float> samples = decodeToMonoFloat(*merged, kRate);
    const double lengthS = static_cast<double>(samples.size()) / kRate;
    EXPECT_GT(lengthS, totalS - m_startS - 1.0) << "wall-clock length";
    EXPECT_LT(lengthS, totalS + 1.0) << "wall-clock length";
    const std::vector<double> onsets = findSoundOnsets(samples, kRate, -35.0, 300);
    std::string times;
    for (const Played& tone : played)
        times += std::to_string(tone.fromS) + ".." + std::to_string(tone.toS) + " ";
    ASSERT_EQ(onsets.size(), played.size()) << ::testing::PrintToString(onsets) << " played at " << times;
    for (size_t i = 0; i < played.size(); ++i)
        EXPECT_TRUE(played[i].holds(onsets[i]))
            << "tone " << played[i].frequencyHz << " at " << onsets[i] << ", played at " << times;
    EXPECT_EQ(told, expected);
}

// The file-size limit of the process stands in for a full disk (writes fail with EFBIG): every track fails within
// seconds, the user is told once, nothing crashes, and what was written before makes the recording.
TEST_P(RecordingWithSystemAudioTest, aFullDiskIsToldOnceAndWhatWasWrittenIsKept) {
    AudioRecorder recorder(linuxSystemAudioBackends());
    std::vector<CaptureEvent> events;
    recorder.setEventHandler([&](const CaptureEvent& event) { events.push_back(event); });
    ASSERT_TRUE(makeTone(500, 8.0, m_dir.filePath("long.wav"), 2, kRate, 0.4)); // before the limit: sox obeys it too
    FileSizeLimit limit(40 * 1024);
    const bool started = QCoro::waitFor(startedOk(recorder));
    auto speaker = m_server->playIntoSink(m_server->speakerSink(), m_dir.filePath("long.wav"));
    auto microphone = m_server->playIntoMicrophone(m_dir.filePath("long.wav"));
    const bool told = waitUntil([&] { return !events.empty(); }, 8s);
    waitUntil([] { return false; }, 2s); // any further failure would be told by now
    limit.restore();
    ASSERT_TRUE(started);
    const auto recording = QCoro::waitFor(recorder.stopRecording());

    EXPECT_TRUE(told);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].kind, CaptureEvent::Kind::writeFailed);
    EXPECT_EQ(events[0].detail, QString::fromLocal8Bit(std::strerror(EFBIG)));
    ASSERT_TRUE(recording);
    const MediaInfo info = probe(*recording);
    ASSERT_TRUE(info.valid) << info.error.toStdString();
    EXPECT_GT(rmsDb(decodeToMonoFloat(*recording, kRate)), -30.0) << "the tone written before the failure";
}

INSTANTIATE_TEST_SUITE_P(Servers, RecordingWithSystemAudioTest,
                         ::testing::Values(AudioServerKind::PulseAudio, AudioServerKind::PipeWire),
                         [](const auto& info) {
                             return info.param == AudioServerKind::PipeWire ? "PipeWire" : "PulseAudio";
                         });

// The tap fails at each step of its start in turn, on a real PipeWire: the start returns, the output's monitor
// records in its place, and no thread is left waiting on the tap.
class TapFailureTest : public ::testing::TestWithParam<ProcessTapRecorder::Step> {
protected:
    static void SetUpTestSuite() {
        if (!PipeWireFixture::isAvailable(&s_missing))
            return;
        s_server = std::make_unique<PipeWireFixture>();
        // A server that is installed but does not start is a failure, not a reason to skip.
        s_started = s_server->start();
        if (s_started)
            s_started = s_server->warmUp();
    }
    static void TearDownTestSuite() { s_server.reset(); }
    void SetUp() override {
        if (!s_server)
            GTEST_SKIP() << "PipeWire missing: " << s_missing.toStdString();
        ASSERT_TRUE(s_started);
        m_environment.set("XDG_STATE_HOME", m_dir.filePath("state", true).toUtf8());
        m_environment.set("XDG_DATA_HOME", m_dir.filePath("data", true).toUtf8());
    }
    static std::unique_ptr<PipeWireFixture> s_server;
    static inline ::testing::AssertionResult s_started = ::testing::AssertionFailure();
    static inline QString s_missing;
    TempDir m_dir{QStringLiteral("tapfail")};
    ScopedEnvironment m_environment;
};

std::unique_ptr<PipeWireFixture> TapFailureTest::s_server;

TEST_P(TapFailureTest, theMonitorTakesOverAndNothingIsLeftBehind) {
    SystemAudioBackends backends = linuxSystemAudioBackends();
    backends.makeProcessTap = [step = GetParam()] {
        return std::make_unique<ProcessTapRecorder>(ProcessTapRecorder::Options{step});
    };
    AudioRecorder recorder(backends);
    const Clock::time_point start = Clock::now();
    ASSERT_TRUE(QCoro::waitFor(startedOk(recorder)));
    EXPECT_LT(secondsSince(start), 30.0) << "the start waits past its time-outs";
    EXPECT_FALSE(recorder.usingProcessTap());
    EXPECT_TRUE(recorder.screenCaptureActive());
    EXPECT_TRUE(waitUntil([] { return QThreadPool::globalInstance()->activeThreadCount() == 0; }, 5s))
        << "a pool thread still works for the failed tap";
    EXPECT_TRUE(QDir(RecordingFiles::captureDir()).entryList({"tavrel_tap_*"}).isEmpty()) << "the tap's file stays";
    const auto recording = QCoro::waitFor(recorder.stopRecording());
    ASSERT_TRUE(recording);
    EXPECT_TRUE(probe(*recording).valid);
}

const char* const kStepNames[] = {"connect", "defaultOutput", "stream",
                                  "format",  "link",          "file"}; // in the order of the enumeration

INSTANTIATE_TEST_SUITE_P(Steps, TapFailureTest,
                         ::testing::Values(ProcessTapRecorder::Step::file, ProcessTapRecorder::Step::connect,
                                           ProcessTapRecorder::Step::defaultOutput, ProcessTapRecorder::Step::stream,
                                           ProcessTapRecorder::Step::format, ProcessTapRecorder::Step::link),
                         [](const auto& info) { return std::string(kStepNames[static_cast<int>(info.param)]); });

} // namespace
} // namespace tavrel::test
