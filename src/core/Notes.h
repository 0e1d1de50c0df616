#pragma once

#include <QDateTime>
#include <QString>
#include <optional>
#include <vector>

namespace tavrel {

/// A note taken during a recording: whole seconds since the start, and the text as typed.
struct Note {
    qint64 time = 0;
    QString text;
};

/// Seconds from `start` to `now`, truncated toward zero; 0 when no recording has started. Wall-clock time:
/// pauses are not subtracted.
qint64 noteTime(const std::optional<QDateTime>& start, const QDateTime& now);
/// "[Note 75s] Budget".
QString noteLogLine(const Note& note);
/// One "[m:ss] text" line per note (minutes not folded into hours), joined by "\n"; "" for no notes.
QString formatNotes(const std::vector<Note>& notes);
/// Writes the notes file beside `recording` (UTF-8, whole or not at all) when there are notes; a failure is
/// ignored, the recording then goes without them.
void writeNotesFile(const QString& recording, const std::vector<Note>& notes);

} // namespace tavrel
