#include "TempDir.h"

#include <QDir>
#include <QTemporaryDir>

namespace tavrel::test {

namespace {

QString createDir(const QString& prefix) {
    QTemporaryDir dir(QStringLiteral("/tmp/%1-XXXXXX").arg(prefix));
    if (!dir.isValid())
        return {};
    dir.setAutoRemove(false);
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

TempDir::TempDir(TempDir&& other) noexcept : m_path(std::move(other.m_path)), m_keep(other.m_keep) {
    other.m_path.clear();
}

TempDir& TempDir::operator=(TempDir&& other) noexcept {
    if (this != &other) {
        if (!m_path.isEmpty() && !m_keep)
            QDir(m_path).removeRecursively();
        m_path = std::move(other.m_path);
        m_keep = other.m_keep;
        other.m_path.clear();
    }
    return *this;
}

QString TempDir::filePath(const QString& name, bool mkdir) const {
    const QString path = m_path + QLatin1Char('/') + name;
    if (mkdir)
        QDir().mkpath(path);
    return path;
}

QString makeTempDir(const QString& prefix) {
    return createDir(prefix);
}

} // namespace tavrel::test
