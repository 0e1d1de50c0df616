#pragma once

#include "ManagedProcess.h"
#include "ScopedEnvironment.h"
#include "TempDir.h"
#include "Wait.h"
#include "core/Error.h"

#include <QByteArray>
#include <QCoro/QCoroTask>
#include <QEventLoop>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QTimer>
#include <chrono>
#include <exception>
#include <optional>
#include <ostream>
#include <variant>

/// Readable QStrings in assertion messages.
inline void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}

namespace tavrel::test {

/// The reference backend (tools/reference-backend) on a free loopback port, with its own data
/// directory, and the settings store pointed at it through a private XDG config directory.
class ReferenceBackend {
public:
    ReferenceBackend();
    ~ReferenceBackend();

    /// False (with the log in `describe()`) when the server did not come up.
    bool isRunning() const { return m_port > 0; }
    QString describe() const { return m_process.describe(); }

    /// "http://127.0.0.1:<port>"
    QString origin() const;
    /// origin() + "/backend": what the settings store holds after construction.
    QString baseURL() const { return origin() + QStringLiteral("/backend"); }
    QString dataDir() const { return m_data.path(); }

    /// POSTs one control object (faults, job sequences, client lists...); the server's state back.
    QJsonObject control(const QJsonObject& command);
    /// Every request received so far (method, path, headers as [name, value] pairs, body_size).
    QJsonArray requests() const;
    /// The value of `header` in request `index` of requests() (names compared case-insensitively).
    static std::optional<QString> header(const QJsonObject& request, const QString& name);
    int uploadCount() const;
    /// uploads/<number>/fields.json, and the raw body the server received.
    QJsonObject upload(int number) const;
    QByteArray uploadBody(int number) const;
    QByteArray uploadFile(int number) const;

private:
    TempDir m_data;
    TempDir m_config;
    ScopedEnvironment m_environment;
    ManagedProcess m_process;
    int m_port = 0;
};

/// What a coroutine produced: its value or the exception it threw.
template <typename T>
struct Outcome {
    std::optional<T> value;
    std::exception_ptr error;
    bool finished = false;

    template <typename E>
    std::optional<E> errorAs() const {
        if (!error)
            return std::nullopt;
        try {
            std::rethrow_exception(error);
        } catch (const E& e) {
            return e;
        } catch (...) {
            return std::nullopt;
        }
    }
    /// The description of the thrown tavrel::Error, or "" when it threw nothing of the kind.
    QString errorText() const {
        const auto e = errorAs<Error>();
        return e ? e->localizedDescription() : QString();
    }
};

/// Turns `loop` until `finished` or `timeout`. A real event loop, not a polling one: uploads hand their
/// body to Qt's network thread chunk by chunk through this thread's events, so sleeping here would throttle
/// them.
inline void runLoop(QEventLoop& loop, const bool& finished, std::chrono::milliseconds timeout) {
    if (finished)
        return;
    QTimer timer;
    timer.setSingleShot(true);
    QObject::connect(&timer, &QTimer::timeout, &loop, &QEventLoop::quit);
    timer.start(timeout);
    loop.exec();
}

/// Runs `task` to its end with the event loop turning (at most `timeout`), catching what it throws.
template <typename T>
Outcome<T> runTask(QCoro::Task<T> task, std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    Outcome<T> outcome;
    QEventLoop loop;
    // A named closure: the coroutine refers to its captures until it ends, after this function's loop.
    auto body = [&]() -> QCoro::Task<> {
        try {
            outcome.value = co_await std::move(task);
        } catch (...) {
            outcome.error = std::current_exception();
        }
        outcome.finished = true;
        loop.quit();
    };
    auto runner = body();
    runLoop(loop, outcome.finished, timeout);
    return outcome;
}

/// The same for a task without a value (`value` holds a monostate once it has ended without throwing).
inline Outcome<std::monostate> runTask(QCoro::Task<> task,
                                       std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    Outcome<std::monostate> outcome;
    QEventLoop loop;
    auto body = [&]() -> QCoro::Task<> {
        try {
            co_await std::move(task);
            outcome.value = std::monostate{};
        } catch (...) {
            outcome.error = std::current_exception();
        }
        outcome.finished = true;
        loop.quit();
    };
    auto runner = body();
    runLoop(loop, outcome.finished, timeout);
    return outcome;
}

} // namespace tavrel::test
