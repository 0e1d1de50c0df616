#pragma once

#include <QDateTime>
#include <QDir>
#include <QString>

namespace tavrel {

/// "<temporary directory>/<prefix><seconds since 1970>.<extension>", the names of the sources' files.
inline QString temporaryCaptureFile(const QString& prefix, const QString& extension) {
    return QDir(QDir::tempPath())
        .filePath(QStringLiteral("%1%2.%3").arg(prefix).arg(QDateTime::currentSecsSinceEpoch()).arg(extension));
}

} // namespace tavrel
