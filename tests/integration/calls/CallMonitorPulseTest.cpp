// The call monitor polling a real PulseAudio server, with recording clients posing as applications.
#include "audio/PulseMicInputQuery.h"
#include "audio/pulse/PulseContext.h"
#include "core/CallMonitor.h"
#include "core/Log.h"

#include "PulseAudioFixture.h"
#include "Wait.h"

#include <QDialog>
#include <QElapsedTimer>
#include <QTimer>

#include <gtest/gtest.h>

namespace tavrel {
namespace {

using namespace std::chrono_literals;
using test::AudioServerFixture;
using test::ManagedProcess;
using test::RecordingClientOptions;

const QString kUnknownLine = QStringLiteral("[CallMonitor] Micro utilisé mais appli non reconnue : ");

class CallMonitorOnPulse : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_pulse.start());
        m_monitor.isRecording = [this] { return m_recording; };
        m_monitor.onStart = [this] { ++m_starts; };
        m_monitor.onEnd = [this] { ++m_ends; };
        m_monitor.presentPrompt = [this](const QString&, const QString&, const QStringList&) {
            ++m_prompts;
            return m_accept;
        };
    }

    // Polls as the timer would until `condition` holds; the prompt runs between polls, as it does for real.
    bool pollUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 5s) {
        return test::waitUntil(
            [&] {
                m_monitor.tick();
                QCoreApplication::processEvents();
                return condition();
            },
            timeout, 30ms);
    }

    void pollTimes(int count) {
        for (int i = 0; i < count; ++i) {
            m_monitor.tick();
            QCoreApplication::processEvents();
        }
    }

    int unknownLines(const QString& who) const { return static_cast<int>(m_log.count(kUnknownLine + who)); }

    test::PulseAudioFixture m_pulse;
    QStringList m_log;
    LogCapture m_capture{[this](const QString& line) { m_log << line; }};
    CallMonitor m_monitor{std::make_unique<PulseMicInputQuery>()};
    bool m_recording = false;
    bool m_accept = false;
    int m_prompts = 0;
    int m_starts = 0;
    int m_ends = 0;
};

TEST_F(CallMonitorOnPulse, ignoredCallIsPromptedOnceUntilItEndsThenANewCallPromptsAgain) {
    ManagedProcess zoom = m_pulse.startRecordingClient();
    ASSERT_TRUE(pollUntil([&] { return m_prompts == 1; })) << zoom.describe().toStdString();
    pollTimes(4);
    EXPECT_EQ(m_prompts, 1);
    EXPECT_EQ(m_ends, 0);

    zoom.stop();
    ASSERT_TRUE(pollUntil([&] { return m_ends == 1; }));
    EXPECT_EQ(m_starts, 0);

    RecordingClientOptions teams;
    teams.applicationId.clear();
    teams.processBinary = QStringLiteral("teams-for-linux");
    ManagedProcess again = m_pulse.startRecordingClient(teams);
    ASSERT_TRUE(pollUntil([&] { return m_prompts == 2; })) << again.describe().toStdString();
    EXPECT_TRUE(m_log.filter(kUnknownLine).isEmpty()) << m_log.join(u'\n').toStdString();
}

TEST_F(CallMonitorOnPulse, acceptedPromptStartsAndTheCallsEndIsReported) {
    m_accept = true;
    ManagedProcess zoom = m_pulse.startRecordingClient();
    ASSERT_TRUE(pollUntil([&] { return m_starts == 1; }));
    m_recording = true;
    pollTimes(3);
    zoom.stop();
    ASSERT_TRUE(pollUntil([&] { return m_ends == 1; }));
    EXPECT_EQ(m_prompts, 1);
}

TEST_F(CallMonitorOnPulse, callDuringARecordingIsNotPrompted) {
    m_recording = true;
    ManagedProcess zoom = m_pulse.startRecordingClient();
    ASSERT_TRUE(test::waitUntil(
        [&] { return !CallMonitor::micInputStatus(*std::make_unique<PulseMicInputQuery>()).bundles.isEmpty(); }, 5s));
    pollTimes(4);
    EXPECT_EQ(m_prompts, 0);
    zoom.stop();
    ASSERT_TRUE(pollUntil([&] { return m_ends == 1; }));
    EXPECT_EQ(m_prompts, 0);
}

TEST_F(CallMonitorOnPulse, unknownApplicationIsLoggedOncePerStretchByItsExecutable) {
    RecordingClientOptions obs;
    obs.applicationId.clear();
    obs.processBinary = QStringLiteral("obs");
    ManagedProcess first = m_pulse.startRecordingClient(obs);
    ASSERT_TRUE(pollUntil([&] { return unknownLines(QStringLiteral("obs")) == 1; })) << m_log.join(u'\n').toStdString();
    pollTimes(4);
    EXPECT_EQ(unknownLines(QStringLiteral("obs")), 1);
    first.stop();
    // One poll with the microphone free ends the stretch.
    ASSERT_TRUE(
        pollUntil([&] { return m_monitor.micInputStatus(*std::make_unique<PulseMicInputQuery>()).bundles.isEmpty(); }));
    m_monitor.tick();
    ManagedProcess second = m_pulse.startRecordingClient(obs);
    ASSERT_TRUE(pollUntil([&] { return unknownLines(QStringLiteral("obs")) == 2; }));
    EXPECT_EQ(m_prompts, 0);
}

// The virtual microphone's own filter stream is always there; our own recording comes and goes. Neither is a
// call, and our recording counts as one unrecognised stretch while it lasts.
TEST_F(CallMonitorOnPulse, filterStreamAndOurOwnRecordingNeverMakeACall) {
    pollTimes(3);
    EXPECT_TRUE(m_log.isEmpty()) << m_log.join(u'\n').toStdString();

    std::shared_ptr<PulseContext> pulse = PulseContext::instance();
    pa_sample_spec sampleSpec{PA_SAMPLE_FLOAT32LE, 44100, 1};
    PaStreamPtr stream;
    {
        PulseContext::Lock lock(*pulse);
        stream.reset(pa_stream_new(pulse->context(), "Microphone", &sampleSpec, nullptr));
        ASSERT_TRUE(stream);
        ASSERT_EQ(pa_stream_connect_record(stream.get(), nullptr, nullptr, PA_STREAM_NOFLAGS), 0);
    }
    ASSERT_TRUE(pulse->waitUntil([&] { return pa_stream_get_state(stream.get()) == PA_STREAM_READY; }, 3s));
    ASSERT_TRUE(pollUntil([&] { return unknownLines(QStringLiteral("fr.tavrel.Recorder")) == 1; }))
        << m_log.join(u'\n').toStdString();
    pollTimes(3);
    EXPECT_EQ(unknownLines(QStringLiteral("fr.tavrel.Recorder")), 1);
    EXPECT_EQ(m_prompts, 0);
    EXPECT_EQ(m_ends, 0);

    PulseContext::Lock lock(*pulse);
    pa_stream_disconnect(stream.get());
    stream.reset();
}

// The real two-second timer, and a real modal dialog: polling goes on inside the dialog's event loop, so a
// call that ends while the prompt is up is reported at once, and accepting afterwards still starts.
TEST_F(CallMonitorOnPulse, realTimerKeepsPollingWhileTheModalPromptRuns) {
    ManagedProcess zoom = m_pulse.startRecordingClient();
    ASSERT_TRUE(test::waitUntil(
        [&] { return CallMonitor::micInputStatus(*std::make_unique<PulseMicInputQuery>()).matched; }, 5s));
    QStringList order;
    m_monitor.onStart = [&] { order << QStringLiteral("start"); };
    m_monitor.onEnd = [&] { order << QStringLiteral("end"); };
    m_monitor.presentPrompt = [&](const QString&, const QString&, const QStringList&) {
        order << QStringLiteral("prompt");
        zoom.stop(); // the call ends while the user reads the prompt
        QDialog dialog;
        QTimer watch;
        QObject::connect(&watch, &QTimer::timeout, &dialog, [&] {
            if (order.contains(QStringLiteral("end")))
                dialog.accept();
        });
        watch.start(20);
        QTimer::singleShot(8000, &dialog, &QDialog::reject);
        return dialog.exec() == QDialog::Accepted;
    };

    QElapsedTimer clock;
    clock.start();
    m_monitor.start();
    ASSERT_TRUE(test::waitUntil([&] { return order.contains(QStringLiteral("start")); }, 12s))
        << order.join(u',').toStdString();
    EXPECT_EQ(order, (QStringList{"prompt", "end", "start"}));
    // First poll one interval after start (coarse timers may fire 5 % early), the end at the next one.
    EXPECT_GE(clock.elapsed(), CallMonitor::kPollIntervalMs.count() * 2 * 9 / 10);
    EXPECT_TRUE(m_log.contains(QStringLiteral("[CallMonitor] Surveillance des appels/visios activée")));
    m_monitor.stop();
}

} // namespace
} // namespace tavrel
