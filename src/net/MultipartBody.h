#pragma once

#include "core/Error.h"

#include <QByteArray>
#include <QString>
#include <optional>

namespace tavrel {

/// The body of an upload, read as the connection takes it: the text parts and the file part's header from
/// memory, then the recording straight from its file, then the closing delimiter. Memory stays flat
/// whatever the recording's size, and the size is known up front (the request's Content-Length).
///
///     MultipartBody body(head, path, tail); // throws Error when the recording cannot be opened
///     while ((n = body.read(buffer, sizeof buffer)) > 0) send(buffer, n);
class MultipartBody {
public:
    /// Opens the recording and takes its size. Throws `Error` (its technical cause names the errno) when
    /// it cannot be opened.
    MultipartBody(QByteArray head, const QString& filePath, QByteArray tail);
    ~MultipartBody();
    MultipartBody(const MultipartBody&) = delete;
    MultipartBody& operator=(const MultipartBody&) = delete;

    qint64 size() const;
    /// The next bytes, up to `maxSize`: 0 at the end, -1 once the file failed (see `failure()`).
    qint64 read(char* data, qint64 maxSize);
    /// Why the file stopped giving its bytes: it shrank (a cut recording must not be sent), or a read failed.
    const std::optional<Error>& failure() const { return m_failure; }

private:
    qint64 fail(const QString& call, int error);

    QByteArray m_head;
    QByteArray m_tail;
    QString m_filePath;
    int m_fd = -1;
    qint64 m_fileSize = 0;
    qint64 m_position = 0;
    std::optional<Error> m_failure;
};

/// The user's text and the technical cause of a recording that cannot be read (`call` is the failed
/// system call, `error` its errno).
Error recordingReadFailure(const QString& filePath, const QString& call, int error);

} // namespace tavrel
