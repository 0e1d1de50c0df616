#pragma once

#include "core/Error.h"

#include <QByteArray>
#include <QIODevice>
#include <QString>
#include <optional>

namespace tavrel {

/// The body of an upload, read as the network asks for it: the text parts and the file part's header
/// from memory, then the recording straight from its file, then the closing delimiter. Memory stays
/// flat whatever the recording's size. Random access with a known size, so that the request carries a
/// Content-Length and can be sent again from the start.
///
///     MultipartBody body(head, path, tail); // throws Error when the recording cannot be opened
///     body.open(QIODevice::ReadOnly | QIODevice::Unbuffered);
class MultipartBody : public QIODevice {
    Q_OBJECT
public:
    /// Opens the recording and takes its size. Throws `Error` (its technical cause names the errno) when
    /// it cannot be opened.
    MultipartBody(QByteArray head, const QString& filePath, QByteArray tail, QObject* parent = nullptr);
    ~MultipartBody() override;

    bool isSequential() const override { return false; }
    qint64 size() const override;
    bool seek(qint64 position) override;
    bool atEnd() const override;

    /// Why the file stopped giving its bytes (it shrank, or a read failed), once that happened.
    const std::optional<Error>& failure() const { return m_failure; }

signals:
    /// The recording could not be read to its end; the request must not go on. Emitted once.
    void readFailed();

protected:
    qint64 readData(char* data, qint64 maxSize) override;
    qint64 writeData(const char* data, qint64 maxSize) override;

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
