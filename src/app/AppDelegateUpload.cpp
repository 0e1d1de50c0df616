// The upload side of the delegate: sending a recording, following its transcription job, the busy mark
// in the tray, the upload dialog and the recordings left unsent.
//
// Every dialog of this workflow (the upload form, "Client introuvable", "Erreur d'envoi", the unsent
// recordings) takes a place in `m_dialogs` when it is wanted and opens only when the one before it has
// been answered, each titled with the recording it is about. Uploads run on the network thread; jobs being
// followed are kept on disk (`FollowedJobs`) and followed again at the next launch.
#include "AppDelegate.h"
#include "audio/ffmpeg/FfmpegHandles.h"
#include "core/ClientResolver.h"
#include "core/Log.h"
#include "core/RecordingFiles.h"
#include "net/UploadService.h"
#include "platform/Desktop.h"
#include "platform/PowerEvents.h"
#include "platform/StatusItem.h"
#include "ui/UploadDialog.h"

#include <QCoreApplication>
#include <QCoro/QCoroTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStringDecoder>
#include <algorithm>
#include <memory>

namespace tavrel {

namespace {

const QString kUploadSymbol = QStringLiteral("⬆︎"); // U+2B06 U+FE0E: the arrow as text, not as emoji
const QString kJobSymbol = QStringLiteral("⏳");
constexpr int kMaxJobPolls = 540;

const QString kSummarizing = QStringLiteral("summarizing");
const QString kDone = QStringLiteral("done");
const QString kFailed = QStringLiteral("error");

QString quoted(const QString& title) {
    return QStringLiteral("« ") + title + QStringLiteral(" »");
}

/// The notes kept beside a recording, or "" when there are none or they are not UTF-8 text.
QString readNotes(const QString& recording) {
    QFile file(RecordingFiles::notesFileFor(recording));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder.decode(file.readAll());
    if (decoder.hasError() || file.error() != QFileDevice::NoError)
        return {};
    return text;
}

QString localPath(const QString& fileURL) {
    const QUrl url(fileURL);
    return url.isLocalFile() ? url.toLocalFile() : fileURL;
}

/// "45 s", "12 min 05 s", "1 h 02 min".
QString spokenLength(qint64 seconds) {
    if (seconds < 60)
        return QStringLiteral("%1 s").arg(seconds);
    if (seconds < 3600)
        return QStringLiteral("%1 min %2 s").arg(seconds / 60).arg(seconds % 60, 2, 10, QLatin1Char('0'));
    return QStringLiteral("%1 h %2 min").arg(seconds / 3600).arg(seconds / 60 % 60, 2, 10, QLatin1Char('0'));
}

/// Which recording a dialog is about, for its window title: "Enregistrement du 16/11/2024 à 17:00 (12 min 05 s)
/// — TaVREL Recorder". The date is the time stamp of the file's name, else its modification time (else the
/// name itself); the length is left out when the file cannot be read. Opens the file: not for the main thread.
QString recordingLabel(const QString& path) {
    static const QRegularExpression kStamped(QStringLiteral(R"(^tavrel_[a-z]+_(\d{9,})(?:_\d+)?\.)"));
    const QFileInfo info(path);
    const QRegularExpressionMatch stamp = kStamped.match(info.fileName());
    const QDateTime when =
        stamp.hasMatch() ? QDateTime::fromSecsSinceEpoch(stamp.captured(1).toLongLong()) : info.lastModified();
    if (!when.isValid())
        return QStringLiteral("Enregistrement « %1 » — TaVREL Recorder").arg(info.fileName());
    QString label = QStringLiteral("Enregistrement du %1 à %2")
                        .arg(when.toString(QStringLiteral("dd/MM/yyyy")), when.toString(QStringLiteral("HH:mm")));
    try {
        const AVFormatInputPtr input = openInput(path);
        if (input->duration > 0)
            label += QStringLiteral(" (%1)").arg(spokenLength(input->duration / AV_TIME_BASE));
    } catch (const Error&) {
        // Unreadable here; the upload will say so if it matters.
    }
    return label + QStringLiteral(" — TaVREL Recorder");
}

/// One diagnostic line for a failure: the user's sentence and what the system said.
void logFailure(const QString& what, const std::exception_ptr& failure) {
    const QString cause = technicalCause(failure);
    logLine(QStringLiteral("[Upload] ") + what + QStringLiteral(" : ") + localizedDescription(failure) +
            (cause.isEmpty() ? QString() : QStringLiteral(" — ") + cause));
}

} // namespace

// ---------------------------------------------------------------------------------------------------------------
// Sending and following

QCoro::Task<> AppDelegate::uploadFile(QString fileURL, QString title, qint64 clientId, QString synthesisType,
                                      QString depth, QString notes) {
    const QPointer<AppDelegate> self(this);
    setBusyIndicator(true, kUploadSymbol);

    // Progress goes to the tray's tooltip, read there twice a second; the title keeps its symbol.
    auto upload = std::make_shared<RunningUpload>();
    upload->title = title;
    upload->percent = std::make_shared<std::atomic<int>>(0);
    m_uploads.push_back(upload);
    if (!m_uploadProgressTimer.isActive())
        m_uploadProgressTimer.start();
    refreshUploadProgress();
    const std::optional<qint64> client = clientId >= 1 ? std::optional(clientId) : std::nullopt;

    std::optional<UploadService::AsyncUploadResult> result;
    std::exception_ptr failure;
    do {
        upload->sendAgain = false;
        upload->abort = std::make_shared<UploadAbort>();
        failure = nullptr;
        try {
            UploadService::UploadHooks hooks;
            hooks.abort = upload->abort;
            hooks.onProgress = [percent = upload->percent](qint64 sentBytes, qint64 totalBytes) {
                *percent = static_cast<int>(sentBytes * 100 / totalBytes);
            };
            result = co_await UploadService::uploadAsync(fileURL, title, client, synthesisType, depth, notes, hooks);
        } catch (...) {
            failure = std::current_exception();
        }
        if (!self)
            co_return;
        if (!result && upload->sendAgain)
            logLine(QStringLiteral("[Upload] Sortie de veille : nouvel envoi de ") + quoted(title));
    } while (!result && upload->sendAgain);
    std::erase(m_uploads, upload);
    if (m_uploads.empty())
        m_uploadProgressTimer.stop();
    refreshUploadProgress();
    setBusyIndicator(false, kJobSymbol);

    if (!result) {
        logFailure(QStringLiteral("Échec de l'envoi de ") + quoted(QFileInfo(localPath(fileURL)).fileName()), failure);
        co_await showUploadFailure(fileURL, title, clientId, synthesisType, depth, notes, failure);
        co_return;
    }

    // The job is on disk before the recording goes: whatever happens next, its end will be told. Then the
    // local copy and its notes may go. Both wait for the disk (a write made durable, a long recording's
    // blocks freed): on the file thread.
    const FollowedJob job{result->jobId, result->title, 0, {}};
    const QString path = localPath(fileURL);
    const std::function<void()> keepJobDropRecording = [job, path] {
        FollowedJobs::store(job);
        QFile::remove(RecordingFiles::notesFileFor(path));
        QFile::remove(path);
    };
    if (!co_await onFileThread(keepJobDropRecording))
        co_return;
    notify(QStringLiteral("⬆️ Enregistrement envoyé"),
           quoted(result->title) + QStringLiteral(" — transcription en cours, vous serez notifié."));
    co_await pollJobUntilDone(result->jobId, result->title);
}

QCoro::Task<> AppDelegate::showUploadFailure(QString fileURL, QString title, qint64 clientId, QString synthesisType,
                                             QString depth, QString notes, std::exception_ptr failure) {
    const QPointer<AppDelegate> self(this);
    DialogQueue::Place place = m_dialogs.take();
    const QString path = localPath(fileURL);
    const QString label = co_await describeRecording(path);
    if (!self || !co_await place.turn() || !self)
        co_return;

    AlertSpec alert;
    alert.message = QStringLiteral("Erreur d'envoi");
    alert.informativeText = localizedDescription(failure, QStringLiteral("Erreur inconnue")) +
                            QStringLiteral("\n\nL'enregistrement est conservé sur ce Mac.");
    alert.details = technicalCause(failure);
    alert.windowTitle = label;
    alert.buttons = {QStringLiteral("Réessayer"), QStringLiteral("Afficher dans le Finder"),
                     QStringLiteral("Plus tard")};
    alert.style = AlertStyle::warning;
    const int response = m_services.alerts ? m_services.alerts->run(alert) : kFirstButton - 1;
    // The alert's event loop may have seen the application go.
    if (!self)
        co_return;
    if (response == kFirstButton) {
        // A fresh attempt of its own, with the notes read the first time.
        QTimer::singleShot(0, this, [this, fileURL, title, clientId, synthesisType, depth, notes] {
            auto retry = uploadFile(fileURL, title, clientId, synthesisType, depth, notes);
        });
    } else if (response == kFirstButton + 1 && m_services.desktop) {
        m_services.desktop->revealFiles({localPath(fileURL)});
    }
}

QCoro::Task<> AppDelegate::pollJobUntilDone(QString jobId, QString title) {
    // Named, not a temporary of the co_await expression: GCC 12 destroys such temporaries twice.
    const FollowedJob job{std::move(jobId), std::move(title), 0, {}};
    co_await followJob(job);
}

QCoro::Task<> AppDelegate::followJob(FollowedJob job) {
    const QPointer<AppDelegate> self(this);
    const std::chrono::milliseconds interval = m_services.jobPollIntervalMs;
    setBusyIndicator(true, kJobSymbol);
    // Every change is on disk (on the file thread) before the next wait: a quit or a crash loses nothing.
    const auto keep = [](FollowedJob state) -> std::function<void()> {
        return [state] { FollowedJobs::store(state); };
    };
    std::function<void()> keepJob = keep(job);
    if (!co_await onFileThread(keepJob))
        co_return;

    while (job.polls < kMaxJobPolls) {
        co_await QCoro::sleepFor(interval);
        // Gone (the program quits): the job stays on disk for the next launch.
        if (!self)
            co_return;
        std::optional<UploadService::JobState> state;
        std::exception_ptr failure;
        try {
            state = co_await UploadService::pollJob(job.jobId);
        } catch (...) {
            // One failed poll says nothing about the job; the next one may answer.
            failure = std::current_exception();
        }
        if (!self)
            co_return;
        if (!state) {
            logFailure(QStringLiteral("Suivi de ") + quoted(job.title) + QStringLiteral(" (") + job.jobId +
                           QStringLiteral(") : interrogation échouée"),
                       failure);
            ++job.polls;
            keepJob = keep(job);
            if (!co_await onFileThread(keepJob))
                co_return;
            continue;
        }
        if (state->status == kSummarizing && job.lastStatus != kSummarizing) {
            notify(QStringLiteral("📝 Transcription terminée"),
                   quoted(job.title) + QStringLiteral(" — rédaction de la synthèse…"));
        }
        if (state->status == kDone) {
            notify(QStringLiteral("✅ Synthèse prête"),
                   quoted(job.title) + QStringLiteral(" est disponible dans TaVREL."));
            break;
        }
        if (state->status == kFailed) {
            notify(QStringLiteral("⚠️ Transcription en échec"),
                   quoted(job.title) + QStringLiteral(" : ") +
                       state->error.value_or(QStringLiteral("erreur inconnue")) +
                       QStringLiteral(". Le texte éventuel est visible dans TaVREL."));
            break;
        }
        job.lastStatus = state->status;
        ++job.polls;
        keepJob = keep(job);
        if (!co_await onFileThread(keepJob))
            co_return;
    }
    setBusyIndicator(false, kJobSymbol);
    const std::function<void()> forgetJob = [jobId = job.jobId] { FollowedJobs::remove(jobId); };
    co_await onFileThread(forgetJob);
}

void AppDelegate::resumeFollowedJobs() {
    for (const FollowedJob& job : FollowedJobs::load()) {
        logLine(QStringLiteral("[Upload] Suivi repris : ") + quoted(job.title) + QStringLiteral(" (") + job.jobId +
                QStringLiteral(")"));
        auto following = followJob(job);
    }
}

void AppDelegate::setBusyIndicator(bool busy, const QString& symbol) {
    m_activeJobs = busy ? m_activeJobs + 1 : std::max(m_activeJobs - 1, 0);
    emit activeJobsChanged();
    // While recording, the title is the session's clock; the count still changes.
    if (m_isRecording)
        return;
    setStatusTitle(m_activeJobs >= 1 ? symbol : QString());
}

void AppDelegate::refreshUploadProgress() {
    if (!m_services.statusItem)
        return;
    QStringList lines;
    for (const std::shared_ptr<RunningUpload>& upload : m_uploads)
        lines << QStringLiteral("Envoi de %1 : %2 %").arg(quoted(upload->title)).arg(upload->percent->load());
    m_services.statusItem->setToolTipDetail(lines.join(QLatin1Char('\n')));
}

QCoro::Task<bool> AppDelegate::onFileThread(std::function<void()> work) {
    const QPointer<AppDelegate> self(this);
    const auto job = [work] {
        work();
        return true;
    };
    try {
        co_await m_fileWorker->run(job);
    } catch (const Error&) {
        co_return false; // the delegate is going away
    }
    co_return !self.isNull();
}

QCoro::Task<QString> AppDelegate::describeRecording(QString path) {
    const auto describe = [path] { return recordingLabel(path); };
    try {
        co_return co_await m_fileWorker->run(describe);
    } catch (const Error&) {
        // The delegate is going away; no dialog will show this.
    }
    co_return QFileInfo(path).fileName();
}

void AppDelegate::onResumedFromSleep() {
    // A connection opened before the sleep is most likely dead, though it would only say so at its time-out.
    for (const std::shared_ptr<RunningUpload>& upload : m_uploads) {
        upload->sendAgain = true;
        upload->abort->abort();
    }
}

void AppDelegate::requestQuit() {
    const auto quit = [this] {
        if (m_services.quit)
            m_services.quit();
        else
            QCoreApplication::quit();
    };
    if (m_uploads.empty() || !m_services.alerts) {
        quit();
        return;
    }
    QStringList titles;
    for (const std::shared_ptr<RunningUpload>& upload : m_uploads)
        titles << quoted(upload->title);
    AlertSpec alert;
    alert.message = QStringLiteral("Envoi en cours");
    alert.informativeText =
        titles.join(QStringLiteral(", ")) +
        QStringLiteral(" n'est pas encore entièrement envoyé. Si vous quittez maintenant, l'enregistrement reste sur "
                       "cet ordinateur et vous sera proposé au prochain lancement.");
    alert.buttons = {QStringLiteral("Continuer l'envoi"), QStringLiteral("Quitter quand même")};
    alert.style = AlertStyle::warning;
    const QPointer<AppDelegate> self(this);
    const int response = m_services.alerts->run(alert);
    if (self && response == kFirstButton + 1)
        quit();
}

// ---------------------------------------------------------------------------------------------------------------
// The upload dialog

void AppDelegate::showUploadDialog(const QString& fileURL) {
    // In line now, in the order asked for; started from the event loop so that the caller returns before any
    // dialog runs.
    auto place = std::make_shared<DialogQueue::Place>(m_dialogs.take());
    QTimer::singleShot(0, this, [this, fileURL, place] { auto dialog = runUploadDialog(fileURL, std::move(*place)); });
}

QCoro::Task<> AppDelegate::runUploadDialog(QString fileURL, DialogQueue::Place place) {
    const QPointer<AppDelegate> self(this);
    // Read off the main thread while the client list loads.
    auto describing = describeRecording(localPath(fileURL));
    QString label;
    while (true) {
        QList<UploadService::ClientRecord> clients;
        try {
            clients = co_await UploadService::fetchClients();
        } catch (...) {
            // Without a list the dialog still opens; any client typed then leads to "Client introuvable".
            logFailure(QStringLiteral("Liste des clients indisponible"), std::current_exception());
        }
        if (!self)
            co_return;
        if (label.isEmpty())
            label = co_await describing;
        if (!self || !co_await place.turn() || !self || !m_services.alerts)
            co_return;

        UploadDialog form(clients);
        AlertSpec alert;
        alert.message = QStringLiteral("Enregistrement terminé");
        alert.informativeText = QStringLiteral("Options de transcription :");
        alert.buttons = {QStringLiteral("Envoyer"), QStringLiteral("Annuler")};
        alert.accessory = &form;
        alert.windowTitle = label;
        const int response = m_services.alerts->run(alert);
        if (!self)
            co_return;
        if (response != kFirstButton) {
            notify(QStringLiteral("Enregistrement conservé"),
                   QStringLiteral("Non envoyé — il vous sera proposé au prochain lancement d'TaVREL Recorder."));
            co_return;
        }

        const QString title = form.titleText().isEmpty() ? QStringLiteral("Enregistrement") : form.titleText();
        qint64 clientId = -1;
        const QString typedClient = form.clientText();
        if (form.isClientChecked() && !typedClient.trimmed().isEmpty()) {
            const std::optional<ResolvedClient> client = arResolveClient(typedClient.trimmed(), clients);
            if (client && client->id >= 0) {
                clientId = client->id;
            } else {
                AlertSpec notFound;
                notFound.message = QStringLiteral("Client introuvable");
                notFound.informativeText = QStringLiteral("Aucun client ne correspond à « ") + typedClient +
                                           QStringLiteral(" ». Envoyer sans client ?");
                notFound.buttons = {QStringLiteral("Envoyer sans client"), QStringLiteral("Revenir au formulaire")};
                notFound.windowTitle = label;
                const int choice = m_services.alerts->run(notFound);
                if (!self)
                    co_return;
                // Back to a fresh form (and a fresh client list), still this recording's turn.
                if (choice != kFirstButton)
                    continue;
            }
        }
        const QString notes = readNotes(localPath(fileURL));
        QTimer::singleShot(
            0, this,
            [this, fileURL, title, clientId, synthesisType = form.synthesisType(), depth = form.depth(), notes] {
                auto upload = uploadFile(fileURL, title, clientId, synthesisType, depth, notes);
            });
        co_return;
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Recordings left unsent

void AppDelegate::checkPendingRecordings() {
    auto check = runPendingCheck();
}

QCoro::Task<> AppDelegate::runPendingCheck() {
    const QDir folder(AudioRecorder::recordingsDir());
    struct Pending {
        QString path;
        QDateTime created;
    };
    std::vector<Pending> pending;
    const QFileInfoList entries =
        folder.entryInfoList(QDir::Files | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::NoSort);
    for (const QFileInfo& entry : entries) {
        // The recording being made or stopped is not unsent: it is not even finished.
        if (entry.suffix().toLower() != QLatin1String("m4a") || m_recorder.isInUse(entry.absoluteFilePath()))
            continue;
        // Not every file system keeps a creation time; the modification time stands in for it.
        QDateTime created = entry.birthTime();
        if (!created.isValid())
            created = entry.lastModified();
        pending.push_back({entry.absoluteFilePath(), created});
    }
    if (pending.empty() || !m_services.alerts)
        co_return;
    std::stable_sort(pending.begin(), pending.end(), [](const Pending& a, const Pending& b) {
        // An unreadable date is the distant past.
        if (!b.created.isValid())
            return a.created.isValid();
        return a.created.isValid() && a.created > b.created;
    });
    QStringList paths;
    for (const Pending& recording : pending)
        paths << recording.path;

    const QPointer<AppDelegate> self(this);
    DialogQueue::Place place = m_dialogs.take();
    if (!co_await place.turn() || !self)
        co_return;
    AlertSpec alert;
    alert.message = QString::number(paths.size()) + QStringLiteral(" enregistrement(s) non envoyé(s)");
    alert.informativeText = QStringLiteral("Des enregistrements attendent d'être envoyés pour transcription.");
    alert.buttons = {QStringLiteral("Envoyer maintenant"), QStringLiteral("Afficher dans le Finder"),
                     QStringLiteral("Plus tard")};
    const int response = m_services.alerts->run(alert);
    if (!self)
        co_return;
    if (response == kFirstButton) {
        // In line while this alert still holds its turn: the dialogs follow it, in the sorted order.
        for (const QString& path : std::as_const(paths))
            showUploadDialog(path);
    } else if (response == kFirstButton + 1 && m_services.desktop) {
        m_services.desktop->revealFiles(paths);
    }
}

} // namespace tavrel
