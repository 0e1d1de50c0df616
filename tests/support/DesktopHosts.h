#pragma once

#include "ManagedProcess.h"
#include "TempDir.h"

#include <QList>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <chrono>
#include <gtest/gtest.h>

namespace tavrel::test {

/// Real desktop programs from Debian that the program meets on a user's desktop, each started on the
/// test's own X display and session bus (`session`: DISPLAY and DBUS_SESSION_BUS_ADDRESS at least).

/// One notification as the notification daemon received it.
struct ReceivedNotification {
    QString appName;
    QString summary;
    QString body;
};

/// dunst, the notification daemon: it owns org.freedesktop.Notifications and shows what it receives. A
/// rule that matches every notification runs a script that logs it, since dunst keeps what it shows out
/// of its history until closed.
class NotificationDaemon {
public:
    ::testing::AssertionResult start(const QProcessEnvironment& session,
                                     std::chrono::milliseconds timeout = std::chrono::seconds(20));
    QList<ReceivedNotification> received() const;
    QString logs() const;

private:
    TempDir m_dir{QStringLiteral("tavrel-dunst")};
    ManagedProcess m_daemon;
};

/// xfce4-panel with its status tray only: a StatusNotifierItem watcher and host (and an XEmbed tray).
/// Its settings daemon (xfconfd) is started first with the panel's own configuration, so that nothing
/// is read from or written to the user's.
class TrayHost {
public:
    ::testing::AssertionResult start(const QProcessEnvironment& session,
                                     std::chrono::milliseconds timeout = std::chrono::seconds(60));
    /// What the host's watcher lists ("<bus name>/<path>" or the name alone, as the host records them).
    QStringList registeredItems() const;
    QString logs() const;

private:
    QProcessEnvironment m_session;
    TempDir m_dir{QStringLiteral("tavrel-tray")};
    ManagedProcess m_settings;
    ManagedProcess m_panel;
};

/// openbox, an EWMH window manager: focus, stacking, placement and workspaces as on a desktop.
class WindowManager {
public:
    ::testing::AssertionResult start(const QProcessEnvironment& session,
                                     std::chrono::milliseconds timeout = std::chrono::seconds(20));

private:
    TempDir m_dir{QStringLiteral("tavrel-wm")};
    ManagedProcess m_manager;
};

/// weston on its headless back end with XWayland: a Wayland session with an X server at hand.
class WaylandCompositor {
public:
    ::testing::AssertionResult start(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    /// WAYLAND_DISPLAY, DISPLAY (XWayland), XDG_RUNTIME_DIR and XDG_SESSION_TYPE=wayland.
    QProcessEnvironment variables() const;
    QString logs() const;

private:
    TempDir m_dir{QStringLiteral("tavrel-weston")};
    ManagedProcess m_compositor;
    QString m_display;
};

} // namespace tavrel::test
