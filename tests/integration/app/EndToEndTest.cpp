// The real program under Xvfb with a tray host, a notification server and a private audio server,
// driven only through its public surface: the tray, the command line and its D-Bus face.
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QDir>
#include <QFile>
#include <QSettings>
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
        busOptions.statusNotifierWatcher = true;
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
            std::cerr << "program log:\n" << m_program.logTail(60).toStdString() << std::endl;
    }

    ManagedProcess::Options programOptions(const QStringList& arguments, const QString& logName) const {
        ManagedProcess::Options options;
        options.program = QStringLiteral(TAVREL_RECORDER_BIN);
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

    /// Summaries of the "linked" notifications so far; each must carry the exact body.
    int linkedNotifications() const {
        int count = 0;
        for (const RecordedNotification& n : m_bus->notifications()) {
            if (n.summary == QStringLiteral("✅ TaVREL Recorder lié")) {
                EXPECT_EQ(n.body, QStringLiteral("Token et serveur configurés automatiquement."));
                EXPECT_EQ(n.appName, QStringLiteral("TaVREL Recorder"));
                EXPECT_EQ(n.replacesId, 0U);
                ++count;
            }
        }
        return count;
    }

    static inline int s_connections = 0;
    TempDir m_dir{QStringLiteral("tavrel-e2e")};
    std::unique_ptr<SessionBusFixture> m_bus;
    std::unique_ptr<XvfbFixture> m_xvfb;
    std::unique_ptr<PulseAudioFixture> m_pulse;
    QProcessEnvironment m_env;
    std::unique_ptr<QDBusConnection> m_connection;
    ManagedProcess m_program;
};

// A link opened by the desktop starts a second instance, which hands it over as it is and leaves (a scheme
// in capitals is still not ours, the next link is); the desktop's Open reaches the running instance directly.
// Malformed or foreign links change nothing and stay silent: links are handled in order, so the valid one sent
// last must be the only new one that notifies.
TEST_F(EndToEndTest, ShowsItsTrayItemAndTakesOnlyWellFormedLinks) {
    ASSERT_TRUE(startProgram());
    ASSERT_TRUE(m_bus->waitForStatusItems(1, 10s)) << m_bus->logs().toStdString();
    EXPECT_TRUE(m_bus->registeredStatusItems().first().startsWith(
        QStringLiteral("org.kde.StatusNotifierItem-%1-").arg(m_program.pid())));

    EXPECT_EQ(launchAgain({QStringLiteral("TAVREL://auth?token=t3&backend=b3")}), 0);
    EXPECT_EQ(launchAgain({QStringLiteral("tavrel://auth?token=abc&backend=http%3A%2F%2F127.0.0.1%3A9%2Fbackend")}), 0);
    ASSERT_TRUE(waitUntil([&] { return linkedNotifications() >= 1; }, 10s)) << m_program.describe().toStdString();
    EXPECT_EQ(stored(QStringLiteral("token")).toString(), QStringLiteral("abc"));
    EXPECT_EQ(stored(QStringLiteral("backendURL")).toString(), QStringLiteral("http://127.0.0.1:9/backend"));
    EXPECT_EQ(m_bus->registeredStatusItems().size(), 1) << "the second launch must not show a tray item";

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
    ASSERT_TRUE(waitUntil([&] { return linkedNotifications() >= 2; }, 10s)) << m_program.describe().toStdString();
    waitUntil([] { return false; }, 200ms); // room for a wrong third notification
    EXPECT_EQ(linkedNotifications(), 2);
    EXPECT_EQ(stored(QStringLiteral("token")).toString(), QStringLiteral("abc+1"));
    EXPECT_EQ(stored(QStringLiteral("backendURL")).toString(), QStringLiteral("https://example.org/backend"));
    EXPECT_TRUE(m_program.isRunning());
}

// Started by a link: stored at launch. Empty values are stored as empty texts, not left to the defaults.
TEST_F(EndToEndTest, LaunchedByALinkItStoresItAtStart) {
    ASSERT_TRUE(startProgram({QStringLiteral("tavrel://auth?token=&backend=")}));
    ASSERT_TRUE(waitUntil([&] { return linkedNotifications() == 1; }, 20s)) << m_program.describe().toStdString();
    EXPECT_TRUE(stored(QStringLiteral("token")).isValid());
    EXPECT_EQ(stored(QStringLiteral("token")).toString(), QString());
    EXPECT_TRUE(stored(QStringLiteral("backendURL")).isValid());
    EXPECT_EQ(stored(QStringLiteral("backendURL")).toString(), QString());
}

TEST_F(EndToEndTest, DrivenThroughItsActionsItRecordsWithNotes) {
    ASSERT_TRUE(startProgram());
    PropertiesWatcher watcher;
    ASSERT_TRUE(m_connection->connect(kService, kPath, QStringLiteral("org.freedesktop.DBus.Properties"),
                                      QStringLiteral("PropertiesChanged"), &watcher,
                                      SLOT(onPropertiesChanged(QString, QVariantMap, QStringList))));
    EXPECT_EQ(property(QStringLiteral("IsRecording")), QVariant(false));
    EXPECT_EQ(property(QStringLiteral("ActiveJobs")), QVariant(0));
    EXPECT_EQ(property(QStringLiteral("StatusTitle")), QVariant(QString()));

    ASSERT_TRUE(action(QStringLiteral("start-recording")));
    ASSERT_TRUE(waitForProperty(QStringLiteral("IsRecording"), true)) << m_program.logTail().toStdString();
    ASSERT_TRUE(action(QStringLiteral("add-note"), {QStringLiteral("Point important : budget")}));
    ASSERT_TRUE(action(QStringLiteral("toggle-pause")));
    ASSERT_TRUE(waitForProperty(QStringLiteral("IsPaused"), true));
    ASSERT_TRUE(action(QStringLiteral("toggle-pause")));
    ASSERT_TRUE(waitForProperty(QStringLiteral("IsPaused"), false));
    // The clock shows in the title after a second.
    ASSERT_TRUE(waitUntil(
        [&] { return property(QStringLiteral("StatusTitle")).toString().startsWith(QStringLiteral("🔴0:0")); }, 5s));

    // The stop comes from the command line, through the running instance.
    EXPECT_EQ(launchAgain({QStringLiteral("--action"), QStringLiteral("stop-recording")}), 0);
    ASSERT_TRUE(waitForProperty(QStringLiteral("IsRecording"), false));
    EXPECT_EQ(property(QStringLiteral("StatusTitle")), QVariant(QString()));

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
    EXPECT_TRUE(QString::fromUtf8(notes.readAll()).contains(QStringLiteral("Point important : budget")));

    // The signals followed every step, in order.
    waitUntil([&] { return watcher.valuesOf(QStringLiteral("IsRecording")).size() >= 2; }, 2s);
    EXPECT_EQ(watcher.valuesOf(QStringLiteral("IsRecording")), (QVariantList{true, false}));
    EXPECT_EQ(watcher.valuesOf(QStringLiteral("IsPaused")), (QVariantList{true, false}));
    const QVariantList titles = watcher.valuesOf(QStringLiteral("StatusTitle"));
    ASSERT_GE(titles.size(), 2);
    EXPECT_TRUE(titles.first().toString().startsWith(QStringLiteral("🔴")));
    EXPECT_EQ(titles.last().toString(), QString());
}

} // namespace
} // namespace tavrel::test

#include "EndToEndTest.moc"
