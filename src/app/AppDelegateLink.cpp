// The account link and the call monitor's wiring: the two ways the outside world starts things here.
#include "AppDelegate.h"
#include "audio/pulse/PulseMicInputQuery.h"
#include "core/AuthLink.h"
#include "core/CallMonitor.h"
#include "core/SettingsManager.h"
#include "ui/Alert.h"

namespace tavrel {

void AppDelegate::application(const QList<QUrl>& urls) {
    QStringList links;
    links.reserve(urls.size());
    for (const QUrl& url : urls)
        links << url.toString(QUrl::FullyEncoded);
    application(links);
}

void AppDelegate::application(const QStringList& links) {
    // A malformed, partial or foreign link is ignored without a word: it may come from any web page.
    const std::optional<AuthLink> link = AuthLink::fromLinks(links);
    if (!link)
        return;
    SettingsManager& settings = SettingsManager::shared();
    settings.setToken(link->token);
    settings.setBackendURL(link->backendURL);
    notify(QStringLiteral("✅ TaVREL Recorder lié"), QStringLiteral("Token et serveur configurés automatiquement."));
}

void AppDelegate::setupCallMonitor() {
    std::unique_ptr<MicInputQuery> query = std::move(m_services.micInputQuery);
    if (!query)
        query = std::make_unique<PulseMicInputQuery>();
    auto monitor = std::make_unique<CallMonitor>(std::move(query));

    const QPointer<AppDelegate> weak(this);
    monitor->isRecording = [weak] { return weak && weak->m_isRecording; };
    monitor->onStart = [weak] {
        if (!weak || weak->m_isRecording)
            return;
        weak->m_autoStartedRecording = true;
        weak->startRecording();
    };
    monitor->onEnd = [weak] {
        if (weak && weak->m_isRecording && weak->m_autoStartedRecording)
            weak->stopRecording();
    };
    monitor->presentPrompt = [weak](const QString& message, const QString& informativeText,
                                    const QStringList& buttons) {
        if (!weak || !weak->m_services.alerts)
            return false;
        AlertSpec alertSpec;
        alertSpec.message = message;
        alertSpec.informativeText = informativeText;
        alertSpec.buttons = buttons;
        return weak->m_services.alerts->run(alertSpec) == kFirstButton;
    };
    m_callMonitor = std::move(monitor);

    if (SettingsManager::shared().autoDetectCalls())
        m_callMonitor->start();
    else
        m_callMonitor->stop();
}

} // namespace tavrel
