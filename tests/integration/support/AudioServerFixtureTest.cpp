#include "AudioServerFixture.h"

#include "Media.h"
#include "PipeWireFixture.h"
#include "TempDir.h"
#include "Wait.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <csignal>
#include <gtest/gtest.h>

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;

class AudioServerFixtureTest : public ::testing::TestWithParam<AudioServerKind> {
protected:
    void SetUp() override {
        QString missing;
        if (GetParam() == AudioServerKind::PipeWire && !PipeWireFixture::isAvailable(&missing))
            GTEST_SKIP() << "PipeWire not installed: " << missing.toStdString();
        m_server = makeAudioServer(GetParam());
        ASSERT_TRUE(m_server->start());
        RecordProperty("startupMs", static_cast<int>(m_server->startupMs()));
    }

    std::unique_ptr<AudioServerFixture> m_server;
    TempDir m_dir{QStringLiteral("tavrel-audio-test")};
};

TEST_P(AudioServerFixtureTest, DevicesExistWithTheirDescriptionsAndDefaults) {
    const QStringList sinks = m_server->sinkNames();
    EXPECT_TRUE(sinks.contains(AudioServerFixture::speakerSink())) << sinks.join(", ").toStdString();
    EXPECT_TRUE(sinks.contains(AudioServerFixture::blackHoleSink())) << sinks.join(", ").toStdString();
    EXPECT_EQ(m_server->description(AudioServerFixture::blackHoleSink()), QStringLiteral("BlackHole 2ch"));
    EXPECT_EQ(m_server->description(AudioServerFixture::speakerSink()), QStringLiteral("Haut-parleurs"));
    EXPECT_TRUE(m_server->sourceNames().contains(AudioServerFixture::micSource()));
    EXPECT_EQ(m_server->defaultSink(), AudioServerFixture::speakerSink());
    EXPECT_EQ(m_server->defaultSource(), AudioServerFixture::micSource());
    // The test process itself reaches the private server (in-process libpulse reads these).
    EXPECT_EQ(qEnvironmentVariable("PULSE_SERVER"), m_server->pulseServer());
}

TEST_P(AudioServerFixtureTest, VirtualMicrophoneDeliversWhatIsPlayedIntoIt) {
    const QString speech = speechFile(QStringLiteral("Bonjour, un essai."));
    ASSERT_FALSE(speech.isEmpty());
    const QString recorded = m_dir.filePath(QStringLiteral("mic.wav"));
    ManagedProcess recorder = m_server->startRecording(AudioServerFixture::micSource(), recorded);
    ManagedProcess player = m_server->playIntoMicrophone(speech);
    ASSERT_EQ(player.wait(15s), 0) << player.describe().toStdString();
    recorder.sendSignal(SIGINT);
    ASSERT_EQ(recorder.wait(5s), 0) << recorder.describe().toStdString();

    const std::vector<float> samples = decodeToMonoFloat(recorded);
    const std::vector<float> original = decodeToMonoFloat(speech);
    ASSERT_FALSE(samples.empty());
    // Speech is loud where it is (espeak-ng peaks near full scale); a silent capture stays at -200 dB.
    EXPECT_GT(rmsDb(samples), -35.0);
    EXPECT_GT(peak(samples), 0.5f * peak(original));
}

TEST_P(AudioServerFixtureTest, RecordingClientPosesAsConferencingApp) {
    ManagedProcess client = m_server->startRecordingClient({});
    bool found = false;
    QString seen;
    for (int i = 0; i < 100 && !found; ++i) {
        for (const auto& output : m_server->list(QStringLiteral("source-outputs"))) {
            const QJsonObject props = output.toObject().value(QStringLiteral("properties")).toObject();
            seen += QJsonDocument(props).toJson(QJsonDocument::Compact) + QStringLiteral("\n");
            found = found || props.value(QStringLiteral("application.id")).toString() == QStringLiteral("us.zoom.xos");
        }
        if (!found)
            waitUntil([] { return false; }, 50ms);
    }
    EXPECT_TRUE(found) << seen.right(3000).toStdString();
    // The binary override sits on the client (PipeWire) or on both (PulseAudio).
    bool binaryFound = false;
    for (const auto& c : m_server->list(QStringLiteral("clients")))
        binaryFound = binaryFound || c.toObject()
                                             .value(QStringLiteral("properties"))
                                             .toObject()
                                             .value(QStringLiteral("application.process.binary"))
                                             .toString() == QStringLiteral("zoom");
    EXPECT_TRUE(binaryFound);
    client.stop();
    const auto stillRecording = [&] {
        for (const auto& output : m_server->list(QStringLiteral("source-outputs"))) {
            if (output.toObject()
                    .value(QStringLiteral("properties"))
                    .toObject()
                    .value(QStringLiteral("application.id")) == QStringLiteral("us.zoom.xos"))
                return true;
        }
        return false;
    };
    EXPECT_TRUE(waitUntil([&] { return !stillRecording(); }, 3s));
}

TEST_P(AudioServerFixtureTest, ModulesLoadAndUnload) {
    const auto index =
        m_server->loadModule(QStringLiteral("module-null-sink"),
                             QStringLiteral("sink_name=extra sink_properties='device.description=\"Casque USB\"'"));
    ASSERT_TRUE(index.has_value());
    ASSERT_TRUE(waitUntil([&] { return m_server->sinkNames().contains(QStringLiteral("extra")); }, 3s));
    EXPECT_EQ(m_server->description(QStringLiteral("extra")), QStringLiteral("Casque USB"));
    EXPECT_TRUE(m_server->setDefaultSink(QStringLiteral("extra")));
    EXPECT_TRUE(waitUntil([&] { return m_server->defaultSink() == QStringLiteral("extra"); }, 3s));
    EXPECT_TRUE(m_server->unloadModule(*index));
    EXPECT_TRUE(waitUntil([&] { return !m_server->sinkNames().contains(QStringLiteral("extra")); }, 3s));
    EXPECT_FALSE(m_server->loadModule(QStringLiteral("module-that-does-not-exist")).has_value());
}

INSTANTIATE_TEST_SUITE_P(Servers, AudioServerFixtureTest,
                         ::testing::Values(AudioServerKind::PulseAudio, AudioServerKind::PipeWire),
                         [](const auto& info) {
                             return info.param == AudioServerKind::PulseAudio ? "PulseAudio" : "PipeWire";
                         });

TEST(PipeWireFixtureTest, NativeSinkCaptureRecordsWhatIsPlayed) {
    QString missing;
    if (!PipeWireFixture::isAvailable(&missing))
        GTEST_SKIP() << "PipeWire not installed: " << missing.toStdString();
    PipeWireFixture pipewire;
    ASSERT_TRUE(pipewire.start());
    TempDir dir(QStringLiteral("tavrel-pw-test"));
    const QString tone = dir.filePath(QStringLiteral("tone.wav"));
    ASSERT_TRUE(makeTone(440, 1.5, tone, 2));
    const QString captured = dir.filePath(QStringLiteral("captured.wav"));
    ManagedProcess capture = pipewire.startSinkCapture(AudioServerFixture::blackHoleSink(), captured);
    ManagedProcess player = pipewire.playIntoSink(AudioServerFixture::blackHoleSink(), tone);
    ASSERT_EQ(player.wait(10s), 0) << player.describe().toStdString();
    capture.stop();
    const std::vector<float> samples = decodeToMonoFloat(captured);
    ASSERT_FALSE(samples.empty()) << pipewire.logs().toStdString();
    // A 0.5-amplitude sine is at -9 dBFS; anything near that proves the capture hears the sink.
    EXPECT_GT(rmsDb(samples), -20.0);
}

// Native clients carry the process binary on the client object, the app id on the stream node.
TEST(PipeWireFixtureTest, NativeRecordingClientPosesAsConferencingApp) {
    QString missing;
    if (!PipeWireFixture::isAvailable(&missing))
        GTEST_SKIP() << "PipeWire not installed: " << missing.toStdString();
    PipeWireFixture pipewire;
    ASSERT_TRUE(pipewire.start());
    ManagedProcess client = pipewire.startNativeRecordingClient();
    QString clientId;
    QString binary;
    const bool found = waitUntil(
        [&] {
            const QJsonArray objects = pipewire.dump();
            for (const auto& value : objects) {
                const QJsonObject props =
                    value.toObject().value(QStringLiteral("info")).toObject().value(QStringLiteral("props")).toObject();
                if (props.value(QStringLiteral("application.id")).toString() == QStringLiteral("us.zoom.xos") &&
                    props.value(QStringLiteral("media.class")).toString() == QStringLiteral("Stream/Input/Audio"))
                    clientId = QString::number(props.value(QStringLiteral("client.id")).toInt());
            }
            for (const auto& value : objects) {
                const QJsonObject object = value.toObject();
                if (QString::number(object.value(QStringLiteral("id")).toInt()) == clientId)
                    binary = object.value(QStringLiteral("info"))
                                 .toObject()
                                 .value(QStringLiteral("props"))
                                 .toObject()
                                 .value(QStringLiteral("application.process.binary"))
                                 .toString();
            }
            return !binary.isEmpty();
        },
        5s, 100ms);
    ASSERT_TRUE(found) << "no record stream with the app id; client " << clientId.toStdString() << "\n"
                       << client.describe().toStdString();
    EXPECT_EQ(binary, QStringLiteral("zoom"));
}

} // namespace
} // namespace tavrel::test
