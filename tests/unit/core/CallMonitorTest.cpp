#include "core/CallMonitor.h"

#include "core/Log.h"

#include <QCoreApplication>
#include <QCoro/QCoroTask>
#include <QEventLoop>
#include <QThread>
#include <atomic>
#include <deque>
#include <gtest/gtest.h>

namespace tavrel {
namespace {

// Answers every poll with what the test says is capturing input right now (nothing: the server could not
// be asked), and notes the thread it was asked on.
class ScriptedQuery : public MicInputQuery {
public:
    explicit ScriptedQuery(const std::optional<QStringList>* current) : m_current(current) {}
    std::optional<QStringList> inputApplications() override {
        askedOn = QThread::currentThread();
        return *m_current;
    }
    std::atomic<QThread*> askedOn{nullptr};

private:
    const std::optional<QStringList>* m_current;
};

void drainEvents() {
    QCoreApplication::processEvents(QEventLoop::AllEvents);
}

// Everything the monitor does to its owner and to the log, in order.
struct Harness {
    std::optional<QStringList> capturing;
    bool recording = false;
    std::deque<bool> answers; // prompt answers in order; missing answers decline
    QStringList trace;
    LogCapture capture{[this](const QString& line) { trace << QStringLiteral("log:") + line; }};
    CallMonitor monitor;

    Harness() : monitor(std::make_unique<ScriptedQuery>(&capturing)) {
        monitor.isRecording = [this] { return recording; };
        monitor.onStart = [this] { trace << QStringLiteral("start"); };
        monitor.onEnd = [this] { trace << QStringLiteral("end"); };
        monitor.presentPrompt = [this](const QString& message, const QString& informative, const QStringList& buttons) {
            trace << QStringLiteral("prompt");
            EXPECT_EQ(message, QStringLiteral("Un appel a démarré"));
            EXPECT_EQ(informative, QStringLiteral("Enregistrer cet appel avec TaVREL Recorder ?"));
            EXPECT_EQ(buttons, (QStringList{QStringLiteral("Oui, enregistrer"), QStringLiteral("Ignorer")}));
            if (answers.empty())
                return false;
            const bool answer = answers.front();
            answers.pop_front();
            return answer;
        };
    }

    // One answered poll (nothing: a query that failed), handled as the poll's end handles it.
    void poll(const std::optional<QStringList>& apps) {
        monitor.handle(CallMonitor::micInputStatus(apps));
        drainEvents();
    }
};

const QString kUnknown = QStringLiteral("[CallMonitor] Micro utilisé mais appli non reconnue : ");

// The identifiers that stream identification produces are checked with it; these are the prefix edges.
TEST(CallMonitor, callApplicationsMatchByCaseSensitivePrefix) {
    for (const char* call : {"com.google.Chrome.helper", "com.microsoft.edgemac.Canary", "org.mozillaX",
                             "com.apple.Safari", "com.apple.WebKit.GPU", "com.microsoft.teams2", "Cisco-Systems.Spark",
                             "com.apple.FaceTime", "com.apple.avconferenced", "com.apple.TelephonyUtilities"})
        EXPECT_TRUE(CallMonitor::isCallApplication(QString::fromUtf8(call))) << call;
    for (const char* other : {"com.example.recorder", "com.google.chrome", "Us.zoom.xos", "us.zoo",
                              "com.microsoft.Teams", "x.us.zoom", "fr.tavrel.Recorder", ""})
        EXPECT_FALSE(CallMonitor::isCallApplication(QString::fromUtf8(other))) << other;
}

const QStringList kZoom{QStringLiteral("us.zoom.xos")};
const QStringList kNone{};
const QStringList kOther{QStringLiteral("com.example.recorder")};
const QStringList kUnanswered{QStringLiteral("<the server did not answer>")};

// A run of polls and what the owner and the log saw, in order. The plain cases (a declined or accepted
// call, a call during a recording, a muted client, a restarting server) run against a real server in the
// integration tests; these are the edges, and the log of unknown applications.
struct Scenario {
    const char* name;
    std::vector<std::pair<QStringList, bool>> polls; // capturing applications (or kUnanswered), recording at that poll
    std::deque<bool> answers;
    QStringList expected;
    bool withPresenter = true; ///< without one, a call is taken as declined
};

void PrintTo(const Scenario& s, std::ostream* os) {
    *os << s.name;
}

class CallStates : public ::testing::TestWithParam<Scenario> {};

TEST_P(CallStates, followTheCallTable) {
    Harness h;
    h.answers = GetParam().answers;
    if (!GetParam().withPresenter)
        h.monitor.presentPrompt = nullptr;
    for (const auto& [apps, recording] : GetParam().polls) {
        h.recording = recording;
        h.poll(apps == kUnanswered ? std::nullopt : std::optional(apps));
    }
    EXPECT_EQ(h.trace, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Calls, CallStates,
    ::testing::Values(
        Scenario{"recordingStoppedMidCallStillNoPrompt", {{kZoom, true}, {kZoom, false}}, {}, {}},
        Scenario{"everyIdentifierJoinedInOrderWithDuplicates",
                 {{{"b.app", "a.app", "b.app"}, false}},
                 {},
                 {"log:" + kUnknown + "b.app, a.app, b.app"}},
        Scenario{"knownApplicationAmongUnknownsIsACallAndNotLogged",
                 {{{"com.example.recorder", "com.google.Chrome.helper"}, false}},
                 {},
                 {"prompt"}},
        Scenario{"callEndingIntoUnknownUseLogsAtOnceAndEndsAtTheThirdPoll",
                 {{kZoom, false}, {kOther, false}, {kOther, false}, {kOther, false}},
                 {},
                 {"prompt", "log:" + kUnknown + "com.example.recorder", "end"}},
        // One poll with the microphone free ends a stretch of unknown use; the next stretch is logged again.
        Scenario{"unknownUseLoggedOncePerStretch",
                 {{kOther, false}, {kOther, false}, {kNone, false}, {kOther, false}, {kOther, false}},
                 {},
                 {"log:" + kUnknown + "com.example.recorder", "log:" + kUnknown + "com.example.recorder"}},
        Scenario{"unknownDuringCallStretchNotLoggedAgainAfterCall",
                 {{kOther, false}, {kOther + kZoom, false}, {kOther, false}, {kOther, false}, {kOther, false}},
                 {},
                 {"log:" + kUnknown + "com.example.recorder", "prompt", "end"}},
        // Two polls without the client, then back: the same call, not prompted again, not ended.
        Scenario{"callBackWithinThreePollsIsTheSameCall",
                 {{kZoom, false}, {kNone, false}, {kNone, false}, {kZoom, false}, {kNone, false}, {kNone, false}},
                 {},
                 {"prompt"}},
        // Unanswered polls neither start, nor end, nor count toward the end, nor break the run of absences.
        Scenario{"unansweredPollsAreUnknown",
                 {{kUnanswered, false},
                  {kZoom, false},
                  {kNone, false},
                  {kUnanswered, false},
                  {kUnanswered, false},
                  {kNone, false},
                  {kUnanswered, false},
                  {kNone, false}},
                 {},
                 {"prompt", "end"}},
        Scenario{"declinedCallPromptsAgainOnlyAfterItEnded",
                 {{kZoom, false}, {kZoom, false}, {kNone, false}, {kNone, false}, {kNone, false}, {kZoom, false}},
                 {false, true},
                 {"prompt", "end", "prompt", "start"}},
        Scenario{"emptyIdentifierNeitherCountedNorLogged",
                 {{{""}, false}, {{"", "x.y"}, false}},
                 {},
                 {"log:" + kUnknown + "x.y"}},
        Scenario{"withoutPresenterTheCallIsTakenAsDeclined",
                 {{kZoom, false}, {kNone, false}, {kNone, false}, {kNone, false}},
                 {},
                 {"end"},
                 false}),
    [](const ::testing::TestParamInfo<Scenario>& info) { return std::string(info.param.name); });

TEST(CallMonitor, stopForgetsTheCallWithoutEndingItAndKeepsTheUnknownStretch) {
    Harness h;
    h.poll(kOther);
    h.monitor.stop();
    h.poll(kOther); // the same stretch of unknown use: not logged again
    h.poll(kZoom);
    h.poll(kNone);
    h.monitor.stop(); // also forgets the absences counted so far
    h.poll(kZoom);    // a restarted monitor sees the same call as a new one
    for (int i = 0; i < CallMonitor::kPollsToEnd; ++i)
        h.poll(kNone);
    EXPECT_EQ(h.trace, (QStringList{"log:" + kUnknown + "com.example.recorder", "prompt", "prompt", "end"}));
}

TEST(CallMonitor, queryRunsOffTheMainThreadAndThePromptAfterThePollReturns) {
    std::optional<QStringList> capturing = kZoom;
    auto query = std::make_unique<ScriptedQuery>(&capturing);
    ScriptedQuery& asked = *query;
    int prompts = 0;
    CallMonitor monitor(std::move(query));
    monitor.presentPrompt = [&](const QString&, const QString&, const QStringList&) { return ++prompts, false; };
    QCoro::waitFor(monitor.poll());
    ASSERT_NE(asked.askedOn.load(), nullptr);
    EXPECT_NE(asked.askedOn.load(), QThread::currentThread());
    EXPECT_EQ(prompts, 0) << "prompt shown inside the poll";
    drainEvents();
    EXPECT_EQ(prompts, 1);
}

TEST(CallMonitor, promptsAndAnswersDroppedWithTheMonitor) {
    int shown = 0;
    const std::optional<QStringList> capturing = kZoom;
    {
        CallMonitor monitor(std::make_unique<ScriptedQuery>(&capturing));
        monitor.presentPrompt = [&](const QString&, const QString&, const QStringList&) { return ++shown, true; };
        monitor.handle(CallMonitor::micInputStatus(capturing));
        monitor.tick(); // its answer comes after the monitor is gone
    }
    drainEvents();
    EXPECT_EQ(shown, 0);
}

} // namespace
} // namespace tavrel
