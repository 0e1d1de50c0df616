#include "Notes.h"

#include "RecordingFiles.h"

#include <QSaveFile>
#include <QStringList>

namespace tavrel {

qint64 noteTime(const std::optional<QDateTime>& start, const QDateTime& now) {
    if (!start)
        return 0;
    return start->msecsTo(now) / 1000;
}

QString noteLogLine(const Note& note) {
    return QStringLiteral("[Note %1s] %2").arg(note.time).arg(note.text);
}

QString formatNotes(const std::vector<Note>& notes) {
    QStringList lines;
    lines.reserve(static_cast<qsizetype>(notes.size()));
    for (const Note& note : notes) {
        const qint64 minutes = note.time / 60;
        const qint64 seconds = note.time - 60 * minutes;
        lines << QStringLiteral("[%1:%2] ").arg(minutes).arg(seconds, 2, 10, QLatin1Char('0')) + note.text;
    }
    return lines.join(QLatin1Char('\n'));
}

void writeNotesFile(const QString& recording, const std::vector<Note>& notes) {
    const QString text = formatNotes(notes);
    if (text.isEmpty())
        return;
    QSaveFile file(RecordingFiles::notesFileFor(recording));
    if (file.open(QIODevice::WriteOnly) && file.write(text.toUtf8()) >= 0)
        file.commit();
}

} // namespace tavrel
