// The real program sending recordings to the reference backend: under Xvfb with a window manager and its
// real dialogs (the shipped binary), killed while it follows a job, woken from suspend by logind (a
// python3-dbusmock template on a private system bus).
#include "DesktopHosts.h"
#include "ReferenceBackend.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QSettings>
#include <QThread>
#include <csignal>
#include <gtest/gtest.h>
#include <map>

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;

const QString kUploaded = QStringLiteral("⬆️ Enregistrement envoyé");

void writeFile(const QString& path, const QByteArray& bytes) {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << path.toStdString();
    file.write(bytes);
}

class UploadEndToEndTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_backend.isRunning()) << m_backend.describe().toStdString();
        SessionBusFixture::Options busOptions;
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
        QDir().mkpath(recordingsDir());
        // The program talks to the reference backend, and watches no call.
        QSettings settings(m_dir.path() + QStringLiteral("/config/TavrelRecorder/TavrelRecorder.conf"),
                           QSettings::IniFormat);
        settings.setValue(QStringLiteral("backendURL"), m_backend.baseURL());
        settings.setValue(QStringLiteral("token"), QString());
        settings.setValue(QStringLiteral("autoDetectCalls"), false);
    }

    void TearDown() override {
        if (m_program.pid() > 0)
            m_program.stop();
        if (HasFailure())
            std::cerr << "program log:\n" << m_program.logTail(80).toStdString() << std::endl;
    }

    /// Starts `binary` (the test build answers its alerts from `answers`).
    ::testing::AssertionResult startProgram(const QString& binary, const QString& answers = {},
                                            const QProcessEnvironment& extra = {}) {
        ManagedProcess::Options options;
        options.program = binary;
        options.environment = m_env;
        options.environment.insert(QStringLiteral("TAVREL_TEST_ALERT_ANSWERS"), answers);
        for (const QString& key : extra.keys())
            options.environment.insert(key, extra.value(key));
        options.logPath = m_dir.filePath(QStringLiteral("program-%1.log").arg(++m_launches));
        if (!m_program.start(options))
            return ::testing::AssertionFailure() << m_program.errorString().toStdString();
        return ::testing::AssertionSuccess();
    }

    QString recordingsDir() const { return m_dir.path() + QStringLiteral("/data/TavrelRecorder/Enregistrements"); }

    /// Notifications with this summary so far.
    QList<RecordedNotification> notified(const QString& summary) const {
        QList<RecordedNotification> found;
        for (const RecordedNotification& n : m_bus->notifications()) {
            if (n.summary == summary)
                found << n;
        }
        return found;
    }

    QString xdotool(const QStringList& arguments) {
        return QString::fromUtf8(
            runCommand(QStringLiteral("xdotool"), arguments, m_xvfb->environment(), 10s).standardOutput.trimmed());
    }

    ReferenceBackend m_backend;
    TempDir m_dir{QStringLiteral("tavrel-up-e2e")};
    std::unique_ptr<SessionBusFixture> m_bus;
    std::unique_ptr<XvfbFixture> m_xvfb;
    std::unique_ptr<PulseAudioFixture> m_pulse;
    QProcessEnvironment m_env;
    ManagedProcess m_program;
    int m_launches = 0;
};

// Three recordings wait; the client list takes 2 s. The shipped program, with the variable that scripts the
// test build's alerts set all the same, shows its real dialogs: one at a time, newest recording first (the
// unsent recordings' order), each titled with its recording, and the title typed in each goes with that one.
TEST_F(UploadEndToEndTest, PendingRecordingsGetRealDialogsOneAtATimeEachForItsOwnRecording) {
    // Nothing in the program reads a variable of the tests (grep: 1 when nothing matches, 2 without sources).
    const CommandResult scan = runCommand(QStringLiteral("grep"), {QStringLiteral("-rl"), QStringLiteral("TAVREL_TEST"),
                                                                   qEnvironmentVariable("TAVREL_SOURCE_DIR") + "/src"});
    EXPECT_EQ(scan.exitCode, 1) << scan.describe().toStdString() << scan.standardOutput.toStdString();

    WindowManager openbox;
    ASSERT_TRUE(openbox.start(mergedEnvironment({m_bus->variables(), m_xvfb->variables()})));

    // Made an hour apart, oldest first; "HH:mm" of each name's time stamp tells the dialogs apart.
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    std::map<QString, QString> recordingAt; // "à HH:mm" → file name
    QStringList newestFirst;
    for (int hoursAgo = 3; hoursAgo >= 1; --hoursAgo) {
        const qint64 stamp = now - hoursAgo * 3600;
        const QString name = QStringLiteral("tavrel_merged_%1.m4a").arg(stamp);
        const CommandResult made =
            runCommand(QStringLiteral("ffmpeg"),
                       {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-f"), QStringLiteral("lavfi"),
                        QStringLiteral("-i"), QStringLiteral("sine=frequency=440:duration=%1").arg(hoursAgo + 1),
                        QStringLiteral("-c:a"), QStringLiteral("aac"), recordingsDir() + u'/' + name});
        ASSERT_TRUE(made.ok()) << made.describe().toStdString();
        recordingAt[QDateTime::fromSecsSinceEpoch(stamp).toString(QStringLiteral("'à 'HH:mm"))] = name;
        newestFirst.prepend(name);
        QThread::msleep(20); // distinct creation times
    }
    m_backend.control(R"({"fault": {"route": "clients", "delay": 2}})");

    ASSERT_TRUE(startProgram(QStringLiteral(TAVREL_SHIPPED_RECORDER_BIN), QStringLiteral("2|2|2|2")));
    // The unsent recordings' alert, then one dialog per recording. Only one of ours is ever on screen.
    const auto visibleDialogs = [&] {
        return xdotool({QStringLiteral("search"), QStringLiteral("--onlyvisible"), QStringLiteral("--name"),
                        QStringLiteral("TaVREL Recorder")})
            .split(u'\n', Qt::SkipEmptyParts);
    };
    const auto pressOn = [&](const QString& window, const QStringList& keys) {
        xdotool({QStringLiteral("windowactivate"), QStringLiteral("--sync"), window});
        xdotool(keys);
    };
    QStringList pending;
    ASSERT_TRUE(waitUntil([&] { return (pending = visibleDialogs()).size() == 1; }, 20s))
        << m_program.logTail().toStdString();
    EXPECT_EQ(xdotool({QStringLiteral("getwindowname"), pending.first()}), QStringLiteral("TaVREL Recorder"));
    pressOn(pending.first(), {QStringLiteral("key"), QStringLiteral("Return")}); // "Envoyer maintenant"

    QStringList shownFor;
    QStringList order;                   // file names, in the order their dialogs came
    std::map<QString, QString> typedFor; // file name → title typed
    int mostAtOnce = 0;
    for (int dialog = 0; dialog < 3; ++dialog) {
        QString window;
        QString name;
        ASSERT_TRUE(waitUntil(
            [&] {
                const QStringList windows = visibleDialogs();
                mostAtOnce = std::max(mostAtOnce, static_cast<int>(windows.size()));
                if (windows.size() != 1)
                    return false;
                name = xdotool({QStringLiteral("getwindowname"), windows.first()});
                window = windows.first();
                return name.startsWith(QStringLiteral("Enregistrement du ")) && !shownFor.contains(name);
            },
            20s))
            << "dialog " << dialog << ": " << m_program.logTail().toStdString();
        const QRegularExpressionMatch at = QRegularExpression(QStringLiteral("à \\d\\d:\\d\\d")).match(name);
        ASSERT_TRUE(at.hasMatch()) << name.toStdString();
        ASSERT_TRUE(recordingAt.count(at.captured(0))) << name.toStdString();
        EXPECT_TRUE(name.contains(QRegularExpression(QStringLiteral("\\(\\d s\\)"))))
            << "its length: " << name.toStdString();
        shownFor << name;
        const QString title = QStringLiteral("Titre %1").arg(dialog + 1);
        order << recordingAt[at.captured(0)];
        typedFor[order.last()] = title;
        xdotool({QStringLiteral("windowactivate"), QStringLiteral("--sync"), window});
        xdotool({QStringLiteral("type"), QStringLiteral("--delay"), QStringLiteral("30"), title});
        xdotool({QStringLiteral("key"), QStringLiteral("Return")}); // "Envoyer"
        waitUntil([&] { return !visibleDialogs().contains(window); }, 10s);
    }
    EXPECT_EQ(mostAtOnce, 1);

    // Newest first, and each title with its own recording.
    EXPECT_EQ(order, newestFirst);
    ASSERT_TRUE(waitUntil([&] { return m_backend.uploadCount() == 3; }, 30s)) << m_program.logTail().toStdString();
    for (int number = 1; number <= 3; ++number) {
        const QJsonObject upload = m_backend.upload(number);
        const QString file = upload.value("files").toArray().at(0).toObject().value("filename").toString();
        EXPECT_EQ(upload.value("fields").toObject().value("title").toString(), typedFor[file]) << file.toStdString();
    }
    EXPECT_EQ(m_backend.requestsTo(QStringLiteral("/backend/clients")), 3) << "each dialog fetches the client list";
    // Each recording goes once the backend has it.
    EXPECT_TRUE(waitUntil([&] { return QDir(recordingsDir()).entryList({"*.m4a"}, QDir::Files).isEmpty(); }, 20s))
        << QDir(recordingsDir()).entryList().join(u' ').toStdString();
}

// Killed while it follows a job: the next launch follows it to its end and tells it.
TEST_F(UploadEndToEndTest, AJobFollowedWhenTheProgramIsKilledIsFollowedByTheNextLaunch) {
    m_backend.control(R"({"advance": "time", "step_seconds": 4,
                          "sequence": ["queued", "transcribing", "summarizing", "done"]})");
    writeFile(recordingsDir() + QStringLiteral("/tavrel_merged_1731772800.m4a"), "audio");
    QProcessEnvironment fastPolls;
    fastPolls.insert(QStringLiteral("TAVREL_TEST_JOB_POLL_MS"), QStringLiteral("500"));
    ASSERT_TRUE(
        startProgram(QStringLiteral(TAVREL_RECORDER_BIN), QStringLiteral("Envoyer maintenant|Envoyer"), fastPolls));
    ASSERT_TRUE(waitUntil([&] { return !notified(kUploaded).isEmpty(); }, 30s)) << m_program.logTail().toStdString();
    waitUntil([] { return false; }, 1s); // a poll or two, the job still queued
    m_program.sendSignal(SIGKILL);
    m_program.wait(5s);
    EXPECT_TRUE(notified(QStringLiteral("✅ Synthèse prête")).isEmpty());

    ASSERT_TRUE(startProgram(QStringLiteral(TAVREL_RECORDER_BIN), {}, fastPolls));
    ASSERT_TRUE(waitUntil([&] { return !notified(QStringLiteral("✅ Synthèse prête")).isEmpty(); }, 40s))
        << m_program.logTail().toStdString();
    EXPECT_EQ(notified(QStringLiteral("✅ Synthèse prête")).first().body,
              QStringLiteral("« Enregistrement » est disponible dans TaVREL."));
    EXPECT_EQ(notified(QStringLiteral("📝 Transcription terminée")).size(), 1);
    // Every notification is a new one (none replaces another), with the program's name and icon, a sound, and
    // no time-out of its own.
    for (const RecordedNotification& n : m_bus->notifications()) {
        SCOPED_TRACE(n.summary.toStdString());
        EXPECT_EQ(n.appName, QStringLiteral("TaVREL Recorder"));
        EXPECT_EQ(n.replacesId, 0U);
        EXPECT_FALSE(n.appIcon.isEmpty());
        EXPECT_EQ(n.expireTimeout, -1);
        EXPECT_TRUE(n.hints.contains(QStringLiteral("sound-name")));
    }
    // Followed to its end: not followed again.
    const auto followedJobs = [&] {
        QFile jobs(m_dir.path() + QStringLiteral("/data/TavrelRecorder/jobs.json"));
        return jobs.open(QIODevice::ReadOnly) ? jobs.readAll() : QByteArray("unreadable");
    };
    EXPECT_TRUE(waitUntil([&] { return followedJobs() == "[]"; }, 5s)) << followedJobs().toStdString();
}

// The machine sleeps and wakes while a recording is being sent: the upload starts again at once rather than
// after its time-out.
TEST_F(UploadEndToEndTest, WakingFromSuspendDuringAnUploadSendsItAgainAtOnce) {
    SessionBusFixture::Options systemOptions;
    systemOptions.notificationServer = false;
    systemOptions.exportEnvironment = false;
    SessionBusFixture systemBus(systemOptions);
    ASSERT_TRUE(systemBus.start());
    ManagedProcess logind;
    ManagedProcess::Options mock;
    mock.program = QStringLiteral("/usr/bin/python3");
    mock.arguments = {QStringLiteral("-m"), QStringLiteral("dbusmock"), QStringLiteral("--system"),
                      QStringLiteral("--template"), QStringLiteral("logind")};
    mock.environment.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), systemBus.address());
    mock.logPath = m_dir.filePath(QStringLiteral("logind.log"));
    ASSERT_TRUE(logind.start(mock));
    QDBusConnection system = QDBusConnection::connectToBus(systemBus.address(), QStringLiteral("up-e2e-system"));
    ASSERT_TRUE(waitUntil(
        [&] { return system.interface()->isServiceRegistered(QStringLiteral("org.freedesktop.login1")).value(); }, 15s))
        << logind.describe().toStdString();

    // The first upload gets no answer (the server holds it for a minute); the next one is answered at once.
    m_backend.control(R"({"fault": {"route": "upload", "delay": 60, "times": 1}, "sequence": ["queued"]})");
    writeFile(recordingsDir() + QStringLiteral("/tavrel_merged_1731772800.m4a"), "audio");
    QProcessEnvironment onSystemBus;
    onSystemBus.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), systemBus.address());
    ASSERT_TRUE(
        startProgram(QStringLiteral(TAVREL_RECORDER_BIN), QStringLiteral("Envoyer maintenant|Envoyer"), onSystemBus));
    ASSERT_TRUE(waitUntil([&] { return m_backend.requestsTo("/backend/transcriptions/upload-async") == 1; }, 30s))
        << m_program.logTail().toStdString();

    for (const bool sleeping : {true, false}) {
        QDBusMessage emitSignal = QDBusMessage::createMethodCall(
            QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
            QStringLiteral("org.freedesktop.DBus.Mock"), QStringLiteral("EmitSignal"));
        emitSignal << QStringLiteral("org.freedesktop.login1.Manager") << QStringLiteral("PrepareForSleep")
                   << QStringLiteral("b") << QVariantList{sleeping};
        const QDBusMessage reply = system.call(emitSignal, QDBus::Block, 5000);
        ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
    }
    ASSERT_TRUE(waitUntil([&] { return !notified(kUploaded).isEmpty(); }, 20s)) << m_program.logTail().toStdString();
    EXPECT_EQ(m_backend.requestsTo("/backend/transcriptions/upload-async"), 2);
    EXPECT_TRUE(m_program.logTail(200).contains(QStringLiteral("[Upload] Sortie de veille : nouvel envoi")));
    EXPECT_FALSE(m_program.logTail(200).contains(QStringLiteral("Erreur d'envoi")));
    QDBusConnection::disconnectFromBus(QStringLiteral("up-e2e-system"));
}

} // namespace
} // namespace tavrel::test
