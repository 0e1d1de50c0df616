#include "SignalTools.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <cmath>
#include <cstring>

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

std::optional<StreamFacts> probeAudio(const QString& path) {
    const Run probe = run(QStringLiteral("ffprobe"), {"-v", "error", "-select_streams", "a:0", "-show_streams",
                                                      "-show_format", "-of", "json", path});
    if (!probe.ok)
        return std::nullopt;
    const QJsonObject root = QJsonDocument::fromJson(probe.out).object();
    const QJsonArray streams = root.value("streams").toArray();
    if (streams.isEmpty())
        return std::nullopt;
    const QJsonObject stream = streams.first().toObject();
    StreamFacts facts;
    facts.formatName = root.value("format").toObject().value("format_name").toString();
    facts.codecName = stream.value("codec_name").toString();
    facts.sampleRateHz = stream.value("sample_rate").toString().toInt();
    facts.channels = stream.value("channels").toInt();
    facts.durationSeconds = root.value("format").toObject().value("duration").toString().toDouble();
    return facts;
}

QString generateAudio(const QString& path, const QString& expression, double durationSeconds, int rateHz,
                      int channels, const QStringList& codecArguments) {
    QStringList perChannel;
    for (int i = 0; i < channels; ++i)
        perChannel << expression;
    const QString source = QStringLiteral("aevalsrc=%1:s=%2:d=%3")
                               .arg(perChannel.join(QLatin1Char('|')))
                               .arg(rateHz)
                               .arg(durationSeconds);
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

std::vector<float> decodeMono(const QString& path, int rateHz) {
    // Channels are averaged (a centred voice keeps its level); ffmpeg's own "-ac 1" would not say how.
    const auto facts = probeAudio(path);
    QStringList arguments{"-v", "error", "-i", path};
    if (facts && facts->channels > 1) {
        QStringList terms;
        for (int c = 0; c < facts->channels; ++c)
            terms << QStringLiteral("%1*c%2").arg(1.0 / facts->channels).arg(c);
        arguments << "-af" << QStringLiteral("pan=mono|c0=%1").arg(terms.join(QLatin1Char('+')));
    }
    arguments << "-ac" << "1" << "-ar" << QString::number(rateHz) << "-f" << "f32le" << "-";
    const Run decoded = run(QStringLiteral("ffmpeg"), arguments);
    std::vector<float> samples(static_cast<size_t>(decoded.out.size()) / sizeof(float));
    std::memcpy(samples.data(), decoded.out.constData(), samples.size() * sizeof(float));
    return samples;
}

double rmsDb(const std::vector<float>& samples, int rateHz, double fromSeconds, double toSeconds) {
    const auto from = static_cast<size_t>(std::max(0.0, fromSeconds * rateHz));
    const auto to = std::min(samples.size(), static_cast<size_t>(std::max(0.0, toSeconds * rateHz)));
    if (to <= from)
        return -200.0;
    double sum = 0.0;
    for (size_t i = from; i < to; ++i)
        sum += static_cast<double>(samples[i]) * samples[i];
    const double rms = std::sqrt(sum / static_cast<double>(to - from));
    return rms > 0.0 ? 20.0 * std::log10(rms) : -200.0;
}

std::optional<double> onsetSeconds(const std::vector<float>& samples, int rateHz, double thresholdDb,
                                   double fromSeconds) {
    const size_t window = static_cast<size_t>(rateHz) / 200; // 5 ms
    const double threshold = std::pow(10.0, thresholdDb / 10.0) * static_cast<double>(window);
    size_t start = static_cast<size_t>(std::max(0.0, fromSeconds * rateHz));
    double sum = 0.0;
    for (size_t i = start; i < samples.size(); ++i) {
        sum += static_cast<double>(samples[i]) * samples[i];
        if (i >= start + window)
            sum -= static_cast<double>(samples[i - window]) * samples[i - window];
        if (i >= start + window - 1 && sum > threshold)
            return static_cast<double>(i + 1 - window) / rateHz;
    }
    return std::nullopt;
}

} // namespace tavrel::test
