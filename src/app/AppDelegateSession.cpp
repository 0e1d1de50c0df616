// The recording session: start, stop, pause, notes, and the status item's clock.
#include "AppDelegate.h"
#include "core/Log.h"
#include "platform/Desktop.h"
#include "platform/StatusItem.h"
#include "ui/CircleButton.h"
#include "ui/HUDView.h"
#include "ui/MainPopoverController.h"
#include "ui/NoteField.h"
#include "ui/RecordingHUD.h"
#include "ui/VUMeterView.h"

#include <utility>

namespace tavrel {

namespace {

constexpr std::chrono::milliseconds kClockIntervalMs{1000};
const QString kPermissionReason = QStringLiteral("permission");

} // namespace

void AppDelegate::startRecording() {
    if (m_sessionTask == SessionTask::starting)
        return;
    if (m_sessionTask == SessionTask::stopping) {
        // The recorder is still finishing the previous recording (merging takes seconds): start right after.
        m_startWhenStopped = true;
        return;
    }
    m_sessionTask = SessionTask::starting;
    showSessionTask();
    runStart();
}

void AppDelegate::showSessionTask() {
    if (m_popoverController) {
        QString caption;
        if (m_sessionTask == SessionTask::starting)
            caption = QStringLiteral("Démarrage de l'enregistrement…");
        else if (m_sessionTask == SessionTask::stopping)
            caption = QStringLiteral("Arrêt de l'enregistrement…");
        m_popoverController->setBusyCaption(caption);
    }
    refreshStatusIcon();
}

QCoro::Task<> AppDelegate::runStart() {
    const QPointer<AppDelegate> self(this);
    m_recorder.setEventHandler([self](const CaptureEvent& event) {
        if (self)
            self->onCaptureEvent(event);
    });
    QString failure;
    try {
        co_await m_recorder.startRecording();
    } catch (const Error& error) {
        failure = error.localizedDescription();
    } catch (const std::exception& error) {
        failure = QString::fromUtf8(error.what());
    }
    if (!self)
        co_return;
    m_sessionTask = SessionTask::none;
    showSessionTask();
    const bool stopAtOnce = std::exchange(m_stopWhenStarted, false);
    if (!failure.isNull()) {
        AlertSpec alert;
        alert.message = QStringLiteral("Impossible de démarrer");
        alert.informativeText = failure;
        alert.style = AlertStyle::warning;
        m_services.alerts->run(alert);
        co_return;
    }
    m_isRecording = true;
    m_startTime = now();
    startTimer();
    m_hud->show(m_recorder.systemAudioActive());
    if (m_popoverController)
        m_popoverController->setIsRecording(true);
    refreshStatusIcon();
    emit recordingStateChanged();
    if (stopAtOnce) {
        stopRecording();
        co_return;
    }
    warnIfSystemAudioMissing();
}

void AppDelegate::onCaptureEvent(const CaptureEvent& event) {
    if (const std::optional<Notification> notification = notificationFor(event))
        notify(notification->title, notification->body);
    if (event.kind == CaptureEvent::Kind::silenceStarted || event.kind == CaptureEvent::Kind::silenceEnded)
        m_hud->setMeterWarning(event.side != CaptureSide::microphone, event.kind == CaptureEvent::Kind::silenceStarted);
}

void AppDelegate::warnIfSystemAudioMissing() {
    const QString openSettingsButton = QStringLiteral("Ouvrir les réglages");
    if (!m_recorder.systemAudioActive()) {
        const bool permission = m_recorder.systemAudioUnavailableReason() == kPermissionReason;
        AlertSpec alert;
        alert.message = QStringLiteral("⚠️ Audio du correspondant non capté");
        alert.style = AlertStyle::warning;
        if (permission) {
            alert.informativeText = QStringLiteral(
                "Activez « Enregistrement d'écran » pour TaVREL Recorder : c'est cette permission qui lui "
                "permet de capter automatiquement la voix de vos correspondants — visioconférences "
                "(Teams/Zoom/Meet) COMME appels téléphoniques — sans aucun réglage audio à faire.\n\n"
                "Cliquez sur « Ouvrir les réglages », activez TaVREL Recorder, puis relancez un "
                "enregistrement.");
            alert.buttons = {openSettingsButton, QStringLiteral("Continuer (micro seul)")};
        } else {
            alert.informativeText =
                QStringLiteral("L'audio du correspondant n'a pas pu démarrer. Seul votre micro est enregistré.");
            alert.buttons = {QStringLiteral("OK")};
        }
        const int response = m_services.alerts->run(alert);
        if (permission && response == kFirstButton && m_services.desktop)
            m_services.desktop->openSoundSettings();
        return;
    }
    if (m_recorder.screenCapturePermissionMissing()) {
        AlertSpec alert;
        alert.message = QStringLiteral("⚠️ Visioconférences non captées");
        alert.informativeText =
            QStringLiteral("La voix de vos correspondants en visio (Teams, Zoom, Meet) nécessite la permission "
                           "« Enregistrement d'écran », non accordée.\n\n"
                           "Les appels téléphoniques (iPhone) sont bien captés. Activez la permission pour couvrir "
                           "aussi les visios.");
        alert.buttons = {openSettingsButton, QStringLiteral("Plus tard")};
        alert.style = AlertStyle::warning;
        if (m_services.alerts->run(alert) == kFirstButton && m_services.desktop)
            m_services.desktop->openSoundSettings();
    }
}

void AppDelegate::stopRecording() {
    if (m_sessionTask == SessionTask::stopping)
        return;
    if (m_sessionTask == SessionTask::starting) {
        // Stopped before the recorder answered: the recording stops as soon as it has started.
        m_stopWhenStarted = true;
        return;
    }
    m_isRecording = false;
    m_isPaused = false;
    m_autoStartedRecording = false;
    stopTimer();
    m_hud->hide();
    if (m_popoverController) {
        m_popoverController->setIsRecording(false);
        m_popoverController->setIsPaused(false);
    }
    m_sessionTask = SessionTask::stopping;
    showSessionTask();
    emit recordingStateChanged();
    runStop();
}

QCoro::Task<> AppDelegate::runStop() {
    const QPointer<AppDelegate> self(this);
    // The recorder writes the notes file beside the recording before it lets go of the recording's journal,
    // so that a crash in between still finds the notes.
    const std::optional<QString> fileURL = co_await m_recorder.stopRecording();
    if (!self)
        co_return;
    m_sessionTask = SessionTask::none;
    showSessionTask();
    if (std::exchange(m_startWhenStopped, false))
        startRecording();
    if (!fileURL)
        co_return;
    emit recordingFinished(*fileURL);
    showUploadDialog(*fileURL);
}

void AppDelegate::togglePause() {
    m_isPaused = !m_isPaused;
    if (m_isPaused)
        m_recorder.pauseRecording();
    else
        m_recorder.resumeRecording();
    if (m_popoverController)
        m_popoverController->setIsPaused(m_isPaused);
    emit recordingStateChanged();
}

void AppDelegate::promptNote() {
    NoteField field;
    AlertSpec alert;
    alert.message = QStringLiteral("Ajouter une note");
    alert.buttons = {QStringLiteral("OK"), QStringLiteral("Annuler")};
    alert.accessory = &field;
    if (m_services.alerts->run(alert) != kFirstButton)
        return;
    addNote(field.text());
}

void AppDelegate::addNote(const QString& text) {
    // Kept exactly as typed: a note of spaces is a note, an empty one is not.
    if (!text.isEmpty())
        m_recorder.addNote(text);
}

void AppDelegate::startTimer() {
    m_timer = std::make_unique<QTimer>();
    m_timer->setInterval(kClockIntervalMs);
    connect(m_timer.get(), &QTimer::timeout, this, &AppDelegate::updateStatusClock);
    m_timer->start();
}

void AppDelegate::updateStatusClock() {
    if (!m_startTime)
        return;
    const qint64 seconds = qMax<qint64>(0, m_startTime->secsTo(now()));
    const qint64 minutes = seconds / 60;
    setStatusTitle(QStringLiteral("🔴%1:%2").arg(minutes).arg(seconds - 60 * minutes, 2, 10, QLatin1Char('0')));
}

void AppDelegate::stopTimer() {
    m_timer.reset();
    setStatusTitle(m_activeJobs >= 1 ? QStringLiteral("⏳") : QString());
}

} // namespace tavrel
