#include "AudioTestSupport.h"
#include "Media.h"
#include "Wait.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <algorithm>
#include <chrono>
#include <thread>
#include <unistd.h>

using namespace tavrel;
using namespace tavrel::test;
using namespace std::chrono_literals;

namespace {

class MicRecording : public PulseSuite {
protected:
    RecordingHome m_home;
};

} // namespace

namespace {

struct Refusal {
    const char* name;
    bool rightCookie;
    const char* firstLine;
};

class MicrophoneRefusal : public PulseSuite, public ::testing::WithParamInterface<Refusal> {};

void PrintTo(const Refusal& refusal, std::ostream* os) {
    *os << refusal.name;
}

} // namespace

// The server only refuses a client of another user without its cookie; the recorder runs as "nobody".
TEST_P(MicrophoneRefusal, aServerThatRefusesThisClientMeansTheMicrophoneIsDenied) {
    if (geteuid() != 0 || QStandardPaths::findExecutable("setpriv").isEmpty())
        GTEST_SKIP() << "needs root and setpriv to run the recorder as another user";
    TempDir dir;
    QFile::setPermissions(dir.path(), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner |
                                          QFileDevice::ReadOther | QFileDevice::WriteOther | QFileDevice::ExeOther);
    const QString serverCookie = dir.filePath("server.cookie");
    const QString clientCookie = dir.filePath("client.cookie");
    QByteArray secret(256, '\0');
    for (char& byte : secret)
        byte = static_cast<char>(QRandomGenerator::global()->bounded(256));
    for (const QString& path : {serverCookie, clientCookie}) {
        QFile cookie(path);
        ASSERT_TRUE(cookie.open(QIODevice::WriteOnly));
        if (path == clientCookie && !GetParam().rightCookie)
            secret[0] = static_cast<char>(secret[0] ^ 0x5a);
        cookie.write(secret);
        cookie.close();
        cookie.setPermissions(QFileDevice::ReadOwner | QFileDevice::ReadOther);
    }
    const QString socket = dir.filePath("locked");
    ASSERT_TRUE(pulse().loadModule(
        "module-native-protocol-unix",
        QStringLiteral("auth-anonymous=0 auth-cookie-enabled=1 auth-cookie=%1 socket=%2").arg(serverCookie, socket)));
    QProcessEnvironment environment;
    environment.insert("PATH", qEnvironmentVariable("PATH"));
    environment.insert("HOME", dir.path());
    environment.insert("XDG_RUNTIME_DIR", dir.path());
    environment.insert("XDG_DATA_HOME", dir.filePath("data"));
    environment.insert("XDG_STATE_HOME", dir.filePath("state"));
    environment.insert("PULSE_SERVER", "unix:" + socket);
    environment.insert("PULSE_COOKIE", clientCookie);

    ManagedProcess recorder;
    ManagedProcess::Options options;
    options.program = QStringLiteral("setpriv");
    options.arguments =
        QStringList{"--reuid=nobody", "--regid=nogroup", "--clear-groups", QStringLiteral(TAVREL_RECORD_UNTIL_KILLED)};
    options.environment = environment;
    options.captureStdout = true;
    ASSERT_TRUE(recorder.start(options)) << recorder.errorString().toStdString();
    std::optional<QByteArray> line;
    while ((line = recorder.readStdoutLine(10s)) && line->startsWith("[")) // our log lines
        ;
    ASSERT_TRUE(line) << recorder.describe().toStdString();
    EXPECT_TRUE(line->startsWith(GetParam().firstLine)) << line->toStdString();
    recorder.stop();
    const QStringList left = QDir(dir.filePath("data") + "/TavrelRecorder/Enregistrements").entryList(QDir::Files);
    EXPECT_EQ(left.size(), GetParam().rightCookie ? 1 : 0) << left.join(',').toStdString();
}

INSTANTIATE_TEST_SUITE_P(Cookies, MicrophoneRefusal,
                         ::testing::Values(Refusal{"refused", false, "failed microphoneDenied"},
                                           Refusal{"admitted", true, "recording "}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(MicRecording, noServerAtAllFailsTheStartWithTheServersErrorAndLeavesNothing) {
    TempDir dir;
    ScopedEnvironment env;
    env.set("PULSE_SERVER", "unix:" + QFile::encodeName(dir.filePath("nobody-here")));
    AudioRecorder recorder;
    const std::exception_ptr failure = startAndWait(recorder);
    ASSERT_TRUE(failure);
    try {
        std::rethrow_exception(failure);
    } catch (const RecordFailure& error) {
        ADD_FAILURE() << "the server's own error should propagate, got " << error.what();
    } catch (const Error& error) {
        EXPECT_FALSE(error.localizedDescription().isEmpty());
    }
    EXPECT_FALSE(recorder.isRecording());
    EXPECT_TRUE(m_home.recordings().isEmpty());
    EXPECT_FALSE(stopAndWait(recorder));
}

namespace {

/// Frequency of a steady tone in [fromS, toS), from the period its autocorrelation peaks at (a short gap in the
/// stretch, where the track's timeline put silence, does not move the peak).
double toneFrequencyHz(const std::vector<float>& samples, int rateHz, double fromS, double toS) {
    const auto from = static_cast<size_t>(fromS * rateHz);
    const auto to = std::min(samples.size(), static_cast<size_t>(toS * rateHz));
    double bestSum = 0.0;
    int bestLag = 0;
    for (int lag = rateHz / 1500; lag <= rateHz / 200; ++lag) {
        double sum = 0.0;
        for (size_t i = from; i + static_cast<size_t>(lag) < to; ++i)
            sum += double(samples[i]) * samples[i + static_cast<size_t>(lag)];
        if (sum > bestSum) {
            bestSum = sum;
            bestLag = lag;
        }
    }
    return bestLag > 0 ? static_cast<double>(rateHz) / bestLag : 0.0;
}

enum class SourceChange { newDefaultSource, deviceReplugged16kHz };

class MicrophoneFollows : public PulseSuite, public ::testing::WithParamInterface<SourceChange> {
protected:
    RecordingHome m_home;
};

} // namespace

// The user picks another microphone, or the headset's source goes away and comes back at 16 kHz (a headset
// switching profile): the recording follows within a second, never ends, and keeps pitch and time right. One
// player feeds both microphones, so that the two tones sit exactly 3.5 s apart in what it plays. The stop comes
// while the second tone plays: whatever was captured up to it must be in the file, an ordinary AAC file alone in the
// recordings folder (pauses: RecordingWithSystemAudioTest, OrchestratorTest).
TEST_P(MicrophoneFollows, theDefaultSourceWhateverHappensToTheDevice) {
    TempDir dir;
    ASSERT_TRUE(makeTone(440.0, 0.6, dir.filePath("low.wav")));
    ASSERT_TRUE(makeSilence(2.9, dir.filePath("gap.wav")));
    ASSERT_TRUE(makeTone(880.0, 4.0, dir.filePath("high.wav")));
    const QString tones = dir.filePath("tones.wav");
    ASSERT_TRUE(concatenateAudio({dir.filePath("low.wav"), dir.filePath("gap.wav"), dir.filePath("high.wav")}, tones));
    const bool replug = GetParam() == SourceChange::deviceReplugged16kHz;
    AudioRecorder recorder;
    const auto start = std::chrono::steady_clock::now();
    const auto since = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(); };
    ASSERT_FALSE(startAndWait(recorder));
    std::this_thread::sleep_for(300ms);
    const double launchedS = since();
    auto player = pulse().playIntoMicrophone(tones);
    std::this_thread::sleep_for(1500ms);
    std::optional<int> added;
    if (replug) {
        for (const auto& source : pulse().list("sources")) {
            if (source.toObject().value("name").toString() == pulse().micSource()) {
                ASSERT_TRUE(pulse().unloadModule(source.toObject().value("owner_module").toVariant().toInt()));
            }
        }
        std::this_thread::sleep_for(300ms);
        ASSERT_TRUE(
            pulse().loadModule("module-virtual-source",
                               QStringLiteral("source_name=%1 master=%2 rate=16000")
                                   .arg(pulse().micSource(), AudioServerFixture::monitorOf(pulse().micFeedSink()))));
        ASSERT_TRUE(pulse().setDefaultSource(pulse().micSource()));
    } else {
        added = pulse().loadModule("module-remap-source",
                                   "source_name=vmic2 master=" + AudioServerFixture::monitorOf(pulse().micFeedSink()));
        ASSERT_TRUE(added);
        ASSERT_TRUE(pulse().setDefaultSource("vmic2"));
    }
    // The second tone on the meter (the first one is over 3.5 s after the player's launch), then the stop a second
    // later.
    ASSERT_TRUE(waitUntil([&] { return since() - launchedS > 3.3 && recorder.currentMicLevel() > 0.5f; }, 10s));
    const auto toneSeen = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(1s);
    const double totalS = since();
    const std::optional<QString> file = stopAndWait(recorder);
    const double sinceToneS = std::chrono::duration<double>(std::chrono::steady_clock::now() - toneSeen).count();
    if (added) {
        pulse().setDefaultSource(pulse().micSource());
        pulse().unloadModule(*added);
    }
    EXPECT_EQ(recorder.currentMicLevel(), 0.0f);
    ASSERT_TRUE(file);
    EXPECT_EQ(m_home.recordings(), QStringList{QFileInfo(*file).fileName()});
    const MediaInfo info = probe(*file);
    ASSERT_TRUE(info.valid) << info.error.toStdString();
    EXPECT_EQ(info.codecName, "aac");
    EXPECT_EQ(info.sampleRateHz, 44100);
    EXPECT_EQ(info.channels, 1);
    EXPECT_TRUE(info.moovBeforeMdat) << info.topLevelBoxes.join(',').toStdString();
    EXPECT_FALSE(info.topLevelBoxes.contains("moof"));

    const std::vector<float> decoded = decodeToMonoFloat(*file);
    const double durationS = static_cast<double>(decoded.size()) / 44100.0;
    EXPECT_NEAR(durationS, totalS, 0.3) << "the recording went on in one file";
    const std::vector<double> onsets = findSoundOnsets(decoded, 44100, -30.0, 300);
    ASSERT_EQ(onsets.size(), 2u) << ::testing::PrintToString(onsets);
    // The two kinds of virtual microphone buffer differently (0.1 to 0.15 s here); a recording that lost the
    // switch or ran on in another file would be seconds off.
    EXPECT_NEAR(onsets[1] - onsets[0], 3.5, 0.25) << "time kept across the change";
    EXPECT_NEAR(toneFrequencyHz(decoded, 44100, onsets[1] + 0.2, onsets[1] + 0.8), 880.0, 30.0) << "pitch kept";
    // The last 0.3 s hold the tone: nothing captured before the stop was cut off.
    EXPECT_GT(rmsDbBetween(decoded, 44100, durationS - 0.3, durationS), -15.0);
    EXPECT_GT(durationS - onsets.back(), 0.4);
    EXPECT_LT(durationS - onsets.back(), sinceToneS + 0.25);
}

INSTANTIATE_TEST_SUITE_P(Changes, MicrophoneFollows,
                         ::testing::Values(SourceChange::newDefaultSource, SourceChange::deviceReplugged16kHz),
                         [](const auto& info) {
                             return info.param == SourceChange::newDefaultSource ? "newDefaultSource"
                                                                                 : "deviceReplugged16kHz";
                         });
