#include "audio/merge/TrackMerger.h"

#include "Command.h"
#include "Media.h"
#include "ScopedEnvironment.h"
#include "TempDir.h"
#include "audio/ffmpeg/FfmpegHandles.h"
#include "audio/sources/SystemAudioSource.h"
#include "core/RecordingFiles.h"

#include <QCoro/QCoroTask>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <gtest/gtest.h>

namespace tavrel::test {
namespace {

constexpr int kRate = kMergedSampleRateHz;

/// How each kind of source file is made: the microphone's AAC, the tap's float CAF at the graph's rate,
/// the monitor's stereo AAC, the virtual device's AIFF fallback.
struct TrackKind {
    const char* name;
    const char* extension;
    int rateHz;
    int channels;
    QStringList codecArguments;
};

/// The asynchronous merge run to its end. QCoro 0.8's waitFor never returns when the task throws: catch inside a
/// coroutine and hand the error out (a Task cannot carry an exception_ptr itself).
struct Outcome {
    QString merged;
    std::exception_ptr error;
};
QCoro::Task<Outcome> outcomeOf(QCoro::Task<QString> task) {
    Outcome outcome;
    try {
        outcome.merged = co_await std::move(task);
    } catch (...) {
        outcome.error = std::current_exception();
    }
    co_return outcome;
}

const TrackKind kMicTrack{"mic", "m4a", 44100, 1, {"-c:a", "aac"}};
const TrackKind kTapTrack{"tap", "caf", 48000, 2, {"-c:a", "pcm_f32le"}};
const TrackKind kMonitorTrack{"sys", "m4a", 44100, 2, {"-c:a", "aac"}};
const TrackKind kAiffTrack{"bh", "aiff", 44100, 2, {}};

class TrackMergerTest : public ::testing::Test {
protected:
    QString make(const TrackKind& kind, const QString& expression, double seconds, const QString& tag = {}) {
        const QString path = m_dir.filePath(QStringLiteral("%1%2.%3").arg(kind.name, tag, kind.extension));
        const QString error = generateAudio(path, expression, seconds, kind.rateHz, kind.channels, kind.codecArguments);
        EXPECT_TRUE(error.isEmpty()) << error.toStdString();
        return path;
    }
    QString output() const { return m_dir.filePath(QStringLiteral("merged.m4a")); }

    TempDir m_dir{QStringLiteral("sysmerge")};
};

struct MixCase {
    const char* name;
    std::vector<TrackKind> systems;
};

class TrackMixTest : public TrackMergerTest, public ::testing::WithParamInterface<MixCase> {};

// Each track carries a tone burst of its own at its own time: all of them must be in the mix, at their
// times and at their own levels (unit gain), and the mix lasts as long as the longest input.
TEST_P(TrackMixTest, everyTrackKeepsItsTimeAndLevel) {
    const double micSeconds = 4.0;
    const QString mic = make(kMicTrack, toneBetween(440, 0.2, 0.5, 1.5), micSeconds);
    QStringList systems;
    std::vector<double> starts;
    double longest = micSeconds;
    int index = 0;
    for (const TrackKind& kind : GetParam().systems) {
        const double start = 2.0 + 1.5 * index;
        const double seconds = micSeconds + 1.0 + index; // system tracks outlast the microphone
        systems << make(kind, toneBetween(1000 + 500 * index, 0.2, start, start + 1.0), seconds,
                        QString::number(index));
        starts.push_back(start);
        longest = std::max(longest, seconds);
        ++index;
    }

    mergeAudioFilesInto(mic, systems, output());

    const MediaInfo facts = probe(output());
    ASSERT_TRUE(facts.valid) << facts.error.toStdString();
    EXPECT_EQ(facts.codecName, "aac");
    EXPECT_TRUE(facts.formatName.contains("m4a"));
    EXPECT_EQ(facts.sampleRateHz, kMergedSampleRateHz);
    EXPECT_EQ(facts.channels, kMergedChannels);
    EXPECT_NEAR(facts.formatDurationS, longest, 0.05);

    const std::vector<float> mixed = decodeToMonoFloat(output(), kRate);
    const double toneDb = 20.0 * std::log10(0.2 / std::sqrt(2.0));
    ASSERT_TRUE(onsetSeconds(mixed, kRate));
    EXPECT_NEAR(*onsetSeconds(mixed, kRate), 0.5, 0.01);
    EXPECT_NEAR(rmsDbBetween(mixed, kRate, 0.6, 1.4), toneDb, 1.0);
    for (size_t i = 0; i < starts.size(); ++i) {
        const auto onset = onsetSeconds(mixed, kRate, -30.0, starts[i] - 0.4);
        ASSERT_TRUE(onset) << "track " << i;
        EXPECT_NEAR(*onset, starts[i], 0.01) << "track " << i;
        EXPECT_NEAR(rmsDbBetween(mixed, kRate, starts[i] + 0.1, starts[i] + 0.9), toneDb, 1.0) << "track " << i;
    }
    EXPECT_LT(rmsDbBetween(mixed, kRate, longest - 0.4, longest - 0.1), -60.0);
}

INSTANTIATE_TEST_SUITE_P(Sources, TrackMixTest,
                         ::testing::Values(MixCase{"tap", {kTapTrack}}, MixCase{"monitor", {kMonitorTrack}},
                                           MixCase{"monitorAndDevice", {kMonitorTrack, kAiffTrack}},
                                           MixCase{"tapAndDeviceM4a", {kTapTrack, kMonitorTrack}}),
                         [](const auto& info) { return std::string(info.param.name); });

enum class Damage { missing, garbage, empty, noAudioStream, garbledMiddle, cutShort };

struct DamageCase {
    const char* name;
    bool microphone; ///< which track is damaged: the microphone, or the first of two system tracks
    Damage damage;
};

class DamagedTrackTest : public TrackMergerTest, public ::testing::WithParamInterface<DamageCase> {
protected:
    void SetUp() override { m_environment.set("XDG_STATE_HOME", m_dir.filePath(QStringLiteral("state")).toUtf8()); }
    bool breaksPartWay() const {
        return GetParam().damage == Damage::garbledMiddle || GetParam().damage == Damage::cutShort;
    }
    /// The damaged track. One that breaks part-way is a tone all along in an AAC file indexed up front, so that
    /// its break lands in audio the index promises.
    QString damaged() {
        const QString path = m_dir.filePath(QStringLiteral("bad.m4a"));
        QFile file(path);
        switch (GetParam().damage) {
        case Damage::missing:
            break;
        case Damage::garbage:
            file.open(QIODevice::WriteOnly);
            file.write(QByteArray(4096, 'x'));
            break;
        case Damage::empty:
            file.open(QIODevice::WriteOnly);
            break;
        case Damage::noAudioStream: {
            const QString video = m_dir.filePath(QStringLiteral("bad.mkv"));
            EXPECT_TRUE(runCommand(QStringLiteral("ffmpeg"), {"-v", "error", "-y", "-f", "lavfi", "-i",
                                                              "color=c=black:s=32x32:d=1", "-c:v", "ffv1", video})
                            .ok());
            return video;
        }
        case Damage::garbledMiddle:
        case Damage::cutShort: {
            const TrackKind indexedAac{"bad", "m4a", 44100, 2, {"-c:a", "aac", "-movflags", "+faststart"}};
            make(indexedAac, toneBetween(700, 0.2, 0.0, 6.0), 6.0);
            EXPECT_TRUE(file.open(QIODevice::ReadWrite));
            const qint64 audioStart = file.readAll().indexOf("mdat") + 4;
            if (GetParam().damage == Damage::cutShort) {
                EXPECT_TRUE(file.resize(audioStart + (file.size() - audioStart) / 2));
            } else {
                file.seek(audioStart + (file.size() - audioStart) / 3);
                EXPECT_GT(file.write(QByteArray(8000, '\x5a')), 0);
            }
            break;
        }
        }
        return path;
    }
    ScopedEnvironment m_environment;
};

// A system file that cannot be opened is left out: the mix is the microphone and the other system file. The
// microphone is the recording: when it cannot be opened the merge fails (the orchestrator then keeps the
// microphone file alone), with `mergeFailed` for a readable file without audio, FFmpeg's error otherwise. A
// track of either side that opens but breaks part-way (its middle overwritten, or its end lost while its index
// still promises it) fails the whole merge, naming the file: mixing what came before would cut that side short,
// and the tracks are deleted once the mix is made.
TEST_P(DamagedTrackTest, isLeftOutOrFailsTheMerge) {
    const DamageCase& c = GetParam();
    QString mic = make(kMicTrack, toneBetween(440, 0.2, 0.5, 1.5), 3.0);
    QStringList systems{make(kMonitorTrack, toneBetween(1000, 0.2, 2.0, 2.5), 3.0)};
    const QString bad = damaged();
    if (c.microphone)
        mic = bad;
    else
        systems.prepend(bad);
    // The asynchronous form, as the recorder calls it: its errors come out of the task as they were thrown.
    const Outcome outcome = QCoro::waitFor(outcomeOf(mergeAudioFiles(mic, systems)));
    try {
        if (outcome.error)
            std::rethrow_exception(outcome.error);
    } catch (const DamagedTrackError& error) {
        EXPECT_TRUE(breaksPartWay()) << error.what();
        EXPECT_EQ(error.path(), bad);
        return;
    } catch (const SystemAudioFailure& failure) {
        EXPECT_TRUE(c.microphone && c.damage == Damage::noAudioStream);
        EXPECT_EQ(failure.code(), SystemAudioError::mergeFailed);
        return;
    } catch (const FfmpegError& error) {
        EXPECT_TRUE(c.microphone && !breaksPartWay() && c.damage != Damage::noAudioStream) << error.what();
        return;
    }
    ASSERT_FALSE(c.microphone || breaksPartWay()) << "the merge went through";
    // Named in the capture directory, the inputs left alone.
    EXPECT_EQ(QFileInfo(outcome.merged).absolutePath(), RecordingFiles::captureDir());
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^tavrel_merged_\\d{10}\\.m4a$"))
                    .match(QFileInfo(outcome.merged).fileName())
                    .hasMatch());
    EXPECT_TRUE(QFile::exists(mic));
    EXPECT_TRUE(QFile::exists(systems.back()));
    const std::vector<float> mixed = decodeToMonoFloat(outcome.merged, kRate);
    EXPECT_NEAR(static_cast<double>(mixed.size()) / kRate, 3.0, 0.05);
    ASSERT_TRUE(onsetSeconds(mixed, kRate, -30.0, 1.7));
    EXPECT_NEAR(*onsetSeconds(mixed, kRate, -30.0, 1.7), 2.0, 0.01);
}

INSTANTIATE_TEST_SUITE_P(Damages, DamagedTrackTest,
                         ::testing::Values(DamageCase{"systemMissing", false, Damage::missing},
                                           DamageCase{"systemGarbage", false, Damage::garbage},
                                           DamageCase{"systemEmpty", false, Damage::empty},
                                           DamageCase{"systemWithoutAudio", false, Damage::noAudioStream},
                                           DamageCase{"systemGarbled", false, Damage::garbledMiddle},
                                           DamageCase{"systemCutShort", false, Damage::cutShort},
                                           DamageCase{"micMissing", true, Damage::missing},
                                           DamageCase{"micGarbage", true, Damage::garbage},
                                           DamageCase{"micEmpty", true, Damage::empty},
                                           DamageCase{"micWithoutAudio", true, Damage::noAudioStream},
                                           DamageCase{"micGarbled", true, Damage::garbledMiddle},
                                           DamageCase{"micCutShort", true, Damage::cutShort}),
                         [](const auto& info) { return std::string(info.param.name); });

struct SeamCase {
    const char* name;
    bool speech;             // espeak-ng speech on the microphone (else the microphone is silent)
    const char* systemSound; // ffmpeg expression for the system track
};

class SegmentSeamTest : public TrackMergerTest, public ::testing::WithParamInterface<SeamCase> {};

double energy(const std::vector<float>& samples, size_t from, size_t to) {
    double sum = 0.0;
    for (size_t i = from; i < std::min(to, samples.size()); ++i)
        sum += double(samples[i]) * samples[i];
    return sum;
}

// The mix encoded in short segments on two threads decodes to the same audio as the mix encoded in one go:
// the same length to the sample, the same overall error against the exact sum of the inputs, and no click
// where one segment's encoder hands over to the next (the error around each hand-over is no larger than
// the single encoder's error at the same place).
TEST_P(SegmentSeamTest, segmentedEncodingIsSeamless) {
    const SeamCase& seamCase = GetParam();
    const double seconds = 6.0;
    const TrackKind exactMono{"mic", "caf", kRate, 1, {"-c:a", "pcm_f32le"}};
    QString mic = make(exactMono, QStringLiteral("0"), seconds);
    if (seamCase.speech) {
        SpeechOptions speech;
        speech.leadingSilenceMs = 200;
        const QString spoken =
            speechFile(QStringLiteral("Bonjour, nous reprenons la réunion. Le budget du deuxième trimestre est validé, "
                                      "passons aux questions diverses."),
                       speech);
        ASSERT_FALSE(spoken.isEmpty());
        mic = spoken;
    }
    const TrackKind exactSystem{"sys", "caf", kRate, 2, {"-c:a", "pcm_f32le"}};
    const QString system = make(exactSystem, QString::fromLatin1(seamCase.systemSound), seconds);

    constexpr int64_t kSegmentFrames = 1024 * 24; // about half a second: many hand-overs in a short signal
    const QString segmentedPath = m_dir.filePath(QStringLiteral("segmented.m4a"));
    const QString wholePath = m_dir.filePath(QStringLiteral("whole.m4a"));
    mergeAudioFilesInto(mic, {system}, segmentedPath, {kSegmentFrames, 2});
    mergeAudioFilesInto(mic, {system}, wholePath, {int64_t{1} << 40, 1});

    std::vector<float> exact = decodeToMonoFloat(system, kRate);
    const std::vector<float> micSamples = decodeToMonoFloat(mic, kRate);
    exact.resize(std::max(exact.size(), micSamples.size()), 0.0f);
    for (size_t i = 0; i < micSamples.size(); ++i)
        exact[i] += micSamples[i];
    std::vector<float> segmented = decodeToMonoFloat(segmentedPath, kRate);
    std::vector<float> whole = decodeToMonoFloat(wholePath, kRate);
    // ffmpeg's decoder hands out the last frame whole; the file's own duration is what must be exact.
    ASSERT_GE(segmented.size(), exact.size());
    ASSERT_GE(whole.size(), exact.size());
    segmented.resize(exact.size());
    whole.resize(exact.size());
    const MediaInfo facts = probe(segmentedPath);
    EXPECT_EQ(std::llround(facts.streamDurationS * kRate), static_cast<long long>(exact.size()));

    std::vector<float> segmentedError(exact.size());
    std::vector<float> wholeError(exact.size());
    for (size_t i = 0; i < exact.size(); ++i) {
        segmentedError[i] = segmented[i] - exact[i];
        wholeError[i] = whole[i] - exact[i];
    }
    const double signal = energy(exact, 0, exact.size());
    const double wholeSnrDb = 10.0 * std::log10(signal / energy(wholeError, 0, exact.size()));
    const double segmentedSnrDb = 10.0 * std::log10(signal / energy(segmentedError, 0, exact.size()));
    EXPECT_GT(wholeSnrDb, 10.0);
    EXPECT_NEAR(segmentedSnrDb, wholeSnrDb, 1.0);

    // A hand-over lands within a few frames after each segment boundary; a click there would be the
    // aliasing of a mismatched window, about as loud as the signal itself.
    const size_t before = 2048;
    const size_t after = 8 * 1024 + 2048;
    for (size_t boundary = kSegmentFrames; boundary + after < exact.size(); boundary += kSegmentFrames) {
        const double seam = energy(segmentedError, boundary - before, boundary + after);
        const double reference = energy(wholeError, boundary - before, boundary + after);
        const double local = energy(exact, boundary - before, boundary + after);
        EXPECT_LT(seam, 2.0 * reference + 1e-6 * local) << "around frame " << boundary;
    }
}

INSTANTIATE_TEST_SUITE_P(Signals, SegmentSeamTest,
                         ::testing::Values(SeamCase{"chirp", false, "0.3*sin(2*PI*(100*t+400*t*t))"},
                                           SeamCase{"attacks", false, "0.5*sin(2*PI*800*t)*exp(-40*mod(t\\,0.1))"},
                                           SeamCase{"speechOverChirp", true, "0.1*sin(2*PI*(100*t+400*t*t))"}),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
} // namespace tavrel::test
