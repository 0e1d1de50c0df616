#pragma once

#include "core/Notes.h"

#include <QFile>
#include <QString>
#include <QStringList>
#include <optional>
#include <vector>

namespace tavrel {

/// The record on disk of one recording, kept in the capture directory from its start until its files are
/// final: which files belong to it, the notes taken, and how far its stop went. It is what the next launch
/// rebuilds an interrupted recording from (see CaptureRecovery.h).
///
/// One line per event, appended and flushed to the disk at once, so that a kill or a power cut keeps every
/// line written before it; a line cut short by the crash is ignored when read. Paths and texts are
/// percent-encoded, so a line never holds a line break of its own.
///
///     mic <path>                 the microphone file (first line)
///     track <path>               a system-audio track, as each source starts
///     note <seconds> <text>      a note, as it is taken
///     merged <mix> <final>       the tracks are mixed into <mix>, which goes to <final> in the recordings folder
///     kept                       the mix failed at stop: the microphone file is the recording for now, the
///                                tracks stay for the next launch
///     retry-failed               a launch could not mix them either
class RecordingJournal {
public:
    struct Contents {
        QString mic;
        QStringList tracks;
        std::vector<Note> notes;
        std::optional<QString> mix;      ///< with `merged`
        std::optional<QString> finalMix; ///< with `merged`
        bool kept = false;
        int failedRetries = 0;
    };

    /// Opens the journal at `path` for appending, creating it when missing. A journal that cannot be written
    /// is logged once and then does nothing: losing crash recovery must not stop a recording.
    explicit RecordingJournal(QString path);
    RecordingJournal(const RecordingJournal&) = delete;
    RecordingJournal& operator=(const RecordingJournal&) = delete;

    void recordMic(const QString& path);
    void recordTrack(const QString& path);
    void recordNote(const Note& note);
    void recordMerged(const QString& mix, const QString& finalPath);
    void recordKept();
    void recordFailedRetry();
    /// Closes and deletes the journal: the recording's files are final.
    void remove();

    const QString& path() const { return m_path; }

    /// What the journal at `path` says; empty contents when it cannot be read.
    static Contents read(const QString& path);

private:
    void append(const QByteArray& line);

    QString m_path;
    QFile m_file;
    bool m_failed = false;
};

} // namespace tavrel
