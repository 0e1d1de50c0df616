// The system-audio sources against private audio servers: what is played must land in the source's file,
// at its time, and nothing else.

#include "TestSupport.h"
#include "Wait.h"
#include "audio/sources/BlackHoleRecorder.h"
#include "audio/sources/ProcessTapRecorder.h"
#include "audio/sources/SystemAudioRecorder.h"
#include "audio/timeline/RecordingClock.h"
#include "core/Log.h"
#include "core/RecordingFiles.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QRegularExpression>
#include <chrono>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kRate = 44100;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Every logged line, for the exact texts of the sources.
class LogLines {
public:
    LogLines()
        : m_capture([this](const QString& line) {
              std::lock_guard lock(m_mutex);
              m_lines << line;
          }) {}
    QStringList lines() const {
        std::lock_guard lock(m_mutex);
        return m_lines;
    }

private:
    mutable std::mutex m_mutex;
    QStringList m_lines;
    LogCapture m_capture;
};

/// The first onset at or after `fromS` (seconds), or -1.
double onsetAfter(const std::vector<float>& samples, double fromS, double thresholdDb = -30.0) {
    return onsetSeconds(samples, kRate, thresholdDb, fromS).value_or(-1.0);
}

/// The code of the error the start of `source` threw, if it threw one.
template <typename Code>
std::optional<Code> startFailure(CaptureSourceBase& source) {
    try {
        source.startBlocking();
    } catch (const CodedError<Code>& failure) {
        EXPECT_EQ(failure.localizedDescription(), errorDescription(failure.code()));
        return failure.code();
    }
    return std::nullopt;
}

class CaptureFixture : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(makeTone(880, 0.6, m_dir.filePath("tone.wav"), 2, kRate, 0.5));
        ASSERT_TRUE(makeTone(440, 0.6, m_dir.filePath("low.wav"), 2, kRate, 0.5));
        m_tone = m_dir.filePath("tone.wav");
        m_low = m_dir.filePath("low.wav");
        m_environment.set("XDG_STATE_HOME", m_dir.filePath("state", true).toUtf8());
    }

    /// When a sound could have been heard, in seconds of the track: from the player's launch (less the time the
    /// source's start took, as time zero lies somewhere in it) to the player's end (it drains its sound before it
    /// exits). A loaded machine can take a second to start a player; a track that lost or kept a stretch it should
    /// not would be seconds off.
    struct Played {
        double fromS;
        double toS;
        bool holds(double onsetS, double slackS = 0.15) const {
            return onsetS > fromS - slackS && onsetS < toS + slackS;
        }
    };

    /// Call around the source's start: time is counted from before it.
    void starting() { m_before = Clock::now(); }
    void started() { m_startS = secondsSince(m_before); }
    double elapsedS() const { return secondsSince(m_before); }

    /// A private audio server, started and warmed up: PipeWire (skipped where it is missing) or PulseAudio.
    void startServer(std::unique_ptr<AudioServerFixture>& server, bool pipeWire) {
        if (pipeWire) {
            QString missing;
            if (!PipeWireFixture::isAvailable(&missing))
                GTEST_SKIP() << "PipeWire missing: " << missing.toStdString();
            server = std::make_unique<PipeWireFixture>();
        } else {
            server = std::make_unique<PulseAudioFixture>();
        }
        CaptureFixture::SetUp();
        ASSERT_TRUE(server->start());
        ASSERT_TRUE(server->warmUp());
    }

    /// Plays `file` into `sink` to its end; `heardBy`, when given, must show it on its level meter meanwhile.
    Played play(AudioServerFixture& server, const QString& sink, const QString& file,
                const CaptureSourceBase* heardBy = nullptr) {
        const double launched = elapsedS();
        ManagedProcess player = server.playIntoSink(sink, file);
        if (heardBy) {
            EXPECT_TRUE(waitUntil([&] { return heardBy->currentLevel() > 0.3f; }, 10s)) << "the level shows the sound";
        }
        EXPECT_EQ(player.wait(30s), 0);
        return Played{launched - m_startS, elapsedS()};
    }

    /// The file a source made: its name, folder and format, and the log lines of its start and stop.
    void expectCaptureFile(const QString& file, const char* pattern, const char* codec, const QStringList& lines,
                           const QString& startedLine, const QString& stoppedLine) const {
        EXPECT_TRUE(QRegularExpression(pattern).match(QFileInfo(file).fileName()).hasMatch()) << file.toStdString();
        EXPECT_EQ(QFileInfo(file).absolutePath(), RecordingFiles::captureDir());
        const MediaInfo info = probe(file);
        ASSERT_TRUE(info.valid) << info.error.toStdString();
        EXPECT_EQ(info.codecName, codec);
        EXPECT_EQ(info.channels, 2);
        EXPECT_TRUE(lines.contains(startedLine + QFileInfo(file).fileName())) << lines.join('\n').toStdString();
        EXPECT_TRUE(lines.contains(stoppedLine));
    }

    /// The output's own source: the graph's tap, or the monitor of the default output; and what it records.
    static std::unique_ptr<CaptureSourceBase> outputSource(bool tap) {
        if (tap)
            return std::make_unique<ProcessTapRecorder>();
        return std::make_unique<SystemAudioRecorder>();
    }
    static QString targetOf(CaptureSourceBase& source, bool tap) {
        return tap ? static_cast<ProcessTapRecorder&>(source).targetSink()
                   : static_cast<SystemAudioRecorder&>(source).expectedSource();
    }

    /// A track of `lengthS` keeps the real time of a recording stopped `totalS` after `starting()`.
    void expectRealTime(double lengthS, double totalS, const char* what) const {
        EXPECT_GT(lengthS, totalS - m_startS - 0.3) << what;
        EXPECT_LT(lengthS, totalS + 0.3) << what;
    }

    TempDir m_dir{QStringLiteral("syscap")};
    ScopedEnvironment m_environment;
    QString m_tone;
    QString m_low;
    Clock::time_point m_before;
    double m_startS = 0.0;
};

// ---- PulseAudio: the output monitor and the virtual device -------------------------------------------

class PulseCaptureTest : public CaptureFixture {
protected:
    void SetUp() override {
        CaptureFixture::SetUp();
        ASSERT_TRUE(m_server.start());
    }
    PulseAudioFixture m_server;
};

// An application plays on the output and the monitor hears nothing but zeros for 15 s: the side is told once, and
// told again as sound comes back (the panel's mark goes).
TEST_F(PulseCaptureTest, anOutputInUseThatDeliversOnlyZerosIsTold) {
    ASSERT_TRUE(makeSilence(17.0, m_dir.filePath("zeros.wav"), 2, kRate));
    std::mutex mutex;
    std::vector<CaptureEvent> events;
    const auto kinds = [&] {
        std::lock_guard lock(mutex);
        std::vector<CaptureEvent::Kind> seen;
        for (const CaptureEvent& event : events)
            if (event.side == CaptureSide::systemAudio)
                seen.push_back(event.kind);
        return seen;
    };
    SystemAudioRecorder recorder;
    recorder.setCaptureContext(std::make_shared<RecordingClock>(), [&](const CaptureEvent& event) {
        std::lock_guard lock(mutex);
        events.push_back(event);
    });
    ASSERT_NO_THROW(recorder.startBlocking());
    ManagedProcess zeros = m_server.playIntoSink(m_server.speakerSink(), m_dir.filePath("zeros.wav"));
    EXPECT_TRUE(waitUntil([&] { return !kinds().empty(); }, 30s));
    ASSERT_EQ(zeros.wait(30s), 0);
    play(m_server, m_server.speakerSink(), m_tone);
    EXPECT_TRUE(waitUntil([&] { return kinds().size() >= 2; }, 5s));
    recorder.stopBlocking();
    EXPECT_EQ(kinds(),
              (std::vector<CaptureEvent::Kind>{CaptureEvent::Kind::silenceStarted, CaptureEvent::Kind::silenceEnded}));
}

// A start that cannot be made fails with the error the user is told, and leaves no file: the virtual device gone,
// then no output at all, then no server.
TEST_F(PulseCaptureTest, aStartThatCannotBeMadeFailsWithItsError) {
    BlackHoleRecorder device(CaptureDevice{QStringLiteral("no-such-source"), QStringLiteral("BlackHole 2ch")});
    EXPECT_EQ(startFailure<BlackHoleError>(device), BlackHoleError::sessionFailed);
    EXPECT_EQ(errorDescription(BlackHoleError::sessionFailed),
              QStringLiteral("Impossible de démarrer la capture BlackHole."));
    EXPECT_EQ(device.stopBlocking(), std::nullopt);
    for (const QString& sink : m_server.sinkNames())
        for (const auto& entry : m_server.list("sinks"))
            if (entry.toObject().value("name").toString() == sink)
                m_server.unloadModule(entry.toObject().value("owner_module").toVariant().toInt());
    SystemAudioRecorder withoutOutput;
    EXPECT_EQ(startFailure<SystemAudioError>(withoutOutput), SystemAudioError::noDisplay);
    EXPECT_EQ(withoutOutput.stopBlocking(), std::nullopt);
    m_server.stop();
    m_environment.set("PULSE_SERVER", QByteArray("unix:") + m_dir.filePath("nothing").toUtf8());
    SystemAudioRecorder withoutServer;
    EXPECT_EQ(startFailure<SystemAudioError>(withoutServer), SystemAudioError::permissionDenied);
    EXPECT_FALSE(BlackHoleRecorder::findDevice());
    EXPECT_TRUE(QDir(RecordingFiles::captureDir()).isEmpty());
}

// The virtual device going away never ends its recording and never lets the microphone in (the stream is not
// moved): the file keeps real time, and what is played once the device is back is there, at its time.
TEST_F(PulseCaptureTest, virtualDeviceThatGoesAwayAndComesBackKeepsOneFileOnRealTime) {
    ASSERT_TRUE(m_server.warmUp());
    const auto device = BlackHoleRecorder::findDevice();
    ASSERT_TRUE(device);
    EXPECT_EQ(device->name, AudioServerFixture::monitorOf(m_server.blackHoleSink()));
    BlackHoleRecorder recorder(*device);
    LogLines log;
    starting();
    ASSERT_NO_THROW(recorder.startBlocking());
    started();
    ASSERT_TRUE(makeTone(300, 12.0, m_dir.filePath("mic.wav"), 1, kRate, 0.5));
    auto micPlayer = m_server.playIntoMicrophone(m_dir.filePath("mic.wav"));
    std::this_thread::sleep_for(1s);
    int blackHoleModule = -1;
    for (const auto& entry : m_server.list("sinks"))
        if (entry.toObject().value("name").toString() == m_server.blackHoleSink())
            blackHoleModule = entry.toObject().value("owner_module").toVariant().toInt();
    ASSERT_TRUE(m_server.unloadModule(blackHoleModule));
    ASSERT_TRUE(waitUntil([&] { return !recorder.isConnected(); }, 3s));
    std::this_thread::sleep_for(1s);
    ASSERT_TRUE(m_server.loadModule(
        "module-null-sink",
        QStringLiteral("sink_name=%1 sink_properties='device.description=\"%2\"'")
            .arg(m_server.blackHoleSink(), QString::fromUtf8(AudioServerFixture::kBlackHoleDescription))));
    ASSERT_TRUE(waitUntil([&] { return recorder.isConnected(); }, 3s));
    ASSERT_TRUE(m_server.warmUp()); // a new null sink renders ahead in large blocks until something plays on it
    const Played played = play(m_server, m_server.blackHoleSink(), m_tone, &recorder);
    std::this_thread::sleep_for(500ms);
    const double totalS = elapsedS();
    const auto file = recorder.stopBlocking();
    ASSERT_TRUE(file);
    expectCaptureFile(*file, "^tavrel_bh_\\d+\\.m4a$", "aac", log.lines(),
                      QStringLiteral("[BlackHole] Capture démarrée sur « ") + device->description +
                          QStringLiteral(" » → "),
                      QStringLiteral("[BlackHole] Capture arrêtée"));

    const std::vector<float> samples = decodeToMonoFloat(*file, kRate);
    expectRealTime(static_cast<double>(samples.size()) / kRate, totalS, "real time kept through the gap");
    const double onset = onsetAfter(samples, 0.0);
    // A null sink made anew renders ahead of time until something plays on it, and its monitor's timing with it:
    // what is checked here is that the tone is there, after the device came back, and nothing before it.
    EXPECT_TRUE(played.holds(onset, 0.5)) << "the first sound must be the tone played on the device that came back";
    EXPECT_LT(rmsDbBetween(samples, kRate, 0.0, onset - 0.1), -60.0) << "the microphone got in";
}

// ---- The output's own sources, following the default output --------------------------------------------

enum class SourceKind { tap, monitor };

// The user picks another output in the middle of a recording: the source follows it without a hole, and neither
// the microphone (speaking the whole time) nor the old output reaches the system track. Before that, the monitor's
// output is suspended for a while and sends nothing at all: the track must still keep real time, so that what is
// played after the silent stretch sits at its time. (Pausing every source is
// checked on the merged recording, in RecordingWithSystemAudioTest.)
class DefaultOutputSourceTest : public CaptureFixture, public ::testing::WithParamInterface<SourceKind> {
protected:
    void SetUp() override { startServer(m_server, GetParam() == SourceKind::tap); }
    std::unique_ptr<AudioServerFixture> m_server;
};

TEST_P(DefaultOutputSourceTest, followsTheDefaultOutputAndHearsNothingElse) {
    const bool tap = GetParam() == SourceKind::tap;
    const std::unique_ptr<CaptureSourceBase> source = outputSource(tap);
    LogLines log;
    starting();
    ASSERT_NO_THROW(source->startBlocking());
    started();
    ASSERT_TRUE(makeTone(300, tap ? 6.0 : 14.0, m_dir.filePath("mic.wav"), 1, kRate, 0.5));
    auto micPlayer = m_server->playIntoMicrophone(m_dir.filePath("mic.wav"));
    std::this_thread::sleep_for(700ms);
    if (!tap) {
        m_server->pactl({"suspend-sink", m_server->speakerSink(), "1"});
        std::this_thread::sleep_for(7s);
        m_server->pactl({"suspend-sink", m_server->speakerSink(), "0"});
    }
    ASSERT_TRUE(m_server->setDefaultSink(m_server->blackHoleSink()));
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(targetOf(*source, tap),
              tap ? m_server->blackHoleSink() : AudioServerFixture::monitorOf(m_server->blackHoleSink()));
    play(*m_server, m_server->speakerSink(), m_low); // into the old output after the change: not ours any more
    std::this_thread::sleep_for(500ms);
    const Played played = play(*m_server, m_server->blackHoleSink(), m_tone, source.get());
    std::this_thread::sleep_for(500ms);
    const double totalS = elapsedS();
    const auto file = source->stopBlocking();
    ASSERT_TRUE(file);

    const std::vector<float> samples = decodeToMonoFloat(*file, kRate);
    expectRealTime(static_cast<double>(samples.size()) / kRate, totalS, "the move left a hole");
    const double onset = onsetAfter(samples, 0.0);
    EXPECT_TRUE(played.holds(onset)) << onset << " not in " << played.fromS << ".." << played.toS;
    EXPECT_LT(rmsDbBetween(samples, kRate, 0.1, onset - 0.1), -60.0) << "the microphone or the old output got in";
    const QStringList lines = log.lines();
    if (tap) {
        expectCaptureFile(*file, "^tavrel_tap_\\d+\\.caf$", "pcm_f32le", lines,
                          QStringLiteral("[ProcessTap] Capture démarrée → "),
                          QStringLiteral("[ProcessTap] Capture arrêtée"));
    } else {
        expectCaptureFile(*file, "^tavrel_sys_\\d+\\.m4a$", "aac", lines,
                          QStringLiteral("[SystemAudio] Capture démarrée : "),
                          QStringLiteral("[SystemAudio] Capture arrêtée"));
        EXPECT_TRUE(
            lines.contains(QStringLiteral("[SystemAudio] Sortie par défaut changée → ") + m_server->blackHoleSink()));
    }
}

INSTANTIATE_TEST_SUITE_P(Sources, DefaultOutputSourceTest, ::testing::Values(SourceKind::tap, SourceKind::monitor),
                         [](const auto& info) { return info.param == SourceKind::tap ? "tap" : "monitor"; });

// ---- A filter as the default output ---------------------------------------------------------------

// With an echo canceller's sink as the default output, a conferencing app that picked the speakers
// directly is only heard on the speakers' monitor: the capture must take the device behind the filter,
// and still hear what goes through the filter.
enum class FilterCase { monitorOnPulseAudio, monitorOnPipeWire, tapOnPipeWire };

class FilterOutputTest : public CaptureFixture, public ::testing::WithParamInterface<FilterCase> {
protected:
    void SetUp() override {
        startServer(m_server, GetParam() != FilterCase::monitorOnPulseAudio);
        if (IsSkipped() || HasFatalFailure())
            return;
        ASSERT_TRUE(m_server->loadModule("module-echo-cancel",
                                         "aec_method=webrtc sink_name=tavrel_ec_sink source_name=tavrel_ec_source "
                                         "sink_master=" +
                                             m_server->speakerSink() + " source_master=" + m_server->micSource()))
            << m_server->logs().toStdString();
        ASSERT_TRUE(m_server->setDefaultSink("tavrel_ec_sink"));
        // PipeWire links the filter's playback stream to its device a moment after the module is loaded.
        const bool linked = waitUntil(
            [this] {
                if (m_server->kind() == AudioServerKind::PulseAudio)
                    return true;
                int speakerIndex = -1;
                for (const auto& sink : m_server->list("sinks"))
                    if (sink.toObject().value("name").toString() == m_server->speakerSink())
                        speakerIndex = sink.toObject().value("index").toInt();
                for (const auto& input : m_server->list("sink-inputs"))
                    if (input.toObject().value("properties").toObject().contains("node.link-group") &&
                        input.toObject().value("sink").toInt() == speakerIndex)
                        return true;
                return false;
            },
            5s, 50ms);
        ASSERT_TRUE(linked) << m_server->logs().toStdString();
    }
    std::unique_ptr<AudioServerFixture> m_server;
};

TEST_P(FilterOutputTest, recordsTheDeviceBehindTheFilter) {
    const bool tap = GetParam() == FilterCase::tapOnPipeWire;
    LogLines log;
    const std::unique_ptr<CaptureSourceBase> source = outputSource(tap);
    starting();
    ASSERT_NO_THROW(source->startBlocking());
    const QString target = targetOf(*source, tap);
    started();
    const QString speaker = m_server->speakerSink();
    EXPECT_TRUE(target == speaker || target == AudioServerFixture::monitorOf(speaker)) << target.toStdString();

    std::this_thread::sleep_for(1s);
    const Played direct = play(*m_server, speaker, m_tone);
    std::this_thread::sleep_for(500ms);
    const Played throughFilter = play(*m_server, "tavrel_ec_sink", m_low);
    std::this_thread::sleep_for(500ms);
    const auto file = source->stopBlocking();
    ASSERT_TRUE(file);

    const std::vector<float> samples = decodeToMonoFloat(*file, kRate);
    const double directOnset = onsetAfter(samples, 0.0);
    // What is checked here is which device is heard; alignment has tests of its own.
    EXPECT_TRUE(direct.holds(directOnset)) << "the speakers' own stream";
    // The canceller adds its own processing delay to what goes through it.
    EXPECT_TRUE(throughFilter.holds(onsetAfter(samples, directOnset + 0.6), 0.4)) << "the stream through the filter";
    const QString prefix = tap ? QStringLiteral("[ProcessTap]") : QStringLiteral("[SystemAudio]");
    EXPECT_TRUE(log.lines().contains(prefix + QStringLiteral(" Sortie filtrée, capture du périphérique → ") + speaker))
        << log.lines().join('\n').toStdString();
}

const char* const kFilterCaseNames[] = {"monitorOnPulseAudio", "monitorOnPipeWire",
                                        "tapOnPipeWire"}; // in the order of the enumeration

INSTANTIATE_TEST_SUITE_P(Servers, FilterOutputTest,
                         ::testing::Values(FilterCase::monitorOnPulseAudio, FilterCase::monitorOnPipeWire,
                                           FilterCase::tapOnPipeWire),
                         [](const auto& info) { return std::string(kFilterCaseNames[static_cast<int>(info.param)]); });

} // namespace
} // namespace tavrel::test
