#pragma once

#include "ManagedProcess.h"
#include "ScopedEnvironment.h"
#include "TempDir.h"
#include "Wait.h"
#include "core/Error.h"

#include <QCoro/QCoroTask>
#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QTimer>
#include <chrono>
#include <exception>
#include <memory>
#include <optional>
#include <ostream>
#include <type_traits>
#include <variant>

/// Readable QStrings in assertion messages.
inline void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}

namespace tavrel::test {

inline QJsonObject jsonObject(const char* json) {
    return QJsonDocument::fromJson(json).object();
}

/// The reference backend (tools/reference-backend) on a free loopback port, with its own data
/// directory, and the settings store pointed at it (empty token) through a private XDG config directory.
class ReferenceBackend {
public:
    /// `extraArguments` go to the server (e.g. "--tls-cert", path, "--tls-key", path for HTTPS).
    explicit ReferenceBackend(const QStringList& extraArguments = {});
    ~ReferenceBackend();

    /// False (with the log in `describe()`) when the server did not come up.
    bool isRunning() const { return m_port > 0; }
    QString describe() const { return m_process.describe(); }

    /// "http://127.0.0.1:<port>" (https when serving TLS)
    QString origin() const { return m_scheme + QStringLiteral("://127.0.0.1:%1").arg(m_port); }
    QString baseURL() const { return origin() + QStringLiteral("/backend"); }
    QString dataDir() const { return m_data.path(); }

    /// POSTs one control object (faults, job sequences, client lists...); the server's state back.
    QJsonObject control(const QJsonObject& command);
    QJsonObject control(const char* json) { return control(jsonObject(json)); }
    /// Every request received so far (method, path, headers as [name, value] pairs, body_size).
    QJsonArray requests() const;
    /// How many requests went to `path`.
    int requestsTo(const QString& path) const;
    int uploadCount() const;
    /// uploads/<number>/fields.json; its "fields"; the raw body; the stored file.
    QJsonObject upload(int number) const;
    QJsonObject fields(int number = 1) const { return upload(number).value("fields").toObject(); }
    QByteArray uploadBody(int number) const;
    QByteArray uploadFile(int number) const;

private:
    TempDir m_data;
    TempDir m_config;
    ScopedEnvironment m_environment;
    ManagedProcess m_process;
    QString m_scheme = QStringLiteral("http");
    int m_port = 0;
};

/// What a coroutine produced: its value (a monostate for a task without one) or the exception it threw.
template <typename T>
struct Outcome {
    std::optional<T> value;
    std::exception_ptr error;
    bool finished = false;

    template <typename E>
    std::optional<E> errorAs() const {
        try {
            if (error)
                std::rethrow_exception(error);
        } catch (const E& e) {
            return e;
        } catch (...) {
        }
        return std::nullopt;
    }
    /// The description of the thrown tavrel::Error, or "" when it threw nothing of the kind.
    QString errorText() const {
        const auto e = errorAs<Error>();
        return e ? e->localizedDescription() : QString();
    }
};

/// What `runTask`'s coroutine shares with its caller. The coroutine holds it by shared pointer: when the
/// caller gives up at the time-out, the coroutine may still resume later and must find it alive.
template <typename Value>
struct TaskRun {
    Outcome<Value> outcome;
    QPointer<QEventLoop> loop;
};

template <typename T, typename Value>
QCoro::Task<> runTaskInto(QCoro::Task<T> task, std::shared_ptr<TaskRun<Value>> run) {
    try {
        if constexpr (std::is_void_v<T>) {
            co_await std::move(task);
            run->outcome.value = std::monostate{};
        } else {
            run->outcome.value = co_await std::move(task);
        }
    } catch (...) {
        run->outcome.error = std::current_exception();
    }
    run->outcome.finished = true;
    if (run->loop)
        run->loop->quit();
}

/// Runs `task` to its end (at most `timeout`), catching what it throws. A real event loop, not a polling
/// one: uploads hand their body to Qt's network thread chunk by chunk through this thread's events, so
/// sleeping here would throttle them.
template <typename T>
auto runTask(QCoro::Task<T> task, std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    using Value = std::conditional_t<std::is_void_v<T>, std::monostate, T>;
    auto run = std::make_shared<TaskRun<Value>>();
    QEventLoop loop;
    run->loop = &loop;
    auto runner = runTaskInto<T, Value>(std::move(task), run);
    if (!run->outcome.finished) {
        QTimer timer;
        timer.callOnTimeout(&loop, &QEventLoop::quit);
        timer.start(timeout);
        loop.exec();
    }
    return run->outcome;
}

} // namespace tavrel::test
