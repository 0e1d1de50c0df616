#include "TempDir.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <cerrno>
#include <csignal>
#include <mutex>
#include <sys/types.h>
#include <unistd.h>

namespace tavrel::test {

namespace {

const QString kOwnerFile = QStringLiteral(".tavrel-owner");

// A test binary killed outright (SIGKILL, ctest timeout) cannot remove its directories; the next
// run does, for directories whose owner process is gone.
void sweepAbandonedDirs() {
    static std::once_flag once;
    std::call_once(once, [] {
        const QDir tmp(QStringLiteral("/tmp"));
        for (const QString& name : tmp.entryList({QStringLiteral("tavrel-*")}, QDir::Dirs | QDir::NoDotAndDotDot)) {
            QFile owner(tmp.filePath(name) + QLatin1Char('/') + kOwnerFile);
            if (!owner.open(QIODevice::ReadOnly))
                continue;
            bool ok = false;
            const pid_t pid = owner.readAll().trimmed().toInt(&ok);
            owner.close();
            if (ok && pid > 0 && ::kill(pid, 0) != 0 && errno == ESRCH)
                QDir(tmp.filePath(name)).removeRecursively();
        }
    });
}

QString createDir(const QString& prefix) {
    sweepAbandonedDirs();
    QTemporaryDir dir(QStringLiteral("/tmp/%1-XXXXXX").arg(prefix));
    if (!dir.isValid())
        return {};
    dir.setAutoRemove(false);
    QFile owner(dir.path() + QLatin1Char('/') + kOwnerFile);
    if (owner.open(QIODevice::WriteOnly))
        owner.write(QByteArray::number(::getpid()));
    return dir.path();
}

} // namespace

TempDir::TempDir(const QString& prefix) : m_path(createDir(prefix)) {
    if (!qEnvironmentVariableIsEmpty("TAVREL_KEEP_TEST_FILES"))
        m_keep = true;
}

TempDir::~TempDir() {
    if (!m_path.isEmpty() && !m_keep)
        QDir(m_path).removeRecursively();
}

QString TempDir::filePath(const QString& name, bool mkdir) const {
    const QString path = m_path + QLatin1Char('/') + name;
    if (mkdir)
        QDir().mkpath(path);
    return path;
}

} // namespace tavrel::test
