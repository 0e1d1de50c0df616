// The settings window and launch at login.
#include "AppDelegate.h"
#include "core/CallMonitor.h"
#include "core/SettingsManager.h"
#include "platform/LoginItem.h"
#include "ui/SettingsForm.h"

namespace tavrel {

void AppDelegate::openSettings() {
    SettingsManager& settings = SettingsManager::shared();
    SettingsFormValues values;
    values.backendURL = settings.backendURL();
    values.backendPlaceholder = SettingsManager::defaultBackendURL();
    values.webURL = settings.webURL();
    values.webPlaceholder = SettingsManager::defaultWebURL();
    values.token = settings.token();
    values.launchAtLogin = m_services.loginItem && m_services.loginItem->isEnabled();
    values.autoDetectCalls = settings.autoDetectCalls();
    SettingsForm form(values);

    AlertSpec alert;
    alert.message = QStringLiteral("Paramètres TaVREL Recorder");
    alert.informativeText = QStringLiteral("Version ") + appVersionString();
    alert.buttons = {QStringLiteral("Enregistrer"), QStringLiteral("Annuler")};
    alert.accessory = &form;
    if (m_services.alerts->run(alert) != kFirstButton)
        return;

    settings.setBackendURL(form.backendURL());
    settings.setWebURL(form.webURL());
    settings.setToken(form.token());
    setLaunchAtLogin(form.launchAtLogin());
    settings.setAutoDetectCalls(form.autoDetectCalls());
    if (m_callMonitor) {
        if (settings.autoDetectCalls())
            m_callMonitor->start();
        else
            m_callMonitor->stop();
    }
}

void AppDelegate::setLaunchAtLogin(bool enabled) {
    if (!m_services.loginItem)
        return;
    try {
        m_services.loginItem->setEnabled(enabled);
    } catch (const Error& error) {
        AlertSpec alert;
        alert.message = QStringLiteral("Erreur");
        alert.informativeText =
            QStringLiteral("Impossible de modifier le démarrage automatique : ") + error.localizedDescription();
        alert.style = AlertStyle::warning;
        m_services.alerts->run(alert);
    }
}

} // namespace tavrel
