// CPU share of the running program, idle in the tray and while recording (panel shown, meters at 20 Hz),
// each against a reference measured over the same window: a bare Qt event loop, idle or repainting a
// panel-sized widget at 20 Hz. Private X server, session bus (with tray host) and PulseAudio.
//   bench_app_cpu [seconds per phase, default 60]
#include "TestSupport.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QDir>
#include <QFile>
#include <QMap>
#include <QThread>
#include <cstdio>
#include <unistd.h>

using namespace tavrel::test;
using namespace std::chrono_literals;

namespace {

/// utime + stime of a process, in clock ticks.
long long cpuTicks(pid_t pid) {
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray line = stat.readAll();
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    // Fields after the command: state is index 0, utime 11, stime 12.
    return fields.value(11).toLongLong() + fields.value(12).toLongLong();
}

/// utime + stime of each thread of a process, by thread name (threads of one name summed).
QMap<QString, long long> threadTicks(pid_t pid) {
    QMap<QString, long long> ticks;
    const QString task = QStringLiteral("/proc/%1/task").arg(pid);
    for (const QString& tid : QDir(task).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm(task + u'/' + tid + QStringLiteral("/comm"));
        if (!comm.open(QIODevice::ReadOnly))
            continue;
        const QString name = QString::fromUtf8(comm.readAll()).trimmed();
        QFile stat(task + u'/' + tid + QStringLiteral("/stat"));
        if (!stat.open(QIODevice::ReadOnly))
            continue;
        const QByteArray line = stat.readAll();
        const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
        ticks[name] += fields.value(11).toLongLong() + fields.value(12).toLongLong();
    }
    return ticks;
}

struct Share {
    double programPercent;
    double referencePercent;
};

Share measure(pid_t program, pid_t reference, int seconds) {
    const long long p0 = cpuTicks(program);
    const long long r0 = cpuTicks(reference);
    const QMap<QString, long long> threads0 = threadTicks(program);
    QThread::sleep(static_cast<unsigned long>(seconds));
    const double ticks = double(sysconf(_SC_CLK_TCK)) * seconds;
    // Where the program's time went: the main thread (delegate, panel, tray) against the audio threads.
    const QMap<QString, long long> threads1 = threadTicks(program);
    for (auto it = threads1.begin(); it != threads1.end(); ++it) {
        const long long used = it.value() - threads0.value(it.key());
        if (used > 0)
            std::printf("    thread %-18s %6.3f %%\n", qPrintable(it.key()), 100.0 * double(used) / ticks);
    }
    return {100.0 * double(cpuTicks(program) - p0) / ticks, 100.0 * double(cpuTicks(reference) - r0) / ticks};
}

bool activate(QDBusConnection& bus, const QString& action) {
    QDBusMessage call =
        QDBusMessage::createMethodCall(QStringLiteral("fr.tavrel.Recorder"), QStringLiteral("/fr/tavrel/Recorder"),
                                       QStringLiteral("org.freedesktop.Application"), QStringLiteral("ActivateAction"));
    call << action << QVariant::fromValue(QVariantList()) << QVariantMap();
    return bus.call(call, QDBus::Block, 5000).type() == QDBusMessage::ReplyMessage;
}

void report(const char* phase, const Share& share) {
    std::printf("%-34s program %6.3f %% of a core   reference %6.3f %%   ratio %s\n", phase, share.programPercent,
                share.referencePercent,
                share.referencePercent > 0
                    ? QByteArray::number(share.programPercent / share.referencePercent, 'f', 2).constData()
                    : "n/a (reference used no tick)");
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const int seconds = argc > 1 ? std::max(1, atoi(argv[1])) : 60;

    SessionBusFixture::Options busOptions;
    busOptions.exportEnvironment = false;
    SessionBusFixture bus(busOptions);
    XvfbFixture::Options xOptions;
    xOptions.exportEnvironment = false;
    XvfbFixture xvfb(xOptions);
    AudioServerFixture::Options audioOptions;
    audioOptions.exportEnvironment = false;
    PulseAudioFixture pulse(audioOptions);
    for (const auto& started : {bus.start(), xvfb.start(), pulse.start()}) {
        if (!started) {
            std::fprintf(stderr, "set-up failed: %s\n", started.message());
            return 1;
        }
    }
    // The program's tray item lives in a real tray host, as on a desktop.
    TrayHost tray;
    if (const auto started = tray.start(mergedEnvironment({bus.variables(), xvfb.variables()})); !started) {
        std::fprintf(stderr, "set-up failed: %s\n", started.message());
        return 1;
    }
    TempDir dir(QStringLiteral("tavrel-bench"));
    QProcessEnvironment env = mergedEnvironment({pulse.variables(), bus.variables(), xvfb.variables()});
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), dir.filePath(QStringLiteral("config"), true));
    env.insert(QStringLiteral("XDG_DATA_HOME"), dir.filePath(QStringLiteral("data"), true));
    env.insert(QStringLiteral("XDG_STATE_HOME"), dir.filePath(QStringLiteral("state"), true));
    env.insert(QStringLiteral("TAVREL_TEST_ALERT_ANSWERS"), QString());

    ManagedProcess program;
    ManagedProcess::Options options;
    options.program = QStringLiteral(TAVREL_RECORDER_BIN);
    options.environment = env;
    options.logPath = dir.filePath(QStringLiteral("program.log"));
    ManagedProcess reference;
    ManagedProcess::Options refOptions;
    refOptions.program = QStringLiteral(TAVREL_REFERENCE_BIN);
    refOptions.arguments = {QStringLiteral("idle")};
    refOptions.environment = env;
    if (!program.start(options) || !reference.start(refOptions)) {
        std::fprintf(stderr, "cannot start the programs\n");
        return 1;
    }
    // Let both settle (start-up work, the pending check 1.5 s after launch).
    QThread::sleep(5);
    std::printf("CPU over %d s per phase (2 cores shared with the rest of the machine)\n", seconds);
    report("idle in the tray", measure(program.pid(), reference.pid(), seconds));

    QDBusConnection connection = QDBusConnection::connectToBus(bus.address(), QStringLiteral("bench"));
    reference.stop();
    refOptions.arguments = {QStringLiteral("meter")};
    if (!reference.start(refOptions) || !activate(connection, QStringLiteral("start-recording"))) {
        std::fprintf(stderr, "cannot start the recording\n%s\n", qPrintable(program.logTail()));
        return 1;
    }
    QThread::sleep(3);
    report("recording, panel meters at 20 Hz", measure(program.pid(), reference.pid(), seconds));
    activate(connection, QStringLiteral("stop-recording"));
    QThread::sleep(2);
    program.stop();
    reference.stop();
    return 0;
}
