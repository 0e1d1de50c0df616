// The call monitor as the application wires it: a conferencing client on a private PulseAudio, the real
// recorder, the delegate's session, and scripted answers to its alerts.
#include "app/AppDelegate.h"
#include "audio/PulseMicInputQuery.h"
#include "core/CallMonitor.h"
#include "core/SettingsManager.h"
#include "platform/fake/FakePlatform.h"

#include "PulseAudioFixture.h"
#include "Wait.h"

#include <gtest/gtest.h>

#include <deque>

namespace tavrel {
namespace {

using namespace std::chrono_literals;
using test::ManagedProcess;

const QString kCallPrompt = QStringLiteral("Un appel a démarré");

// Answers the call prompt from a script ("Ignorer" when the script is empty) and closes every other alert
// (the upload dialog, the system-audio warning) with its last button.
class ScriptedAlerts final : public AlertPresenter {
public:
    explicit ScriptedAlerts(QStringList* seen, std::deque<bool>* answers) : m_seen(seen), m_answers(answers) {}
    int run(const AlertSpec& alertSpec) override {
        m_seen->append(alertSpec.message);
        if (alertSpec.message == kCallPrompt) {
            EXPECT_EQ(alertSpec.informativeText, QStringLiteral("Enregistrer cet appel avec TaVREL Recorder ?"));
            EXPECT_EQ(alertSpec.buttons, (QStringList{QStringLiteral("Oui, enregistrer"), QStringLiteral("Ignorer")}));
            const bool accept = !m_answers->empty() && m_answers->front();
            if (!m_answers->empty())
                m_answers->pop_front();
            return accept ? kFirstButton : kFirstButton + 1;
        }
        return kFirstButton + static_cast<int>(std::max<qsizetype>(0, alertSpec.buttons.size() - 1));
    }

private:
    QStringList* m_seen;
    std::deque<bool>* m_answers;
};

class CallSession : public ::testing::Test {
protected:
    void SetUp() override {
        test::AudioServerFixture::Options options;
        options.exportHome = true; // recordings folder and settings file in the fixture's directory
        m_pulse = std::make_unique<test::PulseAudioFixture>(options);
        ASSERT_TRUE(m_pulse->start());
    }

    void TearDown() override {
        if (m_delegate && m_delegate->isRecording()) {
            m_delegate->stopRecording();
            test::waitUntil([&] { return m_finished > 0; }, 10s);
        }
        m_delegate.reset();
    }

    void launch() {
        AppServices services;
        services.notifier = std::make_unique<FakeNotifier>();
        services.desktop = std::make_unique<FakeDesktop>();
        services.loginItem = std::make_unique<FakeLoginItem>();
        services.alerts = std::make_unique<ScriptedAlerts>(&m_alerts, &m_answers);
        services.statusItem = std::make_unique<FakeStatusItem>();
        services.pendingCheckDelayMs = std::chrono::hours(1);
        m_delegate = std::make_unique<AppDelegate>(std::move(services));
        QObject::connect(m_delegate.get(), &AppDelegate::recordingFinished, [this](const QString&) { ++m_finished; });
        m_delegate->applicationDidFinishLaunching();
        ASSERT_NE(m_delegate->callMonitor(), nullptr);
    }

    // Polls as the monitor's timer does, without waiting two seconds between polls.
    bool pollUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 10s) {
        return test::waitUntil(
            [&] {
                m_delegate->callMonitor()->tick();
                QCoreApplication::processEvents();
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

    int prompts() const { return static_cast<int>(m_alerts.count(kCallPrompt)); }

    std::unique_ptr<test::PulseAudioFixture> m_pulse;
    QStringList m_alerts;
    std::deque<bool> m_answers;
    std::unique_ptr<AppDelegate> m_delegate;
    int m_finished = 0;
};

TEST_F(CallSession, acceptedPromptRecordsUntilTheCallEnds) {
    launch();
    EXPECT_TRUE(m_delegate->callMonitor()->isPolling());
    m_answers = {true};
    ManagedProcess zoom = m_pulse->startRecordingClient();
    ASSERT_TRUE(pollUntil([&] { return m_delegate->isRecording(); })) << m_alerts.join(u'|').toStdString();
    // Our own recording now captures too; the call goes on and is not prompted again.
    pollTimes(5);
    EXPECT_TRUE(m_delegate->isRecording());
    EXPECT_EQ(prompts(), 1);

    zoom.stop();
    ASSERT_TRUE(pollUntil([&] { return !m_delegate->isRecording(); }));
    ASSERT_TRUE(test::waitUntil([&] { return m_finished == 1; }, 20s));
    EXPECT_EQ(prompts(), 1);
}

TEST_F(CallSession, callDuringARecordingStartedByHandNeitherPromptsNorStopsIt) {
    launch();
    m_delegate->startRecording();
    ASSERT_TRUE(test::waitUntil([&] { return m_delegate->isRecording(); }, 10s)) << m_alerts.join(u'|').toStdString();

    PulseMicInputQuery query;
    ManagedProcess zoom = m_pulse->startRecordingClient();
    ASSERT_TRUE(pollUntil([&] { return CallMonitor::micInputStatus(query).matched; }));
    pollTimes(3);
    zoom.stop();
    ASSERT_TRUE(pollUntil([&] { return !CallMonitor::micInputStatus(query).matched; }));
    pollTimes(3);

    EXPECT_EQ(prompts(), 0);
    EXPECT_TRUE(m_delegate->isRecording());
    EXPECT_EQ(m_finished, 0);
}

TEST_F(CallSession, ignoredPromptRecordsNothingAndANewCallAsksAgain) {
    launch();
    ManagedProcess zoom = m_pulse->startRecordingClient();
    ASSERT_TRUE(pollUntil([&] { return prompts() == 1; }));
    pollTimes(5);
    EXPECT_EQ(prompts(), 1);
    EXPECT_FALSE(m_delegate->isRecording());
    zoom.stop();
    pollUntil([] { return false; }, 300ms);
    ManagedProcess again = m_pulse->startRecordingClient();
    ASSERT_TRUE(pollUntil([&] { return prompts() == 2; }));
    EXPECT_FALSE(m_delegate->isRecording());
}

TEST_F(CallSession, detectionSwitchedOffLeavesTheMonitorIdle) {
    SettingsManager::shared().setAutoDetectCalls(false);
    launch();
    EXPECT_FALSE(m_delegate->callMonitor()->isPolling());
}

} // namespace
} // namespace tavrel
