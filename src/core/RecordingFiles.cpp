#include "RecordingFiles.h"

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

namespace tavrel {

QString RecordingFiles::recordingsDir() {
    const QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    const QString dir = base + QStringLiteral("/TavrelRecorder/Enregistrements");
    // A folder that cannot be made shows up later, when the first file in it cannot be created.
    QDir().mkpath(dir);
    return dir;
}

QString RecordingFiles::temporaryDir() {
    return QDir::tempPath();
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
    QString path = stem + QLatin1Char('.') + extension;
    for (int n = 2; QFileInfo::exists(path) || QFileInfo(path).isSymLink(); ++n)
        path = stem + QLatin1Char('_') + QString::number(n) + QLatin1Char('.') + extension;
    return path;
}

QString RecordingFiles::micFile() {
    return uniquePath(recordingsDir(), kMicPrefix, QStringLiteral("m4a"));
}

QString RecordingFiles::tapFile() {
    return uniquePath(temporaryDir(), kTapPrefix, QStringLiteral("caf"));
}

QString RecordingFiles::screenCaptureFile() {
    return uniquePath(temporaryDir(), kScreenCapturePrefix, QStringLiteral("m4a"));
}

QString RecordingFiles::virtualDeviceFile(bool m4a) {
    return uniquePath(temporaryDir(), kVirtualDevicePrefix, m4a ? QStringLiteral("m4a") : QStringLiteral("aiff"));
}

QString RecordingFiles::mergedFile() {
    return uniquePath(temporaryDir(), kMergedPrefix, QStringLiteral("m4a"));
}

QString RecordingFiles::notesFileFor(const QString& recording) {
    const QFileInfo info(recording);
    const QString name = info.fileName();
    const int dot = name.lastIndexOf(QLatin1Char('.'));
    const QString stem = dot > 0 ? name.left(dot) : name;
    return info.path() + QLatin1Char('/') + stem + QLatin1String(kNotesSuffix);
}

} // namespace tavrel
