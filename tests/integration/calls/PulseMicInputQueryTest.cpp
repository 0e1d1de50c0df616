// Who captures the microphone, asked of real audio servers (PulseAudio, and PipeWire through pipewire-pulse)
// with real recording clients posing as conferencing applications.
#include "audio/pulse/PulseMicInputQuery.h"

#include "AudioServerFixture.h"
#include "Wait.h"
#include "audio/pulse/PulseContext.h"

#include <QJsonObject>
#include <gtest/gtest.h>
#include <memory>
#include <thread>

namespace tavrel {
namespace {

using namespace std::chrono_literals;
using test::AudioServerFixture;
using test::AudioServerKind;
using test::ManagedProcess;
using test::RecordingClientOptions;

class MicInputOnServer : public ::testing::TestWithParam<AudioServerKind> {
protected:
    void SetUp() override {
        m_server = test::makeAudioServer(GetParam());
        ASSERT_TRUE(m_server->start());
    }

    // The query's answer once it has settled on `expected` (or the last answer after a few seconds).
    QStringList settleOn(const QStringList& expected) {
        QStringList last;
        test::waitUntil(
            [&] {
                last = answered();
                return last == expected;
            },
            5s, 50ms);
        return last;
    }

    // The query's answer; a failed query fails the test.
    QStringList answered() {
        const std::optional<QStringList> applications = m_query.inputApplications();
        EXPECT_TRUE(applications.has_value()) << "the server did not answer";
        return applications.value_or(QStringList{});
    }

    // A raw record stream of our own making, for shapes the fixture's client does not cover.
    ManagedProcess startParec(const QStringList& arguments, const QProcessEnvironment& extra) {
        return m_server->spawnClient(QStringLiteral("parec"), arguments, extra, QStringLiteral("/dev/null"));
    }

    // Source-outputs the server lists (whatever we make of them), so that exclusions cannot pass vacuously.
    int serverStreamCount() { return m_server->list(QStringLiteral("source-outputs")).size(); }

    std::unique_ptr<AudioServerFixture> m_server;
    PulseMicInputQuery m_query;
};

// Nobody is an answer; a server that does not answer is not.
TEST_P(MicInputOnServer, nobodyCapturingGivesNothingDespiteTheVirtualSourceFilterAndNoServerGivesNoAnswer) {
    EXPECT_EQ(settleOn({}), QStringList{});
    if (GetParam() == AudioServerKind::PulseAudio) {
        EXPECT_GE(serverStreamCount(), 1) << "the virtual microphone's own stream should be listed by the server";
    }
    m_server->stop();
    EXPECT_EQ(m_query.inputApplications(), std::nullopt);
}

struct Pose {
    const char* name;
    const char* applicationId;
    const char* processBinary;
    const char* expected;
};

TEST_P(MicInputOnServer, identifiesClientsAsTheyPose) {
    const Pose poses[] = {
        // Which property each answer comes from; the mapping of known applications is checked on its own.
        {"declaredZoom", "us.zoom.xos", "zoom", "us.zoom.xos"},
        {"zoomByExecutable", "", "zoom", "us.zoom.xos"},
        {"flatpakDiscord", "com.discordapp.Discord", "", "com.hnc.Discord"},
        {"unknownExecutableNamed", "", "obs", "obs"},
    };
    for (const Pose& pose : poses) {
        SCOPED_TRACE(pose.name);
        RecordingClientOptions options;
        options.applicationId = QString::fromUtf8(pose.applicationId);
        options.processBinary = QString::fromUtf8(pose.processBinary);
        options.clientName = QStringLiteral("Posing client");
        ManagedProcess client = m_server->startRecordingClient(options);
        EXPECT_EQ(settleOn({QString::fromUtf8(pose.expected)}), QStringList{QString::fromUtf8(pose.expected)})
            << client.describe().toStdString();
        client.stop();
        EXPECT_EQ(settleOn({}), QStringList{});
    }
}

TEST_P(MicInputOnServer, everyStreamCountsInServerOrderWithDuplicates) {
    const QString zoom = QStringLiteral("us.zoom.xos");
    const QString dictaphone = QStringLiteral("org.example.Dictaphone");
    ManagedProcess first = m_server->startRecordingClient();
    ASSERT_EQ(settleOn({zoom}), QStringList{zoom});
    RecordingClientOptions unknown;
    unknown.applicationId = dictaphone;
    // One client at a time, so that the order the streams were made in is known.
    ManagedProcess second = m_server->startRecordingClient(unknown);
    ASSERT_TRUE(test::waitUntil([&] { return answered().size() == 2; }, 5s));
    ManagedProcess third = m_server->startRecordingClient();
    const QStringList expected{zoom, dictaphone, zoom};
    QStringList seen;
    test::waitUntil(
        [&] {
            seen = answered();
            return seen.size() == 3;
        },
        5s, 50ms);
    if (GetParam() == AudioServerKind::PulseAudio) {
        EXPECT_EQ(seen, expected);
    } else {
        // pipewire-pulse lists by its own object ids: every stream must be there, in whatever order.
        QStringList sortedSeen = seen;
        QStringList sortedExpected = expected;
        sortedSeen.sort();
        sortedExpected.sort();
        EXPECT_EQ(sortedSeen, sortedExpected);
    }
}

// Listening to an output, level meters at the few frames a second volume controls ask for (even from an
// application that is not a mixer), and the volume control itself: none is a call.
TEST_P(MicInputOnServer, outputListenersAndLevelMetersAreNotMicrophoneUse) {
    const int before = serverStreamCount();
    RecordingClientOptions monitorListener;
    monitorListener.source = AudioServerFixture::monitorOf(AudioServerFixture::speakerSink());
    ManagedProcess listener = m_server->startRecordingClient(monitorListener);
    QProcessEnvironment zoom;
    zoom.insert(QStringLiteral("PULSE_PROP"), QStringLiteral("application.id=us.zoom.xos"));
    ManagedProcess lowRate =
        startParec({QStringLiteral("-d"), AudioServerFixture::micSource(), QStringLiteral("--rate=25"),
                    QStringLiteral("--channels=1"), QStringLiteral("--format=float32le"), QStringLiteral("--raw"),
                    QStringLiteral("--stream-name=Peak detect")},
                   zoom);
    QProcessEnvironment mixer;
    mixer.insert(QStringLiteral("PULSE_PROP"), QStringLiteral("application.id=org.PulseAudio.pavucontrol"));
    ManagedProcess pavucontrol =
        startParec({QStringLiteral("-d"), AudioServerFixture::micSource(), QStringLiteral("--raw")}, mixer);
    ASSERT_TRUE(test::waitUntil([&] { return serverStreamCount() >= before + 3; }, 5s))
        << listener.describe().toStdString() << lowRate.describe().toStdString()
        << pavucontrol.describe().toStdString();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(answered(), QStringList{});
}

// A stream of ours, whatever it declares, is our own recording; corked (paused, or a client's mute) it
// still holds the microphone.
TEST_P(MicInputOnServer, ownStreamsAreReportedUnderOurIdentifierEvenCorked) {
    std::shared_ptr<PulseContext> pulse = PulseContext::instance();
    pa_sample_spec sampleSpec{PA_SAMPLE_S16LE, 44100, 1};
    PaStreamPtr stream;
    {
        PulseContext::Lock lock(*pulse);
        PaProplistPtr props(pa_proplist_new());
        pa_proplist_sets(props.get(), PA_PROP_APPLICATION_ID, "us.zoom.xos");
        stream.reset(pa_stream_new_with_proplist(pulse->context(), "Microphone", &sampleSpec, nullptr, props.get()));
        ASSERT_TRUE(stream);
        ASSERT_EQ(pa_stream_connect_record(stream.get(), AudioServerFixture::kMicSource, nullptr, PA_STREAM_NOFLAGS),
                  0);
    }
    ASSERT_TRUE(pulse->waitUntil([&] { return pa_stream_get_state(stream.get()) == PA_STREAM_READY; }, 3s));
    EXPECT_EQ(settleOn({QStringLiteral("fr.tavrel.Recorder")}), QStringList{QStringLiteral("fr.tavrel.Recorder")});

    bool corked = false;
    {
        PulseContext::Lock lock(*pulse);
        PaOperationPtr op(pa_stream_cork(
            stream.get(), 1, [](pa_stream*, int, void* done) { *static_cast<bool*>(done) = true; }, &corked));
    }
    ASSERT_TRUE(pulse->waitUntil([&] { return corked; }, 3s));
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(answered(), QStringList{QStringLiteral("fr.tavrel.Recorder")});

    PulseContext::Lock lock(*pulse);
    pa_stream_disconnect(stream.get());
    stream.reset();
}

INSTANTIATE_TEST_SUITE_P(Servers, MicInputOnServer,
                         ::testing::Values(AudioServerKind::PulseAudio, AudioServerKind::PipeWire));

} // namespace
} // namespace tavrel
