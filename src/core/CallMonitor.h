#pragma once

#include "core/MicInputQuery.h"
#include "core/WorkerThread.h"

#include <QCoro/QCoroTask>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace tavrel {

struct MicInputStatus {
    bool matched = false; ///< at least one identifier belongs to a conferencing application
    QStringList bundles;  ///< every application capturing input, in the audio server's order
};

/// Watches which applications capture the microphone and offers to record when a conferencing application
/// (or a browser) starts doing so; tells the owner when that call ends. The audio server is asked on the
/// monitor's own thread; everything else runs on the main thread.
///
/// A call ends only after `kPollsToEnd` answered polls in a row without any conferencing application: a
/// client that drops its stream for a moment (a mute, a device change, the audio server restarting)
/// is still in the same call when it comes back within those polls. A poll the server could not answer
/// says nothing: it neither starts nor ends a call, nor counts toward the end.
class CallMonitor {
public:
    static constexpr std::chrono::milliseconds kPollIntervalMs{2000};
    static constexpr int kPollsToEnd = 3;

    /// The prompt: returns true when the user chose the first button.
    using PromptPresenter =
        std::function<bool(const QString& message, const QString& informativeText, const QStringList& buttons)>;

    explicit CallMonitor(std::unique_ptr<MicInputQuery> query,
                         std::chrono::milliseconds pollIntervalMs = kPollIntervalMs);
    ~CallMonitor();
    CallMonitor(const CallMonitor&) = delete;
    CallMonitor& operator=(const CallMonitor&) = delete;

    /// Starts polling; harmless when already polling.
    void start();
    /// Stops polling and forgets the current call, without calling `onEnd`.
    void stop();
    bool isPolling() const { return m_timer != nullptr; }

    /// What a query's answer means: nothing when the server could not be asked.
    static std::optional<MicInputStatus> micInputStatus(const std::optional<QStringList>& applications);
    /// The same, asking `query` on the calling thread.
    static std::optional<MicInputStatus> micInputStatus(MicInputQuery& query);
    /// Whether an application identifier begins with one of the conferencing prefixes (case-sensitive).
    static bool isCallApplication(const QString& bundle);

    /// One poll, as the timer runs it every two seconds: the query goes to the monitor's thread and its
    /// answer is handled on this thread when it comes. Skipped while the previous poll still waits.
    void tick();
    /// The same, resumed once the answer has been handled.
    QCoro::Task<> poll();
    /// The call states on one poll's answer (nothing: the server could not be asked).
    void handle(const std::optional<MicInputStatus>& status);

    std::function<void()> onStart; ///< the user accepted the prompt
    std::function<void()> onEnd;   ///< a call ended
    std::function<bool()> isRecording;
    PromptPresenter presentPrompt; ///< none: the prompt counts as declined

private:
    void promptToRecord();

    std::unique_ptr<QTimer> m_timer;
    bool m_callActive = false;
    bool m_promptedThisCall = false;
    bool m_loggedUnmatched = false;
    int m_pollsWithoutCall = 0;
    bool m_pollWaiting = false;
    int m_generation = 0; ///< changes at stop(): an answer asked for before belongs to a forgotten call
    std::shared_ptr<MicInputQuery> m_query;
    std::chrono::milliseconds m_pollIntervalMs;
    // Context of queued prompts and of answers: they are dropped, not run on a dead monitor, once it is gone.
    std::unique_ptr<QObject> m_guard;
    // Declared last: destroyed first, waiting for a query still running.
    std::unique_ptr<WorkerThread> m_queryThread;
};

} // namespace tavrel
