#pragma once

#include "ManagedProcess.h"
#include "ScopedEnvironment.h"
#include "TempDir.h"

#include <QJsonObject>
#include <QList>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <chrono>
#include <gtest/gtest.h>

namespace tavrel::test {

/// One Notify call as the fake notification server received it.
struct RecordedNotification {
    uint id = 0; ///< the id the server answered
    QString appName;
    uint replacesId = 0;
    QString appIcon;
    QString summary;
    QString body;
    QStringList actions; ///< key, label, key, label...
    QJsonObject hints;   ///< byte arrays (image-data) appear as {"bytes": length}
    int expireTimeout = -1;
};

/// A private session bus (dbus-daemon on a unix socket under a temp dir) exported as
/// DBUS_SESSION_BUS_ADDRESS, with a fake notification server and, on request, a fake
/// StatusNotifierWatcher that reports a registered tray host.
///
/// QDBusConnection::sessionBus() connects once per process and never follows a new address: when
/// the code under test uses it, start one fixture for the whole test binary (SessionBusFixture::shared()).
class SessionBusFixture {
public:
    struct Options {
        bool notificationServer = true;
        bool statusNotifierWatcher = false;
        /// A fake org.freedesktop.FileManager1 that logs ShowItems/ShowFolders.
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

    /// A process-wide bus with the notification server and the watcher, started on first use and
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
    /// Waits (processing Qt events) until at least `count` notifications have arrived.
    ::testing::AssertionResult waitForNotifications(int count,
                                                    std::chrono::milliseconds timeout = std::chrono::seconds(5));
    /// Forgets the notifications recorded so far (notifications() starts empty again).
    void clearNotifications();

    /// Items registered with the fake watcher and still on the bus ("<service>/<path>").
    QStringList registeredStatusItems() const;
    ::testing::AssertionResult waitForStatusItems(int count,
                                                  std::chrono::milliseconds timeout = std::chrono::seconds(5));

    /// Every FileManager1 call so far: method name ("ShowItems", "ShowFolders") and its URIs.
    struct FileManagerCall {
        QString method;
        QStringList uris;
    };
    QList<FileManagerCall> fileManagerCalls() const;
    ::testing::AssertionResult waitForFileManagerCalls(int count,
                                                       std::chrono::milliseconds timeout = std::chrono::seconds(5));

    QString logs() const;

private:
    Options m_options;
    TempDir m_dir;
    ManagedProcess m_daemon;
    ManagedProcess m_services;
    QString m_address;
    ScopedEnvironment m_exported;
    bool m_running = false;
    int m_notificationsSkipped = 0;
};

} // namespace tavrel::test
