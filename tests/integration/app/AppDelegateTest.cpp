// The delegate in the test process: the recording session with the real recorder on a private PulseAudio
// server, and without recording its launch, tray popover and settings window.
#include "AppDelegateTestBase.h"
#include "audio/AudioRecorder.h"
#include "audio/sources/SystemAudioBackends.h"
#include "core/CallMonitor.h"
#include "ui/MainPopoverController.h"
#include "ui/RecordingHUD.h"
#include "ui/SettingsForm.h"

#include <QCheckBox>
#include <QCoro/QCoroTimer>
#include <QElapsedTimer>
#include <QFile>
#include <QLineEdit>
#include <QSignalSpy>
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;

const QString kMissingAudio = QStringLiteral("⚠️ Audio du correspondant non capté");
const QString kUploadDialog = QStringLiteral("Enregistrement terminé");

class SessionControllerTest : public AppDelegateTestBase {
protected:
    static void SetUpTestSuite() {
        s_pulse = new PulseAudioFixture();
        const auto started = s_pulse->start();
        if (!started)
            ADD_FAILURE() << started.message();
    }
    static void TearDownTestSuite() {
        delete s_pulse;
        s_pulse = nullptr;
    }

    void SetUp() override {
        AppDelegateTestBase::SetUp();
        ASSERT_TRUE(s_pulse && s_pulse->isRunning());
        m_now = QDateTime::fromSecsSinceEpoch(1731772800);
    }

    /// Stops and waits for the finished file; cancels the upload dialog that follows.
    QString stopAndWait() {
        QSignalSpy finished(m_delegate.get(), &AppDelegate::recordingFinished);
        m_alerts->answer(QStringLiteral("Annuler"));
        m_delegate->stopRecording();
        if (!waitUntil([&] { return finished.size() == 1; }, 20s))
            return {};
        waitUntil([&] { return m_alerts->shownMessages().contains(kUploadDialog); }, 10s);
        return finished.at(0).at(0).toString();
    }

    static PulseAudioFixture* s_pulse;
};

PulseAudioFixture* SessionControllerTest::s_pulse = nullptr;

QString notesFileOf(const QString& recording) {
    const QFileInfo info(recording);
    return info.path() + u'/' + info.completeBaseName() + QStringLiteral(".notes.txt");
}

// A start or a stop under way shows in the popover, whose round button then does nothing; the desktop's
// requests meanwhile are not a second start or stop (a start asked during a stop follows it). Under an
// alert, the tray, the popover and the desktop's actions wait for the alert. While it records, the title's
// clock counts whole minutes and seconds since the start, pauses included; a job followed at the stop keeps
// the hourglass.
TEST_F(SessionControllerTest, BusyStartsAndStopsAndAlertsTakeNoSecondRequest) {
    launch();
    QSignalSpy finished(m_delegate.get(), &AppDelegate::recordingFinished);
    auto warnings = [&] { return m_alerts->shownMessages().count(kMissingAudio); };
    auto openPopover = [&] {
        if (!m_delegate->isPopoverShown())
            m_statusItem->click();
        return QPointer<MainPopoverController>(m_delegate->popoverController());
    };

    QPointer<MainPopoverController> popover = openPopover();
    ASSERT_TRUE(popover);
    popover->onStartStop();
    EXPECT_TRUE(m_delegate->isStarting());
    EXPECT_FALSE(m_delegate->isRecording() || m_delegate->hud().isShown()) << "nothing shows while starting";
    EXPECT_EQ(m_statusItem->icon, StatusIcon::busy);
    popover = openPopover();
    ASSERT_TRUE(popover);
    EXPECT_EQ(popover->busyCaption(), QStringLiteral("Démarrage de l'enregistrement…"));
    popover->didTapStartRow();
    m_delegate->startRecording();
    // What the popover's buttons call, kept to be pressed while the popover is gone.
    const std::function<void()> startStopButton = popover->onStartStop;
    const std::function<void()> settingsButton = popover->onSettings;

    // The warning that follows the start is up: nothing the user does elsewhere acts.
    m_alerts->answer(0, [&](const AlertSpec&) {
        EXPECT_TRUE(m_delegate->hud().isShown());
        EXPECT_EQ(m_statusItem->icon, StatusIcon::recording);
        EXPECT_TRUE(m_statusItem->titles.isEmpty()) << "the first clock title comes one second after the start";
        EXPECT_FALSE(m_delegate->isPopoverShown()) << "an open popover closes when an alert comes up";
        m_statusItem->click();
        m_delegate->showPopover();
        EXPECT_FALSE(m_delegate->isPopoverShown());
        EXPECT_TRUE(m_delegate->raiseAlertIfUp());
        startStopButton();
        settingsButton();
        EXPECT_TRUE(m_delegate->isRecording());
    });
    ASSERT_TRUE(waitUntil([&] { return m_delegate->isRecording() && !m_alerts->isAlertUp(); }, 10s));
    waitUntil([] { return false; }, 300ms); // room for a wrong second start
    EXPECT_EQ(warnings(), 1) << m_alerts->shownMessages().join(u'|').toStdString();
    EXPECT_FALSE(m_alerts->shownMessages().contains(QStringLiteral("Paramètres TaVREL Recorder")));
    EXPECT_FALSE(m_delegate->raiseAlertIfUp());

    const QDateTime start = m_now;
    for (const auto& [seconds, title] :
         {std::pair{0, "🔴0:00"}, {59, "🔴0:59"}, {60, "🔴1:00"}, {75, "🔴1:15"}, {3600, "🔴60:00"}, {3725, "🔴62:05"}}) {
        m_now = start.addMSecs(seconds * 1000 + 999); // truncated, not rounded
        m_delegate->updateStatusClock();
        EXPECT_EQ(m_delegate->statusTitle(), QString::fromUtf8(title)) << seconds;
        EXPECT_EQ(m_statusItem->title(), QString::fromUtf8(title));
    }
    for (const bool paused : {true, false}) {
        m_delegate->togglePause();
        EXPECT_EQ(m_delegate->isPaused(), paused);
        EXPECT_EQ(m_delegate->recorder().isPaused(), paused);
        EXPECT_TRUE(m_delegate->hud().isShown());
        m_now = start.addSecs(61);
        m_delegate->updateStatusClock();
        EXPECT_EQ(m_delegate->statusTitle(), QStringLiteral("🔴1:01")) << "pauses are not subtracted";
    }

    popover = openPopover();
    ASSERT_TRUE(popover);
    EXPECT_EQ(popover->busyCaption(), QString());
    popover->onStartStop();
    EXPECT_TRUE(m_delegate->isStopping());
    popover = openPopover();
    ASSERT_TRUE(popover);
    EXPECT_EQ(popover->busyCaption(), QStringLiteral("Arrêt de l'enregistrement…"));
    popover->didTapStartRow();
    m_delegate->stopRecording();
    // Asked while the recorder still finishes: the start follows the stop. Its warning and the upload dialog
    // come in either order, so both take their first button; the upload then fails on a closed port.
    SettingsManager::shared().setBackendURL(QStringLiteral("http://127.0.0.1:9/backend"));
    m_alerts->answer(0);
    m_alerts->answer(0);
    m_delegate->startRecording();
    ASSERT_TRUE(waitUntil([&] { return finished.size() == 1 && m_delegate->isRecording(); }, 20s));
    ASSERT_TRUE(waitUntil([&] { return m_alerts->shownMessages().contains(QStringLiteral("Erreur d'envoi")); }, 20s))
        << m_alerts->shownMessages().join(u'|').toStdString();
    EXPECT_EQ(warnings(), 2);
    EXPECT_EQ(popover ? popover->busyCaption() : QString(), QString());
    m_delegate->setBusyIndicator(true, QStringLiteral("⏳"));
    stopAndWait();
    EXPECT_EQ(finished.size(), 2);
    EXPECT_FALSE(m_delegate->hud().isShown());
    EXPECT_EQ(m_delegate->statusTitle(), QStringLiteral("⏳"));
    EXPECT_EQ(m_statusItem->icon, StatusIcon::busy);
    m_delegate->setBusyIndicator(false, QStringLiteral("⏳"));
    EXPECT_EQ(m_delegate->statusTitle(), QString());
    EXPECT_EQ(m_statusItem->icon, StatusIcon::idle);
}

TEST_F(SessionControllerTest, FailedStartShowsOneAlertWithTheErrorAndChangesNothing) {
    // No server behind this address: the microphone cannot start.
    m_env.set("PULSE_SERVER", (QStringLiteral("unix:") + m_dir.path() + QStringLiteral("/no-server")).toUtf8());
    QString expected;
    bool probed = false;
    AudioRecorder probe;
    // A named closure: the coroutine refers to its captures until it ends.
    auto probeStart = [&]() -> QCoro::Task<> {
        try {
            co_await probe.startRecording();
        } catch (const Error& error) {
            expected = error.localizedDescription();
        }
        probed = true;
    };
    auto probing = probeStart();
    ASSERT_TRUE(waitUntil([&] { return probed; }, 10s));
    ASSERT_FALSE(expected.isEmpty()) << "the recorder started without a server";

    launch();
    QSignalSpy changes(m_delegate.get(), &AppDelegate::recordingStateChanged);
    m_alerts->answer(0);
    m_delegate->startRecording();
    ASSERT_TRUE(waitUntil([&] { return !m_alerts->shown().empty(); }, 10s));
    waitUntil([] { return false; }, 300ms); // room for a wrong second alert
    ASSERT_EQ(m_alerts->shown().size(), 1U) << m_alerts->shownMessages().join(u'|').toStdString();
    EXPECT_EQ(m_alerts->shown().front().message, QStringLiteral("Impossible de démarrer"));
    EXPECT_EQ(m_alerts->shown().front().informativeText, expected);
    EXPECT_EQ(m_alerts->shown().front().style, AlertStyle::warning);
    EXPECT_FALSE(m_delegate->isRecording());
    EXPECT_FALSE(m_delegate->hud().isShown());
    EXPECT_TRUE(m_statusItem->titles.isEmpty());
    EXPECT_EQ(changes.size(), 0);
}

// What goes wrong while recording reaches the user: the microphone delivering only zeros for 15 s (nothing plays
// into the private server's microphone) marks its meter and is told once; the mark goes when sound comes back, and
// speech followed by the quiet of a room (a noise floor, never exact zeros) is never told. A write that fails (a
// file-size limit stands in for a full disk) is told once more, with the system's reason.
TEST_F(SessionControllerTest, CaptureFaultsAreToldOnceAndMarkTheMeter) {
    const QString speech = speechFile(QStringLiteral(
        "Bonjour à tous, le premier point concerne le budget de l'année prochaine, puis le calendrier."));
    const QString quiet = m_dir.filePath(QStringLiteral("quiet.wav"));
    ASSERT_TRUE(runCommand("ffmpeg", {"-v", "error", "-y", "-f", "lavfi", "-i",
                                      "anoisesrc=color=pink:amplitude=0.0005:sample_rate=44100:duration=17", quiet})
                    .ok());
    const QString speechThenQuiet = m_dir.filePath(QStringLiteral("speech-then-quiet.wav"));
    ASSERT_TRUE(concatenateAudio({speech, quiet}, speechThenQuiet));
    launch();
    QElapsedTimer sinceStart;
    sinceStart.start();
    m_alerts->answer(0); // the missing-audio warning
    m_delegate->startRecording();
    ASSERT_TRUE(waitUntil([&] { return m_delegate->isRecording(); }, 10s));
    const auto told = [&](const QString& title) {
        return std::count_if(m_notifier->notifications.begin(), m_notifier->notifications.end(),
                             [&](const auto& notification) { return notification.first == title; });
    };
    const QString silence = QStringLiteral("⚠️ Aucun son capté");
    ASSERT_TRUE(waitUntil([&] { return told(silence) == 1; }, 30s));
    EXPECT_GT(sinceStart.elapsed(), 14500);
    ASSERT_TRUE(m_delegate->hud().vuMeter());
    EXPECT_TRUE(m_delegate->hud().vuMeter()->warning());
    EXPECT_TRUE(m_notifier->notifications.front().second.contains(QStringLiteral("le micro")));

    ManagedProcess player = s_pulse->playIntoMicrophone(speechThenQuiet);
    EXPECT_TRUE(waitUntil([&] { return !m_delegate->hud().vuMeter()->warning(); }, 10s));
    ASSERT_EQ(player.wait(60s), 0);
    EXPECT_EQ(m_notifier->notifications.size(), 1) << "quiet is not silence";
    const QString writeFailure = QStringLiteral("⚠️ ") + QString::fromLocal8Bit(std::strerror(EFBIG));
    {
        // The microphone's file is past a byte already: its next fragment fails (they come every quarter second).
        FileSizeLimit limit(1);
        EXPECT_TRUE(waitUntil([&] { return told(writeFailure) == 1; }, 10s));
        waitUntil([] { return false; }, 1s); // room for a wrong second one
    }
    EXPECT_EQ(m_notifier->notifications.size(), 2);
    EXPECT_EQ(told(silence), 1);
    EXPECT_FALSE(stopAndWait().isEmpty()) << "what was written before the failure is the recording";
}

enum class Backends { none, tapNeedsPermission, monitorButTapNeedsPermission, monitor };

struct WarningCase {
    const char* name;
    Backends backends;
    QString message; ///< empty: no alert
    QString informativeStart;
    QStringList buttons;
    int answer;
};

const QString kOpen = QStringLiteral("Ouvrir les réglages");

class MissingAudioWarningTest : public SessionControllerTest, public ::testing::WithParamInterface<WarningCase> {};

TEST_P(MissingAudioWarningTest, WarnsAfterEveryStartWhenTheOtherSideIsNotCaptured) {
    const WarningCase& c = GetParam();
    launch([&](AppServices& services) {
        if (c.backends == Backends::none)
            return;
        SystemAudioBackends backends = linuxSystemAudioBackends();
        backends.findVirtualDevice = {};
        backends.makeVirtualDevice = {};
        if (c.backends == Backends::monitor) {
            backends.processTapSupported = {};
            backends.makeProcessTap = {};
            backends.captureAllowed = [] { return true; };
        } else {
            // A tap that the output-capture permission keeps from starting.
            backends.processTapSupported = [] { return true; };
            backends.captureAllowed = [] { return false; };
            backends.makeProcessTap = [] { return std::unique_ptr<SystemAudioSource>(); };
            if (c.backends == Backends::tapNeedsPermission)
                backends.makeScreenCapture = {};
        }
        services.audioBackends = backends;
    });
    // Twice: the warning has no memory of the previous session.
    for (int round = 0; round < 2; ++round) {
        const auto before = m_alerts->shown().size();
        if (!c.message.isEmpty())
            m_alerts->answer(c.answer);
        m_delegate->startRecording();
        ASSERT_TRUE(waitUntil([&] { return m_delegate->isRecording(); }, 10s));
        if (c.message.isEmpty()) {
            waitUntil([] { return false; }, 200ms);
            EXPECT_EQ(m_alerts->shown().size(), before) << m_alerts->shownMessages().join(u'|').toStdString();
        } else {
            ASSERT_EQ(m_alerts->shown().size(), before + 1);
            const auto& alert = m_alerts->shown().back();
            EXPECT_EQ(alert.message, c.message);
            EXPECT_TRUE(alert.informativeText.startsWith(c.informativeStart)) << alert.informativeText.toStdString();
            EXPECT_EQ(alert.buttons, c.buttons);
        }
        EXPECT_TRUE(m_delegate->isRecording()) << "the recording goes on in every case";
        const int opened = c.buttons.value(c.answer) == kOpen ? round + 1 : 0; // only its button opens the settings
        EXPECT_EQ(m_desktop->soundSettingsOpened, opened);
        EXPECT_FALSE(QFile::exists(notesFileOf(stopAndWait()))) << "no notes file without notes";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Warnings, MissingAudioWarningTest,
    ::testing::Values(
        WarningCase{"nothing_captured",
                    Backends::none,
                    kMissingAudio,
                    QStringLiteral("L'audio du correspondant n'a pas pu démarrer. Seul votre micro est enregistré."),
                    {QStringLiteral("OK")},
                    0},
        WarningCase{"permission_open",
                    Backends::tapNeedsPermission,
                    kMissingAudio,
                    QStringLiteral("Activez « Enregistrement d'écran » pour TaVREL Recorder : c'est cette permission"),
                    {kOpen, QStringLiteral("Continuer (micro seul)")},
                    0},
        WarningCase{"permission_mic_only",
                    Backends::tapNeedsPermission,
                    kMissingAudio,
                    QStringLiteral("Activez « Enregistrement d'écran »"),
                    {kOpen, QStringLiteral("Continuer (micro seul)")},
                    1},
        WarningCase{"visio_missing",
                    Backends::monitorButTapNeedsPermission,
                    QStringLiteral("⚠️ Visioconférences non captées"),
                    QStringLiteral("La voix de vos correspondants en visio (Teams, Zoom, Meet) nécessite la permission "
                                   "« Enregistrement d'écran », non accordée.\n\nLes appels téléphoniques"),
                    {kOpen, QStringLiteral("Plus tard")},
                    0},
        WarningCase{"all_captured", Backends::monitor, QString(), QString(), {}, 0}),
    [](const auto& info) { return std::string(info.param.name); });

// --- without recording: launch, tray popover, settings window ---

class AppDelegateTest : public AppDelegateTestBase {};

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
