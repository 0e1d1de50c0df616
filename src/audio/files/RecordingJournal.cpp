#include "audio/files/RecordingJournal.h"

#include "core/Log.h"

#include <QFileInfo>
#include <QUrl>
#include <unistd.h>

namespace tavrel {

namespace {

QByteArray encoded(const QString& text) {
    return QUrl::toPercentEncoding(text);
}

QString decoded(const QByteArray& field) {
    return QUrl::fromPercentEncoding(field);
}

} // namespace

RecordingJournal::RecordingJournal(QString path) : m_path(std::move(path)), m_file(m_path) {
    if (!m_file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered)) {
        m_failed = true;
        logLine(QStringLiteral("[AudioRecorder] Journal de l'enregistrement impossible à écrire (%1) : %2")
                    .arg(QFileInfo(m_path).fileName(), m_file.errorString()));
    }
}

void RecordingJournal::append(const QByteArray& line) {
    if (m_failed)
        return;
    // Flushed to the disk before the recording goes on: a power cut right after a note keeps it.
    if (m_file.write(line + '\n') != line.size() + 1 || ::fdatasync(m_file.handle()) != 0) {
        m_failed = true;
        logLine(QStringLiteral("[AudioRecorder] Journal de l'enregistrement impossible à écrire (%1) : %2")
                    .arg(QFileInfo(m_path).fileName(), m_file.errorString()));
    }
}

void RecordingJournal::recordMic(const QString& path) {
    append("mic " + encoded(path));
}

void RecordingJournal::recordTrack(const QString& path) {
    append("track " + encoded(path));
}

void RecordingJournal::recordNote(const Note& note) {
    append("note " + QByteArray::number(note.time) + ' ' + encoded(note.text));
}

void RecordingJournal::recordMerged(const QString& mix, const QString& finalPath) {
    append("merged " + encoded(mix) + ' ' + encoded(finalPath));
}

void RecordingJournal::recordKept() {
    append("kept");
}

void RecordingJournal::recordFailedRetry() {
    append("retry-failed");
}

void RecordingJournal::remove() {
    m_file.close();
    QFile::remove(m_path);
    m_failed = true; // nothing more to record
}

RecordingJournal::Contents RecordingJournal::read(const QString& path) {
    Contents contents;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return contents;
    const QByteArray all = file.readAll();
    // Only whole lines count: the last one may have been cut by the crash.
    const QList<QByteArray> lines = all.left(all.lastIndexOf('\n') + 1).split('\n');
    for (const QByteArray& line : lines) {
        const QList<QByteArray> fields = line.split(' ');
        const QByteArray& kind = fields.first();
        if (kind == "mic" && fields.size() == 2) {
            contents.mic = decoded(fields[1]);
        } else if (kind == "track" && fields.size() == 2) {
            contents.tracks << decoded(fields[1]);
        } else if (kind == "note" && fields.size() == 3) {
            bool valid = false;
            const qint64 time = fields[1].toLongLong(&valid);
            if (valid)
                contents.notes.push_back(Note{time, decoded(fields[2])});
        } else if (kind == "merged" && fields.size() == 3) {
            contents.mix = decoded(fields[1]);
            contents.finalMix = decoded(fields[2]);
        } else if (kind == "kept") {
            contents.kept = true;
        } else if (kind == "retry-failed") {
            ++contents.failedRetries;
        }
    }
    return contents;
}

} // namespace tavrel
