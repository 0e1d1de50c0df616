// The real program killed with SIGKILL at the moments a working day kills it, on a private PulseAudio where
// each side plays its own tone: the next launch must offer the whole recording, both sides at their times and
// the notes, and leave no capture file behind.
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QtEndian>
#include <cmath>
#include <csignal>
#include <gtest/gtest.h>
#include <thread>

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kRate = 44100;
constexpr double kMicHz = 440;
constexpr double kOtherSideHz = 1000;
const QString kNote = QStringLiteral("Point budget : 12 % « validé »");

double since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Power of `frequencyHz` over [fromS, fromS + 0.1 s) (Goertzel): which tone sounds there, even across a glitch.
double powerAt(const std::vector<float>& samples, double fromS, double frequencyHz) {
    const auto first = std::min(samples.size(), static_cast<size_t>(fromS * kRate));
    const size_t last = std::min(samples.size(), first + kRate / 10);
    const double coefficient = 2 * std::cos(2 * M_PI * frequencyHz / kRate);
    double previous = 0;
    double beforePrevious = 0;
    for (size_t i = first; i < last; ++i) {
        const double current = samples[i] + coefficient * previous - beforePrevious;
        beforePrevious = previous;
        previous = current;
    }
    return previous * previous + beforePrevious * beforePrevious - coefficient * previous * beforePrevious;
}

/// A playback stream held open on one sink, so that a tone written to it sounds after the stream's own steady
/// latency, without a player's start-up, which on a loaded machine varies by half a second.
class LiveSink {
public:
    LiveSink(const QProcessEnvironment& environment, const QString& sink) {
        ManagedProcess::Options options;
        options.program = QStringLiteral("pacat");
        options.arguments = {"--playback",
                             "-d",
                             sink,
                             "--raw",
                             "--format=float32le",
                             "--channels=1",
                             QStringLiteral("--rate=%1").arg(kRate),
                             "--latency-msec=100",
                             "--client-name=tavrel-test-player"};
        options.environment = environment;
        options.feedStdin = true;
        EXPECT_TRUE(m_pacat.start(options)) << m_pacat.errorString().toStdString();
    }
    void play(double frequencyHz) {
        std::vector<float> tone(kRate / 5);
        for (size_t i = 0; i < tone.size(); ++i)
            tone[i] = 0.4f * static_cast<float>(std::sin(2 * M_PI * frequencyHz * static_cast<double>(i) / kRate));
        EXPECT_TRUE(m_pacat.writeStdin(QByteArray(reinterpret_cast<const char*>(tone.data()),
                                                  static_cast<qsizetype>(tone.size() * sizeof(float)))))
            << m_pacat.describe().toStdString();
    }

private:
    ManagedProcess m_pacat;
};

class CrashRecoveryTest : public ::testing::Test {
protected:
    void SetUp() override {
        SessionBusFixture::Options busOptions;
        busOptions.exportEnvironment = false;
        m_bus = std::make_unique<SessionBusFixture>(busOptions);
        ASSERT_TRUE(m_bus->start());
        AudioServerFixture::Options audioOptions;
        audioOptions.exportEnvironment = false;
        audioOptions.warmUp = true;
        m_pulse = std::make_unique<PulseAudioFixture>(audioOptions);
        ASSERT_TRUE(m_pulse->start());
        m_env = mergedEnvironment({m_pulse->variables(), m_bus->variables()});
        for (const char* variable : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME", "TMPDIR"})
            m_env.insert(QString::fromLatin1(variable), m_dir.filePath(QString::fromLatin1(variable), true));
        m_env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        m_env.remove(QStringLiteral("DISPLAY"));
        m_env.remove(QStringLiteral("WAYLAND_DISPLAY"));
        // Every alert is answered as closed: the upload dialog is cancelled, the unsent recordings left for later.
        m_env.insert(QStringLiteral("TAVREL_TEST_ALERT_ANSWERS"), QString());
        m_connection = std::make_unique<QDBusConnection>(
            QDBusConnection::connectToBus(m_bus->address(), QStringLiteral("recovery-%1").arg(++s_connections)));
        ASSERT_TRUE(m_connection->isConnected());
    }

    void TearDown() override {
        if (HasFailure())
            std::cerr << "program log:\n" << fileTail(m_dir.filePath("program.log"), 80).toStdString() << std::endl;
        if (m_program.pid() > 0)
            m_program.stop();
    }

    /// Starts the program (its log goes on in one file) and waits until it answers on the bus.
    ::testing::AssertionResult launch() {
        m_logLinesBefore = log().count(u'\n');
        ManagedProcess::Options options;
        options.program = QStringLiteral(TAVREL_RECORDER_BIN);
        options.environment = m_env;
        options.logPath = m_dir.filePath("program.log");
        m_program = ManagedProcess();
        if (!m_program.start(options))
            return ::testing::AssertionFailure() << m_program.errorString().toStdString();
        if (!waitUntil([&] { return property(QStringLiteral("IsRecording")).isValid(); }, 30s))
            return ::testing::AssertionFailure() << "no answer on the bus: " << m_program.describe().toStdString();
        return ::testing::AssertionSuccess();
    }

    void kill() {
        m_program.sendSignal(SIGKILL);
        m_program.wait(10s);
    }

    QVariant property(const QString& name) { return recorderProperty(*m_connection, name); }
    ::testing::AssertionResult action(const QString& name, const QVariantList& parameter = {}) {
        return recorderAction(*m_connection, name, parameter);
    }

    bool waitForProperty(const QString& name, const QVariant& value) {
        return waitUntil([&] { return property(name) == value; }, 15s, 20ms);
    }

    /// The program's log since its last launch.
    QString log() const {
        QFile file(m_dir.filePath("program.log"));
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }
    QString logOfThisLaunch() const { return log().section(u'\n', static_cast<int>(m_logLinesBefore)); }
    bool waitForLog(const QString& text, std::chrono::milliseconds timeout = 60s,
                    std::chrono::milliseconds intervalMs = 20ms) {
        return waitUntil([&] { return logOfThisLaunch().contains(text); }, timeout, intervalMs);
    }

    QString recordingsDir() const { return m_dir.filePath("XDG_DATA_HOME") + "/TavrelRecorder/Enregistrements"; }
    QString captureDir() const { return m_dir.filePath("XDG_STATE_HOME") + "/TavrelRecorder/capture"; }
    QStringList recordings() const { return QDir(recordingsDir()).entryList({"*.m4a"}, QDir::Files | QDir::Hidden); }
    /// Files of ours left anywhere but in the recordings, and hidden working copies beside them.
    QStringList leftovers() const {
        QStringList left = QDir(captureDir()).entryList({"tavrel_*", ".tavrel_*"}, QDir::Files | QDir::Hidden);
        left << QDir(recordingsDir()).entryList({".*"}, QDir::Files | QDir::Hidden);
        left << QDir(m_dir.filePath("TMPDIR")).entryList(QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot);
        return left;
    }

    static inline int s_connections = 0;
    TempDir m_dir{QStringLiteral("tavrel-recovery")};
    std::unique_ptr<SessionBusFixture> m_bus;
    std::unique_ptr<PulseAudioFixture> m_pulse;
    QProcessEnvironment m_env;
    std::unique_ptr<QDBusConnection> m_connection;
    ManagedProcess m_program;
    qsizetype m_logLinesBefore = 0;
};

enum class Moment { oneSecondIn, midRecording, whilePaused, duringTheMerge, mergeMadeToFail, terminated };

struct KillCase {
    const char* name;
    Moment moment;
    double killAtS;   ///< after the program says it records (for the merge: when the stop is asked)
    double recordedS; ///< what the recording holds after the program says it records, pauses left out
    bool otherSideOnTheBlackHole;
};

void PrintTo(const KillCase& c, std::ostream* os) {
    *os << c.name;
}

class KilledProgram : public CrashRecoveryTest, public ::testing::WithParamInterface<KillCase> {
protected:
    /// Overwrites the audio of the second fragment of the track in place, as a failing disk would: the file stays
    /// readable, its middle does not decode.
    static void damageSecondFragment(const QString& track) {
        QFile file(track);
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        const QByteArray bytes = file.readAll();
        const qsizetype second = bytes.indexOf("mdat", bytes.indexOf("mdat") + 4);
        ASSERT_GT(second, 0) << "no second fragment in " << track.toStdString();
        file.seek(second + 4);
        file.write(QByteArray(qFromBigEndian<quint32>(bytes.constData() + second - 4) - 8, '\x5a'));
    }
};

// One recording with a note, each side's tone at its own time, killed at one of the moments; the next launch
// offers exactly one recording, with both sides and the note.
TEST_P(KilledProgram, nextLaunchOffersTheWholeRecording) {
    const KillCase& c = GetParam();
    const QProcessEnvironment players = m_pulse->environment();
    LiveSink microphone(players, m_pulse->micFeedSink());
    LiveSink otherSide(players, c.otherSideOnTheBlackHole ? m_pulse->blackHoleSink() : m_pulse->speakerSink());
    ASSERT_TRUE(launch());
    // Each side speaks as soon as it is heard: the microphone first, the other side once every source runs.
    ASSERT_TRUE(action(QStringLiteral("start-recording")));
    ASSERT_TRUE(waitForLog(QStringLiteral("Micro démarré"), 15s, 2ms));
    const Clock::time_point micStarted = Clock::now();
    microphone.play(kMicHz);
    ASSERT_TRUE(waitForProperty(QStringLiteral("IsRecording"), true)) << m_program.describe().toStdString();
    const Clock::time_point recording = Clock::now();
    ASSERT_TRUE(action(QStringLiteral("add-note"), {kNote}));
    std::this_thread::sleep_until(std::max(Clock::now(), micStarted + 350ms));
    const double otherAtS = since(micStarted);
    otherSide.play(kOtherSideHz);
    const double leadS = std::chrono::duration<double>(recording - micStarted).count();
    const auto at = [&](double seconds) {
        return recording + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    };

    switch (c.moment) {
    case Moment::oneSecondIn:
    case Moment::midRecording:
        std::this_thread::sleep_until(at(c.killAtS));
        kill();
        break;
    case Moment::whilePaused:
        std::this_thread::sleep_until(at(c.recordedS));
        ASSERT_TRUE(action(QStringLiteral("toggle-pause")));
        ASSERT_TRUE(waitForProperty(QStringLiteral("IsPaused"), true));
        std::this_thread::sleep_until(at(c.killAtS));
        kill();
        break;
    case Moment::terminated:
        // A logout or `kill`: the program leaves through its event loop, its files closed, and exits cleanly.
        std::this_thread::sleep_until(at(c.killAtS));
        m_program.sendSignal(SIGTERM);
        EXPECT_EQ(m_program.wait(30s), std::optional<int>(0)) << m_program.describe().toStdString();
        break;
    case Moment::duringTheMerge: {
        std::this_thread::sleep_until(at(c.killAtS));
        ASSERT_TRUE(action(QStringLiteral("stop-recording")));
        // Killed once the mix has begun to be written, before it reaches the recordings folder.
        ASSERT_TRUE(waitUntil(
            [&] { return QDir(captureDir()).entryInfoList({"tavrel_merged_*.m4a"}).value(0).size() > 0; }, 30s, 2ms));
        kill();
        ASSERT_TRUE(QDir(recordingsDir()).entryList({"tavrel_merged_*"}).isEmpty()) << "the mix was already done";
        break;
    }
    case Moment::mergeMadeToFail: {
        std::this_thread::sleep_until(at(3.5));
        const QStringList screen = QDir(captureDir()).entryList({"tavrel_sys_*.m4a"});
        ASSERT_EQ(screen.size(), 1) << QDir(captureDir()).entryList().join(' ').toStdString();
        damageSecondFragment(captureDir() + '/' + screen.first());
        std::this_thread::sleep_until(at(c.killAtS));
        ASSERT_TRUE(action(QStringLiteral("stop-recording")));
        // The microphone file is offered at once, the other side kept for the next launch.
        ASSERT_TRUE(waitForLog(QStringLiteral("[Alert] Enregistrement terminé")));
        EXPECT_TRUE(logOfThisLaunch().contains(QStringLiteral("[AudioRecorder] Fusion échouée, micro seul")));
        EXPECT_EQ(recordings().size(), 1);
        EXPECT_EQ(QDir(recordingsDir()).entryList({"tavrel_mic_*.m4a"}).size(), 1);
        EXPECT_EQ(QDir(captureDir()).entryList({"tavrel_sys_*", "tavrel_bh_*"}).size(), 2);
        kill();
        break;
    }
    }

    ASSERT_TRUE(launch());
    ASSERT_TRUE(waitForLog(QStringLiteral("[Alert] 1 enregistrement(s) non envoyé(s)")));
    const QStringList offered = recordings();
    ASSERT_EQ(offered.size(), 1) << offered.join(' ').toStdString();
    EXPECT_TRUE(offered.first().startsWith("tavrel_merged_")) << offered.first().toStdString();
    const QString recordingPath = recordingsDir() + '/' + offered.first();
    const MediaInfo info = probe(recordingPath);
    ASSERT_TRUE(info.valid) << info.error.toStdString();
    EXPECT_NEAR(info.formatDurationS, leadS + c.recordedS, 2.0);

    // Both sides, each at its time: the microphone's tone first, the other side's as much later as it was played.
    const std::vector<float> samples = decodeToMonoFloat(recordingPath, kRate);
    const std::vector<double> onsets = findSoundOnsets(samples, kRate, -35.0, 100);
    ASSERT_GE(onsets.size(), 2u) << ::testing::PrintToString(onsets) << " in " << info.formatDurationS << " s";
    EXPECT_GT(powerAt(samples, onsets[0], kMicHz), 10 * powerAt(samples, onsets[0], kOtherSideHz)) << "microphone";
    EXPECT_GT(powerAt(samples, onsets[1], kOtherSideHz), 10 * powerAt(samples, onsets[1], kMicHz)) << "other side";
    EXPECT_NEAR(onsets[1] - onsets[0], otherAtS, 0.25) << ::testing::PrintToString(onsets);

    QFile notes(recordingPath.chopped(4) + ".notes.txt");
    ASSERT_TRUE(notes.open(QIODevice::ReadOnly));
    const QString written = QString::fromUtf8(notes.readAll());
    EXPECT_TRUE(written.startsWith("[0:0") && written.endsWith("] " + kNote)) << written.toStdString();
    EXPECT_TRUE(leftovers().isEmpty()) << leftovers().join(' ').toStdString();
}

INSTANTIATE_TEST_SUITE_P(Moments, KilledProgram,
                         ::testing::Values(KillCase{"oneSecondIn", Moment::oneSecondIn, 1.0, 1.0, false},
                                           KillCase{"midRecording", Moment::midRecording, 4.0, 4.0, false},
                                           KillCase{"whilePaused", Moment::whilePaused, 4.0, 2.0, false},
                                           KillCase{"duringTheMerge", Moment::duringTheMerge, 12.0, 12.0, false},
                                           KillCase{"mergeMadeToFail", Moment::mergeMadeToFail, 5.0, 5.0, true},
                                           KillCase{"terminated", Moment::terminated, 4.0, 4.0, false}),
                         [](const auto& info) { return std::string(info.param.name); });

// Twenty launches, each killed at a random moment: before, during or after a start, a pause, a stop or the
// recovery of the previous one. In the end nothing is left but recordings that decode.
TEST_F(CrashRecoveryTest, twentyKillsAtRandomMomentsLeaveOnlyRecordingsThatDecode) {
    const quint32 seed = QRandomGenerator::global()->generate();
    SCOPED_TRACE("seed " + std::to_string(seed));
    QRandomGenerator random(seed);
    const auto pause = [&](double maxS) {
        std::this_thread::sleep_for(std::chrono::duration<double>(random.bounded(maxS)));
    };
    for (int kill = 0; kill < 20; ++kill) {
        ASSERT_TRUE(launch());
        pause(1.0);
        if (random.bounded(5) > 0) {
            action(QStringLiteral("start-recording"));
            pause(2.0);
            action(QStringLiteral("add-note"), {QStringLiteral("note %1").arg(kill)});
            if (random.bounded(3) == 0) {
                action(QStringLiteral("toggle-pause"));
                pause(1.0);
            }
            if (random.bounded(2) == 0)
                action(QStringLiteral("stop-recording"));
            pause(1.5);
        }
        this->kill();
    }
    ASSERT_TRUE(launch());
    waitForLog(QStringLiteral("enregistrement(s) non envoyé(s)"), 30s);
    EXPECT_TRUE(leftovers().isEmpty()) << leftovers().join(' ').toStdString();
    for (const QString& recording : recordings()) {
        const MediaInfo info = probe(recordingsDir() + '/' + recording);
        EXPECT_TRUE(info.valid) << recording.toStdString() << ": " << info.error.toStdString();
    }
}

// A recording started right after launch is still being written when the check for unsent recordings runs: it
// is not one of them.
TEST_F(CrashRecoveryTest, aRecordingStartedAtLaunchIsNotOfferedAsUnsent) {
    ASSERT_TRUE(QDir().mkpath(recordingsDir()));
    QFile unsent(recordingsDir() + "/tavrel_mic_1000.m4a");
    ASSERT_TRUE(unsent.open(QIODevice::WriteOnly));
    unsent.write("an unsent recording");
    unsent.close();
    const Clock::time_point launched = Clock::now();
    ASSERT_TRUE(launch());
    std::this_thread::sleep_until(launched + 500ms);
    ASSERT_TRUE(action(QStringLiteral("start-recording")));
    ASSERT_TRUE(waitForLog(QStringLiteral("enregistrement(s) non envoyé(s)")));
    const QString log = logOfThisLaunch();
    ASSERT_LT(log.indexOf(QStringLiteral("Micro démarré")), log.indexOf(QStringLiteral("non envoyé(s)")))
        << "the recording must have started before the check";
    EXPECT_TRUE(log.contains(QStringLiteral("[Alert] 1 enregistrement(s) non envoyé(s)")));
}

} // namespace
} // namespace tavrel::test
