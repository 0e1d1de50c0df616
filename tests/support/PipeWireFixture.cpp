#include "PipeWireFixture.h"

#include "Wait.h"

#include <QStandardPaths>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace tavrel::test {

using namespace std::chrono_literals;

namespace {

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

bool PipeWireFixture::isAvailable(QString* missing) {
    QStringList absent;
    for (const char* program : {"pipewire", "wireplumber", "pipewire-pulse", "dbus-daemon", "pactl"}) {
        if (QStandardPaths::findExecutable(QString::fromLatin1(program)).isEmpty())
            absent << QString::fromLatin1(program);
    }
    if (missing)
        *missing = absent.join(", ");
    return absent.isEmpty();
}

::testing::AssertionResult PipeWireFixture::start() {
    if (!m_dir.isValid())
        return ::testing::AssertionFailure() << "cannot create a temporary directory";
    QString missing;
    if (!isAvailable(&missing))
        return ::testing::AssertionFailure() << "PipeWire programs missing: " << missing.toStdString();
    const QString runtime = m_dir.filePath(QStringLiteral("run"));
    QProcessEnvironment extra;
    extra.insert(QStringLiteral("PIPEWIRE_RUNTIME_DIR"), runtime);
    QProcessEnvironment env = prepareEnvironment(runtime + QStringLiteral("/pulse/native"), extra);

    // WirePlumber needs a session bus; a private one keeps parallel test binaries apart.
    auto started = startDaemon(QStringLiteral("dbus-daemon"),
                               {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--nopidfile"),
                                QStringLiteral("--address=unix:path=") + runtime + QStringLiteral("/bus"),
                                QStringLiteral("--print-address=1")},
                               env, true);
    if (started) {
        const auto address = m_daemons.back().readStdoutLine(m_options.startTimeout);
        if (address && !address->trimmed().isEmpty())
            env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), QString::fromUtf8(address->trimmed()));
        else
            started = ::testing::AssertionFailure() << "dbus-daemon printed no address";
    }
    if (started)
        started = startDaemon(QStringLiteral("pipewire"), {}, env);
    // WirePlumber and pipewire-pulse give up at once when the server socket is not there yet.
    const QString serverSocket = runtime + QStringLiteral("/pipewire-0");
    if (started && !waitUntil([&] { return socketAccepts(serverSocket) || !m_daemons.back().isRunning(); },
                              m_options.startTimeout, 5ms))
        started = ::testing::AssertionFailure() << "pipewire did not listen on " << serverSocket.toStdString();
    for (const QString& program : {QStringLiteral("wireplumber"), QStringLiteral("pipewire-pulse")}) {
        if (started)
            started = startDaemon(program, {}, env);
    }
    if (started)
        started = waitUntilReady(false);
    // The same quoting as in a .pa file: pactl hands the argument string to the module as is.
    for (const auto& [module, arguments] : deviceModules(QStringLiteral("module-remap-source"))) {
        if (!started)
            break;
        if (const CommandResult loaded = runPactl({QStringLiteral("load-module"), module, arguments}); !loaded.ok())
            started = ::testing::AssertionFailure() << loaded.describe().toStdString();
    }
    if (started)
        started = waitUntilReady(true);
    if (started && !(setDefaultSink(speakerSink()) && setDefaultSource(micSource())))
        started = ::testing::AssertionFailure() << "cannot choose the default devices";
    // WirePlumber applies the defaults asynchronously; wait until pactl reports them.
    if (started)
        waitUntil([&] { return defaultSink() == speakerSink() && defaultSource() == micSource(); }, 3s, 20ms);
    return finishStart(started);
}

} // namespace tavrel::test
