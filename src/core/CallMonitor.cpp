#include "CallMonitor.h"

#include "core/Log.h"

#include <QPointer>
#include <array>

namespace tavrel {

namespace {

// Conferencing applications, the browsers that run web meetings, and the system's call services.
constexpr std::array<QLatin1String, 16> kCallPrefixes{
    QLatin1String("com.google.Chrome"),
    QLatin1String("com.microsoft.edgemac"),
    QLatin1String("com.brave.Browser"),
    QLatin1String("org.mozilla"),
    QLatin1String("com.apple.Safari"),
    QLatin1String("com.apple.WebKit"),
    QLatin1String("com.microsoft.teams"),
    QLatin1String("us.zoom"),
    QLatin1String("com.webex"),
    QLatin1String("Cisco-Systems.Spark"),
    QLatin1String("com.tinyspeck.slack"),
    QLatin1String("com.hnc.Discord"),
    QLatin1String("net.whatsapp"),
    QLatin1String("com.apple.FaceTime"),
    QLatin1String("com.apple.avconferenced"),
    QLatin1String("com.apple.TelephonyUtilities"),
};

} // namespace

CallMonitor::CallMonitor(std::unique_ptr<MicInputQuery> query, std::chrono::milliseconds pollIntervalMs)
    : m_query(std::move(query)), m_pollIntervalMs(pollIntervalMs), m_guard(std::make_unique<QObject>()),
      m_queryThread(std::make_unique<WorkerThread>("tavrel-calls")) {
    // One query at a time, on a thread of its own: the audio server may take its time (or its time-out)
    // to answer, and the shared worker pool may be busy merging a recording.
}

CallMonitor::~CallMonitor() = default;

void CallMonitor::start() {
    if (m_timer)
        return;
    m_timer = std::make_unique<QTimer>();
    m_timer->setInterval(m_pollIntervalMs);
    // A Qt timer of the main thread also fires inside the nested event loop of a modal dialog, so calls keep
    // being followed while the prompt (or any other alert) is up. The timer dies with the monitor.
    QObject::connect(m_timer.get(), &QTimer::timeout, m_guard.get(), [this] { tick(); });
    m_timer->start();
    logLine(QStringLiteral("[CallMonitor] Surveillance des appels/visios activée"));
}

void CallMonitor::stop() {
    m_timer.reset();
    m_callActive = false;
    m_promptedThisCall = false;
    m_pollsWithoutCall = 0;
    ++m_generation;
}

bool CallMonitor::isCallApplication(const QString& bundle) {
    for (const QLatin1String prefix : kCallPrefixes) {
        if (bundle.startsWith(prefix, Qt::CaseSensitive))
            return true;
    }
    return false;
}

std::optional<MicInputStatus> CallMonitor::micInputStatus(const std::optional<QStringList>& applications) {
    if (!applications)
        return std::nullopt;
    MicInputStatus status;
    for (const QString& bundle : *applications) {
        if (bundle.isEmpty())
            continue;
        status.bundles.append(bundle);
        if (isCallApplication(bundle))
            status.matched = true;
    }
    return status;
}

std::optional<MicInputStatus> CallMonitor::micInputStatus(MicInputQuery& query) {
    return micInputStatus(query.inputApplications());
}

void CallMonitor::tick() {
    if (m_pollWaiting)
        return;
    auto pending = poll();
}

QCoro::Task<> CallMonitor::poll() {
    if (!m_query) {
        handle(MicInputStatus{});
        co_return;
    }
    const std::shared_ptr<MicInputQuery> query = m_query;
    const auto ask = [query] { return query->inputApplications(); };
    m_pollWaiting = true;
    const int generation = m_generation;
    const QPointer<QObject> alive(m_guard.get());
    std::optional<QStringList> applications;
    bool asked = false;
    try {
        applications = co_await m_queryThread->run(ask);
        asked = true;
    } catch (const Error&) {
        // The monitor is going away.
    }
    if (!alive)
        co_return;
    m_pollWaiting = false;
    if (asked && generation == m_generation)
        handle(micInputStatus(applications));
}

void CallMonitor::handle(const std::optional<MicInputStatus>& status) {
    // The server could not be asked: nobody is known to have started or ended anything.
    if (!status)
        return;
    if (status->matched) {
        m_pollsWithoutCall = 0;
        if (!m_callActive) {
            m_callActive = true;
            const bool recording = isRecording && isRecording();
            if (!m_promptedThisCall && !recording) {
                m_promptedThisCall = true;
                promptToRecord();
            }
        }
    } else {
        if (m_callActive && ++m_pollsWithoutCall >= kPollsToEnd) {
            m_callActive = false;
            m_promptedThisCall = false;
            m_pollsWithoutCall = 0;
            if (onEnd)
                onEnd();
        }
        if (!status->bundles.isEmpty() && !m_loggedUnmatched) {
            m_loggedUnmatched = true;
            logLine(QStringLiteral("[CallMonitor] Micro utilisé mais appli non reconnue : ") +
                    status->bundles.join(QStringLiteral(", ")));
        }
    }
    if (status->bundles.isEmpty())
        m_loggedUnmatched = false;
}

void CallMonitor::promptToRecord() {
    // After the current poll returns: the prompt is modal and must not run inside the timer's slot.
    QMetaObject::invokeMethod(
        m_guard.get(),
        [this, guard = QPointer<QObject>(m_guard.get())] {
            if (!presentPrompt)
                return;
            const bool accepted = presentPrompt(QStringLiteral("Un appel a démarré"),
                                                QStringLiteral("Enregistrer cet appel avec TaVREL Recorder ?"),
                                                {QStringLiteral("Oui, enregistrer"), QStringLiteral("Ignorer")});
            // The monitor may have been destroyed while the prompt's event loop ran.
            if (accepted && guard && onStart)
                onStart();
        },
        Qt::QueuedConnection);
}

} // namespace tavrel
