// The real program under Xvfb with the desktop's own programs from Debian (the dunst notification daemon,
// xfce4-panel's status tray, the openbox window manager, the weston compositor) and a private audio server,
// driven only through its public surface: the tray, the command line, its D-Bus face, the keyboard.
#include "ReferenceBackend.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>
#include <QSettings>
#include <QStandardPaths>
#include <gtest/gtest.h>

namespace tavrel::test {

/// Collects fr.tavrel.Recorder's PropertiesChanged signals.
class PropertiesWatcher : public QObject {
    Q_OBJECT
public:
    QList<QVariantMap> changes;
    /// Every value a property took, in order.
    QVariantList valuesOf(const QString& name) const {
        QVariantList values;
        for (const QVariantMap& change : changes) {
            if (change.contains(name))
                values << change.value(name);
        }
        return values;
    }
public slots:
    void onPropertiesChanged(const QString& interface, const QVariantMap& changed, const QStringList&) {
        if (interface == QStringLiteral("fr.tavrel.Recorder"))
            changes << changed;
    }
};

namespace {

using namespace std::chrono_literals;

const QString kService = QStringLiteral("fr.tavrel.Recorder");
const QString kPath = QStringLiteral("/fr/tavrel/Recorder");

class EndToEndTest : public ::testing::Test {
protected:
    void SetUp() override {
        SessionBusFixture::Options busOptions;
        busOptions.notificationServer = false;
        busOptions.exportEnvironment = false;
        m_bus = std::make_unique<SessionBusFixture>(busOptions);
        ASSERT_TRUE(m_bus->start());
        XvfbFixture::Options xOptions;
        xOptions.exportEnvironment = false;
        m_xvfb = std::make_unique<XvfbFixture>(xOptions);
        ASSERT_TRUE(m_xvfb->start());
        AudioServerFixture::Options audioOptions;
        audioOptions.exportEnvironment = false;
        m_pulse = std::make_unique<PulseAudioFixture>(audioOptions);
        ASSERT_TRUE(m_pulse->start());

        m_session = mergedEnvironment({m_bus->variables(), m_xvfb->variables()});
        ASSERT_TRUE(m_notifications.start(m_session));
        m_env = mergedEnvironment({m_pulse->variables(), m_bus->variables(), m_xvfb->variables()});
        m_env.insert(QStringLiteral("XDG_CONFIG_HOME"), m_dir.filePath(QStringLiteral("config"), true));
        m_env.insert(QStringLiteral("XDG_DATA_HOME"), m_dir.filePath(QStringLiteral("data"), true));
        m_env.insert(QStringLiteral("XDG_STATE_HOME"), m_dir.filePath(QStringLiteral("state"), true));
        // Test seam: every alert is answered as closed (the upload dialog is cancelled).
        m_env.insert(QStringLiteral("TAVREL_TEST_ALERT_ANSWERS"), QString());
        m_connection = std::make_unique<QDBusConnection>(
            QDBusConnection::connectToBus(m_bus->address(), QStringLiteral("e2e-%1").arg(++s_connections)));
        ASSERT_TRUE(m_connection->isConnected());
    }

    void TearDown() override {
        if (m_program.pid() > 0)
            m_program.stop();
        if (HasFailure())
            std::cerr << "program log:\n"
                      << m_program.logTail(60).toStdString() << "\n"
                      << m_notifications.logs().toStdString() << std::endl;
    }

    ManagedProcess::Options programOptions(const QStringList& arguments, const QString& logName) const {
        ManagedProcess::Options options;
        options.program = m_programPath;
        options.arguments = arguments;
        options.environment = m_env;
        options.logPath = m_dir.filePath(logName);
        return options;
    }

    ::testing::AssertionResult startProgram(const QStringList& arguments = {}) {
        if (!m_program.start(programOptions(arguments, QStringLiteral("program.log"))))
            return ::testing::AssertionFailure() << m_program.errorString().toStdString();
        if (!waitUntil([&] { return !property(QStringLiteral("IsRecording")).isNull(); }, 15s))
            return ::testing::AssertionFailure()
                   << "the program never answered on the bus: " << m_program.describe().toStdString();
        return ::testing::AssertionSuccess();
    }

    /// Runs the program a second time with `arguments`; its exit code.
    int launchAgain(const QStringList& arguments) {
        ManagedProcess second;
        if (!second.start(programOptions(arguments, QStringLiteral("second.log"))))
            return -1;
        return second.wait(15s).value_or(-2);
    }

    QVariant property(const QString& name) { return recorderProperty(*m_connection, name); }

    ::testing::AssertionResult action(const QString& name, const QVariantList& parameter = {}) {
        return recorderAction(*m_connection, name, parameter);
    }

    bool waitForProperty(const QString& name, const QVariant& value, std::chrono::milliseconds timeout = 10s) {
        return waitUntil([&] { return property(name) == value; }, timeout, 50ms);
    }

    QString recordingsDir() const { return m_dir.path() + QStringLiteral("/data/TavrelRecorder/Enregistrements"); }

    /// A setting as the program stored it in its file.
    QVariant stored(const QString& key) const {
        return QSettings(m_dir.path() + QStringLiteral("/config/TavrelRecorder/TavrelRecorder.conf"),
                         QSettings::IniFormat)
            .value(key);
    }

    /// The "linked" notifications the notification daemon received so far; each must carry the exact body.
    int linkedNotifications() const {
        int count = 0;
        for (const ReceivedNotification& n : m_notifications.received()) {
            if (n.summary == QStringLiteral("✅ TaVREL Recorder lié")) {
                EXPECT_EQ(n.body, QStringLiteral("Token et serveur configurés automatiquement."));
                EXPECT_EQ(n.appName, QStringLiteral("TaVREL Recorder"));
                ++count;
            }
        }
        return count;
    }

    /// What `command` prints on the test's X display.
    QString onDisplay(const QString& command, const QStringList& arguments,
                      const QProcessEnvironment& display = {}) const {
        return QString::fromUtf8(
            runCommand(command, arguments, display.isEmpty() ? m_session : display, 10s).standardOutput);
    }

    /// The program's windows mapped on `display`.
    QStringList visibleWindows(const QProcessEnvironment& display = {}) const {
        return onDisplay(QStringLiteral("xdotool"),
                         {QStringLiteral("search"), QStringLiteral("--onlyvisible"), QStringLiteral("--pid"),
                          QString::number(m_program.pid())},
                         display)
            .split(u'\n', Qt::SkipEmptyParts);
    }

    /// Where window `id` sits on the test's display.
    QRect windowRect(const QString& id) const {
        const QString info = onDisplay(QStringLiteral("xwininfo"), {QStringLiteral("-id"), id});
        const auto field = [&](const char* name) {
            return QRegularExpression(QStringLiteral("%1:\\s+(-?\\d+)").arg(QLatin1String(name)))
                .match(info)
                .captured(1)
                .toInt();
        };
        return QRect(field("Absolute upper-left X"), field("Absolute upper-left Y"), field("Width"), field("Height"));
    }

    static inline int s_connections = 0;
    TempDir m_dir{QStringLiteral("tavrel-e2e")};
    std::unique_ptr<SessionBusFixture> m_bus;
    std::unique_ptr<XvfbFixture> m_xvfb;
    std::unique_ptr<PulseAudioFixture> m_pulse;
    NotificationDaemon m_notifications;
    QProcessEnvironment m_session; ///< the bus and the X display, for the desktop's programs
    QProcessEnvironment m_env;     ///< the program's
    QString m_programPath = QStringLiteral(TAVREL_RECORDER_BIN);
    std::unique_ptr<QDBusConnection> m_connection;
    ManagedProcess m_program;
};

// Started by a link, it stores it at launch (options it does not know and the links after the first change
// nothing); empty values are stored as empty texts, not left to the defaults. A link opened by the desktop then
// starts a second instance, which hands it over as it is and leaves (a scheme in capitals is still not ours, the
// next link is); the desktop's Open reaches the running instance directly. Malformed or foreign links change
// nothing and stay silent: links are handled in order, so the valid one sent last must be the only new one that
// notifies. A launch without a link or an action's name shows the running instance's popover.
TEST_F(EndToEndTest, TakesOnlyWellFormedLinksAtLaunchFromASecondInstanceAndThroughOpen) {
    ASSERT_TRUE(startProgram({QStringLiteral("--verbose"), QStringLiteral("tavrel://auth?token=&backend="),
                              QStringLiteral("tavrel://autre")}));
    ASSERT_TRUE(waitUntil([&] { return linkedNotifications() == 1; }, 20s)) << m_program.describe().toStdString();
    EXPECT_TRUE(stored(QStringLiteral("token")).isValid());
    EXPECT_EQ(stored(QStringLiteral("token")).toString(), QString());
    EXPECT_TRUE(stored(QStringLiteral("backendURL")).isValid());
    EXPECT_EQ(stored(QStringLiteral("backendURL")).toString(), QString());

    EXPECT_EQ(launchAgain({QStringLiteral("TAVREL://auth?token=t3&backend=b3")}), 0);
    EXPECT_EQ(launchAgain({QStringLiteral("tavrel://auth?token=abc&backend=http%3A%2F%2F127.0.0.1%3A9%2Fbackend")}), 0);
    ASSERT_TRUE(waitUntil([&] { return linkedNotifications() >= 2; }, 10s)) << m_program.describe().toStdString();
    EXPECT_EQ(stored(QStringLiteral("token")).toString(), QStringLiteral("abc"));
    EXPECT_EQ(stored(QStringLiteral("backendURL")).toString(), QStringLiteral("http://127.0.0.1:9/backend"));

    for (const QString& link :
         {QStringLiteral("tavrel://AUTH?token=x&backend=y"), QStringLiteral("tavrel://login?token=x&backend=y"),
          QStringLiteral("tavrel://auth?token=x"), QStringLiteral("tavrel://auth?token=%ZZ&backend=y"),
          QStringLiteral("tavrel://auth?token=abc%2B1&backend=https%3A%2F%2Fexample.org%2Fbackend")}) {
        QDBusMessage open = QDBusMessage::createMethodCall(
            kService, kPath, QStringLiteral("org.freedesktop.Application"), QStringLiteral("Open"));
        open << QStringList{link} << QVariantMap();
        const QDBusMessage reply = m_connection->call(open, QDBus::Block, 10000);
        EXPECT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
    }
    ASSERT_TRUE(waitUntil([&] { return linkedNotifications() >= 3; }, 10s)) << m_program.describe().toStdString();
    waitUntil([] { return false; }, 200ms); // room for a wrong fourth notification
    EXPECT_EQ(linkedNotifications(), 3);
    EXPECT_EQ(stored(QStringLiteral("token")).toString(), QStringLiteral("abc+1"));
    EXPECT_EQ(stored(QStringLiteral("backendURL")).toString(), QStringLiteral("https://example.org/backend"));
    EXPECT_TRUE(m_program.isRunning());

    EXPECT_TRUE(visibleWindows().isEmpty());
    EXPECT_EQ(launchAgain({QStringLiteral("--action")}), 0);
    EXPECT_TRUE(waitUntil([&] { return visibleWindows().size() == 1; }, 10s)) << "no popover";
}

/// What the screen shows in `area`.
QImage screenshot(const QProcessEnvironment& display, const QRect& area) {
    const QString crop = QStringLiteral("%1x%2+%3+%4").arg(area.width()).arg(area.height()).arg(area.x()).arg(area.y());
    const CommandResult shot = runCommand(
        QStringLiteral("import"),
        {QStringLiteral("-window"), QStringLiteral("root"), QStringLiteral("-crop"), crop, QStringLiteral("png:-")},
        display, 20s);
    return QImage::fromData(shot.standardOutput, "PNG");
}

/// Pixels of the recording badge's red in a screenshot of the top of the screen, where the tray host sits, outside
/// `skipped` (the recording panel, whose own red dot is no badge).
int badgePixelsAtTheTop(const QProcessEnvironment& display, const QRect& skipped = {}) {
    const QImage image = screenshot(display, QRect(0, 0, 1280, 40));
    int count = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            if (skipped.contains(x, y))
                continue;
            const QColor c = image.pixelColor(x, y);
            count += c.red() > 190 && c.green() < 90 && c.blue() < 90 ? 1 : 0;
        }
    }
    return count;
}

// Driven through its D-Bus actions and its command line, with xfce4-panel's status tray as the tray host: the
// host lists the item, draws the recording badge and reads the clock in the item's tooltip. The recording panel
// shows while it records. Notes are kept exactly as given (spaces too); an empty one is no note, and the note
// prompt adds nothing when answered on its empty field or cancelled. A routing device that a killed earlier run
// left behind goes at launch.
TEST_F(EndToEndTest, DrivenThroughItsActionsItRecordsWithNotes) {
    const QString leftoverDevice = QStringLiteral("fr.tavrel.recorder.autoroute");
    ASSERT_TRUE(m_pulse->loadModule(QStringLiteral("module-null-sink"), QStringLiteral("sink_name=") + leftoverDevice));
    m_env.insert(QStringLiteral("TAVREL_TEST_ALERT_ANSWERS"), QStringLiteral("OK|Annuler"));
    TrayHost tray;
    ASSERT_TRUE(tray.start(m_session));
    // What the tray host asks of the item and gets back, as the bus carries it.
    ManagedProcess monitor;
    ManagedProcess::Options monitorOptions;
    monitorOptions.program = QStringLiteral("dbus-monitor");
    monitorOptions.arguments = {QStringLiteral("--address"), m_bus->address()};
    monitorOptions.stdoutPath = m_dir.filePath(QStringLiteral("bus.log"));
    ASSERT_TRUE(monitor.start(monitorOptions));
    ASSERT_TRUE(startProgram());
    EXPECT_TRUE(waitUntil([&] { return !m_pulse->sinkNames().contains(leftoverDevice); }, 10s));
    const QString itemName = QStringLiteral("org.kde.StatusNotifierItem-%1-").arg(m_program.pid());
    auto itemsOfOurs = [&] { return tray.registeredItems().filter(itemName).size(); };
    ASSERT_TRUE(waitUntil([&] { return itemsOfOurs() == 1; }, 20s))
        << tray.registeredItems().join(u',').toStdString() << tray.logs().toStdString();
    waitUntil([] { return false; }, 1s); // the host draws the item
    const int idleBadge = badgePixelsAtTheTop(m_session);

    PropertiesWatcher watcher;
    ASSERT_TRUE(m_connection->connect(kService, kPath, QStringLiteral("org.freedesktop.DBus.Properties"),
                                      QStringLiteral("PropertiesChanged"), &watcher,
                                      SLOT(onPropertiesChanged(QString, QVariantMap, QStringList))));
    EXPECT_EQ(property(QStringLiteral("IsRecording")), QVariant(false));
    EXPECT_EQ(property(QStringLiteral("ActiveJobs")), QVariant(0));
    EXPECT_EQ(property(QStringLiteral("StatusTitle")), QVariant(QString()));

    ASSERT_TRUE(action(QStringLiteral("start-recording")));
    ASSERT_TRUE(waitForProperty(QStringLiteral("IsRecording"), true)) << m_program.logTail().toStdString();
    EXPECT_TRUE(waitUntil([&] { return visibleWindows().size() == 1; }, 10s)) << "no recording panel";
    const QRect panelArea = windowRect(visibleWindows().value(0));
    ASSERT_TRUE(action(QStringLiteral("add-note"), {QStringLiteral("Point important : budget")}));
    EXPECT_EQ(launchAgain({QStringLiteral("--action=add-note"), QStringLiteral("  ")}), 0);
    EXPECT_EQ(
        launchAgain({QStringLiteral("--action"), QStringLiteral("add-note"), QStringLiteral("Relancer « Dupont »")}),
        0);
    ASSERT_TRUE(action(QStringLiteral("add-note"), {QString()}));
    for (int prompt = 0; prompt < 2; ++prompt)
        ASSERT_TRUE(action(QStringLiteral("add-note")));
    ASSERT_TRUE(action(QStringLiteral("toggle-pause")));
    ASSERT_TRUE(waitForProperty(QStringLiteral("IsPaused"), true));
    ASSERT_TRUE(action(QStringLiteral("toggle-pause")));
    ASSERT_TRUE(waitForProperty(QStringLiteral("IsPaused"), false));
    // The clock shows in the title after a second, and the tray host reads it in the item's tooltip.
    ASSERT_TRUE(waitUntil(
        [&] { return property(QStringLiteral("StatusTitle")).toString().startsWith(QStringLiteral("🔴0:0")); }, 5s));
    // The tooltip's title and text, in a reply that only the host asked for.
    static const QRegularExpression toolTipWithClock(
        QStringLiteral("string \"TaVREL Recorder\"\\n\\s*string \"🔴0:\\d\\d\""));
    const auto busLog = [&] {
        QFile log(monitorOptions.stdoutPath);
        return log.open(QIODevice::ReadOnly) ? QString::fromUtf8(log.readAll()) : QString();
    };
    EXPECT_TRUE(waitUntil([&] { return toolTipWithClock.match(busLog()).hasMatch(); }, 10s, 500ms))
        << "the tray host never read the clock in the tooltip";
    EXPECT_TRUE(waitUntil([&] { return badgePixelsAtTheTop(m_session, panelArea) > idleBadge + 4; }, 10s, 500ms))
        << "no recording badge drawn by the tray host (" << idleBadge << " red pixels when idle)";

    // The stop comes from the command line, through the running instance.
    EXPECT_EQ(launchAgain({QStringLiteral("--action"), QStringLiteral("stop-recording")}), 0);
    ASSERT_TRUE(waitForProperty(QStringLiteral("IsRecording"), false));
    EXPECT_EQ(tray.registeredItems().size(), 1) << "the second launch shows no tray item of its own";
    EXPECT_EQ(property(QStringLiteral("StatusTitle")), QVariant(QString()));
    EXPECT_TRUE(waitUntil([&] { return visibleWindows().isEmpty(); }, 10s)) << "the panel stays";

    QStringList recordings;
    ASSERT_TRUE(waitUntil(
        [&] {
            recordings = QDir(recordingsDir()).entryList({QStringLiteral("*.m4a")}, QDir::Files);
            return recordings.size() == 1 && m_program.logTail(200).contains(QStringLiteral("Enregistrement terminé"));
        },
        30s))
        << QDir(recordingsDir()).entryList().join(u',').toStdString();
    const QFileInfo recording(recordingsDir() + u'/' + recordings.first());
    EXPECT_GT(recording.size(), 0);
    QFile notes(recording.path() + u'/' + recording.completeBaseName() + QStringLiteral(".notes.txt"));
    ASSERT_TRUE(notes.open(QIODevice::ReadOnly)) << notes.fileName().toStdString();
    QStringList texts;
    for (const QString& line : QString::fromUtf8(notes.readAll()).split(u'\n'))
        texts << line.mid(line.indexOf(QStringLiteral("] ")) + 2);
    EXPECT_EQ(texts, (QStringList{QStringLiteral("Point important : budget"), QStringLiteral("  "),
                                  QStringLiteral("Relancer « Dupont »")}));
    EXPECT_EQ(QDir(recordingsDir()).entryList({QStringLiteral("*.notes.txt*")}, QDir::Files | QDir::Hidden).size(), 1)
        << "no temporary file left beside the notes";
    // The prompt's buttons: "OK" first, "Annuler" second.
    for (const QString& prompt :
         {QStringLiteral("[Alert] Ajouter une note → 1000"), QStringLiteral("[Alert] Ajouter une note → 1001")})
        EXPECT_TRUE(m_program.logTail(400).contains(prompt)) << prompt.toStdString();

    // The signals followed every step, in order.
    waitUntil([&] { return watcher.valuesOf(QStringLiteral("IsRecording")).size() >= 2; }, 2s);
    EXPECT_EQ(watcher.valuesOf(QStringLiteral("IsRecording")), (QVariantList{true, false}));
    EXPECT_EQ(watcher.valuesOf(QStringLiteral("IsPaused")), (QVariantList{true, false}));
    const QVariantList titles = watcher.valuesOf(QStringLiteral("StatusTitle"));
    ASSERT_GE(titles.size(), 2);
    EXPECT_TRUE(titles.first().toString().startsWith(QStringLiteral("🔴")));
    EXPECT_EQ(titles.last().toString(), QString());
}

// Under a window manager (openbox), the recording panel sits at the top right of the screen: a tool window that
// takes no focus, above the windows opened after it and on every workspace. Without a compositor (none runs
// here) the window is the card itself, cut to its rounded shape.
TEST_F(EndToEndTest, UnderAWindowManagerThePanelStaysAboveOnEveryWorkspace) {
    WindowManager openbox;
    ASSERT_TRUE(openbox.start(m_session));
    ASSERT_TRUE(startProgram());
    const QRect card(1280 - 60 - 20, 20, 60, 262); // on Xvfb's 1280 x 800 screen
    ASSERT_TRUE(action(QStringLiteral("start-recording")));
    ASSERT_TRUE(waitForProperty(QStringLiteral("IsRecording"), true)) << m_program.logTail().toStdString();
    QString panel;
    ASSERT_TRUE(waitUntil([&] { return (panel = visibleWindows().value(0)) != QString(); }, 10s));
    const auto xprop = [&](const QString& window, const QString& name) {
        return onDisplay(QStringLiteral("xprop"), {QStringLiteral("-id"), window, name});
    };
    // What the window manager keeps of what the panel asks.
    EXPECT_TRUE(waitUntil([&] { return xprop(panel, "_NET_WM_STATE").contains("_NET_WM_STATE_ABOVE"); }, 10s))
        << xprop(panel, "_NET_WM_STATE").toStdString();
    EXPECT_TRUE(xprop(panel, "_NET_WM_DESKTOP").contains("= 4294967295")) << "on all desktops";
    EXPECT_TRUE(xprop(panel, "_NET_WM_WINDOW_TYPE").contains("_NET_WM_WINDOW_TYPE_UTILITY"));
    EXPECT_TRUE(xprop(panel, "WM_HINTS").contains("Client accepts input or input focus: False"));
    const auto placed = [&] { return windowRect(panel); };
    EXPECT_TRUE(waitUntil([&] { return placed() == card; }, 10s)) << placed().x() << "," << placed().y();

    // A window opened later, over the panel's corner, stays below it; on another workspace it goes, the panel
    // stays.
    ManagedProcess other;
    ManagedProcess::Options otherOptions;
    otherOptions.program = QStringLiteral("xmessage");
    otherOptions.arguments = {QStringLiteral("-geometry"), QStringLiteral("300x300+1000+0"), QStringLiteral("Autre")};
    otherOptions.environment = m_session;
    ASSERT_TRUE(other.start(otherOptions));
    const auto stackIndex = [&](const QString& window) {
        QList<qulonglong> stacking;
        const QString list = onDisplay(QStringLiteral("xprop"), {QStringLiteral("-root"), "_NET_CLIENT_LIST_STACKING"});
        for (const QString& id : list.section(u'#', 1).split(u',', Qt::SkipEmptyParts))
            stacking << id.trimmed().toULongLong(nullptr, 16);
        return stacking.indexOf(window.toULongLong());
    };
    QString otherWindow;
    ASSERT_TRUE(waitUntil(
        [&] {
            otherWindow =
                onDisplay(QStringLiteral("xdotool"), {QStringLiteral("search"), QStringLiteral("--onlyvisible"),
                                                      QStringLiteral("--class"), QStringLiteral("xmessage")})
                    .trimmed();
            return !otherWindow.isEmpty() && stackIndex(otherWindow) >= 0;
        },
        10s));
    EXPECT_GT(stackIndex(panel), stackIndex(otherWindow)) << "the panel is not above the newer window";
    // The panel's window is the card, cut to its rounded shape: the newer window shows through the corner only.
    const QImage shot = screenshot(m_session, card.adjusted(-1, 0, 0, 0));
    EXPECT_EQ(shot.pixel(1, 0), shot.pixel(0, 0)) << "rounded corner";
    EXPECT_NE(shot.pixel(31, 131), shot.pixel(0, 131));
    ASSERT_TRUE(
        runCommand(QStringLiteral("xdotool"), {QStringLiteral("set_desktop"), QStringLiteral("1")}, m_session).ok());
    const auto viewable = [&](const QString& window) {
        return onDisplay(QStringLiteral("xwininfo"), {QStringLiteral("-id"), window}).contains("IsViewable");
    };
    EXPECT_TRUE(waitUntil([&] { return !viewable(otherWindow); }, 10s));
    EXPECT_TRUE(viewable(panel));
}

// In a Wayland session with XWayland (weston), the program started as its desktop entry starts it runs on the
// X server, where its panel can place itself (the panel's place, stacking and workspaces under a window manager
// are the test above's). Without an X server it says that the panel cannot place itself.
TEST_F(EndToEndTest, InAWaylandSessionItRunsOnXWaylandAsItsDesktopEntryStartsIt) {
    WaylandCompositor weston;
    ASSERT_TRUE(weston.start()) << weston.logs().toStdString();
    QFile entry(QStringLiteral(TAVREL_DESKTOP_ENTRY));
    ASSERT_TRUE(entry.open(QIODevice::ReadOnly));
    QStringList command;
    for (const QString& line : QString::fromUtf8(entry.readAll()).split(u'\n')) {
        if (line.startsWith(QStringLiteral("Exec=")) && command.isEmpty())
            command = QProcess::splitCommand(line.mid(5));
    }
    command.removeIf([](const QString& argument) { return argument.startsWith(u'%'); });
    ASSERT_FALSE(command.isEmpty());
    // The command is looked up on PATH, as the desktop does; the shipped program stands there.
    const QString bin = m_dir.filePath(QStringLiteral("bin"), true);
    ASSERT_TRUE(QFile::link(QStringLiteral(TAVREL_RECORDER_SHIPPED_BIN), bin + u'/' + command.first()));
    m_env.insert(QStringLiteral("PATH"), bin + u':' + m_env.value(QStringLiteral("PATH")));
    m_env.remove(QStringLiteral("QT_QPA_PLATFORM"));
    m_env.insert(weston.variables());
    m_programPath = QStandardPaths::findExecutable(command.first(), {bin});

    ASSERT_TRUE(startProgram(command.mid(1)));
    ASSERT_TRUE(action(QStringLiteral("start-recording")));
    ASSERT_TRUE(waitForProperty(QStringLiteral("IsRecording"), true)) << m_program.logTail().toStdString();
    // The panel is a visible X window of the program on XWayland's display.
    EXPECT_TRUE(waitUntil([&] { return !visibleWindows(m_env).isEmpty(); }, 10s))
        << onDisplay(QStringLiteral("xwininfo"), {QStringLiteral("-root"), QStringLiteral("-tree")}, m_env)
               .toStdString();
    EXPECT_FALSE(m_program.logTail(200).contains(QStringLiteral("[Display]")));
    m_program.stop();

    m_env.remove(QStringLiteral("DISPLAY"));
    ASSERT_TRUE(startProgram(command.mid(1)));
    EXPECT_TRUE(waitUntil(
        [&] {
            return m_program.logTail(200).contains(
                QStringLiteral("[Display] session Wayland sans serveur X (XWayland) : le panneau d'enregistrement"));
        },
        10s))
        << m_program.logTail().toStdString();
}

// Under a window manager, the upload dialog takes the keyboard as it opens: what the user types at once,
// accents included, is the title that the backend receives, and Return sends it.
TEST_F(EndToEndTest, TheUploadDialogTakesTheKeyboardUnderAWindowManager) {
    WindowManager openbox;
    ASSERT_TRUE(openbox.start(m_session));
    ReferenceBackend backend;
    ASSERT_TRUE(backend.isRunning()) << backend.describe().toStdString();
    {
        QSettings settings(m_dir.filePath(QStringLiteral("config"), true) +
                               QStringLiteral("/TavrelRecorder/TavrelRecorder.conf"),
                           QSettings::IniFormat);
        settings.setValue(QStringLiteral("backendURL"), backend.baseURL());
        settings.setValue(QStringLiteral("token"), QString());
    }
    // A French keyboard, where the accented letters have keys of their own. (For a letter the keyboard lacks,
    // xdotool rebinds a spare key for an instant, a race that the program may lose and that no user meets.)
    ASSERT_TRUE(runCommand(QStringLiteral("setxkbmap"), {QStringLiteral("fr")}, m_session).ok());
    m_programPath = QStringLiteral(TAVREL_RECORDER_SHIPPED_BIN); // real dialogs
    ASSERT_TRUE(startProgram());
    // The check for unsent recordings runs 1.5 s after launch; the recording starts once it has found none.
    waitUntil([] { return false; }, 2500ms);
    ASSERT_TRUE(action(QStringLiteral("start-recording")));
    ASSERT_TRUE(waitForProperty(QStringLiteral("IsRecording"), true)) << m_program.logTail().toStdString();
    ASSERT_TRUE(action(QStringLiteral("stop-recording")));
    // The window manager makes the dialog the active window, then the program takes the keyboard's focus.
    const auto activeWindowName = [&] {
        return onDisplay(QStringLiteral("xdotool"), {QStringLiteral("getactivewindow"), QStringLiteral("getwindowname"),
                                                     QStringLiteral("getwindowfocus"), QStringLiteral("getwindowname")})
            .trimmed()
            .replace(u'\n', u'|');
    };
    // The dialog's title names its recording.
    const auto dialogHasTheKeyboard = [&] {
        const QStringList names = activeWindowName().split(u'|');
        return names.size() == 2 && names[0] == names[1] && names[0].startsWith(QStringLiteral("Enregistrement du ")) &&
               names[0].endsWith(QStringLiteral(" — TaVREL Recorder"));
    };
    ASSERT_TRUE(waitUntil(dialogHasTheKeyboard, 30s, 200ms)) << activeWindowName().toStdString() << "\n"
                                                             << m_program.logTail().toStdString();
    const QString title = QStringLiteral("Réunion d'équipe à Genève");
    EXPECT_TRUE(runCommand(QStringLiteral("xdotool"),
                           {QStringLiteral("type"), QStringLiteral("--delay"), QStringLiteral("40"), title}, m_session,
                           30s)
                    .ok());
    EXPECT_TRUE(
        runCommand(QStringLiteral("xdotool"), {QStringLiteral("key"), QStringLiteral("Return")}, m_session).ok());
    // The backend stores the upload's fields a moment after its folder.
    ASSERT_TRUE(waitUntil([&] { return backend.uploadCount() == 1 && !backend.fields(1).isEmpty(); }, 30s))
        << m_program.logTail().toStdString();
    EXPECT_EQ(backend.fields(1).value(QStringLiteral("title")).toString(), title)
        << QJsonDocument(backend.upload(1)).toJson().toStdString();
}

} // namespace
} // namespace tavrel::test

#include "EndToEndTest.moc"
