#include "PipeWireFixture.h"

#include "Wait.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QStandardPaths>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace tavrel::test {

using namespace std::chrono_literals;

namespace {

QString latin1(const char* text) {
    return QString::fromLatin1(text);
}

// True once something listens on the unix socket (the file alone appears before listen()).
bool socketAccepts(const QString& path) {
    const QByteArray name = path.toLocal8Bit();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (static_cast<std::size_t>(name.size()) >= sizeof(address.sun_path))
        return false;
    std::memcpy(address.sun_path, name.constData(), static_cast<std::size_t>(name.size()));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    const bool connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    ::close(fd);
    return connected;
}

} // namespace

PipeWireFixture::PipeWireFixture(Options options) : AudioServerFixture(QStringLiteral("tavrel-pw"), options) {}

PipeWireFixture::~PipeWireFixture() {
    stop();
}

bool PipeWireFixture::isAvailable(QString* missing) {
    QStringList absent;
    for (const char* program : {"pipewire", "wireplumber", "pipewire-pulse", "dbus-daemon", "pactl", "pw-record"}) {
        if (QStandardPaths::findExecutable(latin1(program)).isEmpty())
            absent << latin1(program);
    }
    if (missing)
        *missing = absent.join(", ");
    return absent.isEmpty();
}

::testing::AssertionResult PipeWireFixture::startDaemon(ManagedProcess& daemon, const QString& program,
                                                        const QStringList& args, const QProcessEnvironment& env) {
    ManagedProcess::Options options;
    options.program = program;
    options.arguments = args;
    options.environment = env;
    options.logPath = m_dir.filePath(program + QStringLiteral(".log"));
    if (!daemon.start(options))
        return ::testing::AssertionFailure() << daemon.errorString().toStdString();
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult PipeWireFixture::start() {
    if (!m_dir.isValid())
        return ::testing::AssertionFailure() << "cannot create a temporary directory";
    QString missing;
    if (!isAvailable(&missing))
        return ::testing::AssertionFailure() << "PipeWire programs missing: " << missing.toStdString();

    QElapsedTimer timer;
    timer.start();
    const QString runtime = m_dir.filePath(QStringLiteral("run"), true);
    // Qt and the daemons insist on a runtime directory only its owner can enter.
    QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    const QString home = m_dir.filePath(QStringLiteral("home"), true);

    QProcessEnvironment vars;
    vars.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime);
    vars.insert(QStringLiteral("PIPEWIRE_RUNTIME_DIR"), runtime);
    vars.insert(QStringLiteral("PULSE_RUNTIME_PATH"), m_dir.filePath(QStringLiteral("run/pulse"), true));
    vars.insert(QStringLiteral("PULSE_SERVER"), QStringLiteral("unix:") + runtime + QStringLiteral("/pulse/native"));
    vars.insert(QStringLiteral("PULSE_COOKIE"), home + QStringLiteral("/pulse-cookie"));
    QProcessEnvironment homeVars;
    homeVars.insert(QStringLiteral("HOME"), home);
    homeVars.insert(QStringLiteral("XDG_CONFIG_HOME"), m_dir.filePath(QStringLiteral("home/.config"), true));
    homeVars.insert(QStringLiteral("XDG_DATA_HOME"), m_dir.filePath(QStringLiteral("home/.local/share"), true));
    // WirePlumber remembers default devices here; a shared one would leak choices between runs.
    homeVars.insert(QStringLiteral("XDG_STATE_HOME"), m_dir.filePath(QStringLiteral("home/.local/state"), true));
    homeVars.insert(QStringLiteral("XDG_CACHE_HOME"), m_dir.filePath(QStringLiteral("home/.cache"), true));

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(vars);
    env.insert(homeVars);
    env.remove(QStringLiteral("DISPLAY"));
    env.remove(QStringLiteral("PIPEWIRE_REMOTE"));

    // WirePlumber needs a session bus; a private one keeps parallel test binaries apart.
    ManagedProcess::Options busOptions;
    busOptions.program = QStringLiteral("dbus-daemon");
    busOptions.arguments = {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--nopidfile"),
                            QStringLiteral("--address=unix:path=") + runtime + QStringLiteral("/bus"),
                            QStringLiteral("--print-address=1")};
    busOptions.environment = env;
    busOptions.logPath = m_dir.filePath(QStringLiteral("dbus-daemon.log"));
    busOptions.captureStdout = true;
    if (!m_bus.start(busOptions))
        return ::testing::AssertionFailure() << m_bus.errorString().toStdString();
    const auto address = m_bus.readStdoutLine(m_options.startTimeout);
    if (!address || address->isEmpty()) {
        const std::string why = m_bus.describe().toStdString();
        stop();
        return ::testing::AssertionFailure() << "dbus-daemon printed no address: " << why;
    }
    m_busAddress = QString::fromUtf8(*address).trimmed();
    env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), m_busAddress);

    exportVariables(vars, homeVars);

    auto started = startDaemon(m_pipewire, QStringLiteral("pipewire"), {}, env);
    if (!started) {
        stop();
        return started;
    }
    // WirePlumber and pipewire-pulse give up at once when the server socket is not there yet.
    const QString serverSocket = runtime + QStringLiteral("/pipewire-0");
    if (!waitUntil([&] { return socketAccepts(serverSocket) || !m_pipewire.isRunning(); }, m_options.startTimeout,
                   5ms) ||
        !m_pipewire.isRunning()) {
        const std::string why = logs().toStdString();
        stop();
        return ::testing::AssertionFailure() << "pipewire did not listen on " << serverSocket.toStdString()
                                             << " within " << m_options.startTimeout.count() << " ms\n"
                                             << why;
    }
    for (auto [daemon, program] : {std::pair{&m_wireplumber, QStringLiteral("wireplumber")},
                                   std::pair{&m_pipewirePulse, QStringLiteral("pipewire-pulse")}}) {
        started = startDaemon(*daemon, program, {}, env);
        if (!started) {
            stop();
            return started;
        }
    }

    auto ready = waitUntilReady({&m_bus, &m_pipewire, &m_wireplumber, &m_pipewirePulse}, {});
    if (!ready) {
        stop();
        return ready;
    }

    // The same quoting as in a .pa file: pactl hands the argument string to the module as is.
    const QString deviceModules[][2] = {
        {QStringLiteral("module-null-sink"), QStringLiteral("sink_name=%1 sink_properties='device.description=\"%2\"'")
                                                 .arg(latin1(kSpeakerSink), latin1(kSpeakerDescription))},
        {QStringLiteral("module-null-sink"), QStringLiteral("sink_name=%1 sink_properties='device.description=\"%2\"'")
                                                 .arg(latin1(kBlackHoleSink), latin1(kBlackHoleDescription))},
        {QStringLiteral("module-null-sink"),
         QStringLiteral("sink_name=%1 sink_properties='device.description=\"Entrée micro\"'")
             .arg(latin1(kMicFeedSink))},
        {QStringLiteral("module-remap-source"),
         QStringLiteral("source_name=%1 master=%2.monitor source_properties='device.description=\"%3\"'")
             .arg(latin1(kMicSource), latin1(kMicFeedSink), QString::fromUtf8(kMicDescription))},
    };
    for (const auto& module : deviceModules) {
        const CommandResult result = runPactl({QStringLiteral("load-module"), module[0], module[1]});
        if (!result.ok()) {
            const std::string why = result.describe().toStdString() + "\n" + logs().toStdString();
            stop();
            return ::testing::AssertionFailure() << why;
        }
    }
    QString lastError;
    const bool devicesUp = waitUntil(
        [&] {
            const QStringList sinks = sinkNames();
            const QStringList sources = sourceNames();
            for (const char* sink : {kSpeakerSink, kBlackHoleSink, kMicFeedSink}) {
                if (!sinks.contains(latin1(sink))) {
                    lastError = QStringLiteral("sink %1 missing").arg(latin1(sink));
                    return false;
                }
            }
            if (!sources.contains(latin1(kMicSource))) {
                lastError = QStringLiteral("source %1 missing").arg(latin1(kMicSource));
                return false;
            }
            return true;
        },
        m_options.startTimeout, 20ms);
    if (!devicesUp || !setDefaultSink(latin1(kSpeakerSink)) || !setDefaultSource(latin1(kMicSource))) {
        const std::string why = lastError.toStdString() + "\n" + logs().toStdString();
        stop();
        return ::testing::AssertionFailure() << "PipeWire devices did not appear: " << why;
    }
    // WirePlumber applies the defaults asynchronously; wait until pactl reports them.
    waitUntil([&] { return defaultSink() == latin1(kSpeakerSink) && defaultSource() == latin1(kMicSource); }, 3s, 20ms);
    m_startupMs = timer.elapsed();
    m_running = true;
    if (m_options.warmUp)
        return warmUp();
    return ::testing::AssertionSuccess();
}

void PipeWireFixture::stop() {
    stopClients();
    // Clients before the server, the bus last.
    m_pipewirePulse.stop();
    m_wireplumber.stop();
    m_pipewire.stop();
    m_bus.stop();
    AudioServerFixture::stop();
}

ManagedProcess PipeWireFixture::startSinkCapture(const QString& sink, const QString& wavPath) {
    return spawnClient(QStringLiteral("pw-record"), {QStringLiteral("--target"), sink, QStringLiteral("-P"),
                                                     QStringLiteral("stream.capture.sink=true"), wavPath});
}

ManagedProcess PipeWireFixture::startNativeRecordingClient(const RecordingClientOptions& options) {
    // PipeWire takes application.process.binary from the executable's real path, so a symlink is not
    // enough: run a copy of pw-cat named after the conferencing app (it then needs --record).
    const QString binary = options.processBinary.isEmpty() ? QStringLiteral("pw-record") : options.processBinary;
    const QString link = m_dir.filePath(QStringLiteral("bin"), true) + QLatin1Char('/') + binary;
    if (!QFileInfo::exists(link))
        QFile::copy(QStandardPaths::findExecutable(QStringLiteral("pw-cat")), link);
    const QString properties = QStringLiteral("{ application.id=\"%1\" application.name=\"%2\" }")
                                   .arg(options.applicationId, options.clientName);
    const QString target = options.source.isEmpty() ? micSource() : options.source;
    return spawnClient(link,
                       {QStringLiteral("--record"), QStringLiteral("--target"), target, QStringLiteral("-P"),
                        properties, m_dir.filePath(QStringLiteral("native-client-%1.wav").arg(m_clientCount + 1))});
}

QJsonArray PipeWireFixture::dump() {
    const CommandResult result = runCommand(QStringLiteral("pw-dump"), {}, environment(), 10s);
    if (!result.ok())
        ADD_FAILURE() << result.describe().toStdString();
    return QJsonDocument::fromJson(result.standardOutput).array();
}

QString PipeWireFixture::logs() const {
    QString text;
    for (const char* program : {"dbus-daemon", "pipewire", "wireplumber", "pipewire-pulse"}) {
        const QString path = m_dir.filePath(latin1(program) + QStringLiteral(".log"));
        text += QStringLiteral("--- %1 ---\n%2\n").arg(path, fileTail(path, 15));
    }
    return text;
}

} // namespace tavrel::test
