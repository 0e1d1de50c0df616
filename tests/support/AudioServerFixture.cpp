#include "AudioServerFixture.h"

#include "PipeWireFixture.h"
#include "PulseAudioFixture.h"
#include "Wait.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>
#include <csignal>
#include <ostream>
#include <thread>

namespace tavrel::test {

using namespace std::chrono_literals;

namespace {

QString utf8(const char* text) {
    return QString::fromUtf8(text);
}

// Every device deviceModules() creates: three sinks and the virtual microphone.
QStringList deviceNames() {
    return {utf8(AudioServerFixture::kSpeakerSink), utf8(AudioServerFixture::kBlackHoleSink),
            utf8(AudioServerFixture::kMicFeedSink), utf8(AudioServerFixture::kMicSource)};
}

QString nameOf(const QJsonValue& device) {
    return device.toObject().value(QStringLiteral("name")).toString();
}

} // namespace

AudioServerFixture::AudioServerFixture(const QString& prefix, Options options) : m_options(options), m_dir(prefix) {}

AudioServerFixture::~AudioServerFixture() {
    stop();
}

void AudioServerFixture::stop() {
    m_keepAlive.clear();
    // Clients before the servers they talk to.
    for (auto daemon = m_daemons.rbegin(); daemon != m_daemons.rend(); ++daemon)
        daemon->stop();
    m_daemons.clear();
    m_exported.restore();
    m_running = false;
}

::testing::AssertionResult AudioServerFixture::restart(std::chrono::milliseconds downFor) {
    m_keepAlive.clear();
    for (auto daemon = m_daemons.rbegin(); daemon != m_daemons.rend(); ++daemon)
        daemon->sendSignal(SIGKILL);
    for (ManagedProcess& daemon : m_daemons)
        daemon.wait(std::chrono::seconds(5));
    m_daemons.clear();
    m_running = false;
    // The private session bus does not take over an address that is still there.
    QFile::remove(m_dir.filePath(QStringLiteral("run/bus")));
    std::this_thread::sleep_for(downFor);
    return start();
}

QProcessEnvironment AudioServerFixture::environment() const {
    return mergedEnvironment({m_variables});
}

QProcessEnvironment AudioServerFixture::prepareEnvironment(const QString& pulseSocket,
                                                           const QProcessEnvironment& extra) {
    const QString runtime = m_dir.filePath(QStringLiteral("run"), true);
    // Qt and the daemons insist on a runtime directory only its owner can enter.
    QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    const QString home = m_dir.filePath(QStringLiteral("home"), true);
    QProcessEnvironment vars = extra;
    vars.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime);
    vars.insert(QStringLiteral("PULSE_RUNTIME_PATH"), m_dir.filePath(QStringLiteral("run/pulse"), true));
    vars.insert(QStringLiteral("PULSE_SERVER"), QStringLiteral("unix:") + pulseSocket);
    // Anonymous authentication: the cookie is never needed, but libpulse would create one in the real HOME.
    vars.insert(QStringLiteral("PULSE_COOKIE"), home + QStringLiteral("/pulse-cookie"));
    QProcessEnvironment homeVars;
    homeVars.insert(QStringLiteral("HOME"), home);
    // WirePlumber remembers default devices under XDG_STATE_HOME; a shared one would leak choices between runs.
    for (const auto& [name, path] :
         {std::pair{"XDG_CONFIG_HOME", ".config"}, std::pair{"XDG_DATA_HOME", ".local/share"},
          std::pair{"XDG_STATE_HOME", ".local/state"}, std::pair{"XDG_CACHE_HOME", ".cache"}})
        homeVars.insert(utf8(name), m_dir.filePath(QStringLiteral("home/") + utf8(path), true));

    m_variables = vars;
    m_variables.insert(homeVars);
    if (m_options.exportEnvironment) {
        m_exported.apply(vars);
        if (m_options.exportHome)
            m_exported.apply(homeVars);
    }
    QProcessEnvironment daemons = QProcessEnvironment::systemEnvironment();
    daemons.insert(m_variables);
    // The daemons must not find a session bus, a display or a PipeWire of the machine.
    for (const char* name : {"DBUS_SESSION_BUS_ADDRESS", "DISPLAY", "PIPEWIRE_REMOTE"})
        daemons.remove(utf8(name));
    return daemons;
}

std::vector<std::pair<QString, QString>> AudioServerFixture::deviceModules(const QString& virtualSourceModule) {
    const QString nullSink = QStringLiteral("sink_name=%1 sink_properties='device.description=\"%2\"'");
    return {
        {QStringLiteral("module-null-sink"), nullSink.arg(utf8(kSpeakerSink), utf8(kSpeakerDescription))},
        {QStringLiteral("module-null-sink"), nullSink.arg(utf8(kBlackHoleSink), utf8(kBlackHoleDescription))},
        {QStringLiteral("module-null-sink"), nullSink.arg(utf8(kMicFeedSink), QStringLiteral("Entrée micro"))},
        {virtualSourceModule,
         QStringLiteral("source_name=%1 master=%2.monitor source_properties='device.description=\"%3\"'")
             .arg(utf8(kMicSource), utf8(kMicFeedSink), utf8(kMicDescription))},
    };
}

::testing::AssertionResult AudioServerFixture::startDaemon(const QString& program, const QStringList& arguments,
                                                           const QProcessEnvironment& environment, bool captureStdout) {
    ManagedProcess::Options options;
    options.program = program;
    options.arguments = arguments;
    options.environment = environment;
    options.logPath = m_dir.filePath(program + QStringLiteral(".log"));
    options.captureStdout = captureStdout;
    m_daemons.emplace_back();
    if (!m_daemons.back().start(options))
        return ::testing::AssertionFailure() << m_daemons.back().errorString().toStdString();
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult AudioServerFixture::waitUntilReady(bool withDevices) {
    QString lastError;
    const bool ready = waitUntil(
        [&] {
            for (ManagedProcess& daemon : m_daemons) {
                if (!daemon.isRunning()) {
                    lastError = QStringLiteral("%1 exited").arg(daemon.program());
                    return true;
                }
            }
            const CommandResult info = runCommand(QStringLiteral("pactl"), {QStringLiteral("info")}, environment(), 2s);
            if (!info.ok()) {
                lastError = info.describe();
                return false;
            }
            if (withDevices) {
                QStringList present;
                for (const char* what : {"sinks", "sources"}) {
                    const CommandResult devices =
                        runCommand(QStringLiteral("pactl"),
                                   {QStringLiteral("list"), QStringLiteral("short"), utf8(what)}, environment(), 2s);
                    for (const QString& line : QString::fromUtf8(devices.standardOutput).split('\n'))
                        present << line.section('\t', 1, 1);
                }
                for (const QString& device : deviceNames()) {
                    if (!present.contains(device)) {
                        lastError = QStringLiteral("device %1 missing (present: %2)").arg(device, present.join(", "));
                        return false;
                    }
                }
            }
            lastError.clear();
            return true;
        },
        m_options.startTimeout, 20ms);
    if (!ready || !lastError.isEmpty())
        return ::testing::AssertionFailure()
               << (kind() == AudioServerKind::PulseAudio ? "PulseAudio" : "PipeWire") << " did not come up within "
               << m_options.startTimeout.count() << " ms: " << lastError.toStdString() << "\n"
               << logs().toStdString();
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult AudioServerFixture::finishStart(::testing::AssertionResult started) {
    if (!started) {
        started << "\n" << logs().toStdString();
        stop();
        return started;
    }
    m_running = true;
    return m_options.warmUp ? warmUp() : ::testing::AssertionSuccess();
}

QString AudioServerFixture::logs() const {
    QString text;
    for (const ManagedProcess& daemon : m_daemons)
        text += QStringLiteral("--- %1 ---\n%2\n").arg(daemon.logPath(), daemon.logTail(15));
    return text;
}

CommandResult AudioServerFixture::runPactl(const QStringList& arguments) {
    return runCommand(QStringLiteral("pactl"), arguments, environment(), 10s);
}

QString AudioServerFixture::pactl(const QStringList& arguments) {
    const CommandResult result = runPactl(arguments);
    if (!result.ok())
        ADD_FAILURE() << result.describe().toStdString();
    return QString::fromUtf8(result.standardOutput);
}

QJsonArray AudioServerFixture::list(const QString& what) {
    const QString json = pactl({QStringLiteral("--format=json"), QStringLiteral("list"), what});
    return QJsonDocument::fromJson(json.toUtf8()).array();
}

QStringList AudioServerFixture::sinkNames() {
    QStringList names;
    for (const auto& device : list(QStringLiteral("sinks")))
        names << nameOf(device);
    return names;
}

QString AudioServerFixture::description(const QString& deviceName) {
    for (const QString& what : {QStringLiteral("sinks"), QStringLiteral("sources")}) {
        for (const auto& device : list(what)) {
            if (nameOf(device) == deviceName)
                return device.toObject().value(QStringLiteral("description")).toString();
        }
    }
    return {};
}

bool AudioServerFixture::setDefaultSink(const QString& name) {
    return runPactl({QStringLiteral("set-default-sink"), name}).ok();
}

bool AudioServerFixture::setDefaultSource(const QString& name) {
    return runPactl({QStringLiteral("set-default-source"), name}).ok();
}

QString AudioServerFixture::defaultSink() {
    return pactl({QStringLiteral("get-default-sink")}).trimmed();
}

QString AudioServerFixture::defaultSource() {
    return pactl({QStringLiteral("get-default-source")}).trimmed();
}

std::optional<int> AudioServerFixture::loadModule(const QString& name, const QString& arguments) {
    QStringList args{QStringLiteral("load-module"), name};
    // One argument, quotes kept: the server parses it like a line of a .pa file.
    if (!arguments.isEmpty())
        args << arguments;
    const CommandResult result = runPactl(args);
    bool ok = false;
    const int index = QString::fromUtf8(result.standardOutput).trimmed().toInt(&ok);
    if (!result.ok() || !ok)
        return std::nullopt;
    return index;
}

bool AudioServerFixture::unloadModule(int index) {
    return runPactl({QStringLiteral("unload-module"), QString::number(index)}).ok();
}

ManagedProcess AudioServerFixture::spawnClient(const QString& program, const QStringList& arguments,
                                               const QProcessEnvironment& extra, const QString& stdoutPath) {
    ManagedProcess::Options options;
    options.program = program;
    options.arguments = arguments;
    options.environment = environment();
    options.environment.insert(extra);
    options.logPath =
        m_dir.filePath(QStringLiteral("client-%1-%2.log").arg(QFileInfo(program).fileName()).arg(++m_clientCount));
    options.stdoutPath = stdoutPath;
    ManagedProcess process;
    if (!process.start(options))
        ADD_FAILURE() << process.errorString().toStdString();
    return process;
}

ManagedProcess AudioServerFixture::playIntoMicrophone(const QString& audioFile) {
    return playIntoSink(micFeedSink(), audioFile);
}

ManagedProcess AudioServerFixture::playIntoSink(const QString& sinkName, const QString& audioFile) {
    return spawnClient(QStringLiteral("paplay"), {QStringLiteral("-d"), sinkName, audioFile});
}

ManagedProcess AudioServerFixture::startRecordingClient(const RecordingClientOptions& options) {
    QStringList args{QStringLiteral("--client-name=") + options.clientName,
                     QStringLiteral("--property=application.id=") + options.applicationId,
                     QStringLiteral("--property=application.name=") + options.clientName,
                     QStringLiteral("--latency-msec=50")};
    if (!options.source.isEmpty())
        args << QStringLiteral("-d") << options.source;
    QProcessEnvironment extra;
    extra.insert(QStringLiteral("PULSE_PROP"), QStringLiteral("application.id=") + options.applicationId);
    if (!options.processBinary.isEmpty())
        extra.insert(QStringLiteral("PULSE_PROP_OVERRIDE"),
                     QStringLiteral("application.process.binary=") + options.processBinary);
    return spawnClient(QStringLiteral("parec"), args, extra, QStringLiteral("/dev/null"));
}

::testing::AssertionResult AudioServerFixture::warmUp(std::chrono::milliseconds timeout) {
    QStringList sources{micSource()};
    for (const char* sink : {kSpeakerSink, kBlackHoleSink, kMicFeedSink})
        sources << monitorOf(utf8(sink));
    // A sink that was removed and made again lost its keep-alive: give every sink a new one.
    if (std::any_of(m_keepAlive.begin(), m_keepAlive.end(), [](ManagedProcess& p) { return !p.isRunning(); }))
        m_keepAlive.clear();
    if (kind() == AudioServerKind::PulseAudio && m_keepAlive.empty()) {
        for (const char* sink : {kSpeakerSink, kBlackHoleSink, kMicFeedSink}) {
            m_keepAlive.push_back(
                spawnClient(QStringLiteral("pacat"),
                            {QStringLiteral("--playback"), QStringLiteral("--raw"), QStringLiteral("--latency-msec=20"),
                             QStringLiteral("--client-name=tavrel-keepalive"),
                             QStringLiteral("--property=application.id=org.tavrel.test.keepalive"),
                             QStringLiteral("-d"), utf8(sink), QStringLiteral("/dev/zero")}));
        }
    }
    // A raw reader per source with a small fragment size, so that the first bytes arrive as soon as it runs.
    std::vector<ManagedProcess> probes(static_cast<std::size_t>(sources.size()));
    for (std::size_t i = 0; i < probes.size(); ++i) {
        ManagedProcess::Options options;
        options.program = QStringLiteral("parec");
        options.arguments = {QStringLiteral("-d"), sources[static_cast<qsizetype>(i)], QStringLiteral("--raw"),
                             QStringLiteral("--latency-msec=20"), QStringLiteral("--client-name=tavrel-probe")};
        options.environment = environment();
        options.captureStdout = true;
        if (!probes[i].start(options))
            return ::testing::AssertionFailure() << probes[i].errorString().toStdString();
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (std::size_t i = 0; i < probes.size(); ++i) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (probes[i].readStdout(std::max(left, 1ms), 256).size() < 256)
            return ::testing::AssertionFailure() << "source " << sources[static_cast<qsizetype>(i)].toStdString()
                                                 << " delivered no data within " << timeout.count() << " ms\n"
                                                 << logs().toStdString();
    }
    return ::testing::AssertionSuccess();
}

ManagedProcess AudioServerFixture::startRecording(const QString& source, const QString& wavPath,
                                                  std::chrono::milliseconds timeout) {
    ManagedProcess recorder =
        spawnClient(QStringLiteral("parecord"), {QStringLiteral("-d"), source, QStringLiteral("--file-format=wav"),
                                                 QStringLiteral("--latency-msec=20"), wavPath});
    // A WAV header is 44 bytes; a few hundred more mean samples flow.
    constexpr qint64 kFlowingBytes = 44 + 512;
    if (!waitUntil([&] { return QFileInfo(wavPath).size() > kFlowingBytes || !recorder.isRunning(); }, timeout, 5ms) ||
        !recorder.isRunning())
        ADD_FAILURE() << "recording of " << source.toStdString() << " did not start within " << timeout.count()
                      << " ms: " << recorder.describe().toStdString() << "\n"
                      << logs().toStdString();
    return recorder;
}

std::unique_ptr<AudioServerFixture> makeAudioServer(AudioServerKind kind, AudioServerFixture::Options options) {
    if (kind == AudioServerKind::PipeWire)
        return std::make_unique<PipeWireFixture>(options);
    return std::make_unique<PulseAudioFixture>(options);
}

void PrintTo(AudioServerKind kind, std::ostream* os) {
    *os << (kind == AudioServerKind::PulseAudio ? "PulseAudio" : "PipeWire");
}

} // namespace tavrel::test
