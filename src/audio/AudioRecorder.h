#pragma once

#include "audio/CaptureEvent.h"
#include "audio/sources/SystemAudioBackends.h"
#include "core/Error.h"
#include "core/Notes.h"

#include <QCoro/QCoroTask>
#include <QDateTime>
#include <QFuture>
#include <QString>
#include <QStringList>
#include <atomic>
#include <exception>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace tavrel {

class CaptureEventRelay;
class MicRecorder;
class RecordingClock;
class RecordingJournal;

/// Errors of the microphone start.
enum class RecordError { recordFailed, microphoneDenied };
QString errorDescription(RecordError error);
QString caseName(RecordError error);
using RecordFailure = CodedError<RecordError>;

/// Runs one recording at a time: the microphone into its own AAC file, and the other party's voice
/// through the system-audio sources in their fixed fallback order; mixes everything at stop.
class AudioRecorder {
public:
    explicit AudioRecorder(SystemAudioBackends backends = {});
    ~AudioRecorder();
    AudioRecorder(const AudioRecorder&) = delete;
    AudioRecorder& operator=(const AudioRecorder&) = delete;

    /// The recordings folder (created when missing).
    static QString recordingsDir();

    /// Starts the microphone, then the system-audio sources. Throws an `Error` (a `RecordFailure` or the
    /// microphone's own error) when the microphone cannot start; system-audio failures never throw.
    /// Starts and stops take turns: one that arrives while another runs waits for it to finish, so a stop
    /// issued during a start stops everything that start made, and a second start finds the first one's
    /// recording running and leaves it alone.
    QCoro::Task<> startRecording();
    void pauseRecording();
    void resumeRecording();
    /// Stops every track, mixes them, writes the notes file beside the result and yields the final recording,
    /// or none when nothing was recording. When the mix fails, the microphone file is the recording and the
    /// system tracks stay in the capture directory for the next launch's recovery.
    QCoro::Task<std::optional<QString>> stopRecording();
    /// Whether `path` is a file of the recording that is running or stopping (the microphone file, its
    /// working copies, the mix on its way in): it is not a recording to offer, send or delete yet.
    bool isInUse(const QString& path) const;

    /// Where the tracks tell what the user must know while recording (a side lost, a failed write, a side
    /// that delivers only digital silence). Called on the recorder's thread; the first write failure of a
    /// recording only.
    void setEventHandler(std::function<void(const CaptureEvent&)> handler);

    float currentMicLevel();
    float currentSystemLevel() const;
    /// Microphone frames handed to the encoder in the current recording (0 when idle); for diagnostics.
    qint64 micFramesWritten() const;

    void addNote(const QString& text);
    QString formattedNotes() const;

    bool isRecording() const { return m_isRecording; }
    bool isPaused() const { return m_isPaused; }
    bool systemAudioActive() const { return m_systemAudioActive; }
    std::optional<QString> systemAudioUnavailableReason() const { return m_systemAudioUnavailableReason; }
    bool usingProcessTap() const { return m_usingProcessTap; }
    bool usingBlackHole() const { return m_usingBlackHole; }
    bool screenCaptureActive() const { return m_screenCaptureActive; }
    bool screenCapturePermissionMissing() const { return m_screenCapturePermissionMissing; }

private:
    /// The bodies of start and stop, run once every start and stop issued before has finished.
    QCoro::Task<> startRecordingInTurn();
    QCoro::Task<std::optional<QString>> stopRecordingInTurn();
    QCoro::Task<> startSystemAudio();
    struct SourceStart {
        std::exception_ptr failure; ///< none when the source runs
    };
    /// Starts `source` and keeps it; logs nothing.
    QCoro::Task<SourceStart> startSource(std::unique_ptr<SystemAudioSource> source);
    /// Where one recording's tracks report, from any thread.
    CaptureEvents eventSink() const;
    /// A start that failed leaves no file and no journal.
    void abandonStart();
    /// The last step of a stop: the notes file beside `finalFile`, the journal gone unless the next launch has
    /// work left (`tracksKept`, or a mix outside the recordings folder).
    QString settleStop(const QString& finalFile, bool tracksKept);

    SystemAudioBackends m_backends;
    // Polled by the recording panel's timer while the start and stop coroutines change them.
    std::atomic<bool> m_isRecording = false;
    std::atomic<bool> m_isPaused = false;
    bool m_systemAudioActive = false;
    std::optional<QString> m_systemAudioUnavailableReason;
    std::shared_ptr<MicRecorder> m_micRecorder; // shared with the thread that stops it
    std::optional<QString> m_micURL;
    std::vector<std::unique_ptr<SystemAudioSource>> m_sysRecorders;
    bool m_hasSystemAudio = false;
    bool m_usingProcessTap = false;
    bool m_usingBlackHole = false;
    bool m_screenCaptureActive = false;
    bool m_screenCapturePermissionMissing = false;
    std::vector<Note> m_notes;
    std::optional<QDateTime> m_recordingStart;
    std::shared_ptr<RecordingClock> m_clock;     // time zero and pauses of the recording, shared by every track
    CaptureEvents m_events;                      // the recording's event sink, handed to every source
    std::unique_ptr<RecordingJournal> m_journal; // the running or stopping recording's record on disk
    QStringList m_filesInUse;
    QFuture<void> m_lastOperation; // the latest start or stop; the next one waits for it
    std::shared_ptr<CaptureEventRelay> m_relay;
};

} // namespace tavrel
