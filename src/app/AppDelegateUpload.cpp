// The upload side of the delegate: sending a recording, following its transcription job, the busy mark
// in the tray, the upload dialog and the recordings left unsent.
#include "AppDelegate.h"
#include "core/ClientResolver.h"
#include "core/Log.h"
#include "core/RecordingFiles.h"
#include "net/UploadService.h"
#include "platform/Desktop.h"
#include "ui/UploadDialog.h"

#include <QCoro/QCoroTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
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

} // namespace

// ---------------------------------------------------------------------------------------------------------------
// Sending and following

QCoro::Task<> AppDelegate::uploadFile(QString fileURL, QString title, qint64 clientId, QString synthesisType,
                                      QString depth, QString notes) {
    const QPointer<AppDelegate> self(this);
    setBusyIndicator(true, kUploadSymbol);

    // The tray shows how much of the body has gone while a long upload runs.
    auto shownPercent = std::make_shared<int>(-1);
    auto onProgress = [self, shownPercent](qint64 sentBytes, qint64 totalBytes) {
        const int percent = static_cast<int>(sentBytes * 100 / totalBytes);
        if (!self || percent == *shownPercent || self->m_isRecording || self->m_activeJobs < 1)
            return;
        *shownPercent = percent;
        self->setStatusTitle(kUploadSymbol + QStringLiteral(" %1 %").arg(percent));
    };

    std::optional<UploadService::AsyncUploadResult> result;
    std::exception_ptr failure;
    try {
        result =
            co_await UploadService::uploadAsync(fileURL, title, clientId >= 1 ? std::optional(clientId) : std::nullopt,
                                                synthesisType, depth, notes, onProgress);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self)
        co_return;
    setBusyIndicator(false, kJobSymbol);

    if (!result) {
        AlertSpec alert;
        alert.message = QStringLiteral("Erreur d'envoi");
        alert.informativeText = localizedDescription(failure, QStringLiteral("Erreur inconnue")) +
                                QStringLiteral("\n\nL'enregistrement est conservé sur ce Mac.");
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
        co_return;
    }

    // The backend has the recording: the local copy and its notes may go.
    const QString path = localPath(fileURL);
    QFile::remove(path);
    QFile::remove(RecordingFiles::notesFileFor(path));
    notify(QStringLiteral("⬆️ Enregistrement envoyé"),
           quoted(result->title) + QStringLiteral(" — transcription en cours, vous serez notifié."));
    co_await pollJobUntilDone(result->jobId, result->title);
}

QCoro::Task<> AppDelegate::pollJobUntilDone(QString jobId, QString title) {
    const QPointer<AppDelegate> self(this);
    const std::chrono::milliseconds interval = m_services.jobPollIntervalMs;
    setBusyIndicator(true, kJobSymbol);

    QString lastStatus;
    int polls = 0;
    while (true) {
        co_await QCoro::sleepFor(interval);
        if (!self)
            co_return;
        std::optional<UploadService::JobState> state;
        try {
            state = co_await UploadService::pollJob(jobId);
        } catch (...) {
            // One failed poll says nothing about the job; the next one may answer.
        }
        if (!self)
            co_return;
        if (!state) {
            if (++polls >= kMaxJobPolls)
                break;
            continue;
        }
        if (state->status == kSummarizing && lastStatus != kSummarizing) {
            notify(QStringLiteral("📝 Transcription terminée"),
                   quoted(title) + QStringLiteral(" — rédaction de la synthèse…"));
        }
        if (state->status == kDone) {
            notify(QStringLiteral("✅ Synthèse prête"), quoted(title) + QStringLiteral(" est disponible dans TaVREL."));
            break;
        }
        if (state->status == kFailed) {
            notify(QStringLiteral("⚠️ Transcription en échec"),
                   quoted(title) + QStringLiteral(" : ") + state->error.value_or(QStringLiteral("erreur inconnue")) +
                       QStringLiteral(". Le texte éventuel est visible dans TaVREL."));
            break;
        }
        lastStatus = state->status;
        if (++polls >= kMaxJobPolls)
            break;
    }
    setBusyIndicator(false, kJobSymbol);
}

void AppDelegate::setBusyIndicator(bool busy, const QString& symbol) {
    m_activeJobs = busy ? m_activeJobs + 1 : std::max(m_activeJobs - 1, 0);
    emit activeJobsChanged();
    // While recording, the title is the session's clock; the count still changes.
    if (m_isRecording)
        return;
    setStatusTitle(m_activeJobs >= 1 ? symbol : QString());
}

// ---------------------------------------------------------------------------------------------------------------
// The upload dialog

void AppDelegate::showUploadDialog(const QString& fileURL) {
    // Started from the event loop so that the caller returns before any dialog runs.
    QTimer::singleShot(0, this, [this, fileURL] { auto dialog = runUploadDialog(fileURL); });
}

QCoro::Task<> AppDelegate::runUploadDialog(QString fileURL) {
    const QPointer<AppDelegate> self(this);
    QList<UploadService::ClientRecord> clients;
    try {
        clients = co_await UploadService::fetchClients();
    } catch (...) {
        // Without a list the dialog still opens; any client typed then leads to "Client introuvable".
    }
    if (!self || !m_services.alerts)
        co_return;

    UploadDialog form(clients);
    AlertSpec alert;
    alert.message = QStringLiteral("Enregistrement terminé");
    alert.informativeText = QStringLiteral("Options de transcription :");
    alert.buttons = {QStringLiteral("Envoyer"), QStringLiteral("Annuler")};
    alert.accessory = &form;
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
            const int choice = m_services.alerts->run(notFound);
            if (!self)
                co_return;
            if (choice != kFirstButton) {
                showUploadDialog(fileURL);
                co_return;
            }
        }
    }
    const QString notes = readNotes(localPath(fileURL));
    QTimer::singleShot(0, this,
                       [this, fileURL, title, clientId, synthesisType = form.synthesisType(), depth = form.depth(),
                        notes] { auto upload = uploadFile(fileURL, title, clientId, synthesisType, depth, notes); });
}

// ---------------------------------------------------------------------------------------------------------------
// Recordings left unsent

void AppDelegate::checkPendingRecordings() {
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
    if (pending.empty())
        return;
    std::stable_sort(pending.begin(), pending.end(), [](const Pending& a, const Pending& b) {
        // An unreadable date is the distant past.
        if (!b.created.isValid())
            return a.created.isValid();
        return a.created.isValid() && a.created > b.created;
    });
    QStringList paths;
    for (const Pending& recording : pending)
        paths << recording.path;

    if (!m_services.alerts)
        return;
    AlertSpec alert;
    alert.message = QString::number(paths.size()) + QStringLiteral(" enregistrement(s) non envoyé(s)");
    alert.informativeText = QStringLiteral("Des enregistrements attendent d'être envoyés pour transcription.");
    alert.buttons = {QStringLiteral("Envoyer maintenant"), QStringLiteral("Afficher dans le Finder"),
                     QStringLiteral("Plus tard")};
    const QPointer<AppDelegate> self(this);
    const int response = m_services.alerts->run(alert);
    if (!self)
        return;
    if (response == kFirstButton) {
        for (const QString& path : std::as_const(paths))
            showUploadDialog(path);
    } else if (response == kFirstButton + 1 && m_services.desktop) {
        m_services.desktop->revealFiles(paths);
    }
}

} // namespace tavrel
