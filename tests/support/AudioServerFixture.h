#pragma once

#include "Command.h"
#include "ManagedProcess.h"
#include "ScopedEnvironment.h"
#include "TempDir.h"

#include <QJsonArray>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <chrono>
#include <gtest/gtest.h>
#include <iosfwd>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace tavrel::test {

enum class AudioServerKind { PulseAudio, PipeWire };

/// Who poses as a conferencing application holding a record stream open.
struct RecordingClientOptions {
    QString applicationId = QStringLiteral("us.zoom.xos");
    /// Reported as application.process.binary (PULSE_PROP_OVERRIDE); empty keeps "parec".
    QString processBinary = QStringLiteral("zoom");
    QString clientName = QStringLiteral("Zoom Meeting");
    /// Empty: the default source (the virtual microphone).
    QString source;
};

/// Common part of the private audio servers: the same virtual devices (a default speaker, a
/// "BlackHole 2ch" output and a virtual microphone fed through its own sink), reached through
/// the PulseAudio protocol by pactl, paplay and parec, and by libpulse inside the test process.
///
///     PulseAudioFixture pulse;
///     ASSERT_TRUE(pulse.start());
///     ASSERT_TRUE(pulse.warmUp());
///     auto player = pulse.playIntoMicrophone(wav);
class AudioServerFixture {
public:
    static constexpr const char* kSpeakerSink = "speaker";
    static constexpr const char* kSpeakerDescription = "Haut-parleurs";
    static constexpr const char* kBlackHoleSink = "blackhole";
    static constexpr const char* kBlackHoleDescription = "BlackHole 2ch";
    /// Null sink whose monitor feeds the virtual microphone; play here to "speak into the mic".
    static constexpr const char* kMicFeedSink = "micfeed";
    static constexpr const char* kMicSource = "vmic";
    static constexpr const char* kMicDescription = "Microphone virtuel";

    struct Options {
        /// Export PULSE_SERVER, XDG_RUNTIME_DIR... into the test process for in-process clients.
        bool exportEnvironment = true;
        /// Also point HOME and the XDG_*_HOME directories of the test process into the temp dir.
        bool exportHome = false;
        std::chrono::milliseconds startTimeout{10000};
        /// After start, call warmUp(): devices kept awake, every source delivering (about 2 s once).
        bool warmUp = false;
    };

    virtual ~AudioServerFixture();
    AudioServerFixture(const AudioServerFixture&) = delete;
    AudioServerFixture& operator=(const AudioServerFixture&) = delete;

    /// Starts the daemons and creates the devices; the failure message carries the daemons' logs.
    virtual ::testing::AssertionResult start() = 0;
    /// Stops every daemon by PID, last started first, and restores the environment (the destructor does it too).
    virtual void stop();
    /// The audio server goes away for `downFor` and comes back at the same address with the same devices and
    /// defaults, as after a crash or an update; clients see their connection fail. Warmed up again when the
    /// fixture was.
    ::testing::AssertionResult restart(std::chrono::milliseconds downFor = std::chrono::milliseconds(0));
    virtual AudioServerKind kind() const = 0;
    bool isRunning() const { return m_running; }

    static QString speakerSink() { return QString::fromUtf8(kSpeakerSink); }
    static QString blackHoleSink() { return QString::fromUtf8(kBlackHoleSink); }
    static QString micFeedSink() { return QString::fromUtf8(kMicFeedSink); }
    static QString micSource() { return QString::fromUtf8(kMicSource); }
    static QString monitorOf(const QString& sink) { return sink + QStringLiteral(".monitor"); }

    QString tempPath() const { return m_dir.path(); }
    /// Only this fixture's variables (PULSE_SERVER, XDG_RUNTIME_DIR, ... and HOME).
    QProcessEnvironment variables() const { return m_variables; }
    /// The test process's environment with this fixture's variables laid over it, for children.
    QProcessEnvironment environment() const;

    /// `pactl <args>`'s standard output; a failing pactl adds a non-fatal test failure.
    QString pactl(const QStringList& arguments);
    CommandResult runPactl(const QStringList& arguments);
    /// `pactl --format=json list <what>` ("sinks", "sources", "source-outputs", "clients", ...).
    QJsonArray list(const QString& what);

    QStringList sinkNames();
    /// device.description of a sink or source, empty when there is none.
    QString description(const QString& deviceName);
    bool setDefaultSink(const QString& name);
    bool setDefaultSource(const QString& name);
    QString defaultSink();
    QString defaultSource();
    /// The module index, or nothing when loading failed.
    std::optional<int> loadModule(const QString& name, const QString& arguments = {});
    bool unloadModule(int index);

    /// paplay into the microphone feed; keep the handle alive while it plays, wait() or stop() it.
    ManagedProcess playIntoMicrophone(const QString& audioFile);
    ManagedProcess playIntoSink(const QString& sinkName, const QString& audioFile);
    /// A record stream on `source` posing as a conferencing app; stop() it to close the stream.
    ManagedProcess startRecordingClient(const RecordingClientOptions& options = {});
    /// Any client of the server (pactl, parec...) with this fixture's environment and `extra` laid over it;
    /// its standard output goes to `stdoutPath` (or its log).
    ManagedProcess spawnClient(const QString& program, const QStringList& arguments,
                               const QProcessEnvironment& extra = {}, const QString& stdoutPath = {});

    /// A PulseAudio null sink renders in blocks of up to 2 s while no low-latency stream is on it, so
    /// every new reader waits 1-2 s for its first bytes (and misses what is played meanwhile). warmUp()
    /// keeps each null sink busy with a silent low-latency playback stream (client "tavrel-keepalive",
    /// a sink input, never a record stream), then waits until the microphone and every monitor deliver.
    /// Afterwards a new reader gets data within ~50 ms. Harmless on PipeWire (readers are fast there).
    ::testing::AssertionResult warmUp(std::chrono::milliseconds timeout = std::chrono::seconds(8));
    /// Starts parecord on `source` into `wavPath` and returns once samples reach the file (a test
    /// failure is added after `timeout` otherwise); stop() or SIGINT it to finish the file.
    ManagedProcess startRecording(const QString& source, const QString& wavPath,
                                  std::chrono::milliseconds timeout = std::chrono::seconds(6));

    /// The last lines of every daemon log, for failure messages.
    QString logs() const;

protected:
    AudioServerFixture(const QString& prefix, Options options);
    /// Makes the runtime and home directories, sets (and exports when asked) the fixture's variables with
    /// PULSE_SERVER at `pulseSocket`, and returns the daemons' environment: the machine's without its
    /// display or session bus.
    QProcessEnvironment prepareEnvironment(const QString& pulseSocket, const QProcessEnvironment& extra = {});
    /// The same three sinks and virtual microphone on both servers, as (module, arguments) in .pa quoting.
    static std::vector<std::pair<QString, QString>> deviceModules(const QString& virtualSourceModule);
    /// Spawns a daemon that stop() ends (in reverse order), its output in `<program>.log`.
    ::testing::AssertionResult startDaemon(const QString& program, const QStringList& arguments,
                                           const QProcessEnvironment& environment, bool captureStdout = false);
    /// Polls `pactl info` until it answers and every device of deviceModules() is present (or just the
    /// server when `withDevices` is false); fails early when a daemon exits.
    ::testing::AssertionResult waitUntilReady(bool withDevices);
    /// On success: running, and warmed up when asked. On failure: everything stopped.
    ::testing::AssertionResult finishStart(::testing::AssertionResult started);
    Options m_options;
    TempDir m_dir;
    std::vector<ManagedProcess> m_daemons;
    std::vector<ManagedProcess> m_keepAlive;
    QProcessEnvironment m_variables;
    ScopedEnvironment m_exported;
    bool m_running = false;
    int m_clientCount = 0;
};

/// A fresh fixture of either kind, for tests parameterised over both servers.
std::unique_ptr<AudioServerFixture> makeAudioServer(AudioServerKind kind, AudioServerFixture::Options options = {});

/// Readable names in parameterised test output.
void PrintTo(AudioServerKind kind, std::ostream* os);

} // namespace tavrel::test
