#pragma once

#include <QString>
#include <exception>

namespace tavrel {

/// Base of every failure the program throws. `localizedDescription()` is the French text shown to the
/// user; `debugDescription()` is the technical form used in some log lines (the case name for coded
/// errors, the description otherwise); `technicalCause()`, when known, is what the system itself said
/// (an HTTP status and its body, a TLS verdict, an errno), for the details of an alert and the logs.
class Error : public std::exception {
public:
    explicit Error(QString description, QString technicalCause = {})
        : m_description(std::move(description)), m_technicalCause(std::move(technicalCause)),
          m_utf8(m_description.toUtf8()) {}
    const QString& localizedDescription() const noexcept { return m_description; }
    virtual QString debugDescription() const { return m_description; }
    const QString& technicalCause() const noexcept { return m_technicalCause; }
    const char* what() const noexcept override { return m_utf8.constData(); }

private:
    QString m_description;
    QString m_technicalCause;
    QByteArray m_utf8;
};

/// An error that carries one case of an enumeration. `errorDescription(Code)` and `caseName(Code)` must
/// be declared for the enumeration (found by argument-dependent lookup).
template <typename Code>
class CodedError : public Error {
public:
    explicit CodedError(Code code) : Error(errorDescription(code)), m_code(code) {}
    Code code() const noexcept { return m_code; }
    QString debugDescription() const override { return caseName(m_code); }

private:
    Code m_code;
};

/// The user's text of a caught failure: our own description, a standard exception's message, or `unknown`.
QString localizedDescription(const std::exception_ptr& error,
                             const QString& unknown = QStringLiteral("erreur inconnue"));
/// The technical form of a caught failure, for log lines.
QString debugDescription(const std::exception_ptr& error);
/// What the system said of a caught failure, empty when nothing more than its description is known.
QString technicalCause(const std::exception_ptr& error);

} // namespace tavrel
