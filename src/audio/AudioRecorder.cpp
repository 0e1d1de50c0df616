#include "audio/AudioRecorder.h"

#include "audio/BackgroundTask.h"
#include "audio/files/RecordingJournal.h"
#include "audio/sources/MicRecorder.h"
#include "audio/timeline/RecordingClock.h"
#include "core/Level.h"
#include "core/Log.h"
#include "core/RecordingFiles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPromise>
#include <QScopeGuard>
#include <algorithm>
#include <chrono>
#include <mutex>

namespace tavrel {

/// Carries capture events from the capture threads to the recorder's own thread, where the handler runs. It
/// lives as long as the last track that may report, and is deleted on its own thread.
class CaptureEventRelay : public QObject {
public:
    std::function<void(const CaptureEvent&)> handler;
};

namespace {

QString fileName(const QString& path) {
    return QFileInfo(path).fileName();
}

bool isPermissionDenied(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const SystemAudioFailure& e) {
        return e.code() == SystemAudioError::permissionDenied;
    } catch (...) {
        return false;
    }
}

void removeFile(const QString& path) {
    QFile::remove(path);
}

/// One start or stop's place in the line: it may run once `previous` has finished, and the next one waits
/// for `mine`, which finishes when this one ends, however it ends.
struct Turn {
    QFuture<void> previous;
    std::shared_ptr<QPromise<void>> mine;
};

Turn takeTurn(QFuture<void>& last) {
    Turn turn{{}, std::make_shared<QPromise<void>>()};
    turn.mine->start();
    turn.previous = std::exchange(last, turn.mine->future());
    return turn;
}

} // namespace

AudioRecorder::AudioRecorder(SystemAudioBackends backends)
    : m_backends(std::move(backends)), m_lastOperation(QtFuture::makeReadyFuture()),
      m_relay(new CaptureEventRelay, [](CaptureEventRelay* relay) { relay->deleteLater(); }) {}

AudioRecorder::~AudioRecorder() {
    m_relay->handler = nullptr;
}

void AudioRecorder::setEventHandler(std::function<void(const CaptureEvent&)> handler) {
    m_relay->handler = std::move(handler);
}

CaptureEvents AudioRecorder::eventSink() const {
    // One recording tells of its first write failure only: one full disk fails every track at once.
    auto writeFailureTold = std::make_shared<std::atomic<bool>>(false);
    return [relay = m_relay, writeFailureTold](const CaptureEvent& event) {
        if (event.kind == CaptureEvent::Kind::writeFailed && writeFailureTold->exchange(true))
            return;
        // Qt's event queue carries the event to the main thread under its own locks, which ThreadSanitizer cannot
        // see (Qt is not built with it): this mutex, held while the event is posted and taken first when it is
        // delivered, carries the same ordering where the tool sees it.
        static std::mutex handOver;
        const std::lock_guard posting(handOver);
        CaptureEventRelay* target = relay.get();
        QMetaObject::invokeMethod(
            target,
            [target, event] {
                { const std::lock_guard taken(handOver); }
                if (target->handler)
                    target->handler(event);
            },
            Qt::QueuedConnection);
    };
}

QString AudioRecorder::recordingsDir() {
    return RecordingFiles::recordingsDir();
}

QCoro::Task<> AudioRecorder::startRecording() {
    const Turn turn = takeTurn(m_lastOperation);
    const auto done = qScopeGuard([mine = turn.mine] { mine->finish(); });
    co_await turn.previous;
    auto starting = startRecordingInTurn();
    co_await starting;
}

QCoro::Task<> AudioRecorder::startRecordingInTurn() {
    if (m_isRecording)
        co_return; // the start before this one made the recording that is running

    // The server's answer about the default source stands for the microphone permission.
    // Work for other threads and the tasks that carry it are named before they are awaited: GCC 12 destroys some
    // temporaries of a co_await expression twice.
    auto checkAccess = runInBackground([] { return MicRecorder::microphoneAccess(); });
    const MicRecorder::Access access = co_await checkAccess;
    if (access == MicRecorder::Access::denied)
        throw RecordFailure(RecordError::microphoneDenied);

    const QString micPath = RecordingFiles::micFile();
    m_micURL = micPath;
    // From here on the recording's files are on record, so that the next launch finds them after a crash.
    m_filesInUse = {micPath};
    m_journal = std::make_unique<RecordingJournal>(RecordingFiles::journalFileFor(micPath));
    m_journal->recordMic(micPath);

    struct Opened {
        std::shared_ptr<MicRecorder> recorder;
        bool recording = false;
    };
    Opened opened;
    // Time zero of every track: from now on the microphone's stream may deliver.
    auto clock = std::make_shared<RecordingClock>();
    const CaptureEvents events = eventSink();
    try {
        auto open = [micPath, clock, events] {
            Opened result;
            result.recorder = std::make_shared<MicRecorder>(micPath, clock, events);
            result.recording = result.recorder->record();
            if (!result.recording)
                logLine(QStringLiteral("[AudioRecorder] Micro indisponible : ") + result.recorder->lastError());
            return result;
        };
        auto opening = runInBackground(std::move(open));
        opened = co_await opening;
    } catch (...) {
        // A microphone that could not start leaves nothing behind.
        abandonStart();
        throw;
    }
    if (!opened.recording) {
        auto discard = [recorder = opened.recorder] { recorder->stop(); };
        opened.recorder.reset();
        try {
            auto discarding = runInBackground(std::move(discard));
            co_await discarding;
        } catch (...) {
        }
        abandonStart();
        throw RecordFailure(RecordError::recordFailed);
    }

    m_micRecorder = std::move(opened.recorder);
    m_clock = std::move(clock);
    m_events = events;
    m_recordingStart = QDateTime::currentDateTime();
    m_notes.clear();
    m_isRecording = true;
    logLine(QStringLiteral("[AudioRecorder] Micro démarré : ") + fileName(micPath));

    co_await startSystemAudio();
}

QCoro::Task<AudioRecorder::SourceStart> AudioRecorder::startSource(std::unique_ptr<SystemAudioSource> source) {
    SourceStart outcome;
    try {
        if (!source)
            throw Error(QStringLiteral("source indisponible"));
        source->setCaptureContext(m_clock, m_events);
        auto starting = source->start();
        co_await starting;
        if (m_isPaused) // paused while this source was starting
            source->pause();
        if (const std::optional<QString> track = source->outputURL(); track && m_journal)
            m_journal->recordTrack(*track);
        m_sysRecorders.push_back(std::move(source));
    } catch (...) {
        outcome.failure = std::current_exception();
    }
    co_return outcome;
}

QCoro::Task<> AudioRecorder::startSystemAudio() {
    m_sysRecorders.clear();
    m_usingProcessTap = false;
    m_usingBlackHole = false;
    m_screenCaptureActive = false;
    m_screenCapturePermissionMissing = false;
    m_systemAudioUnavailableReason.reset();

    const SystemAudioBackends backends = m_backends;
    struct Probe {
        bool tapSupported = false;
        bool captureAllowed = true;
    };
    auto probing = runInBackground([backends] {
        Probe result;
        try {
            result.tapSupported = backends.processTapSupported && backends.processTapSupported();
            // Where no such permission exists, the pre-check passes.
            result.captureAllowed = !backends.captureAllowed || backends.captureAllowed();
        } catch (...) {
            result.tapSupported = false;
        }
        return result;
    });
    const Probe probe = co_await probing;

    bool tapRunning = false;
    if (probe.tapSupported && backends.makeProcessTap) {
        if (probe.captureAllowed) {
            std::unique_ptr<SystemAudioSource> tap;
            std::exception_ptr failure;
            try {
                tap = backends.makeProcessTap();
            } catch (...) {
                failure = std::current_exception();
            }
            if (!failure) {
                auto starting = startSource(std::move(tap));
                failure = (co_await starting).failure;
            }
            if (!failure) {
                m_usingProcessTap = true;
                tapRunning = true;
                logLine(QStringLiteral("[AudioRecorder] Process-tap démarré (visio + téléphonie, zéro routage)"));
            } else {
                logLine(QStringLiteral("[AudioRecorder] Process-tap indisponible : ") + localizedDescription(failure) +
                        QStringLiteral(" \u2192 repli SCK/BlackHole"));
            }
        } else {
            m_screenCapturePermissionMissing = true;
            logLine(QStringLiteral(
                "[AudioRecorder] Process-tap en attente de la permission \u00ab Enregistrement d'écran \u00bb"));
        }
    }

    if (!tapRunning) {
        if (backends.makeScreenCapture) {
            std::exception_ptr failure;
            std::unique_ptr<SystemAudioSource> screen;
            try {
                screen = backends.makeScreenCapture();
            } catch (...) {
                failure = std::current_exception();
            }
            if (!failure) {
                auto starting = startSource(std::move(screen));
                failure = (co_await starting).failure;
            }
            if (!failure) {
                m_screenCaptureActive = true;
                logLine(QStringLiteral("[AudioRecorder] ScreenCaptureKit démarré (applis/visio)"));
            } else if (isPermissionDenied(failure)) {
                m_screenCapturePermissionMissing = true;
                logLine(QStringLiteral(
                    "[AudioRecorder] ScreenCaptureKit : permission \u00ab Enregistrement d'écran \u00bb manquante"));
            } else {
                logLine(QStringLiteral("[AudioRecorder] ScreenCaptureKit ignoré : ") + localizedDescription(failure));
            }
        }

        if (backends.findVirtualDevice && backends.makeVirtualDevice) {
            std::optional<CaptureDevice> device;
            try {
                auto finding = runInBackground([backends] { return backends.findVirtualDevice(); });
                device = co_await finding;
            } catch (...) {
                device.reset();
            }
            if (device) {
                std::exception_ptr failure;
                std::unique_ptr<SystemAudioSource> virtualDevice;
                try {
                    virtualDevice = backends.makeVirtualDevice(*device);
                } catch (...) {
                    failure = std::current_exception();
                }
                if (!failure) {
                    auto starting = startSource(std::move(virtualDevice));
                    failure = (co_await starting).failure;
                }
                if (!failure) {
                    m_usingBlackHole = true;
                    logLine(QStringLiteral("[AudioRecorder] BlackHole démarré (téléphonie)"));
                } else {
                    logLine(QStringLiteral("[AudioRecorder] BlackHole ignoré : ") + localizedDescription(failure));
                }
            }
        }
    }

    m_hasSystemAudio = !m_sysRecorders.empty();
    m_systemAudioActive = m_hasSystemAudio;
    if (m_sysRecorders.empty() && m_screenCapturePermissionMissing)
        m_systemAudioUnavailableReason = QStringLiteral("permission");
}

void AudioRecorder::pauseRecording() {
    if (!m_isRecording || m_isPaused)
        return;
    // Every track leaves out the same stretch, by capture time; the sources only quieten their levels.
    if (m_clock)
        m_clock->pause();
    for (const auto& source : m_sysRecorders)
        source->pause();
    m_isPaused = true;
}

void AudioRecorder::resumeRecording() {
    if (!m_isRecording || !m_isPaused)
        return;
    if (m_clock)
        m_clock->resume();
    for (const auto& source : m_sysRecorders)
        source->resume();
    m_isPaused = false;
}

QCoro::Task<std::optional<QString>> AudioRecorder::stopRecording() {
    const Turn turn = takeTurn(m_lastOperation);
    const auto done = qScopeGuard([mine = turn.mine] { mine->finish(); });
    co_await turn.previous;
    auto stopping = stopRecordingInTurn();
    co_return co_await stopping;
}

QCoro::Task<std::optional<QString>> AudioRecorder::stopRecordingInTurn() {
    if (!m_isRecording)
        co_return std::nullopt;
    // Every track ends here, whatever its stream still delivers while the sources stop one after another.
    if (m_clock)
        m_clock->pause();
    m_isRecording = false;
    m_isPaused = false;

    if (m_micRecorder) {
        auto stopMic = [mic = m_micRecorder] {
            QString problem;
            try {
                mic->stop();
            } catch (const Error& error) {
                problem = error.localizedDescription();
            }
            return problem;
        };
        m_micRecorder.reset();
        auto stopping = runInBackground(std::move(stopMic));
        const QString failure = co_await stopping;
        if (!failure.isEmpty()) {
            // The file stays readable as it was written while recording; the next launch rewrites it.
            logLine(QStringLiteral("[AudioRecorder] Fichier micro non finalisé : ") + failure);
        }
    }
    logLine(QStringLiteral("[AudioRecorder] Micro arrêté"));

    std::vector<std::unique_ptr<SystemAudioSource>> sources = std::move(m_sysRecorders);
    m_sysRecorders.clear();
    m_hasSystemAudio = false;

    QStringList systemFiles;
    for (const auto& source : sources) {
        std::optional<QString> file;
        try {
            auto stopping = source->stop();
            file = co_await stopping;
        } catch (...) {
            file.reset();
        }
        if (file)
            systemFiles << *file;
    }
    // Each source releases its resources with its last owner; stopping has already closed its file.
    sources.clear();

    if (!m_micURL)
        co_return std::nullopt;
    const QString micPath = *m_micURL;
    if (systemFiles.isEmpty())
        co_return settleStop(micPath, false);

    QString merged;
    std::exception_ptr mergeFailure;
    try {
        if (!m_backends.merge)
            throw SystemAudioFailure(SystemAudioError::mergeFailed);
        auto merging = m_backends.merge(micPath, systemFiles);
        merged = co_await merging;
    } catch (...) {
        mergeFailure = std::current_exception();
    }

    if (!mergeFailure) {
        const QString destination = recordingsDir() + QLatin1Char('/') + fileName(merged);
        m_filesInUse << destination;
        // Said before the move: a crash from here on finds the mix, wherever it got to, and not the tracks.
        if (m_journal)
            m_journal->recordMerged(merged, destination);
        QFile mergedFile(merged);
        if (!mergedFile.rename(destination)) {
            logLine(QStringLiteral("[AudioRecorder] Déplacement du fusionné échoué, on garde le temporaire : ") +
                    mergedFile.errorString());
        }
        const QString finalFile = QFileInfo(destination).isFile() ? destination : merged;
        logLine(QStringLiteral("[AudioRecorder] Pistes fusionnées (%1 voie(s) correspondant) : %2")
                    .arg(systemFiles.size())
                    .arg(fileName(finalFile)));
        removeFile(micPath);
        for (const QString& file : systemFiles)
            removeFile(file);
        co_return settleStop(finalFile, false);
    }

    logLine(QStringLiteral("[AudioRecorder] Fusion échouée, micro seul : ") + debugDescription(mergeFailure));
    // The other side stays in the capture directory: the next launch mixes it in again.
    if (m_journal)
        m_journal->recordKept();
    co_return settleStop(micPath, true);
}

QString AudioRecorder::settleStop(const QString& finalFile, bool tracksKept) {
    writeNotesFile(finalFile, m_notes);
    if (m_journal) {
        // Kept tracks, or a mix that could not reach the recordings folder, wait for the next launch.
        if (!tracksKept && QFileInfo(finalFile).absolutePath() == QDir(recordingsDir()).absolutePath())
            m_journal->remove();
        m_journal.reset();
    }
    m_filesInUse.clear();
    return finalFile;
}

void AudioRecorder::abandonStart() {
    if (m_micURL)
        removeFile(*m_micURL);
    if (m_journal)
        m_journal->remove();
    m_journal.reset();
    m_filesInUse.clear();
}

bool AudioRecorder::isInUse(const QString& path) const {
    const QFileInfo file(path);
    for (const QString& used : m_filesInUse) {
        const QFileInfo usedFile(used);
        if (file.absolutePath() != usedFile.absolutePath())
            continue;
        // The file itself, or the working copy made while it is being finished (".<name>.part-<pid>.m4a").
        if (file.fileName() == usedFile.fileName() ||
            file.fileName().startsWith(QLatin1Char('.') + usedFile.completeBaseName() + QLatin1Char('.')))
            return true;
    }
    return false;
}

float AudioRecorder::currentMicLevel() {
    if (!m_isRecording || m_isPaused || !m_micRecorder)
        return 0.0f;
    m_micRecorder->updateMeters();
    return levelFromDecibels(m_micRecorder->averagePower(0));
}

float AudioRecorder::currentSystemLevel() const {
    if (!m_isRecording || m_isPaused)
        return 0.0f;
    float level = 0.0f;
    for (const auto& source : m_sysRecorders)
        level = std::max(level, source->currentLevel());
    return level;
}

qint64 AudioRecorder::micFramesWritten() const {
    return m_micRecorder ? m_micRecorder->framesWritten() : 0;
}

void AudioRecorder::addNote(const QString& text) {
    const Note note{noteTime(m_recordingStart, QDateTime::currentDateTime()), text};
    m_notes.push_back(note);
    if (m_journal)
        m_journal->recordNote(note);
    logLine(noteLogLine(note));
}

QString AudioRecorder::formattedNotes() const {
    return formatNotes(m_notes);
}

} // namespace tavrel
