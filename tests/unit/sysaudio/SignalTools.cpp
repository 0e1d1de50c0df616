#include "SignalTools.h"

#include "Media.h"

#include <QProcess>

namespace tavrel::test {

namespace {

struct Run {
    bool ok = false;
    QByteArray out;
    QByteArray err;
};

Run run(const QString& program, const QStringList& arguments) {
    QProcess process;
    process.start(program, arguments);
    Run result;
    if (!process.waitForStarted(5000)) {
        result.err = "cannot start " + program.toUtf8();
        return result;
    }
    process.closeWriteChannel();
    if (!process.waitForFinished(120000)) {
        process.kill();
        process.waitForFinished();
        result.err = program.toUtf8() + " timed out";
        return result;
    }
    result.out = process.readAllStandardOutput();
    result.err = process.readAllStandardError();
    result.ok = process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    return result;
}

} // namespace

QString generateAudio(const QString& path, const QString& expression, double durationSeconds, int rateHz, int channels,
                      const QStringList& codecArguments) {
    QStringList perChannel;
    for (int i = 0; i < channels; ++i)
        perChannel << expression;
    const QString source =
        QStringLiteral("aevalsrc=%1:s=%2:d=%3").arg(perChannel.join(QLatin1Char('|'))).arg(rateHz).arg(durationSeconds);
    QStringList arguments{"-v", "error", "-y", "-f", "lavfi", "-i", source};
    arguments << codecArguments << path;
    const Run generated = run(QStringLiteral("ffmpeg"), arguments);
    return generated.ok ? QString() : QString::fromUtf8(generated.err);
}

QString toneBetween(double frequencyHz, double amplitude, double fromSeconds, double toSeconds) {
    return QStringLiteral("%1*sin(2*PI*%2*t)*between(t\\,%3\\,%4)")
        .arg(amplitude)
        .arg(frequencyHz)
        .arg(fromSeconds)
        .arg(toSeconds - 1e-6);
}

std::optional<double> onsetSeconds(const std::vector<float>& samples, int rateHz, double thresholdDb,
                                   double fromSeconds) {
    for (double onset : findSoundOnsets(samples, rateHz, thresholdDb, 150))
        if (onset >= fromSeconds)
            return onset;
    return std::nullopt;
}

} // namespace tavrel::test
