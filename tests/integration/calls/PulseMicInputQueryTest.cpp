// Who captures the microphone, asked of real audio servers (PulseAudio, and PipeWire through pipewire-pulse)
// with real recording clients posing as conferencing applications.
#include "audio/pulse/PulseMicInputQuery.h"

#include "AudioServerFixture.h"
#include "Wait.h"
#include "audio/pulse/PulseContext.h"

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

    // Whether the query's answer settles on `expected` within a few seconds: in the server's order on
    // PulseAudio, in any order on pipewire-pulse (which lists by its own object ids).
    ::testing::AssertionResult settlesOn(const QStringList& expected) {
        const auto ordered = [this](QStringList list) {
            if (GetParam() == AudioServerKind::PipeWire)
                list.sort();
            return list;
        };
        QStringList last;
        if (test::waitUntil([&] { return ordered(last = answered()) == ordered(expected); }, 5s, 50ms))
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "answered [" << last.join(u',').toStdString() << "], expected ["
                                             << expected.join(u',').toStdString() << "]";
    }

    // The query's answer; a failed query fails the test.
    QStringList answered() {
        const std::optional<QStringList> applications = m_query.inputApplications();
        EXPECT_TRUE(applications.has_value()) << "the server did not answer";
        return applications.value_or(QStringList{});
    }

    // A raw record stream of our own making, for shapes the fixture's client does not cover.
    ManagedProcess startParec(const QStringList& arguments, const QString& applicationId) {
        QProcessEnvironment properties;
        properties.insert(QStringLiteral("PULSE_PROP"), QStringLiteral("application.id=") + applicationId);
        return m_server->spawnClient(QStringLiteral("parec"), arguments, properties, QStringLiteral("/dev/null"));
    }

    // Source-outputs the server lists (whatever we make of them), so that exclusions cannot pass vacuously.
    int serverStreamCount() { return m_server->list(QStringLiteral("source-outputs")).size(); }

    std::unique_ptr<AudioServerFixture> m_server;
    PulseMicInputQuery m_query;
};

struct Pose {
    const char* name;
    const char* applicationId;
    const char* processBinary;
    const char* expected;
};

// Every stream on the microphone counts, in the server's order, duplicates kept; listening to an output, level
// meters at the few frames a second volume controls ask for (even from an application that is not a mixer),
// and the volume control itself are not microphone use; a stream of ours, whatever it declares, is our own
// recording, corked (paused, or a client's mute) too; clients that leave are gone; a server that does not
// answer gives no answer (nobody capturing is an answer).
TEST_P(MicInputOnServer, namesEveryClientOnTheMicrophoneAndNothingElse) {
    ASSERT_TRUE(settlesOn({}));
    if (GetParam() == AudioServerKind::PulseAudio) {
        EXPECT_GE(serverStreamCount(), 1) << "the virtual microphone's own stream should be listed by the server";
    }
    const int before = serverStreamCount();
    RecordingClientOptions monitorListener;
    monitorListener.source = AudioServerFixture::monitorOf(AudioServerFixture::speakerSink());
    std::vector<ManagedProcess> clients;
    clients.push_back(m_server->startRecordingClient(monitorListener));
    clients.push_back(startParec({QStringLiteral("-d"), AudioServerFixture::micSource(), QStringLiteral("--rate=25"),
                                  QStringLiteral("--channels=1"), QStringLiteral("--format=float32le"),
                                  QStringLiteral("--raw"), QStringLiteral("--stream-name=Peak detect")},
                                 QStringLiteral("us.zoom.xos")));
    clients.push_back(startParec({QStringLiteral("-d"), AudioServerFixture::micSource(), QStringLiteral("--raw")},
                                 QStringLiteral("org.PulseAudio.pavucontrol")));
    ASSERT_TRUE(test::waitUntil([&] { return serverStreamCount() >= before + 3; }, 5s))
        << clients[0].describe().toStdString() << clients[1].describe().toStdString()
        << clients[2].describe().toStdString();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(answered(), QStringList{});

    const Pose poses[] = {
        // Which property each answer comes from; the mapping of known applications is checked on its own.
        {"declaredZoom", "us.zoom.xos", "zoom", "us.zoom.xos"},
        {"flatpakDiscord", "com.discordapp.Discord", "", "com.hnc.Discord"},
        {"zoomByExecutable", "", "zoom", "us.zoom.xos"},
        {"unknownExecutableNamed", "", "obs", "obs"},
    };
    QStringList expected;
    for (const Pose& pose : poses) { // one client at a time, so that the order the streams were made in is known
        SCOPED_TRACE(pose.name);
        RecordingClientOptions options;
        options.applicationId = QString::fromUtf8(pose.applicationId);
        options.processBinary = QString::fromUtf8(pose.processBinary);
        options.clientName = QStringLiteral("Posing client");
        clients.push_back(m_server->startRecordingClient(options));
        expected << QString::fromUtf8(pose.expected);
        EXPECT_TRUE(settlesOn(expected)) << clients.back().describe().toStdString();
    }

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
    expected << QStringLiteral("fr.tavrel.Recorder");
    EXPECT_TRUE(settlesOn(expected));
    bool corked = false;
    {
        PulseContext::Lock lock(*pulse);
        PaOperationPtr op(pa_stream_cork(
            stream.get(), 1, [](pa_stream*, int, void* done) { *static_cast<bool*>(done) = true; }, &corked));
    }
    ASSERT_TRUE(pulse->waitUntil([&] { return corked; }, 3s));
    std::this_thread::sleep_for(200ms);
    EXPECT_TRUE(settlesOn(expected));

    clients.clear();
    EXPECT_TRUE(settlesOn({QStringLiteral("fr.tavrel.Recorder")}));
    {
        PulseContext::Lock lock(*pulse);
        pa_stream_disconnect(stream.get());
        stream.reset();
    }
    pulse.reset();
    EXPECT_TRUE(settlesOn({}));
    m_server->stop();
    EXPECT_EQ(m_query.inputApplications(), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Servers, MicInputOnServer,
                         ::testing::Values(AudioServerKind::PulseAudio, AudioServerKind::PipeWire));

} // namespace
} // namespace tavrel
