#include "Media.h"

#include "Command.h"
#include "TempDir.h"

#include <QCryptographicHash>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtEndian>
#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>

namespace tavrel::test {

using namespace std::chrono_literals;

namespace {

::testing::AssertionResult commandOk(const CommandResult& result) {
    if (result.ok())
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << result.describe().toStdString();
}

QString cacheDir() {
    // Lives until the test binary exits, then goes with everything in it.
    static TempDir dir(QStringLiteral("tavrel-media"));
    return dir.path();
}

std::mutex& cacheMutex() {
    static std::mutex mutex;
    return mutex;
}

} // namespace

QString speechFile(const QString& text, const SpeechOptions& options) {
    const QString key = QStringLiteral("%1|%2|%3|%4|%5|%6|%7")
                            .arg(text, options.voice)
                            .arg(options.wordsPerMinute)
                            .arg(options.channels)
                            .arg(options.sampleRateHz)
                            .arg(options.leadingSilenceMs)
                            .arg(options.trailingSilenceMs);
    const QString hash = QString::fromLatin1(QCryptographicHash::hash(key.toUtf8(), QCryptographicHash::Sha1).toHex());
    const QString target = cacheDir() + QStringLiteral("/speech-") + hash + QStringLiteral(".wav");
    std::lock_guard lock(cacheMutex());
    if (QFile::exists(target))
        return target;
    const QString raw = cacheDir() + QStringLiteral("/raw-") + hash + QStringLiteral(".wav");
    const CommandResult spoken = runCommand(QStringLiteral("espeak-ng"),
                                            {QStringLiteral("-v"), options.voice, QStringLiteral("-s"),
                                             QString::number(options.wordsPerMinute), QStringLiteral("-w"), raw, text},
                                            {}, 60s);
    if (!spoken.ok()) {
        ADD_FAILURE() << "espeak-ng failed: " << spoken.describe().toStdString();
        return {};
    }
    QStringList soxArgs{QStringLiteral("-D"),
                        raw,
                        QStringLiteral("-b"),
                        QStringLiteral("16"),
                        QStringLiteral("-r"),
                        QString::number(options.sampleRateHz),
                        QStringLiteral("-c"),
                        QString::number(options.channels),
                        target + QStringLiteral(".part.wav")};
    if (options.leadingSilenceMs > 0 || options.trailingSilenceMs > 0)
        soxArgs << QStringLiteral("pad") << QString::number(options.leadingSilenceMs / 1000.0, 'f', 3)
                << QString::number(options.trailingSilenceMs / 1000.0, 'f', 3);
    const CommandResult converted = runCommand(QStringLiteral("sox"), soxArgs, {}, 60s);
    QFile::remove(raw);
    if (!converted.ok()) {
        ADD_FAILURE() << "sox failed: " << converted.describe().toStdString();
        return {};
    }
    // Renamed into place only when complete, so a half-written file is never served from the cache.
    QFile::rename(target + QStringLiteral(".part.wav"), target);
    return target;
}

::testing::AssertionResult makeSpeech(const QString& text, const QString& path, const SpeechOptions& options) {
    const QString cached = speechFile(text, options);
    if (cached.isEmpty())
        return ::testing::AssertionFailure() << "speech synthesis failed for \"" << text.toStdString() << "\"";
    QFile::remove(path);
    if (!QFile::copy(cached, path))
        return ::testing::AssertionFailure() << "cannot copy speech to " << path.toStdString();
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult makeTone(double frequencyHz, double seconds, const QString& path, int channels,
                                    int sampleRateHz, double amplitude) {
    return commandOk(runCommand(QStringLiteral("sox"),
                                {QStringLiteral("-n"), QStringLiteral("-b"), QStringLiteral("16"), QStringLiteral("-r"),
                                 QString::number(sampleRateHz), QStringLiteral("-c"), QString::number(channels), path,
                                 QStringLiteral("synth"), QString::number(seconds, 'f', 6), QStringLiteral("sine"),
                                 QString::number(frequencyHz), QStringLiteral("vol"), QString::number(amplitude)},
                                {}, 60s));
}

::testing::AssertionResult makeSilence(double seconds, const QString& path, int channels, int sampleRateHz) {
    return commandOk(runCommand(QStringLiteral("sox"),
                                {QStringLiteral("-D"), QStringLiteral("-n"), QStringLiteral("-b"), QStringLiteral("16"),
                                 QStringLiteral("-r"), QString::number(sampleRateHz), QStringLiteral("-c"),
                                 QString::number(channels), path, QStringLiteral("trim"), QStringLiteral("0"),
                                 QString::number(seconds, 'f', 6)},
                                {}, 60s));
}

::testing::AssertionResult concatenateAudio(const QStringList& inputs, const QString& path) {
    return commandOk(runCommand(QStringLiteral("sox"), QStringList{QStringLiteral("-D")} + inputs << path, {}, 60s));
}

QStringList topLevelBoxes(const QString& path) {
    QStringList boxes;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return boxes;
    const qint64 fileSize = file.size();
    qint64 offset = 0;
    while (offset + 8 <= fileSize) {
        file.seek(offset);
        const QByteArray header = file.read(16);
        if (header.size() < 8)
            break;
        quint64 size = qFromBigEndian<quint32>(header.constData());
        const QByteArray type = header.mid(4, 4);
        for (char c : type) {
            if (c < 0x20 || c > 0x7e)
                return boxes; // not a box header: not MP4-like, or corrupt from here on
        }
        if (size == 1) {
            if (header.size() < 16)
                break;
            size = qFromBigEndian<quint64>(header.constData() + 8);
        } else if (size == 0) {
            size = static_cast<quint64>(fileSize - offset);
        }
        if (size < 8)
            break;
        // The first box must fit: random bytes that happen to be printable are not a file type box.
        // Later ones may run past the end, as the media box of a file whose writer was killed does.
        if (boxes.isEmpty() && static_cast<qint64>(size) > fileSize)
            break;
        boxes << QString::fromLatin1(type);
        offset += static_cast<qint64>(size);
    }
    return boxes;
}

MediaInfo probe(const QString& path) {
    MediaInfo info;
    const CommandResult result =
        runCommand(QStringLiteral("ffprobe"),
                   {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-print_format"),
                    QStringLiteral("json"), QStringLiteral("-show_format"), QStringLiteral("-show_streams"), path},
                   {}, 30s);
    info.topLevelBoxes = topLevelBoxes(path);
    const qsizetype moov = info.topLevelBoxes.indexOf(QStringLiteral("moov"));
    const qsizetype mdat = info.topLevelBoxes.indexOf(QStringLiteral("mdat"));
    info.moovBeforeMdat = moov >= 0 && (mdat < 0 || moov < mdat);
    if (!result.ok()) {
        info.error = QString::fromUtf8(result.standardError).trimmed();
        if (info.error.isEmpty())
            info.error = result.describe();
        return info;
    }
    const QJsonObject root = QJsonDocument::fromJson(result.standardOutput).object();
    const QJsonObject format = root.value(QStringLiteral("format")).toObject();
    info.formatName = format.value(QStringLiteral("format_name")).toString();
    info.formatDurationS = format.value(QStringLiteral("duration")).toString().toDouble();
    for (const auto& value : root.value(QStringLiteral("streams")).toArray()) {
        const QJsonObject stream = value.toObject();
        if (stream.value(QStringLiteral("codec_type")).toString() != QStringLiteral("audio"))
            continue;
        info.codecName = stream.value(QStringLiteral("codec_name")).toString();
        info.sampleRateHz = stream.value(QStringLiteral("sample_rate")).toString().toInt();
        info.channels = stream.value(QStringLiteral("channels")).toInt();
        info.streamDurationS = stream.value(QStringLiteral("duration")).toString().toDouble();
        info.valid = true;
        break;
    }
    if (!info.valid)
        info.error = QStringLiteral("no audio stream");
    return info;
}

std::vector<float> decodeToMonoFloat(const QString& path, int sampleRateHz) {
    const MediaInfo info = probe(path);
    if (!info.valid) {
        ADD_FAILURE() << "cannot decode " << path.toStdString() << ": " << info.error.toStdString();
        return {};
    }
    const int channels = std::max(1, info.channels);
    const CommandResult result =
        runCommand(QStringLiteral("ffmpeg"),
                   {QStringLiteral("-nostdin"), QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"),
                    path, QStringLiteral("-vn"), QStringLiteral("-ar"), QString::number(sampleRateHz),
                    QStringLiteral("-f"), QStringLiteral("f32le"), QStringLiteral("-")},
                   {}, 120s);
    if (!result.ok()) {
        ADD_FAILURE() << "ffmpeg cannot decode " << path.toStdString() << ": " << result.describe().toStdString();
        return {};
    }
    const auto frames = static_cast<std::size_t>(result.standardOutput.size()) / (sizeof(float) * channels);
    std::vector<float> interleaved(frames * static_cast<std::size_t>(channels));
    std::memcpy(interleaved.data(), result.standardOutput.constData(), interleaved.size() * sizeof(float));
    if (channels == 1)
        return interleaved;
    std::vector<float> mono(frames);
    for (std::size_t f = 0; f < frames; ++f) {
        float sum = 0;
        for (int c = 0; c < channels; ++c)
            sum += interleaved[f * static_cast<std::size_t>(channels) + static_cast<std::size_t>(c)];
        mono[f] = sum / static_cast<float>(channels);
    }
    return mono;
}

double rmsDb(std::span<const float> samples, std::size_t from, std::size_t to) {
    to = std::min(to, samples.size());
    if (from >= to)
        return kSilenceDb;
    double sum = 0;
    for (std::size_t i = from; i < to; ++i)
        sum += static_cast<double>(samples[i]) * samples[i];
    const double meanSquare = sum / static_cast<double>(to - from);
    if (meanSquare <= 0)
        return kSilenceDb;
    return std::max(kSilenceDb, 10.0 * std::log10(meanSquare));
}

double rmsDbBetween(std::span<const float> samples, int sampleRateHz, double fromS, double toS) {
    const auto index = [&](double s) { return static_cast<std::size_t>(std::max(0.0, s * sampleRateHz)); };
    return rmsDb(samples, index(fromS), index(toS));
}

float peak(std::span<const float> samples) {
    float p = 0;
    for (float s : samples)
        p = std::max(p, std::abs(s));
    return p;
}

std::vector<double> findSoundOnsets(std::span<const float> samples, int sampleRateHz, double thresholdDb,
                                    int minSilenceMs) {
    std::vector<double> onsets;
    if (samples.empty() || sampleRateHz <= 0)
        return onsets;
    const std::size_t hop = std::max<std::size_t>(1, static_cast<std::size_t>(sampleRateHz) / 1000);
    const std::size_t window = hop * 10;
    // Prefix sums of squares make every 10 ms window O(1).
    std::vector<double> prefix(samples.size() + 1, 0.0);
    for (std::size_t i = 0; i < samples.size(); ++i)
        prefix[i + 1] = prefix[i] + static_cast<double>(samples[i]) * samples[i];
    const double thresholdPower = std::pow(10.0, thresholdDb / 10.0);
    const float thresholdAmplitude = static_cast<float>(std::pow(10.0, thresholdDb / 20.0));
    const auto minSilenceHops = static_cast<std::size_t>(minSilenceMs);
    std::size_t silentHops = minSilenceHops; // the start counts as silence
    for (std::size_t start = 0; start < samples.size(); start += hop) {
        const std::size_t end = std::min(samples.size(), start + window);
        const double power = (prefix[end] - prefix[start]) / static_cast<double>(end - start);
        if (power < thresholdPower) {
            ++silentHops;
            continue;
        }
        if (silentHops >= minSilenceHops) {
            std::size_t first = start;
            while (first < end && std::abs(samples[first]) < thresholdAmplitude)
                ++first;
            onsets.push_back(static_cast<double>(std::min(first, end - 1)) / sampleRateHz);
        }
        silentHops = 0;
    }
    return onsets;
}

std::optional<double> onsetSeconds(const std::vector<float>& samples, int rateHz, double thresholdDb,
                                   double fromSeconds) {
    for (double onset : findSoundOnsets(samples, rateHz, thresholdDb, 150))
        if (onset >= fromSeconds)
            return onset;
    return std::nullopt;
}

QString generateAudio(const QString& path, const QString& expression, double durationSeconds, int rateHz, int channels,
                      const QStringList& codecArguments) {
    QStringList perChannel;
    for (int i = 0; i < channels; ++i)
        perChannel << expression;
    const QString source =
        QStringLiteral("aevalsrc=%1:s=%2:d=%3").arg(perChannel.join(QLatin1Char('|'))).arg(rateHz).arg(durationSeconds);
    const CommandResult generated = runCommand(
        QStringLiteral("ffmpeg"),
        QStringList{"-v", "error", "-y", "-f", "lavfi", "-i", source} + codecArguments + QStringList{path}, {}, 120s);
    return generated.ok() ? QString() : generated.describe();
}

QString toneBetween(double frequencyHz, double amplitude, double fromSeconds, double toSeconds) {
    return QStringLiteral("%1*sin(2*PI*%2*t)*between(t\\,%3\\,%4)")
        .arg(amplitude)
        .arg(frequencyHz)
        .arg(fromSeconds)
        .arg(toSeconds - 1e-6);
}

} // namespace tavrel::test
