#pragma once

#include <QCoreApplication>
#include <chrono>
#include <thread>

namespace tavrel::test {

/// Polls `condition` until it holds or `timeout` passes, processing Qt events in between so that
/// the code under test keeps running (D-Bus replies, timers, coroutines). True if it held.
template <typename Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds timeout,
               std::chrono::milliseconds interval = std::chrono::milliseconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        if (condition())
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        if (QCoreApplication::instance())
            QCoreApplication::processEvents(QEventLoop::AllEvents, static_cast<int>(interval.count()));
        std::this_thread::sleep_for(interval);
    }
}

} // namespace tavrel::test
