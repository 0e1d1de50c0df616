// The call monitor as the application wires it: a conferencing client on a private PulseAudio, the real
// recorder, the delegate's session, and scripted answers to its alerts (unanswered ones are closed).
#include "../app/AppDelegateTestBase.h"
#include "audio/pulse/PulseMicInputQuery.h"
#include "core/CallMonitor.h"

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
            m_delegate->callMonitor()->tick();
            QCoreApplication::processEvents();
        }
    }

    static bool micInUse() {
        PulseMicInputQuery query;
        return CallMonitor::micInputStatus(query).matched;
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

TEST_F(CallSessionTest, IgnoredCallRecordsNothingAndTheNextAcceptedCallRecordsUntilItEnds) {
    ManagedProcess zoom = m_pulse.startRecordingClient();
    ASSERT_TRUE(pollUntil([&] { return prompts() == 1; }));
    pollTimes(5);
    EXPECT_EQ(prompts(), 1) << "asked once per call";
    EXPECT_FALSE(m_delegate->isRecording());
    zoom.stop();
    ASSERT_TRUE(pollUntil([&] { return !micInUse(); }));
    pollTimes(1);

    m_alerts->answer(QStringLiteral("Oui, enregistrer"));
    ManagedProcess again = m_pulse.startRecordingClient();
    ASSERT_TRUE(pollUntil([&] { return m_delegate->isRecording(); }))
        << m_alerts->shownMessages().join(u'|').toStdString();
    // Our own recording now captures too; the call goes on and is not prompted again.
    pollTimes(5);
    EXPECT_TRUE(m_delegate->isRecording());
    EXPECT_EQ(prompts(), 2);

    again.stop();
    ASSERT_TRUE(pollUntil([&] { return !m_delegate->isRecording(); }));
    ASSERT_TRUE(waitUntil([&] { return m_finished->size() == 1; }, 20s));
    EXPECT_EQ(prompts(), 2);
}

TEST_F(CallSessionTest, CallDuringARecordingStartedByHandNeitherPromptsNorStopsIt) {
    m_alerts->answer(0); // the missing-audio warning
    m_delegate->startRecording();
    ASSERT_TRUE(waitUntil([&] { return m_delegate->isRecording(); }, 10s))
        << m_alerts->shownMessages().join(u'|').toStdString();

    ManagedProcess zoom = m_pulse.startRecordingClient();
    ASSERT_TRUE(pollUntil([&] { return micInUse(); }));
    pollTimes(3);
    zoom.stop();
    ASSERT_TRUE(pollUntil([&] { return !micInUse(); }));
    pollTimes(3);

    EXPECT_EQ(prompts(), 0);
    EXPECT_TRUE(m_delegate->isRecording());
    EXPECT_EQ(m_finished->size(), 0);
}

} // namespace
} // namespace tavrel::test
