#pragma once

#include <QString>

namespace tavrel::test {

/// A private temporary directory removed with everything in it when the object goes away.
/// Short paths under /tmp so that unix socket paths stay below the 108-byte limit.
class TempDir {
public:
    explicit TempDir(const QString& prefix = QStringLiteral("tavrel"));
    ~TempDir();
    TempDir(TempDir&& other) noexcept;
    TempDir& operator=(TempDir&& other) noexcept;
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    bool isValid() const { return !m_path.isEmpty(); }
    QString path() const { return m_path; }
    /// `path()/name`; creates the subdirectory when `mkdir` is set.
    QString filePath(const QString& name, bool mkdir = false) const;
    /// Keeps the directory after destruction (for looking at a failed test's files).
    void keep() { m_keep = true; }

private:
    QString m_path;
    bool m_keep = false;
};

/// A fresh temporary directory that the caller removes (or leaves for the system to clean).
QString makeTempDir(const QString& prefix);

} // namespace tavrel::test
