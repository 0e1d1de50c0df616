#include "net/MultipartBody.h"

#include <QFile>
#include <QFileInfo>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tavrel {

Error recordingReadFailure(const QString& filePath, const QString& call, int error) {
    const QString name = QFileInfo(filePath).fileName();
    const QString cause = QStringLiteral("%1(%2) : %3 (errno %4)")
                              .arg(call, filePath, QString::fromLocal8Bit(std::strerror(error)))
                              .arg(error);
    switch (error) {
    case ENOENT:
        return Error(QStringLiteral("Le fichier « %1 » est introuvable.").arg(name), cause);
    case EACCES:
    case EPERM:
        return Error(QStringLiteral("Le fichier « %1 » n'est pas lisible (accès refusé).").arg(name), cause);
    default:
        return Error(QStringLiteral("Le fichier « %1 » ne peut pas être lu.").arg(name), cause);
    }
}

MultipartBody::MultipartBody(QByteArray head, const QString& filePath, QByteArray tail)
    : m_head(std::move(head)), m_tail(std::move(tail)), m_filePath(filePath) {
    const QByteArray encoded = QFile::encodeName(filePath);
    m_fd = ::open(encoded.constData(), O_RDONLY | O_CLOEXEC);
    if (m_fd < 0)
        throw recordingReadFailure(filePath, QStringLiteral("open"), errno);
    struct stat info {};
    if (::fstat(m_fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        const int error =
            !S_ISREG(info.st_mode) && info.st_mode != 0 ? (S_ISDIR(info.st_mode) ? EISDIR : EINVAL) : errno;
        ::close(m_fd);
        m_fd = -1;
        throw recordingReadFailure(filePath, QStringLiteral("fstat"), error);
    }
    m_fileSize = info.st_size;
    // The whole file is read once, front to back.
    ::posix_fadvise(m_fd, 0, 0, POSIX_FADV_SEQUENTIAL);
}

MultipartBody::~MultipartBody() {
    if (m_fd >= 0)
        ::close(m_fd);
}

qint64 MultipartBody::size() const {
    return m_head.size() + m_fileSize + m_tail.size();
}

qint64 MultipartBody::read(char* data, qint64 maxSize) {
    if (m_failure)
        return -1;
    qint64 written = 0;
    const auto copy = [&](const QByteArray& bytes, qint64 offset) {
        const qint64 count = std::min<qint64>(bytes.size() - offset, maxSize - written);
        std::memcpy(data + written, bytes.constData() + offset, static_cast<size_t>(count));
        written += count;
        m_position += count;
    };
    if (m_position < m_head.size())
        copy(m_head, m_position);
    while (written < maxSize && m_position < m_head.size() + m_fileSize) {
        const qint64 offset = m_position - m_head.size();
        const qint64 wanted = std::min(maxSize - written, m_fileSize - offset);
        const ssize_t got = ::pread(m_fd, data + written, static_cast<size_t>(wanted), offset);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return fail(QStringLiteral("read"), errno);
        // Shorter than when the upload began: sending what is left would give the backend a cut recording.
        if (got == 0)
            return fail(QStringLiteral("read"), ENODATA);
        written += got;
        m_position += got;
    }
    const qint64 tailStart = m_head.size() + m_fileSize;
    if (written < maxSize && m_position >= tailStart && m_position < size())
        copy(m_tail, m_position - tailStart);
    return written;
}

qint64 MultipartBody::fail(const QString& call, int error) {
    m_failure = recordingReadFailure(m_filePath, call, error);
    return -1;
}

} // namespace tavrel
