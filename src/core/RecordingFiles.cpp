#include "RecordingFiles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace tavrel {

namespace {

bool isTaken(const QString& path) {
    return QFileInfo::exists(path) || QFileInfo(path).isSymLink();
}

/// Creates `path` if nobody has; false when it exists. A folder that cannot be written counts as free: the
/// writer that opens the file then reports the real failure.
bool claim(const QString& path) {
    const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0) {
        ::close(fd);
        return true;
    }
    return errno != EEXIST;
}

QString candidate(const QString& stem, int n, const QString& extension) {
    return n < 2 ? stem + QLatin1Char('.') + extension
                 : stem + QLatin1Char('_') + QString::number(n) + QLatin1Char('.') + extension;
}

} // namespace

QString RecordingFiles::recordingsDir() {
    const QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    const QString dir = base + QStringLiteral("/TavrelRecorder/Enregistrements");
    // A folder that cannot be made shows up later, when the first file in it cannot be created.
    QDir().mkpath(dir);
    return dir;
}

QString RecordingFiles::captureDir() {
    // The XDG rule: an unset, empty or relative $XDG_STATE_HOME means ~/.local/state.
    QString base = qEnvironmentVariable("XDG_STATE_HOME");
    if (base.isEmpty() || QDir::isRelativePath(base))
        base = QDir::homePath() + QStringLiteral("/.local/state");
    const QString dir = base + QStringLiteral("/TavrelRecorder/capture");
    if (!QFileInfo(dir).isDir() && QDir().mkpath(dir)) {
        // Conversations: for the user's eyes only.
        QFile::setPermissions(dir, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    }
    return dir;
}

QString RecordingFiles::captureLockFile() {
    return captureDir() + QStringLiteral("/capture.lock");
}

qint64 RecordingFiles::timestamp(const QDateTime& moment) {
    // Integer division truncates toward zero, also before 1970.
    return moment.toMSecsSinceEpoch() / 1000;
}

qint64 RecordingFiles::timestamp() {
    return timestamp(QDateTime::currentDateTimeUtc());
}

QString RecordingFiles::uniquePath(const QString& directory, const QString& prefix, const QString& extension) {
    return uniquePath(directory, prefix, extension, timestamp());
}

QString RecordingFiles::uniquePath(const QString& directory, const QString& prefix, const QString& extension,
                                   qint64 stamp) {
    const QString stem = directory + QLatin1Char('/') + prefix + QString::number(stamp);
    QString path = candidate(stem, 1, extension);
    for (int n = 2; isTaken(path); ++n)
        path = candidate(stem, n, extension);
    return path;
}

QString RecordingFiles::reservePath(const QString& directory, const QString& prefix, const QString& extension,
                                    const QStringList& alsoFreeIn) {
    const QString name = prefix + QString::number(timestamp());
    for (int n = 1;; ++n) {
        const QString fileName = QFileInfo(candidate(name, n, extension)).fileName();
        bool free = true;
        for (const QString& other : alsoFreeIn)
            free = free && !isTaken(other + QLatin1Char('/') + fileName);
        const QString path = directory + QLatin1Char('/') + fileName;
        if (free && claim(path))
            return path;
    }
}

QString RecordingFiles::micFile() {
    return reservePath(recordingsDir(), kMicPrefix, QStringLiteral("m4a"));
}

QString RecordingFiles::tapFile() {
    return reservePath(captureDir(), kTapPrefix, QStringLiteral("caf"));
}

QString RecordingFiles::screenCaptureFile() {
    return reservePath(captureDir(), kScreenCapturePrefix, QStringLiteral("m4a"));
}

QString RecordingFiles::virtualDeviceFile(bool m4a) {
    return reservePath(captureDir(), kVirtualDevicePrefix, m4a ? QStringLiteral("m4a") : QStringLiteral("aiff"));
}

QString RecordingFiles::mergedFile() {
    return reservePath(captureDir(), kMergedPrefix, QStringLiteral("m4a"), {recordingsDir()});
}

QString RecordingFiles::notesFileFor(const QString& recording) {
    const QFileInfo info(recording);
    const QString name = info.fileName();
    const int dot = name.lastIndexOf(QLatin1Char('.'));
    const QString stem = dot > 0 ? name.left(dot) : name;
    return info.path() + QLatin1Char('/') + stem + QLatin1String(kNotesSuffix);
}

QString RecordingFiles::journalFileFor(const QString& micFile) {
    return captureDir() + QLatin1Char('/') + QFileInfo(micFile).completeBaseName() + QLatin1String(kJournalSuffix);
}

} // namespace tavrel
