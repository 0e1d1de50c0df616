// The call monitor polling a real PulseAudio server, with recording clients posing as applications.
#include "PulseAudioFixture.h"
#include "Wait.h"
#include "audio/pulse/PulseMicInputQuery.h"
#include "core/CallMonitor.h"
#include "core/Log.h"

#include <QCoro/QCoroTask>
#include <QDialog>
#include <QElapsedTimer>
#include <QTimer>
#include <gtest/gtest.h>

namespace tavrel {
namespace {

using namespace std::chrono_literals;
using test::ManagedProcess;

class CallMonitorOnPulse : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_pulse.start()); }

    static bool micInUse() {
        PulseMicInputQuery query;
        const std::optional<MicInputStatus> status = CallMonitor::micInputStatus(query);
        return status && !status->bundles.isEmpty();
    }

    test::PulseAudioFixture m_pulse;
    QStringList m_log;
    LogCapture m_capture{[this](const QString& line) { m_log << line; }};
    CallMonitor m_monitor{std::make_unique<PulseMicInputQuery>()};
};

// The real two-second timer, and a real modal dialog: polling goes on inside the dialog's event loop, so a
// call that ends while the prompt is up is reported (after its three polls without the client), and
// accepting afterwards still starts.
TEST_F(CallMonitorOnPulse, realTimerKeepsPollingWhileTheModalPromptRuns) {
    ManagedProcess zoom = m_pulse.startRecordingClient();
    ASSERT_TRUE(test::waitUntil([&] { return micInUse(); }, 5s));
    QStringList order;
    m_monitor.isRecording = [] { return false; };
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
        QTimer::singleShot(16000, &dialog, &QDialog::reject);
        return dialog.exec() == QDialog::Accepted;
    };

    QElapsedTimer clock;
    clock.start();
    m_monitor.start();
    m_monitor.start(); // a second start keeps one timer and logs once
    EXPECT_EQ(m_log, QStringList{QStringLiteral("[CallMonitor] Surveillance des appels/visios activée")});
    ASSERT_TRUE(test::waitUntil([&] { return order.contains(QStringLiteral("start")); }, 20s))
        << order.join(u',').toStdString();
    EXPECT_EQ(order, (QStringList{"prompt", "end", "start"}));
    // First poll one interval after start (coarse timers may fire 5 % early), the end three polls later.
    EXPECT_GE(clock.elapsed(), CallMonitor::kPollIntervalMs.count() * (1 + CallMonitor::kPollsToEnd) * 9 / 10);
    m_monitor.stop();
    EXPECT_FALSE(m_monitor.isPolling());
}

} // namespace
} // namespace tavrel
