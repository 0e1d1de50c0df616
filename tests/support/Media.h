#pragma once

#include <QString>
#include <QStringList>
#include <cstddef>
#include <gtest/gtest.h>
#include <limits>
#include <optional>
#include <span>
#include <vector>

namespace tavrel::test {

/// How espeak-ng speaks and how the result is resampled (sox).
struct SpeechOptions {
    QString voice = QStringLiteral("fr");
    int wordsPerMinute = 160;
    int channels = 1;
    int sampleRateHz = 44100;
    /// Silence added before and after the speech.
    int leadingSilenceMs = 0;
    int trailingSilenceMs = 0;
};

/// Writes `text` spoken by espeak-ng to `path` (WAV, 16-bit, at the requested rate and channels).
/// Identical requests are synthesised once per test binary run and copied from a cache.
::testing::AssertionResult makeSpeech(const QString& text, const QString& path, const SpeechOptions& options = {});
/// The cached file itself (do not modify it); empty with an added test failure when synthesis fails.
QString speechFile(const QString& text, const SpeechOptions& options = {});

/// A sine tone (sox) of `seconds` at `frequencyHz`, amplitude in 0..1, as a 16-bit WAV.
::testing::AssertionResult makeTone(double frequencyHz, double seconds, const QString& path, int channels = 1,
                                    int sampleRateHz = 44100, double amplitude = 0.5);
/// Digital silence of `seconds` as a 16-bit WAV.
::testing::AssertionResult makeSilence(double seconds, const QString& path, int channels = 1, int sampleRateHz = 44100);
/// Concatenates audio files of the same rate and channel count (sox).
::testing::AssertionResult concatenateAudio(const QStringList& inputs, const QString& path);

/// What ffprobe says about the first audio stream of a file, plus the order of its MP4 boxes.
struct MediaInfo {
    bool valid = false; ///< ffprobe read the file and found an audio stream
    QString error;      ///< ffprobe's complaint when not valid
    QString formatName; ///< e.g. "mov,mp4,m4a,3gp,3g2,mj2"
    QString codecName;  ///< e.g. "aac"
    int sampleRateHz = 0;
    int channels = 0;
    double streamDurationS = 0; ///< 0 when the stream does not state it
    double formatDurationS = 0;
    QStringList topLevelBoxes; ///< MP4 box types in file order ("ftyp", "moov", "mdat"...)
    bool moovBeforeMdat = false;
};

MediaInfo probe(const QString& path);
/// Top-level ISO-BMFF box types in file order, read from the box headers; empty if not MP4-like.
QStringList topLevelBoxes(const QString& path);

/// The audio of a file decoded by ffmpeg to mono float at `sampleRateHz`; channels are averaged
/// (not summed). Empty with an added test failure when ffmpeg cannot read the file.
std::vector<float> decodeToMonoFloat(const QString& path, int sampleRateHz = 44100);

inline constexpr double kSilenceDb = -200.0;
/// RMS level in dBFS of samples [from, to); kSilenceDb for digital silence or an empty range.
double rmsDb(std::span<const float> samples, std::size_t from = 0,
             std::size_t to = std::numeric_limits<std::size_t>::max());
/// The same over seconds.
double rmsDbBetween(std::span<const float> samples, int sampleRateHz, double fromS, double toS);
/// Peak absolute sample value.
float peak(std::span<const float> samples);

/// Times (seconds) where sound above `thresholdDb` starts after at least `minSilenceMs` below it
/// (the beginning of the signal counts as silence). Resolution about 1 ms.
std::vector<double> findSoundOnsets(std::span<const float> samples, int sampleRateHz, double thresholdDb = -40.0,
                                    int minSilenceMs = 200);

/// The first sound onset (findSoundOnsets, 150 ms of silence before it) at or after `fromSeconds`.
std::optional<double> onsetSeconds(const std::vector<float>& samples, int rateHz, double thresholdDb = -30.0,
                                   double fromSeconds = 0.0);

/// Writes `durationSeconds` of the ffmpeg expression `expression` (in t, e.g. "0.2*sin(2*PI*440*t)") with
/// `channels` identical channels at `rateHz`, encoded by ffmpeg itself (never by our own writers) from the
/// extension, extra output arguments in `codecArguments`. Returns ffmpeg's error text, empty on success.
QString generateAudio(const QString& path, const QString& expression, double durationSeconds, int rateHz, int channels,
                      const QStringList& codecArguments = {});

/// A tone burst expression for generateAudio: "sin(2*PI*f*t)" scaled by `amplitude`, sounding in [from, to).
QString toneBetween(double frequencyHz, double amplitude, double fromSeconds, double toSeconds);

} // namespace tavrel::test
