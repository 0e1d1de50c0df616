// Launch, tray popover and settings window: the delegate without recording.
#include "AppDelegateTestBase.h"
#include "audio/AudioRecorder.h"
#include "core/CallMonitor.h"
#include "ui/MainPopoverController.h"
#include "ui/SettingsForm.h"

#include <QCheckBox>
#include <QCoro/QCoroTimer>
#include <QFile>
#include <QLineEdit>

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;

class AppDelegateTest : public AppDelegateTestBase {};

// --- launch ---

// The check for unsent recordings waits for the recovery at launch, however long it takes, so that it offers
// what recovery made rather than the pieces it started from.
QCoro::Task<> recoveryMakingARecording(std::chrono::milliseconds durationMs, QString recording) {
    co_await QCoro::sleepFor(durationMs);
    QFile file(recording);
    file.open(QIODevice::WriteOnly);
}

TEST_F(AppDelegateTest, PendingCheckWaitsForTheRecoveryAtLaunch) {
    const QString recovered = AudioRecorder::recordingsDir() + QStringLiteral("/tavrel_merged_2.m4a");
    launch([&](AppServices& services) {
        m_alerts->answer(QStringLiteral("Plus tard"));
        services.pendingCheckDelayMs = 50ms;
        services.recoverInterruptedRecordings = [recovered] { return recoveryMakingARecording(600ms, recovered); };
    });
    ASSERT_TRUE(waitUntil([&] { return !m_alerts->shown().empty(); }, 10s));
    EXPECT_EQ(m_alerts->shownMessages(), QStringList{QStringLiteral("1 enregistrement(s) non envoyé(s)")});
}

// --- the popover ---

TEST_F(AppDelegateTest, TrayClickTogglesAFreshPopoverUnderTheClick) {
    launch();
    EXPECT_EQ(m_delegate->popoverController(), nullptr) << "no popover before the first click";
    m_statusItem->click(QPoint(700, 10));
    ASSERT_TRUE(m_delegate->isPopoverShown());
    QPointer<MainPopoverController> first = m_delegate->popoverController();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->size(), QSize(300, 148));
    EXPECT_TRUE(first->geometry().contains(QPoint(700, first->geometry().top() + 1)));
    EXPECT_GE(first->geometry().top(), 10) << "under a tray at the top of the screen";
    EXPECT_FALSE(first->isRecording());

    m_statusItem->click(QPoint(700, 10));
    EXPECT_FALSE(m_delegate->isPopoverShown());
    m_statusItem->click(QPoint(700, 10));
    ASSERT_TRUE(m_delegate->isPopoverShown());
    EXPECT_NE(m_delegate->popoverController(), first.data());
    waitUntil([&] { return first.isNull(); }, 1s);
    EXPECT_TRUE(first.isNull()) << "a closed popover is dropped with its controller";
}

// --- the settings window ---

SettingsForm* formOf(const AlertSpec& alertSpec) {
    return qobject_cast<SettingsForm*>(alertSpec.accessory);
}

// Opened from the popover's settings button, which closes the popover. (Call detection is off here: its
// monitor exists all the same, idle.)
TEST_F(AppDelegateTest, NewUserSeesTheDefaultsAndCancelChangesNothing) {
    launch();
    ASSERT_NE(m_delegate->callMonitor(), nullptr);
    EXPECT_FALSE(m_delegate->callMonitor()->isPolling());
    QFile::remove(SettingsManager::filePath());
    bool inspected = false;
    m_alerts->answer(QStringLiteral("Annuler"), [&](const AlertSpec& alertSpec) {
        SettingsForm* form = formOf(alertSpec);
        ASSERT_NE(form, nullptr);
        EXPECT_EQ(form->backendField()->text(), SettingsManager::defaultBackendURL());
        EXPECT_EQ(form->backendField()->placeholderText(), SettingsManager::defaultBackendURL());
        EXPECT_EQ(form->webField()->text(), SettingsManager::defaultWebURL());
        EXPECT_EQ(form->webField()->placeholderText(), SettingsManager::defaultWebURL());
        EXPECT_EQ(form->tokenField()->text(), QString());
        EXPECT_EQ(form->tokenField()->placeholderText(), QStringLiteral("Token JWT"));
        EXPECT_EQ(form->tokenField()->echoMode(), QLineEdit::Password);
        EXPECT_TRUE(form->autoDetectCallsBox()->isChecked());
        EXPECT_FALSE(form->launchAtLoginBox()->isChecked());
        EXPECT_EQ(form->launchAtLoginBox()->text(), QStringLiteral("Ouvrir TaVREL Recorder à la connexion"));
        EXPECT_EQ(form->autoDetectCallsBox()->text(),
                  QStringLiteral("Proposer d'enregistrer quand un appel ou une visio démarre"));
        EXPECT_EQ(form->autoDetectCallsBox()->toolTip(),
                  QStringLiteral("Détecte quand Teams, Zoom, Google Meet, FaceTime ou un appel téléphonique utilise "
                                 "le micro, et propose alors d'enregistrer."));
        EXPECT_EQ(form->backendField()->width(), 380);
        form->backendField()->setText(QStringLiteral("http://ne-doit-pas-rester"));
        form->autoDetectCallsBox()->setChecked(false);
        inspected = true;
    });
    m_statusItem->click();
    ASSERT_TRUE(m_delegate->popoverController());
    m_delegate->popoverController()->onSettings();
    EXPECT_FALSE(m_delegate->isPopoverShown());
    ASSERT_TRUE(inspected);
    ASSERT_EQ(m_alerts->shown().size(), 1U);
    const auto& alert = m_alerts->shown().front();
    EXPECT_EQ(alert.message, QStringLiteral("Paramètres TaVREL Recorder"));
    EXPECT_EQ(alert.informativeText, QStringLiteral("Version ") + AppDelegate::appVersionString());
    EXPECT_EQ(alert.buttons, (QStringList{QStringLiteral("Enregistrer"), QStringLiteral("Annuler")}));
    EXPECT_FALSE(QFile::exists(SettingsManager::filePath())) << "nothing stored on Annuler";
    EXPECT_TRUE(m_loginItem->calls.isEmpty());
}

TEST_F(AppDelegateTest, SaveStoresEveryFieldAndAppliesCallDetectionEvenWhenTheLoginItemFails) {
    SettingsManager::shared().setAutoDetectCalls(true);
    launch();
    ASSERT_TRUE(m_delegate->callMonitor()->isPolling());
    m_alerts->answer(QStringLiteral("Enregistrer"), [](const AlertSpec& alertSpec) {
        SettingsForm* form = formOf(alertSpec);
        form->backendField()->clear();
        form->webField()->setText(QStringLiteral(" https://web.exemple.fr/app/ "));
        form->tokenField()->setText(QStringLiteral("jeton-secret"));
        form->launchAtLoginBox()->setChecked(true);
        form->autoDetectCallsBox()->setChecked(false);
    });
    m_delegate->openSettings();

    SettingsManager& settings = SettingsManager::shared();
    EXPECT_EQ(settings.backendURL(), QString()) << "an emptied field is stored empty, not replaced by the default";
    EXPECT_EQ(settings.webURL(), QStringLiteral(" https://web.exemple.fr/app/ "));
    EXPECT_EQ(settings.token(), QStringLiteral("jeton-secret"));
    EXPECT_FALSE(settings.autoDetectCalls());
    EXPECT_EQ(m_loginItem->calls, QList<bool>{true});
    EXPECT_FALSE(m_delegate->callMonitor()->isPolling());

    // The next opening shows the empty field with the default as placeholder; saving unchanged still
    // registers the login item again, and its failure is shown while the rest is still saved.
    m_loginItem->failWith = QStringLiteral("dossier en lecture seule");
    m_alerts->answer(QStringLiteral("Enregistrer"), [](const AlertSpec& alertSpec) {
        SettingsForm* form = formOf(alertSpec);
        EXPECT_EQ(form->backendField()->text(), QString());
        EXPECT_EQ(form->backendField()->placeholderText(), SettingsManager::defaultBackendURL());
        EXPECT_TRUE(form->launchAtLoginBox()->isChecked());
        EXPECT_FALSE(form->autoDetectCallsBox()->isChecked());
        form->autoDetectCallsBox()->setChecked(true);
    });
    m_alerts->answer(0);
    m_delegate->openSettings();
    EXPECT_EQ(m_loginItem->calls, (QList<bool>{true, true}));
    ASSERT_EQ(m_alerts->shown().size(), 3U) << m_alerts->shownMessages().join(u'|').toStdString();
    const auto& error = m_alerts->shown().back();
    EXPECT_EQ(error.message, QStringLiteral("Erreur"));
    EXPECT_EQ(error.informativeText,
              QStringLiteral("Impossible de modifier le démarrage automatique : dossier en lecture seule"));
    EXPECT_EQ(error.style, AlertStyle::warning);
    EXPECT_TRUE(settings.autoDetectCalls()) << "stored after the failed login-item step";
    EXPECT_TRUE(m_delegate->callMonitor()->isPolling());
    EXPECT_EQ(settings.backendURL(), QString());
}

} // namespace
} // namespace tavrel::test
