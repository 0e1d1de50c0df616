#include "AudioServerFixture.h"

#include "PipeWireFixture.h"
#include "PulseAudioFixture.h"
#include "Wait.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <csignal>
#include <ostream>
#include <thread>

namespace tavrel::test {

using namespace std::chrono_literals;

AudioServerFixture::AudioServerFixture(const QString& prefix, Options options) : m_options(options), m_dir(prefix) {}

AudioServerFixture::~AudioServerFixture() = default;

void AudioServerFixture::stop() {
    stopClients();
    m_exported.restore();
    m_running = false;
}

QString AudioServerFixture::kindName() const {
    return kind() == AudioServerKind::PulseAudio ? QStringLiteral("PulseAudio") : QStringLiteral("PipeWire");
}

QString AudioServerFixture::runtimeDir() const {
    return m_variables.value(QStringLiteral("XDG_RUNTIME_DIR"));
}

QProcessEnvironment AudioServerFixture::environment() const {
    return mergedEnvironment({m_variables});
}

void AudioServerFixture::exportVariables(const QProcessEnvironment& variables,
                                         const QProcessEnvironment& homeVariables) {
    m_variables = variables;
    m_variables.insert(homeVariables);
    m_pulseServer = m_variables.value(QStringLiteral("PULSE_SERVER"));
    if (m_options.exportEnvironment) {
        m_exported.apply(variables);
        if (m_options.exportHome)
            m_exported.apply(homeVariables);
    }
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

namespace {

QStringList namesOf(const QJsonArray& devices) {
    QStringList names;
    for (const auto& device : devices)
        names << device.toObject().value(QStringLiteral("name")).toString();
    return names;
}

} // namespace

QStringList AudioServerFixture::sinkNames() {
    return namesOf(list(QStringLiteral("sinks")));
}

QStringList AudioServerFixture::sourceNames() {
    return namesOf(list(QStringLiteral("sources")));
}

QString AudioServerFixture::description(const QString& deviceName) {
    for (const QString& what : {QStringLiteral("sinks"), QStringLiteral("sources")}) {
        for (const auto& device : list(what)) {
            const QJsonObject object = device.toObject();
            if (object.value(QStringLiteral("name")).toString() == deviceName)
                return object.value(QStringLiteral("description")).toString();
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
                                               const QProcessEnvironment& extra) {
    QProcessEnvironment env = environment();
    env.insert(extra);
    ManagedProcess process;
    ManagedProcess::Options options;
    options.program = program;
    options.arguments = arguments;
    options.environment = env;
    options.logPath =
        m_dir.filePath(QStringLiteral("client-%1-%2.log").arg(QFileInfo(program).fileName()).arg(++m_clientCount));
    if (!process.start(options))
        ADD_FAILURE() << process.errorString().toStdString();
    return process;
}

ManagedProcess AudioServerFixture::playIntoMicrophone(const QString& audioFile) {
    return playIntoSink(QString::fromUtf8(kMicFeedSink), audioFile);
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
    ManagedProcess process;
    ManagedProcess::Options spawn;
    spawn.program = QStringLiteral("parec");
    spawn.arguments = args;
    QProcessEnvironment env = environment();
    env.insert(extra);
    spawn.environment = env;
    spawn.logPath = m_dir.filePath(QStringLiteral("client-parec-%1.log").arg(++m_clientCount));
    spawn.stdoutPath = QStringLiteral("/dev/null");
    if (!process.start(spawn))
        ADD_FAILURE() << process.errorString().toStdString();
    return process;
}

namespace {

// A raw reader with a small fragment size, so that the first bytes arrive as soon as the source runs.
ManagedProcess::Options probeOptions(const QString& source, const QProcessEnvironment& env) {
    ManagedProcess::Options options;
    options.program = QStringLiteral("parec");
    options.arguments = {QStringLiteral("-d"), source, QStringLiteral("--raw"), QStringLiteral("--latency-msec=20"),
                         QStringLiteral("--client-name=tavrel-probe")};
    options.environment = env;
    options.captureStdout = true;
    return options;
}

} // namespace

::testing::AssertionResult AudioServerFixture::waitUntilSourceDelivers(const QString& source,
                                                                       std::chrono::milliseconds timeout) {
    ManagedProcess probe;
    if (!probe.start(probeOptions(source, environment())))
        return ::testing::AssertionFailure() << probe.errorString().toStdString();
    const QByteArray bytes = probe.readStdout(timeout, 256);
    probe.stop(500ms);
    if (bytes.size() < 256)
        return ::testing::AssertionFailure()
               << "source " << source.toStdString() << " delivered no data within " << timeout.count() << " ms\n"
               << logs().toStdString();
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult AudioServerFixture::warmUp(std::chrono::milliseconds timeout) {
    QStringList sources{QString::fromUtf8(kMicSource)};
    for (const char* sink : {kSpeakerSink, kBlackHoleSink, kMicFeedSink})
        sources << monitorOf(QString::fromUtf8(sink));
    if (kind() == AudioServerKind::PulseAudio && m_keepAlive.empty()) {
        for (const char* sink : {kSpeakerSink, kBlackHoleSink, kMicFeedSink}) {
            m_keepAlive.push_back(
                spawnClient(QStringLiteral("pacat"),
                            {QStringLiteral("--playback"), QStringLiteral("--raw"), QStringLiteral("--latency-msec=20"),
                             QStringLiteral("--client-name=tavrel-keepalive"),
                             QStringLiteral("--property=application.id=org.tavrel.test.keepalive"),
                             QStringLiteral("-d"), QString::fromUtf8(sink), QStringLiteral("/dev/zero")}));
        }
    }
    std::vector<ManagedProcess> probes(static_cast<std::size_t>(sources.size()));
    for (std::size_t i = 0; i < probes.size(); ++i) {
        if (!probes[i].start(probeOptions(sources[static_cast<qsizetype>(i)], environment())))
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

::testing::AssertionResult AudioServerFixture::recordSource(const QString& source, std::chrono::milliseconds duration,
                                                            const QString& wavPath) {
    ManagedProcess recorder = startRecording(source, wavPath);
    if (recorder.pid() <= 0)
        return ::testing::AssertionFailure() << "parecord did not start";
    waitUntil([] { return false; }, duration);
    if (!recorder.isRunning())
        return ::testing::AssertionFailure() << "parecord ended early: " << recorder.describe().toStdString();
    // parecord finishes the WAV header on SIGINT.
    recorder.sendSignal(SIGINT);
    const auto code = recorder.wait(3s);
    if (!code || *code != 0)
        return ::testing::AssertionFailure()
               << "parecord did not finish cleanly: " << recorder.describe().toStdString();
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult AudioServerFixture::waitUntilReady(const std::vector<ManagedProcess*>& daemons,
                                                              const QStringList& requiredSinks) {
    QString lastError;
    const bool ready = waitUntil(
        [&] {
            for (ManagedProcess* daemon : daemons) {
                if (!daemon->isRunning()) {
                    lastError = QStringLiteral("%1 exited").arg(daemon->program());
                    return true;
                }
            }
            const CommandResult info = runCommand(QStringLiteral("pactl"), {QStringLiteral("info")}, environment(), 2s);
            if (!info.ok()) {
                lastError = info.describe();
                return false;
            }
            const CommandResult sinks = runCommand(
                QStringLiteral("pactl"), {QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("sinks")},
                environment(), 2s);
            QStringList present;
            for (const QString& line : QString::fromUtf8(sinks.standardOutput).split('\n', Qt::SkipEmptyParts))
                present << line.section('\t', 1, 1);
            for (const QString& sink : requiredSinks) {
                if (!present.contains(sink)) {
                    lastError = QStringLiteral("sink %1 missing (present: %2)").arg(sink, present.join(", "));
                    return false;
                }
            }
            lastError.clear();
            return true;
        },
        m_options.startTimeout, 20ms);
    if (!ready || !lastError.isEmpty())
        return ::testing::AssertionFailure()
               << kindName().toStdString() << " did not come up within " << m_options.startTimeout.count()
               << " ms: " << lastError.toStdString() << "\n"
               << logs().toStdString();
    return ::testing::AssertionSuccess();
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
