#pragma once

#include <QString>

namespace tavrel::test {

/// A private temporary directory removed with everything in it when the object goes away.
/// Short paths under /tmp so that unix socket paths stay below the 108-byte limit.
class TempDir {
public:
    explicit TempDir(const QString& prefix = QStringLiteral("tavrel"));
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    bool isValid() const { return !m_path.isEmpty(); }
    QString path() const { return m_path; }
    /// `path()/name`; creates the subdirectory when `mkdir` is set.
    QString filePath(const QString& name, bool mkdir = false) const;

private:
    QString m_path;
    bool m_keep = false;
};

} // namespace tavrel::test
