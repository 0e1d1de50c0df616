#include "PulseAudioFixture.h"

#include <QElapsedTimer>
#include <QFile>

namespace tavrel::test {

PulseAudioFixture::PulseAudioFixture(Options options) : AudioServerFixture(QStringLiteral("tavrel-pa"), options) {}

PulseAudioFixture::~PulseAudioFixture() {
    stop();
}

::testing::AssertionResult PulseAudioFixture::start() {
    if (!m_dir.isValid())
        return ::testing::AssertionFailure() << "cannot create a temporary directory";
    const QString runtime = m_dir.filePath(QStringLiteral("run"), true);
    // Qt and the daemons insist on a runtime directory only its owner can enter.
    QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    const QString home = m_dir.filePath(QStringLiteral("home"), true);
    const QString socket = runtime + QStringLiteral("/native");

    QProcessEnvironment vars;
    vars.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime);
    vars.insert(QStringLiteral("PULSE_RUNTIME_PATH"), m_dir.filePath(QStringLiteral("run/pulse"), true));
    vars.insert(QStringLiteral("PULSE_SERVER"), QStringLiteral("unix:") + socket);
    // Anonymous authentication: the cookie is never needed, but libpulse would create one in the real HOME.
    vars.insert(QStringLiteral("PULSE_COOKIE"), home + QStringLiteral("/pulse-cookie"));
    QProcessEnvironment homeVars;
    homeVars.insert(QStringLiteral("HOME"), home);
    homeVars.insert(QStringLiteral("XDG_CONFIG_HOME"), m_dir.filePath(QStringLiteral("home/.config"), true));
    homeVars.insert(QStringLiteral("XDG_DATA_HOME"), m_dir.filePath(QStringLiteral("home/.local/share"), true));
    homeVars.insert(QStringLiteral("XDG_STATE_HOME"), m_dir.filePath(QStringLiteral("home/.local/state"), true));
    homeVars.insert(QStringLiteral("XDG_CACHE_HOME"), m_dir.filePath(QStringLiteral("home/.cache"), true));

    const QString script = m_dir.filePath(QStringLiteral("devices.pa"));
    QFile pa(script);
    if (!pa.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return ::testing::AssertionFailure() << "cannot write " << script.toStdString();
    pa.write(QStringLiteral(
                 "load-module module-native-protocol-unix auth-anonymous=1 socket=%1\n"
                 "load-module module-null-sink sink_name=%2 sink_properties='device.description=\"%3\"'\n"
                 "load-module module-null-sink sink_name=%4 sink_properties='device.description=\"%5\"'\n"
                 "load-module module-null-sink sink_name=%6 sink_properties='device.description=\"Entrée micro\"'\n"
                 "load-module module-virtual-source source_name=%7 master=%6.monitor "
                 "source_properties='device.description=\"%8\"'\n"
                 "set-default-sink %2\n"
                 "set-default-source %7\n")
                 .arg(socket, QString::fromUtf8(kSpeakerSink), QString::fromUtf8(kSpeakerDescription),
                      QString::fromUtf8(kBlackHoleSink), QString::fromUtf8(kBlackHoleDescription),
                      QString::fromUtf8(kMicFeedSink), QString::fromUtf8(kMicSource),
                      QString::fromUtf8(kMicDescription))
                 .toUtf8());
    pa.close();

    exportVariables(vars, homeVars);

    QProcessEnvironment daemonEnv = QProcessEnvironment::systemEnvironment();
    daemonEnv.insert(vars);
    daemonEnv.insert(homeVars);
    // The daemon must not find a session bus or a display of the machine.
    daemonEnv.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
    daemonEnv.remove(QStringLiteral("DISPLAY"));

    ManagedProcess::Options options;
    options.program = QStringLiteral("pulseaudio");
    options.arguments = {QStringLiteral("-n"),
                         QStringLiteral("-F"),
                         script,
                         QStringLiteral("--daemonize=no"),
                         QStringLiteral("--exit-idle-time=-1"),
                         QStringLiteral("--use-pid-file=no"),
                         QStringLiteral("--realtime=no"),
                         QStringLiteral("--high-priority=no"),
                         QStringLiteral("--log-level=info"),
                         QStringLiteral("--log-target=file:") + m_dir.filePath(QStringLiteral("pulseaudio.log"))};
    options.environment = daemonEnv;
    options.logPath = m_dir.filePath(QStringLiteral("pulseaudio.out"));
    QElapsedTimer timer;
    timer.start();
    if (!m_daemon.start(options))
        return ::testing::AssertionFailure() << m_daemon.errorString().toStdString();
    auto ready = waitUntilReady({&m_daemon}, {QString::fromUtf8(kSpeakerSink), QString::fromUtf8(kBlackHoleSink),
                                              QString::fromUtf8(kMicFeedSink)});
    m_startupMs = timer.elapsed();
    if (!ready) {
        stop();
        return ready;
    }
    m_running = true;
    if (m_options.warmUp)
        return warmUp();
    return ::testing::AssertionSuccess();
}

void PulseAudioFixture::stop() {
    stopClients();
    m_daemon.stop();
    AudioServerFixture::stop();
}

QString PulseAudioFixture::logs() const {
    QString text = QStringLiteral("--- pulseaudio log (%1) ---\n%2")
                       .arg(m_dir.filePath(QStringLiteral("pulseaudio.log")),
                            fileTail(m_dir.filePath(QStringLiteral("pulseaudio.log"))));
    const QString out = fileTail(m_dir.filePath(QStringLiteral("pulseaudio.out")));
    if (!out.isEmpty())
        text += QStringLiteral("\n--- pulseaudio output ---\n") + out;
    return text;
}

} // namespace tavrel::test
