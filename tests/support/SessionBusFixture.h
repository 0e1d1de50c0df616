#pragma once

#include "ManagedProcess.h"
#include "ScopedEnvironment.h"
#include "TempDir.h"

#include <QList>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <chrono>
#include <gtest/gtest.h>
#include <utility>

namespace tavrel::test {

/// One Notify call as the notification server received it.
struct RecordedNotification {
    QString appName;
    uint replacesId = 0;
    QString appIcon;
    QString summary;
    QString body;
    QStringList actions; ///< key, label, key, label...
    QVariantMap hints;
    int expireTimeout = -1;
};

/// A private session bus (dbus-daemon on a unix socket under a temp dir) exported as
/// DBUS_SESSION_BUS_ADDRESS, with Debian's D-Bus mocks (python3-dbusmock) standing in for the desktop
/// services that have no display-less program here: a notification server and, on request, a file
/// manager (org.freedesktop.FileManager1). Each records the calls it receives. The real notification
/// daemon and tray host, which need a display, are in DesktopHosts.h.
///
/// QDBusConnection::sessionBus() connects once per process and never follows a new address: when
/// the code under test uses it, start one fixture for the whole test binary (SessionBusFixture::shared()).
class SessionBusFixture {
public:
    struct Options {
        bool notificationServer = true;
        /// An org.freedesktop.FileManager1 that records ShowItems.
        bool fileManager = false;
        /// Export DBUS_SESSION_BUS_ADDRESS into the test process.
        bool exportEnvironment = true;
        std::chrono::milliseconds startTimeout{10000};
    };

    SessionBusFixture();
    explicit SessionBusFixture(Options options);
    ~SessionBusFixture();
    SessionBusFixture(const SessionBusFixture&) = delete;
    SessionBusFixture& operator=(const SessionBusFixture&) = delete;

    /// A process-wide bus with the notification server and the file manager, started on first use and
    /// stopped when the test binary exits. Fails the calling test when it cannot start.
    static SessionBusFixture& shared();

    ::testing::AssertionResult start();
    void stop();
    bool isRunning() const { return m_running; }

    QString address() const { return m_address; }
    /// DBUS_SESSION_BUS_ADDRESS only.
    QProcessEnvironment variables() const;
    /// The test process's environment with the bus address, for children.
    QProcessEnvironment environment() const;

    /// Every Notify call so far, in order.
    QList<RecordedNotification> notifications() const;

    /// Every FileManager1 call so far: method name ("ShowItems") and its URIs.
    struct FileManagerCall {
        QString method;
        QStringList uris;
    };
    QList<FileManagerCall> fileManagerCalls() const;
    ::testing::AssertionResult waitForFileManagerCalls(int count,
                                                       std::chrono::milliseconds timeout = std::chrono::seconds(5));

    QString logs() const;

private:
    /// The calls a mock received: (method name, arguments).
    QList<std::pair<QString, QVariantList>> mockCalls(const QString& service, const QString& path) const;

    Options m_options;
    TempDir m_dir;
    ManagedProcess m_daemon;
    ManagedProcess m_notificationServer;
    ManagedProcess m_fileManager;
    QString m_address;
    ScopedEnvironment m_exported;
    bool m_running = false;
};

} // namespace tavrel::test
