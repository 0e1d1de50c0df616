#pragma once

#include "ManagedProcess.h"
#include "ScopedEnvironment.h"
#include "TempDir.h"

#include <QProcessEnvironment>
#include <QString>
#include <chrono>
#include <gtest/gtest.h>

namespace tavrel::test {

/// A private X server (Xvfb picks a free display itself, -nolisten tcp) exported as DISPLAY.
/// Pair it with a SessionBusFixture: with DISPLAY set and no bus address, libdbus would launch a
/// bus of its own.
class XvfbFixture {
public:
    struct Options {
        QString screen = QStringLiteral("1280x800x24");
        bool exportEnvironment = true;
        std::chrono::milliseconds startTimeout{10000};
    };

    XvfbFixture();
    explicit XvfbFixture(Options options);
    ~XvfbFixture();
    XvfbFixture(const XvfbFixture&) = delete;
    XvfbFixture& operator=(const XvfbFixture&) = delete;

    ::testing::AssertionResult start();
    void stop();
    bool isRunning() const { return m_running; }

    /// ":N"
    QString display() const { return m_display; }
    /// DISPLAY (and an empty XAUTHORITY); children also get QT_QPA_PLATFORM=xcb.
    QProcessEnvironment variables() const;
    QProcessEnvironment environment() const;

    QString logs() const;

private:
    Options m_options;
    TempDir m_dir;
    ManagedProcess m_server;
    QString m_display;
    ScopedEnvironment m_exported;
    bool m_running = false;
};

} // namespace tavrel::test
