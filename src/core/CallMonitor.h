#pragma once

#include "core/MicInputQuery.h"

#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <chrono>
#include <functional>
#include <memory>

namespace tavrel {

struct MicInputStatus {
    bool matched = false; ///< at least one identifier belongs to a conferencing application
    QStringList bundles;  ///< every application capturing input, in the audio server's order
};

/// Watches which applications capture the microphone and offers to record when a conferencing application
/// (or a browser) starts doing so; tells the owner when that call ends. Main thread only.
class CallMonitor {
public:
    static constexpr std::chrono::milliseconds kPollIntervalMs{2000};

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

    static MicInputStatus micInputStatus(MicInputQuery& query);
    /// Whether an application identifier begins with one of the conferencing prefixes (case-sensitive).
    static bool isCallApplication(const QString& bundle);

    /// One poll, as the timer runs it every two seconds.
    void tick();

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
    std::unique_ptr<MicInputQuery> m_query;
    std::chrono::milliseconds m_pollIntervalMs;
    // Context of queued prompts: they are dropped, not run on a dead monitor, once it is gone.
    std::unique_ptr<QObject> m_guard;
};

} // namespace tavrel
