#include "PulseAudioFixture.h"

#include <QFile>

namespace tavrel::test {

PulseAudioFixture::PulseAudioFixture(Options options) : AudioServerFixture(QStringLiteral("tavrel-pa"), options) {}

::testing::AssertionResult PulseAudioFixture::start() {
    if (!m_dir.isValid())
        return ::testing::AssertionFailure() << "cannot create a temporary directory";
    const QString socket = m_dir.filePath(QStringLiteral("run/native"));
    const QProcessEnvironment env = prepareEnvironment(socket);

    // The whole set-up in the daemon's start-up script: the devices exist once it answers.
    QString script = QStringLiteral("load-module module-native-protocol-unix auth-anonymous=1 socket=%1\n").arg(socket);
    for (const auto& [module, arguments] : deviceModules(QStringLiteral("module-virtual-source")))
        script += QStringLiteral("load-module %1 %2\n").arg(module, arguments);
    script += QStringLiteral("set-default-sink %1\nset-default-source %2\n").arg(speakerSink(), micSource());
    const QString scriptPath = m_dir.filePath(QStringLiteral("devices.pa"));
    QFile file(scriptPath);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(script.toUtf8()) < 0)
        return ::testing::AssertionFailure() << "cannot write " << scriptPath.toStdString();
    file.close();

    auto started =
        startDaemon(QStringLiteral("pulseaudio"),
                    {QStringLiteral("-n"), QStringLiteral("-F"), scriptPath, QStringLiteral("--daemonize=no"),
                     QStringLiteral("--exit-idle-time=-1"), QStringLiteral("--use-pid-file=no"),
                     QStringLiteral("--realtime=no"), QStringLiteral("--high-priority=no"),
                     QStringLiteral("--log-level=info"), QStringLiteral("--log-target=stderr")},
                    env);
    if (started)
        started = waitUntilReady(true);
    return finishStart(started);
}

} // namespace tavrel::test
