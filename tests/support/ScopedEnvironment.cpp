#include "ScopedEnvironment.h"

#include <algorithm>

namespace tavrel::test {

ScopedEnvironment::~ScopedEnvironment() {
    restore();
}

void ScopedEnvironment::remember(const QByteArray& name) {
    const bool known = std::any_of(m_saved.begin(), m_saved.end(), [&](const auto& e) { return e.first == name; });
    if (known)
        return;
    if (qEnvironmentVariableIsSet(name.constData()))
        m_saved.emplace_back(name, qgetenv(name.constData()));
    else
        m_saved.emplace_back(name, std::nullopt);
}

void ScopedEnvironment::set(const QByteArray& name, const QByteArray& value) {
    remember(name);
    qputenv(name.constData(), value);
}

void ScopedEnvironment::apply(const QProcessEnvironment& variables) {
    for (const QString& key : variables.keys())
        set(key.toLocal8Bit(), variables.value(key).toLocal8Bit());
}

void ScopedEnvironment::restore() {
    // Reverse order so that a variable set twice ends with its very first value.
    for (auto it = m_saved.rbegin(); it != m_saved.rend(); ++it) {
        if (it->second)
            qputenv(it->first.constData(), *it->second);
        else
            qunsetenv(it->first.constData());
    }
    m_saved.clear();
}

QProcessEnvironment mergedEnvironment(std::initializer_list<QProcessEnvironment> parts) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const QProcessEnvironment& part : parts)
        env.insert(part);
    return env;
}

FileSizeLimit::FileSizeLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &m_saved);
    m_handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit = m_saved;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
}

void FileSizeLimit::restore() {
    if (!std::exchange(m_active, false))
        return;
    setrlimit(RLIMIT_FSIZE, &m_saved);
    std::signal(SIGXFSZ, m_handler);
}

} // namespace tavrel::test
