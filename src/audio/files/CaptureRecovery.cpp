#include "audio/files/CaptureRecovery.h"

#include "audio/BackgroundTask.h"
#include "audio/files/M4aWriter.h"
#include "audio/files/RecordingJournal.h"
#include "audio/merge/TrackMerger.h"
#include "core/Log.h"
#include "core/Notes.h"
#include "core/RecordingFiles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QThreadPool>
#include <sys/resource.h>
#include <unistd.h>

namespace tavrel {

namespace {

// Launches that may fail to mix the same tracks before they are given up, so that nothing piles up.
constexpr int kMixAttempts = 3;
// Recovery yields the processor to the tray, the dialogs and a recording that starts meanwhile.
constexpr int kRecoveryNiceness = 10;

QString nameOf(const QString& path) {
    return QFileInfo(path).fileName();
}

void log(const QString& text) {
    logLine(QStringLiteral("[AudioRecorder] ") + text);
}

bool isOurs(const QString& name) {
    return name.startsWith(QLatin1String(RecordingFiles::kFilePrefix)) ||
           name.startsWith(QLatin1Char('.') + QLatin1String(RecordingFiles::kFilePrefix));
}

/// One interrupted recording, from what its journal says.
class Rebuild {
public:
    explicit Rebuild(const QString& journalPath)
        : m_said(RecordingJournal::read(journalPath)), m_journal(journalPath) {}

    /// True when the recording is whole again (or there was nothing to make whole).
    bool run() {
        if (m_said.mic.isEmpty()) {
            // Cut before its first line: whatever it started is an orphan.
            m_journal.remove();
            return false;
        }
        if (m_said.mix && m_said.finalMix) {
            // The tracks were mixed; the move into the recordings folder or the clean-up may be missing.
            if (QFileInfo(*m_said.finalMix).isFile()) {
                log(QStringLiteral("Enregistrement interrompu terminé : %1").arg(nameOf(*m_said.finalMix)));
                return settle(*m_said.finalMix);
            }
            if (QFileInfo(*m_said.mix).isFile())
                return moveIn(*m_said.mix, *m_said.finalMix);
        }
        if (!QFileInfo(m_said.mic).isFile()) {
            // Sent on its own after a failed mix, or never written: the other side has nothing to join.
            removeTracks();
            m_journal.remove();
            return false;
        }
        if (QFileInfo(m_said.mic).size() == 0) {
            // Named, then interrupted before the first byte: nothing was recorded.
            QFile::remove(m_said.mic);
            removeTracks();
            m_journal.remove();
            return false;
        }
        if (recoverInterruptedRecording(m_said.mic) == RecoveryResult::failed)
            return keepMicrophoneAlone(QStringLiteral("fichier micro illisible"), /*retry=*/false);
        if (!holdsAudio(m_said.mic)) {
            // Killed before the microphone's first fragment reached the disk: the other sides hold no more than
            // that first fraction of a second, and no launch will make more of them.
            log(QStringLiteral("Enregistrement interrompu avant son premier son : %1").arg(nameOf(m_said.mic)));
            QFile::remove(m_said.mic);
            removeTracks();
            m_journal.remove();
            return false;
        }

        QStringList tracks;
        for (const QString& track : std::as_const(m_said.tracks)) {
            if (!QFileInfo(track).isFile())
                continue;
            if (track.endsWith(QLatin1String(".m4a")))
                recoverInterruptedRecording(track); // unreadable: the merge leaves it out
            tracks << track;
        }
        if (tracks.isEmpty())
            return settle(m_said.mic);
        return mix(tracks);
    }

private:
    bool mix(QStringList tracks) {
        for (;;) {
            const QString mixPath = RecordingFiles::mergedFile();
            try {
                mergeAudioFilesInto(m_said.mic, tracks, mixPath);
            } catch (const DamagedTrackError& damage) {
                QFile::remove(mixPath);
                if (damage.path() == m_said.mic || !tracks.removeOne(damage.path()))
                    return keepMicrophoneAlone(damage.localizedDescription(), /*retry=*/true);
                log(QStringLiteral("Piste endommagée laissée de côté : %1").arg(damage.localizedDescription()));
                if (tracks.isEmpty())
                    return settle(m_said.mic);
                continue;
            } catch (const Error& error) {
                QFile::remove(mixPath);
                return keepMicrophoneAlone(error.localizedDescription(), /*retry=*/true);
            }
            const QString destination = RecordingFiles::recordingsDir() + QLatin1Char('/') + nameOf(mixPath);
            const bool moved = moveIn(mixPath, destination);
            if (moved)
                log(QStringLiteral("Enregistrement interrompu reconstruit : %1 (%2 piste(s) système)")
                        .arg(nameOf(destination))
                        .arg(tracks.size()));
            return moved;
        }
    }

    bool moveIn(const QString& mixPath, const QString& destination) {
        // On record before the move: a crash from here on finds the mix, on either side of the move.
        m_journal.recordMerged(mixPath, destination);
        if (!QFile::rename(mixPath, destination)) {
            log(QStringLiteral("Déplacement du fusionné échoué, nouvel essai au prochain lancement : %1")
                    .arg(nameOf(mixPath)));
            return false;
        }
        return settle(destination);
    }

    /// `recording` is final: its notes beside it, every other file of the recording gone.
    bool settle(const QString& recording) {
        writeNotesFile(recording, m_said.notes);
        if (recording != m_said.mic) {
            QFile::remove(m_said.mic);
            QFile::remove(RecordingFiles::notesFileFor(m_said.mic)); // written there after a failed mix
        }
        removeTracks();
        m_journal.remove();
        return true;
    }

    /// The microphone file is the recording for now; the tracks wait for another launch unless they have
    /// waited long enough.
    bool keepMicrophoneAlone(const QString& problem, bool retry) {
        log(QStringLiteral("Reconstruction échouée, micro seul : %1").arg(problem));
        writeNotesFile(m_said.mic, m_said.notes);
        if (retry && m_said.failedRetries + 1 < kMixAttempts) {
            m_journal.recordFailedRetry();
            return false;
        }
        if (!m_said.tracks.isEmpty())
            log(QStringLiteral("Pistes système abandonnées : %1").arg(m_said.tracks.size()));
        removeTracks();
        m_journal.remove();
        return false;
    }

    void removeTracks() {
        for (const QString& track : std::as_const(m_said.tracks))
            QFile::remove(track);
        if (m_said.mix)
            QFile::remove(*m_said.mix);
    }

    RecordingJournal::Contents m_said;
    RecordingJournal m_journal;
};

} // namespace

RecoveryPlan planRecovery(QLockFile& lock) {
    RecoveryPlan plan;
    // Only a live process keeps the lock; a crashed one's is taken over.
    lock.setStaleLockTime(0);
    if (!lock.tryLock(0)) {
        log(QStringLiteral("Capture tenue par une autre instance : pas de reprise"));
        return plan;
    }
    const QDir::Filters files = QDir::Files | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;
    for (const QFileInfo& entry : QDir(RecordingFiles::captureDir()).entryInfoList(files, QDir::Name)) {
        if (!isOurs(entry.fileName()))
            continue;
        if (entry.fileName().endsWith(QLatin1String(RecordingFiles::kJournalSuffix)))
            plan.journals << entry.absoluteFilePath();
        else
            plan.captureFiles << entry.absoluteFilePath();
    }
    for (const QFileInfo& entry : QDir(RecordingFiles::recordingsDir()).entryInfoList(files, QDir::Name)) {
        if (entry.fileName().startsWith(QLatin1Char('.')) && isOurs(entry.fileName()))
            plan.workingCopies << entry.absoluteFilePath();
        else if (entry.suffix().toLower() == QLatin1String("m4a"))
            plan.recordings << entry.absoluteFilePath();
    }
    return plan;
}

int recoverRecordings(const RecoveryPlan& plan) {
    // Everything a journal accounts for, read before any of them is acted on.
    QSet<QString> accounted;
    for (const QString& journal : plan.journals) {
        const RecordingJournal::Contents said = RecordingJournal::read(journal);
        accounted << said.mic;
        for (const QString& track : said.tracks)
            accounted << track;
        if (said.mix)
            accounted << *said.mix;
    }

    int whole = 0;
    for (const QString& journal : plan.journals) {
        if (Rebuild(journal).run())
            ++whole;
    }
    for (const QString& file : plan.captureFiles) {
        if (!accounted.contains(file) && QFile::remove(file))
            log(QStringLiteral("Fichier de capture sans enregistrement supprimé : %1").arg(nameOf(file)));
    }
    for (const QString& copy : plan.workingCopies)
        QFile::remove(copy);
    // A microphone file whose journal was lost is still worth its repair.
    for (const QString& recording : plan.recordings) {
        if (!accounted.contains(recording) && recoverInterruptedRecording(recording) == RecoveryResult::recovered)
            ++whole;
    }
    return whole;
}

QCoro::Task<int> recoverRecordingsInBackground(RecoveryPlan plan) {
    // One thread of its own: an hour of tracks to mix must not hold up a recording that starts meanwhile.
    static QThreadPool pool;
    pool.setMaxThreadCount(1);
    auto recovering = runInBackground(
        [plan = std::move(plan)] {
            // Below the interface and the capture threads; the merge's own threads inherit it.
            setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), kRecoveryNiceness);
            return recoverRecordings(plan);
        },
        &pool);
    co_return co_await recovering;
}

} // namespace tavrel
