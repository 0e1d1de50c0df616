#include "DesktopHosts.h"

#include "Command.h"
#include "Wait.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QDir>
#include <QFile>
#include <QRegularExpression>

namespace tavrel::test {

namespace {

/// Whether `name` has an owner on the session bus of `session`.
bool nameIsOwned(const QProcessEnvironment& session, const QString& name) {
    static int connections = 0;
    const QString connectionName = QStringLiteral("desktop-hosts-%1").arg(++connections);
    bool owned = false;
    {
        QDBusConnection bus =
            QDBusConnection::connectToBus(session.value(QStringLiteral("DBUS_SESSION_BUS_ADDRESS")), connectionName);
        owned = bus.isConnected() && bus.interface() && bus.interface()->isServiceRegistered(name);
    }
    QDBusConnection::disconnectFromBus(connectionName);
    return owned;
}

bool writeFile(const QString& path, const QByteArray& contents, QFile::Permissions permissions = {}) {
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(contents) != contents.size())
        return false;
    file.close();
    return permissions == QFile::Permissions() || file.setPermissions(permissions);
}

::testing::AssertionResult startedWhen(ManagedProcess& process, const std::function<bool()>& ready,
                                       std::chrono::milliseconds timeout, const char* what) {
    if (waitUntil([&] { return ready() || !process.isRunning(); }, timeout, std::chrono::milliseconds(50)) &&
        process.isRunning())
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << what << " did not come up within " << timeout.count()
                                         << " ms: " << process.describe().toStdString();
}

} // namespace

// ---------------------------------------------------------------------------------------------------------------

::testing::AssertionResult NotificationDaemon::start(const QProcessEnvironment& session,
                                                     std::chrono::milliseconds timeout) {
    const QString log = m_dir.filePath(QStringLiteral("received.log"));
    const QString script = m_dir.filePath(QStringLiteral("log-notification.sh"));
    // dunst runs the script with the application name, summary and body as its first arguments; records are
    // separated by RS and fields by US, which no notification text contains.
    const QByteArray scriptText =
        "#!/bin/sh\nprintf '%s\\037%s\\037%s\\036' \"$1\" \"$2\" \"$3\" >> '" + log.toUtf8() + "'\n";
    // Every notification counts, even one identical to the one before it.
    const QByteArray config = "[global]\n    follow = none\n    idle_threshold = 0\n    stack_duplicates = false\n\n"
                              "[log_every_notification]\n    summary = \"*\"\n    script = " +
                              script.toUtf8() + "\n";
    if (!writeFile(script, scriptText, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner) ||
        !writeFile(m_dir.filePath(QStringLiteral("dunstrc")), config) || !writeFile(log, {}))
        return ::testing::AssertionFailure() << "cannot write dunst's files in " << m_dir.path().toStdString();
    ManagedProcess::Options options;
    options.program = QStringLiteral("dunst");
    options.arguments = {QStringLiteral("-config"), m_dir.filePath(QStringLiteral("dunstrc"))};
    options.environment = session;
    options.logPath = m_dir.filePath(QStringLiteral("dunst.log"));
    if (!m_daemon.start(options))
        return ::testing::AssertionFailure() << m_daemon.errorString().toStdString();
    return startedWhen(
        m_daemon, [&] { return nameIsOwned(session, QStringLiteral("org.freedesktop.Notifications")); }, timeout,
        "dunst");
}

QList<ReceivedNotification> NotificationDaemon::received() const {
    QFile file(m_dir.filePath(QStringLiteral("received.log")));
    QList<ReceivedNotification> notifications;
    if (!file.open(QIODevice::ReadOnly))
        return notifications;
    for (const QByteArray& record : file.readAll().split('\x1e')) {
        const QList<QByteArray> fields = record.split('\x1f');
        if (fields.size() == 3)
            notifications.append(
                {QString::fromUtf8(fields[0]), QString::fromUtf8(fields[1]), QString::fromUtf8(fields[2])});
    }
    return notifications;
}

QString NotificationDaemon::logs() const {
    return QStringLiteral("--- dunst ---\n") + fileTail(m_dir.filePath(QStringLiteral("dunst.log")));
}

// ---------------------------------------------------------------------------------------------------------------

::testing::AssertionResult TrayHost::start(const QProcessEnvironment& session, std::chrono::milliseconds timeout) {
    // One panel along the top of the screen holding only the status tray.
    const QByteArray panelConfig = R"(<?xml version="1.0" encoding="UTF-8"?>
<channel name="xfce4-panel" version="1.0">
  <property name="configver" type="int" value="2"/>
  <property name="panels" type="array">
    <value type="int" value="1"/>
    <property name="panel-1" type="empty">
      <property name="position" type="string" value="p=6;x=0;y=0"/>
      <property name="length" type="uint" value="100"/>
      <property name="position-locked" type="bool" value="true"/>
      <property name="size" type="uint" value="32"/>
      <property name="plugin-ids" type="array"><value type="int" value="1"/></property>
    </property>
  </property>
  <property name="plugins" type="empty">
    <property name="plugin-1" type="string" value="systray"/>
  </property>
</channel>
)";
    const QString config = m_dir.filePath(QStringLiteral("config"), true);
    if (!writeFile(config + QStringLiteral("/xfce4/xfconf/xfce-perchannel-xml/xfce4-panel.xml"), panelConfig))
        return ::testing::AssertionFailure() << "cannot write the panel's configuration";
    m_session = session;
    m_session.insert(QStringLiteral("HOME"), m_dir.path());
    m_session.insert(QStringLiteral("XDG_CONFIG_HOME"), config);
    m_session.insert(QStringLiteral("XDG_CACHE_HOME"), m_dir.filePath(QStringLiteral("cache"), true));
    m_session.insert(QStringLiteral("NO_AT_BRIDGE"), QStringLiteral("1"));

    // Started here rather than by bus activation, which would give it the bus daemon's environment.
    const QStringList settingsDaemons =
        QDir(QStringLiteral("/usr/lib")).entryList({QStringLiteral("*-linux-gnu*")}, QDir::Dirs);
    QString settingsDaemon;
    for (const QString& triplet : settingsDaemons) {
        const QString candidate = QStringLiteral("/usr/lib/%1/xfce4/xfconf/xfconfd").arg(triplet);
        if (QFile::exists(candidate))
            settingsDaemon = candidate;
    }
    if (settingsDaemon.isEmpty())
        return ::testing::AssertionFailure() << "xfconfd not found (package xfconf)";
    ManagedProcess::Options settings;
    settings.program = settingsDaemon;
    settings.environment = m_session;
    settings.logPath = m_dir.filePath(QStringLiteral("xfconfd.log"));
    if (!m_settings.start(settings))
        return ::testing::AssertionFailure() << m_settings.errorString().toStdString();
    if (auto ready = startedWhen(
            m_settings, [&] { return nameIsOwned(m_session, QStringLiteral("org.xfce.Xfconf")); }, timeout, "xfconfd");
        !ready)
        return ready;

    ManagedProcess::Options panel;
    panel.program = QStringLiteral("xfce4-panel");
    panel.environment = m_session;
    panel.logPath = m_dir.filePath(QStringLiteral("panel.log"));
    if (!m_panel.start(panel))
        return ::testing::AssertionFailure() << m_panel.errorString().toStdString();
    return startedWhen(
        m_panel, [&] { return nameIsOwned(m_session, QStringLiteral("org.kde.StatusNotifierWatcher")); }, timeout,
        "xfce4-panel's status tray");
}

QStringList TrayHost::registeredItems() const {
    const QString connectionName = QStringLiteral("tray-host-probe");
    QStringList items;
    {
        QDBusConnection bus =
            QDBusConnection::connectToBus(m_session.value(QStringLiteral("DBUS_SESSION_BUS_ADDRESS")), connectionName);
        QDBusMessage get = QDBusMessage::createMethodCall(
            QStringLiteral("org.kde.StatusNotifierWatcher"), QStringLiteral("/StatusNotifierWatcher"),
            QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
        get << QStringLiteral("org.kde.StatusNotifierWatcher") << QStringLiteral("RegisteredStatusNotifierItems");
        const QDBusMessage reply = bus.call(get, QDBus::Block, 5000);
        if (reply.type() == QDBusMessage::ReplyMessage)
            items = reply.arguments().value(0).value<QDBusVariant>().variant().toStringList();
    }
    QDBusConnection::disconnectFromBus(connectionName);
    return items;
}

QString TrayHost::logs() const {
    return QStringLiteral("--- xfce4-panel ---\n%1\n--- xfconfd ---\n%2")
        .arg(fileTail(m_dir.filePath(QStringLiteral("panel.log"))),
             fileTail(m_dir.filePath(QStringLiteral("xfconfd.log"))));
}

// ---------------------------------------------------------------------------------------------------------------

::testing::AssertionResult WindowManager::start(const QProcessEnvironment& session, std::chrono::milliseconds timeout) {
    ManagedProcess::Options options;
    options.program = QStringLiteral("openbox");
    options.arguments = {QStringLiteral("--sm-disable")};
    options.environment = session;
    options.environment.insert(QStringLiteral("HOME"), m_dir.path());
    options.environment.insert(QStringLiteral("XDG_CONFIG_HOME"), m_dir.filePath(QStringLiteral("config"), true));
    options.logPath = m_dir.filePath(QStringLiteral("openbox.log"));
    if (!m_manager.start(options))
        return ::testing::AssertionFailure() << m_manager.errorString().toStdString();
    // An EWMH window manager announces itself on the root window once it manages the screen.
    return startedWhen(
        m_manager,
        [&] {
            const CommandResult check = runCommand(
                QStringLiteral("xprop"), {QStringLiteral("-root"), QStringLiteral("_NET_SUPPORTING_WM_CHECK")},
                options.environment, std::chrono::seconds(5));
            return check.ok() && check.standardOutput.contains("window id");
        },
        timeout, "openbox");
}

// ---------------------------------------------------------------------------------------------------------------

::testing::AssertionResult WaylandCompositor::start(std::chrono::milliseconds timeout) {
    const QString runtime = m_dir.filePath(QStringLiteral("run"), true);
    QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    ManagedProcess::Options options;
    options.program = QStringLiteral("weston");
    options.arguments = {QStringLiteral("--backend=headless-backend.so"),
                         QStringLiteral("--xwayland"),
                         QStringLiteral("--socket=wayland-tavrel"),
                         QStringLiteral("--width=1280"),
                         QStringLiteral("--height=800"),
                         QStringLiteral("--idle-time=0")};
    options.environment = QProcessEnvironment::systemEnvironment();
    options.environment.remove(QStringLiteral("DISPLAY"));
    options.environment.remove(QStringLiteral("WAYLAND_DISPLAY"));
    options.environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime);
    options.logPath = m_dir.filePath(QStringLiteral("weston.log"));
    if (!m_compositor.start(options))
        return ::testing::AssertionFailure() << m_compositor.errorString().toStdString();
    static const QRegularExpression listening(QStringLiteral("xserver listening on display (:\\d+)"));
    return startedWhen(
        m_compositor,
        [&] {
            const QRegularExpressionMatch match = listening.match(fileTail(options.logPath, 200));
            m_display = match.hasMatch() ? match.captured(1) : QString();
            return !m_display.isEmpty() && QFile::exists(runtime + QStringLiteral("/wayland-tavrel"));
        },
        timeout, "weston");
}

QProcessEnvironment WaylandCompositor::variables() const {
    QProcessEnvironment vars;
    vars.insert(QStringLiteral("WAYLAND_DISPLAY"), QStringLiteral("wayland-tavrel"));
    vars.insert(QStringLiteral("DISPLAY"), m_display);
    vars.insert(QStringLiteral("XDG_RUNTIME_DIR"), m_dir.filePath(QStringLiteral("run")));
    vars.insert(QStringLiteral("XDG_SESSION_TYPE"), QStringLiteral("wayland"));
    return vars;
}

QString WaylandCompositor::logs() const {
    return QStringLiteral("--- weston ---\n") + fileTail(m_dir.filePath(QStringLiteral("weston.log")));
}

} // namespace tavrel::test
