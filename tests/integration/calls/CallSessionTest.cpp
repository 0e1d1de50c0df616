// The call monitor as the application wires it: a conferencing client on a private PulseAudio, the real
// recorder, the delegate's session, and scripted answers to its alerts (unanswered ones are closed).
#include "../app/AppDelegateTestBase.h"
#include "audio/pulse/PulseMicInputQuery.h"
#include "core/CallMonitor.h"
#include "core/Log.h"

#include <QCoro/QCoroTask>
#include <QElapsedTimer>
#include <QSignalSpy>

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;

const QString kCallPrompt = QStringLiteral("Un appel a démarré");

class CallSessionTest : public AppDelegateTestBase {
protected:
    void SetUp() override {
        AppDelegateTestBase::SetUp();
        ASSERT_TRUE(m_pulse.start());
        // Polled by hand below, as the monitor's timer does, without waiting two seconds between polls.
        launch();
        m_finished = std::make_unique<QSignalSpy>(m_delegate.get(), &AppDelegate::recordingFinished);
    }

    void TearDown() override {
        if (m_delegate && m_delegate->isRecording()) {
            m_delegate->stopRecording();
            waitUntil([&] { return m_finished->size() > 0; }, 10s);
        }
        AppDelegateTestBase::TearDown();
    }

    bool pollUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 10s) {
        return waitUntil(
            [&] {
                pollTimes(1);
                return condition();
            },
            timeout, 40ms);
    }

    void pollTimes(int count) {
        for (int i = 0; i < count; ++i) {
            QCoro::waitFor(m_delegate->callMonitor()->poll());
            QCoreApplication::processEvents();
        }
    }

    static bool micInUse() {
        PulseMicInputQuery query;
        const std::optional<MicInputStatus> status = CallMonitor::micInputStatus(query);
        return status && status->matched;
    }

    int prompts() const {
        int count = 0;
        for (const auto& alert : m_alerts->shown()) {
            if (alert.message == kCallPrompt) {
                EXPECT_EQ(alert.informativeText, QStringLiteral("Enregistrer cet appel avec TaVREL Recorder ?"));
                EXPECT_EQ(alert.buttons, (QStringList{QStringLiteral("Oui, enregistrer"), QStringLiteral("Ignorer")}));
                ++count;
            }
        }
        return count;
    }

    PulseAudioFixture m_pulse;
    std::unique_ptr<QSignalSpy> m_finished;
};

// An ignored call records nothing, and its end does not stop a recording the user started by hand meanwhile.
// The next call, accepted, records on through an audio server restart (polls fail meanwhile; the client
// comes back as meeting clients do, with a new stream); only when the client leaves does the recording stop,
// within 8 s. That a muted (corked) stream still holds the microphone is the query's test.
TEST_F(CallSessionTest, IgnoredCallRecordsNothingAndAnAcceptedOneRecordsThroughAServerRestartUntilItEnds) {
    ManagedProcess zoom = m_pulse.startRecordingClient();
    ASSERT_TRUE(pollUntil([&] { return prompts() == 1; }));
    pollTimes(5);
    EXPECT_EQ(prompts(), 1) << "asked once per call";
    EXPECT_FALSE(m_delegate->isRecording());
    m_alerts->answer(0); // the missing-audio warning
    m_delegate->startRecording();
    ASSERT_TRUE(waitUntil([&] { return m_delegate->isRecording(); }, 10s))
        << m_alerts->shownMessages().join(u'|').toStdString();
    ASSERT_EQ(m_alerts->pendingAnswers(), 0) << m_alerts->shownMessages().join(u'|').toStdString();
    zoom.stop();
    ASSERT_TRUE(pollUntil([&] { return !micInUse(); }));
    pollTimes(CallMonitor::kPollsToEnd);
    EXPECT_TRUE(m_delegate->isRecording());
    EXPECT_EQ(m_finished->size(), 0);
    m_delegate->stopRecording();
    ASSERT_TRUE(
        waitUntil([&] { return m_alerts->shownMessages().contains(QStringLiteral("Enregistrement terminé")); }, 30s))
        << "the upload dialog, left unanswered";

    // From here on, the monitor's own two-second timer; a second start keeps the one timer and logs nothing.
    m_alerts->answer(QStringLiteral("Oui, enregistrer"));
    {
        QStringList log;
        const LogCapture capture([&](const QString& line) { log << line; });
        m_delegate->callMonitor()->start();
        m_delegate->callMonitor()->start();
        EXPECT_EQ(log, QStringList{QStringLiteral("[CallMonitor] Surveillance des appels/visios activée")});
    }
    zoom = m_pulse.startRecordingClient();
    ASSERT_TRUE(waitUntil([&] { return m_delegate->isRecording(); }, 20s))
        << m_alerts->shownMessages().join(u'|').toStdString();

    m_pulse.stop();
    ASSERT_TRUE(m_pulse.start());
    zoom = m_pulse.startRecordingClient(); // the client is back, with a stream of its own again
    waitUntil([] { return false; }, CallMonitor::kPollIntervalMs * (CallMonitor::kPollsToEnd + 1));
    EXPECT_TRUE(m_delegate->isRecording()) << "the call survives the audio server's restart";
    EXPECT_EQ(prompts(), 2);

    zoom.stop();
    QElapsedTimer sinceLeft;
    sinceLeft.start();
    ASSERT_TRUE(waitUntil([&] { return !m_delegate->isRecording(); }, 20s));
    EXPECT_LT(sinceLeft.elapsed(), 8000);
    EXPECT_EQ(prompts(), 2);
    // What was recorded is kept.
    ASSERT_TRUE(waitUntil([&] { return m_finished->size() == 2; }, 30s));
}

} // namespace
} // namespace tavrel::test
