// The orchestrator with the real microphone (private PulseAudio) and scripted system-audio sources: the
// fallback order, the flags the session controller reads, stopping, merging and the files left behind.
#include "AudioTestSupport.h"
#include "Wait.h"
#include "core/Log.h"
#include "core/RecordingFiles.h"

#include <QCoro/QCoroTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <chrono>

using namespace tavrel;
using namespace tavrel::test;
using namespace std::chrono_literals;

namespace {

using Journal = std::shared_ptr<QStringList>;

/// How a scripted source behaves.
enum class Script { absent, starts, failsTap, failsPermission, failsNoDisplay, notFound };

class ScriptedSource : public SystemAudioSource {
public:
    ScriptedSource(QString name, Script script, Journal journal, float level, bool yieldsFile)
        : m_name(std::move(name)), m_script(script), m_journal(std::move(journal)), m_level(level),
          m_yieldsFile(yieldsFile) {}

    std::optional<QString> outputURL() const override { return m_file; }

    QCoro::Task<> start() override {
        *m_journal << m_name + ".start";
        co_await QCoro::sleepFor(5ms);
        switch (m_script) {
        case Script::failsTap:
            throw SystemAudioFailure(SystemAudioError::tapFailed);
        case Script::failsPermission:
            throw SystemAudioFailure(SystemAudioError::permissionDenied);
        case Script::failsNoDisplay:
            throw SystemAudioFailure(SystemAudioError::noDisplay);
        default:
            break;
        }
        m_file = RecordingFiles::uniquePath(RecordingFiles::captureDir(), "tavrel_" + m_name + "_", "m4a");
        QFile file(*m_file);
        file.open(QIODevice::WriteOnly);
        file.write("audio");
        m_running = true;
    }

    QCoro::Task<std::optional<QString>> stop() override {
        *m_journal << m_name + ".stop";
        co_await QCoro::sleepFor(20ms); // a concurrent stop of another source would interleave here
        *m_journal << m_name + ".stopped";
        m_running = false;
        co_return m_yieldsFile ? m_file : std::nullopt;
    }

    void pause() override {
        *m_journal << m_name + ".pause";
        m_paused = true;
    }
    void resume() override {
        *m_journal << m_name + ".resume";
        m_paused = false;
    }
    float currentLevel() const override { return m_running && !m_paused ? m_level : 0.0f; }

private:
    QString m_name;
    Script m_script;
    Journal m_journal;
    float m_level;
    bool m_yieldsFile;
    bool m_running = false;
    bool m_paused = false;
    std::optional<QString> m_file;
};

struct Scenario {
    bool tapSupported = true;
    bool captureAllowed = true;
    Script tap = Script::starts;
    Script screen = Script::starts;
    Script virtualDevice = Script::starts;
    float tapLevel = 0.0f;
    float screenLevel = 0.0f;
    float virtualDeviceLevel = 0.0f;
    bool sourcesYieldFiles = true;
    std::optional<QString> mergedName; ///< where the merge writes; a fresh name by default
};

struct Built {
    SystemAudioBackends backends;
    Journal journal = std::make_shared<QStringList>();
};

Built build(const Scenario& setup) {
    Built built;
    Journal journal = built.journal;
    SystemAudioBackends& b = built.backends;
    b.processTapSupported = [tap = setup.tapSupported] { return tap; };
    b.captureAllowed = [allowed = setup.captureAllowed] { return allowed; };
    auto factory = [journal, setup](const QString& name, Script script,
                                    float level) -> std::function<std::unique_ptr<SystemAudioSource>()> {
        if (script == Script::absent)
            return {};
        return [=] {
            *journal << name + ".make";
            return std::make_unique<ScriptedSource>(name, script, journal, level, setup.sourcesYieldFiles);
        };
    };
    b.makeProcessTap = factory("tap", setup.tap, setup.tapLevel);
    b.makeScreenCapture = factory("sys", setup.screen, setup.screenLevel);
    if (setup.virtualDevice != Script::absent) {
        b.findVirtualDevice = [journal,
                               found = setup.virtualDevice != Script::notFound]() -> std::optional<CaptureDevice> {
            *journal << "bh.find";
            if (!found)
                return std::nullopt;
            return CaptureDevice{"blackhole", "BlackHole 2ch"};
        };
        b.makeVirtualDevice = [journal, setup](const CaptureDevice& device) -> std::unique_ptr<SystemAudioSource> {
            *journal << "bh.make " + device.description;
            const Script script =
                setup.virtualDevice == Script::failsNoDisplay ? Script::failsTap : setup.virtualDevice;
            return std::make_unique<ScriptedSource>("bh", script, journal, setup.virtualDeviceLevel,
                                                    setup.sourcesYieldFiles);
        };
    }
    b.merge = [journal, mergedName = setup.mergedName](QString mic, QStringList systems) -> QCoro::Task<QString> {
        *journal << "merge " + QFileInfo(mic).fileName().section('_', 0, 1) + " + " + QString::number(systems.size());
        const QString merged = mergedName ? *mergedName : RecordingFiles::mergedFile();
        QFile file(merged);
        file.open(QIODevice::WriteOnly);
        file.write("mixed");
        co_return merged;
    };
    return built;
}

/// Log lines of the orchestrator (not the microphone track's own), with the microphone file's own name replaced
/// by "MIC".
class AudioLog {
public:
    AudioLog()
        : m_capture([this](const QString& line) {
              if (line.startsWith("[AudioRecorder]") && !line.startsWith("[AudioRecorder] Micro :"))
                  m_lines << line;
          }) {}
    QStringList lines(const QString& micName = {}) const {
        QStringList result = m_lines;
        if (!micName.isEmpty())
            result.replaceInStrings(micName, "MIC");
        return result;
    }
    void clear() { m_lines.clear(); }

private:
    QStringList m_lines;
    LogCapture m_capture;
};

class Orchestrator : public PulseSuite {
protected:
    QString micName() const {
        const QStringList mics = QDir(m_home.recordingsDir()).entryList({"tavrel_mic_*.m4a"});
        return mics.value(0);
    }
    RecordingHome m_home;
};

/// What the session controller reads once the start is over.
struct Outcome {
    bool usingProcessTap = false;
    bool screenCaptureActive = false;
    bool usingBlackHole = false;
    bool permissionMissing = false;
    std::optional<QString> reason;
};

struct StartCase {
    const char* name;
    Scenario setup;
    QStringList journal;
    QStringList log;
    Outcome outcome;
};

void PrintTo(const StartCase& c, std::ostream* os) {
    *os << c.name;
}

class OrchestratorStart : public Orchestrator, public ::testing::WithParamInterface<StartCase> {};

const QString kStarted = "[AudioRecorder] Micro démarré : MIC";
const QString kTapStarted = "[AudioRecorder] Process-tap démarré (visio + téléphonie, zéro routage)";
const QString kTapFailed = "[AudioRecorder] Process-tap indisponible : Impossible de démarrer la capture audio système "
                           "(process-tap). \u2192 repli SCK/BlackHole";
const QString kTapWaits =
    "[AudioRecorder] Process-tap en attente de la permission \u00ab Enregistrement d'écran \u00bb";
const QString kScreenStarted = "[AudioRecorder] ScreenCaptureKit démarré (applis/visio)";
const QString kScreenPermission =
    "[AudioRecorder] ScreenCaptureKit : permission \u00ab Enregistrement d'écran \u00bb manquante";
const QString kScreenNoDisplay = "[AudioRecorder] ScreenCaptureKit ignoré : Aucun écran détecté.";
const QString kBlackHoleStarted = "[AudioRecorder] BlackHole démarré (téléphonie)";
const QString kBlackHoleFailed =
    "[AudioRecorder] BlackHole ignoré : Impossible de démarrer la capture audio système (process-tap).";

} // namespace

TEST_P(OrchestratorStart, triesTheSourcesInTheirFallbackOrderAndReportsWhatRuns) {
    const StartCase& c = GetParam();
    Built built = build(c.setup);
    AudioRecorder recorder(built.backends);
    AudioLog log;
    ASSERT_FALSE(startAndWait(recorder));
    EXPECT_TRUE(recorder.isRecording());
    EXPECT_EQ(*built.journal, c.journal);
    EXPECT_EQ(log.lines(micName()), c.log);
    const Outcome& o = c.outcome;
    EXPECT_EQ(recorder.usingProcessTap(), o.usingProcessTap);
    EXPECT_EQ(recorder.screenCaptureActive(), o.screenCaptureActive);
    EXPECT_EQ(recorder.usingBlackHole(), o.usingBlackHole);
    EXPECT_EQ(recorder.screenCapturePermissionMissing(), o.permissionMissing);
    EXPECT_EQ(recorder.systemAudioActive(), o.usingProcessTap || o.screenCaptureActive || o.usingBlackHole);
    EXPECT_EQ(recorder.systemAudioUnavailableReason(), o.reason);
    stopAndWait(recorder);
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, OrchestratorStart,
    ::testing::Values(
        StartCase{"tapAlone", {}, {"tap.make", "tap.start"}, {kStarted, kTapStarted}, {.usingProcessTap = true}},
        StartCase{"tapFailsScreenAndVirtualDevice",
                  {.tap = Script::failsTap},
                  {"tap.make", "tap.start", "sys.make", "sys.start", "bh.find", "bh.make BlackHole 2ch", "bh.start"},
                  {kStarted, kTapFailed, kScreenStarted, kBlackHoleStarted},
                  {.screenCaptureActive = true, .usingBlackHole = true}},
        StartCase{"permissionMissingNoDevice",
                  {.captureAllowed = false, .screen = Script::failsPermission, .virtualDevice = Script::notFound},
                  {"sys.make", "sys.start", "bh.find"},
                  {kStarted, kTapWaits, kScreenPermission},
                  {.permissionMissing = true, .reason = QString("permission")}},
        StartCase{"permissionMissingButVirtualDeviceRuns",
                  {.captureAllowed = false, .screen = Script::failsPermission},
                  {"sys.make", "sys.start", "bh.find", "bh.make BlackHole 2ch", "bh.start"},
                  {kStarted, kTapWaits, kScreenPermission, kBlackHoleStarted},
                  {.usingBlackHole = true, .permissionMissing = true}},
        StartCase{"noTapScreenPermissionRefused",
                  {.tapSupported = false, .screen = Script::failsPermission, .virtualDevice = Script::notFound},
                  {"sys.make", "sys.start", "bh.find"},
                  {kStarted, kScreenPermission},
                  {.permissionMissing = true, .reason = QString("permission")}},
        StartCase{"everythingFailsForOtherReasons",
                  {.tap = Script::failsTap, .screen = Script::failsNoDisplay, .virtualDevice = Script::notFound},
                  {"tap.make", "tap.start", "sys.make", "sys.start", "bh.find"},
                  {kStarted, kTapFailed, kScreenNoDisplay},
                  {}},
        StartCase{"virtualDeviceFails",
                  {.tapSupported = false, .virtualDevice = Script::failsTap},
                  {"sys.make", "sys.start", "bh.find", "bh.make BlackHole 2ch", "bh.start"},
                  {kStarted, kScreenStarted, kBlackHoleFailed},
                  {.screenCaptureActive = true}},
        StartCase{"noSourceExistsYet",
                  {.tap = Script::absent, .screen = Script::absent, .virtualDevice = Script::absent},
                  {},
                  {kStarted},
                  {}}),
    [](const auto& info) { return std::string(info.param.name); });

// The notes taken during the recording outlive the stop (the session controller sends them with it), beside the
// recording; a start empties them.
TEST_F(Orchestrator, stopsSourcesOneAfterAnotherMergesMovesAndDeletesIntermediates) {
    Built built = build({.tap = Script::failsTap});
    AudioRecorder recorder(built.backends);
    recorder.addNote("Avant");
    EXPECT_EQ(recorder.formattedNotes(), "[0:00] Avant");
    ASSERT_FALSE(startAndWait(recorder));
    EXPECT_EQ(recorder.formattedNotes(), "") << "a start empties the notes";
    recorder.addNote("Intro");
    recorder.addNote(" Budget ");
    ASSERT_EQ(m_home.tempFiles().size(), 3) << "two tracks and the recording's journal";
    built.journal->clear();
    AudioLog log;

    const std::optional<QString> result = stopAndWait(recorder);
    ASSERT_TRUE(result);
    EXPECT_EQ(*built.journal,
              (QStringList{"sys.stop", "sys.stopped", "bh.stop", "bh.stopped", "merge tavrel_mic + 2"}));
    EXPECT_EQ(QFileInfo(*result).absolutePath(), m_home.recordingsDir());
    EXPECT_TRUE(QFileInfo(*result).fileName().startsWith("tavrel_merged_"));
    EXPECT_EQ(m_home.recordings(),
              (QStringList{QFileInfo(*result).fileName(), QFileInfo(*result).completeBaseName() + ".notes.txt"}));
    EXPECT_TRUE(m_home.tempFiles().isEmpty()) << m_home.tempFiles().join(',').toStdString();
    EXPECT_EQ(recorder.formattedNotes(), "[0:00] Intro\n[0:00]  Budget ") << "the notes outlive the stop";
    EXPECT_EQ(log.lines(), (QStringList{"[AudioRecorder] Micro arrêté",
                                        "[AudioRecorder] Pistes fusionnées (2 voie(s) correspondant) : " +
                                            QFileInfo(*result).fileName()}));
    EXPECT_FALSE(recorder.isRecording());
    EXPECT_FALSE(recorder.isPaused());
    // What the session controller reads after stop stays as the start left it.
    EXPECT_TRUE(recorder.systemAudioActive());
    EXPECT_TRUE(recorder.screenCaptureActive());
    EXPECT_TRUE(recorder.usingBlackHole());

    log.clear();
    EXPECT_FALSE(stopAndWait(recorder));
    EXPECT_TRUE(log.lines().isEmpty());
    ASSERT_FALSE(startAndWait(recorder));
    EXPECT_EQ(recorder.formattedNotes(), "") << "the next start empties them";
    stopAndWait(recorder);
}

TEST_F(Orchestrator, aMergedFileThatCannotBeMovedStaysInTheCaptureDirectoryAndTheMicFileGoes) {
    // A folder in the way of the name the merge chose.
    const QString merged = RecordingFiles::captureDir() + "/tavrel_merged_1.m4a";
    ASSERT_TRUE(QDir().mkpath(m_home.recordingsDir() + "/tavrel_merged_1.m4a/x"));
    Built built = build({.mergedName = merged});
    AudioRecorder recorder(built.backends);
    ASSERT_FALSE(startAndWait(recorder));
    const QString mic = micName();
    AudioLog log;
    const std::optional<QString> result = stopAndWait(recorder);
    ASSERT_EQ(result, merged);
    EXPECT_TRUE(QFileInfo(*result).isFile());
    EXPECT_FALSE(QFileInfo::exists(m_home.recordingsDir() + "/" + mic));
    // The journal stays, so that the next launch moves the recording where it can be found.
    EXPECT_TRUE(QFileInfo::exists(RecordingFiles::journalFileFor(mic)));
    const QStringList lines = log.lines();
    ASSERT_EQ(lines.size(), 3) << lines.join('\n').toStdString();
    EXPECT_TRUE(lines[1].startsWith("[AudioRecorder] Déplacement du fusionné échoué, on garde le temporaire : "));
    EXPECT_GT(lines[1].size(),
              QString("[AudioRecorder] Déplacement du fusionné échoué, on garde le temporaire : ").size());
    EXPECT_EQ(lines[2], "[AudioRecorder] Pistes fusionnées (1 voie(s) correspondant) : tavrel_merged_1.m4a");
}

// Sources that made no file: the microphone file is the recording, without a merge. (A merge that fails, with the
// other side kept for the next launch: CrashRecoveryTest, on the real program.)
TEST_F(Orchestrator, theMicrophoneFileAloneIsTheRecordingWhenNoSourceMadeAFile) {
    Built built = build({.tap = Script::failsTap, .sourcesYieldFiles = false});
    AudioRecorder recorder(built.backends);
    ASSERT_FALSE(startAndWait(recorder));
    const QString mic = micName();
    AudioLog log;
    const std::optional<QString> result = stopAndWait(recorder);
    ASSERT_TRUE(result);
    EXPECT_EQ(QFileInfo(*result).fileName(), mic);
    EXPECT_EQ(m_home.recordings(), QStringList{mic});
    EXPECT_FALSE(built.journal->join(',').contains("merge"));
    EXPECT_EQ(log.lines(), QStringList{"[AudioRecorder] Micro arrêté"});
}

TEST_F(Orchestrator, pauseAndResumeReachEverySourceOnlyWhenTheyChangeSomething) {
    Built built = build({.tap = Script::failsTap, .screenLevel = 0.3f, .virtualDeviceLevel = 0.7f});
    AudioRecorder recorder(built.backends);
    recorder.pauseRecording();
    recorder.resumeRecording();
    EXPECT_FALSE(recorder.isPaused());
    EXPECT_EQ(recorder.currentSystemLevel(), 0.0f);
    ASSERT_FALSE(startAndWait(recorder));
    built.journal->clear();

    EXPECT_FLOAT_EQ(recorder.currentSystemLevel(), 0.7f);
    recorder.resumeRecording(); // not paused: nothing
    recorder.pauseRecording();
    recorder.pauseRecording(); // already paused: nothing
    EXPECT_TRUE(recorder.isPaused());
    EXPECT_EQ(recorder.currentSystemLevel(), 0.0f);
    EXPECT_EQ(recorder.currentMicLevel(), 0.0f);
    recorder.resumeRecording();
    EXPECT_FALSE(recorder.isPaused());
    EXPECT_FLOAT_EQ(recorder.currentSystemLevel(), 0.7f);
    EXPECT_EQ(*built.journal, (QStringList{"sys.pause", "bh.pause", "sys.resume", "bh.resume"}));

    recorder.pauseRecording();
    stopAndWait(recorder);
    EXPECT_FALSE(recorder.isPaused());
    EXPECT_EQ(recorder.currentSystemLevel(), 0.0f);
    built.journal->clear();
    recorder.pauseRecording();
    recorder.resumeRecording();
    EXPECT_TRUE(built.journal->isEmpty());
}

// A second start or a stop issued 50 ms into a start (a double click, a call ending at once) waits for the
// start to finish: every source that was started is stopped, and one recording is made.
class OrchestratorRace : public Orchestrator, public ::testing::WithParamInterface<bool> {};

TEST_P(OrchestratorRace, aCallDuringAStartWaitsForItsTurn) {
    const bool secondIsStop = GetParam();
    Built built = build({.tap = Script::failsTap});
    AudioRecorder recorder(built.backends);
    auto first = recorder.startRecording();
    waitUntil([] { return false; }, 50ms);
    std::optional<QString> result;
    if (secondIsStop) {
        result = stopAndWait(recorder);
    } else {
        EXPECT_FALSE(startAndWait(recorder));
        EXPECT_TRUE(recorder.isRecording());
        result = stopAndWait(recorder);
    }
    QCoro::waitFor(first);
    EXPECT_FALSE(recorder.isRecording());
    ASSERT_TRUE(result);
    for (const QString source : {"sys", "bh"}) {
        EXPECT_EQ(built.journal->count(source + ".start"), 1) << built.journal->join(',').toStdString();
        EXPECT_EQ(built.journal->count(source + ".stopped"), 1) << built.journal->join(',').toStdString();
    }
    EXPECT_EQ(m_home.recordings(), QStringList{QFileInfo(*result).fileName()});
    EXPECT_TRUE(m_home.tempFiles().isEmpty()) << m_home.tempFiles().join(',').toStdString();
}

INSTANTIATE_TEST_SUITE_P(SecondCall, OrchestratorRace, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "stop" : "start"; });
