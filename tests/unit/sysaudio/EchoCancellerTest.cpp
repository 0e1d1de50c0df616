// Echo removal on speech. Two espeak-ng voices hold a conversation: the far end alone, the user alone,
// both at once, the far end alone again. The microphone hears the user and, through a small room (sox
// reverb), the far end some tens of milliseconds late and 6 dB down, over noise at -60 dBFS.

#include "audio/merge/EchoCanceller.h"

#include "Command.h"
#include "Media.h"
#include "TempDir.h"
#include "audio/merge/TrackMerger.h"
#include "core/Log.h"

#include <QFile>
#include <cmath>
#include <gtest/gtest.h>
#include <random>

namespace tavrel::test {
namespace {

constexpr int kRate = kMergedSampleRateHz;

struct Stretch {
    size_t from = 0;
    size_t to = 0;
};

struct Conversation {
    std::vector<float> far;
    std::vector<float> near;
    Stretch farAlone[2];
    Stretch nearAlone;
    Stretch both;
};

std::vector<float> spoken(const char* text, const char* voice) {
    SpeechOptions options;
    options.voice = QString::fromLatin1(voice);
    return decodeToMonoFloat(speechFile(QString::fromUtf8(text), options), kRate);
}

const Conversation& conversation() {
    static const Conversation built = [] {
        Conversation c;
        const auto place = [](std::vector<float>& track, const std::vector<float>& speech, size_t at) {
            track.resize(std::max(track.size(), at + speech.size()));
            for (size_t i = 0; i < speech.size(); ++i)
                track[at + i] += speech[i];
            return Stretch{at, at + speech.size()};
        };
        const size_t pause = kRate; // longer than any echo with its reverberation
        size_t at = pause;
        c.farAlone[0] =
            place(c.far, spoken("Bonjour à tous, nous commençons par les ventes du trimestre.", "fr+m3"), at);
        at = c.farAlone[0].to + pause;
        c.nearAlone = place(c.near, spoken("Je voudrais d'abord revoir les délais de livraison.", "fr+f2"), at);
        at = c.nearAlone.to + pause;
        const Stretch farTalk = place(c.far, spoken("La région ouest progresse de douze pour cent.", "fr+m3"), at);
        const Stretch nearTalk = place(c.near, spoken("Oui, et le nouvel entrepôt ouvre en mars.", "fr+f2"), at);
        c.both = Stretch{at, std::min(farTalk.to, nearTalk.to)};
        at = std::max(farTalk.to, nearTalk.to) + pause;
        c.farAlone[1] = place(c.far, spoken("Pouvez-vous confirmer la date de la prochaine réunion ?", "fr+m3"), at);
        c.far.resize(c.farAlone[1].to + kRate);
        c.near.resize(c.far.size());
        return c;
    }();
    return built;
}

/// `samples` through sox `effects` into a float WAV file, which the merge reads like any track.
QString soxFile(const TempDir& dir, const QString& name, const std::vector<float>& samples,
                const QStringList& effects = {}) {
    const QString raw = dir.filePath(name + QStringLiteral(".raw"));
    const QString wav = dir.filePath(name + QStringLiteral(".wav"));
    QFile file(raw);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(reinterpret_cast<const char*>(samples.data()), static_cast<qint64>(samples.size() * sizeof(float)));
    file.close();
    const CommandResult sox = runCommand(
        QStringLiteral("sox"),
        QStringList{"-t", "f32", "-r", QString::number(kRate), "-c", "1", raw, "-e", "floating-point", wav} + effects);
    EXPECT_TRUE(sox.ok()) << sox.describe().toStdString();
    return wav;
}

/// The far end as the microphone hears it: reverberated, `delayMs` late and 6 dB down; `speed` other than 1
/// stretches it, so that the delay drifts.
std::vector<float> throughRoom(const TempDir& dir, const std::vector<float>& far, double delayMs, double speed) {
    QStringList effects;
    if (speed != 1.0)
        effects << "speed" << QString::number(speed, 'f', 6) << "rate" << QString::number(kRate);
    // A negative delay: the recorder lined the tracks up imperfectly, the microphone is ahead.
    effects += QStringList{
        "reverb", "30", "50", "40", delayMs < 0 ? "trim" : "pad", QString::number(std::abs(delayMs) / 1000.0, 'f', 4),
        "gain",   "-6"};
    std::vector<float> echo = decodeToMonoFloat(soxFile(dir, QStringLiteral("echo"), far, effects), kRate);
    echo.resize(far.size());
    return echo;
}

std::vector<float> withNoise(std::vector<float> samples) {
    std::mt19937 generator(15);
    std::normal_distribution<float> noise(0.0f, 0.001f); // -60 dBFS
    for (float& sample : samples)
        sample += noise(generator);
    return samples;
}

double energy(const std::vector<float>& samples, Stretch stretch) {
    double sum = 0.0;
    for (size_t i = stretch.from; i < std::min(stretch.to, samples.size()); ++i)
        sum += double(samples[i]) * samples[i];
    return sum;
}

double correlation(const std::vector<float>& a, const std::vector<float>& b, Stretch stretch) {
    double ab = 0.0, aa = 0.0, bb = 0.0;
    for (size_t i = stretch.from; i < stretch.to; ++i) {
        ab += double(a[i]) * b[i];
        aa += double(a[i]) * a[i];
        bb += double(b[i]) * b[i];
    }
    return ab / std::sqrt(aa * bb);
}

std::vector<float> cancel(const std::vector<float>& mic, const std::vector<float>& far, EchoCanceller::Report& report) {
    EchoCanceller canceller(kRate);
    std::vector<float> out(mic.size() + 1);
    size_t produced = 0;
    constexpr size_t kPiece = 4000; // not a multiple of anything the canceller works in
    for (size_t at = 0; at <= mic.size(); at += kPiece) {
        const size_t count = std::min(kPiece, mic.size() - at);
        canceller.push(mic.data() + at, far.data() + at, static_cast<int64_t>(count));
        if (at + kPiece > mic.size())
            canceller.finish();
        produced +=
            static_cast<size_t>(canceller.pull(out.data() + produced, static_cast<int64_t>(out.size() - produced)));
    }
    EXPECT_EQ(produced, mic.size()) << "the output is as long as the microphone";
    out.resize(produced);
    report = canceller.report();
    return out;
}

struct RoomCase {
    const char* name;
    double delayMs;
    double speed = 1.0;  // below 1: the echo falls further behind over the conversation
    double jumpMs = 0.0; // added to the delay from the last stretch on (the recorder's clock correction)
    double finalDelayMs = 0.0;
};

void PrintTo(const RoomCase& room, std::ostream* out) {
    *out << room.name;
}

class EchoRoomTest : public ::testing::TestWithParam<RoomCase> {
protected:
    TempDir m_dir{QStringLiteral("echo")};
};

// Far end alone: at least 20 dB of the echo removed. User alone: the words as they were, in place (a
// canceller whose output delay was not made up would slide them out of line). Both at once: the user's
// words still there.
TEST_P(EchoRoomTest, removesTheFarEndAndKeepsTheUser) {
    const RoomCase& room = GetParam();
    const Conversation& c = conversation();
    std::vector<float> echo = throughRoom(m_dir, c.far, room.delayMs, room.speed);
    if (room.jumpMs != 0.0) {
        const std::vector<float> later = throughRoom(m_dir, c.far, room.delayMs + room.jumpMs, room.speed);
        std::copy(later.begin() + static_cast<std::ptrdiff_t>(c.farAlone[1].from - kRate / 4), later.end(),
                  echo.begin() + static_cast<std::ptrdiff_t>(c.farAlone[1].from - kRate / 4));
    }
    std::vector<float> mic = c.near;
    for (size_t i = 0; i < mic.size(); ++i)
        mic[i] += echo[i];
    mic = withNoise(std::move(mic));

    EchoCanceller::Report report;
    const std::vector<float> out = cancel(mic, c.far, report);
    ASSERT_EQ(out.size(), mic.size());

    const double finalDelayMs = room.finalDelayMs != 0 ? room.finalDelayMs : room.delayMs;
    const size_t tail = static_cast<size_t>((std::max(0.0, finalDelayMs) + 300.0) / 1000.0 * kRate);
    double echoBefore = 0.0, echoAfter = 0.0;
    for (Stretch farAlone : c.farAlone) {
        farAlone.to += tail; // the echo and its reverberation outlast the far end's words
        echoBefore += energy(echo, farAlone);
        echoAfter += energy(out, farAlone);
    }
    EXPECT_GE(10.0 * std::log10(echoBefore / echoAfter), 20.0) << "echo return loss enhancement (dB)";
    EXPECT_GE(correlation(out, c.near, c.nearAlone), 0.9) << "the user alone";
    EXPECT_GE(correlation(out, c.near, c.both), 0.8) << "double talk";
    EXPECT_TRUE(report.echoFound);
    EXPECT_NEAR(report.delayMs, finalDelayMs, 3.0);
    EXPECT_GT(report.removedDb, 10.0);
}

INSTANTIATE_TEST_SUITE_P(Delays, EchoRoomTest,
                         ::testing::Values(RoomCase{"ms40", 40}, RoomCase{"ms120", 120}, RoomCase{"ms250", 250},
                                           // two devices' clocks 100 ppm apart, more than most: 2 ms over the talk
                                           RoomCase{"drifting", 120, 0.9999, 0, 122},
                                           RoomCase{"jumping", 120, 1.0, 15, 135}, RoomCase{"microphoneAhead", -60}),
                         [](const auto& info) { return std::string(info.param.name); });

class MergeEchoTest : public ::testing::TestWithParam<const char*> {
protected:
    TempDir m_dir{QStringLiteral("mergeecho")};
};

// The merge takes the far end heard through the room out of the microphone, and says by how much and how late. With
// a headset the microphone does not hear the far end: the merged file is the plain sum, and one line says that no
// echo was found.
TEST_P(MergeEchoTest, removesAnEchoAndOnlyAnEcho) {
    const QByteArray kind = GetParam();
    QString mic;
    QString system;
    if (kind == "room") {
        std::vector<float> heard = conversation().near;
        const std::vector<float> echo = throughRoom(m_dir, conversation().far, 120, 1.0);
        for (size_t i = 0; i < heard.size(); ++i)
            heard[i] += echo[i];
        mic = soxFile(m_dir, QStringLiteral("mic"), withNoise(std::move(heard)));
        system = soxFile(m_dir, QStringLiteral("system"), conversation().far);
    } else if (kind == "conversation") {
        mic = soxFile(m_dir, QStringLiteral("mic"), withNoise(conversation().near));
        system = soxFile(m_dir, QStringLiteral("system"), conversation().far);
    } else { // steady tones line their phases up from one hop to the next like an echo would
        mic = m_dir.filePath(QStringLiteral("mic.caf"));
        system = m_dir.filePath(QStringLiteral("system.caf"));
        ASSERT_EQ(generateAudio(mic, QStringLiteral("0.1*sin(2*PI*300*t)"), 10, kRate, 1, {"-c:a", "pcm_f32le"}), "");
        ASSERT_EQ(generateAudio(system, QStringLiteral("0.1*sin(2*PI*500*t)"), 12, kRate, 2, {"-c:a", "pcm_f32le"}),
                  "");
    }
    const QString mergedPath = m_dir.filePath(QStringLiteral("merged.m4a"));
    QStringList lines;
    EchoCanceller::Report report;
    {
        LogCapture capture([&](const QString& line) { lines << line; });
        report = mergeAudioFilesInto(mic, {system}, mergedPath);
    }
    if (kind == "room") {
        ASSERT_TRUE(report.echoFound);
        EXPECT_NEAR(report.delayMs, 120.0, 3.0);
        EXPECT_EQ(lines, QStringList{QStringLiteral("[TrackMerger] Écho des haut-parleurs retiré du micro : %1 dB "
                                                    "(retard %2 ms)")
                                         .arg(report.removedDb, 0, 'f', 1)
                                         .arg(std::lround(report.delayMs))});
        return;
    }
    EXPECT_FALSE(report.echoFound);
    EXPECT_EQ(lines, QStringList{QStringLiteral("[TrackMerger] Pas d'écho des haut-parleurs dans le micro")});
    const QString plainPath = m_dir.filePath(QStringLiteral("plain.m4a"));
    mergeAudioFilesInto(mic, {system}, plainPath, {}, EchoRemoval::off);
    const std::vector<float> plain = decodeToMonoFloat(plainPath, kRate);
    const std::vector<float> merged = decodeToMonoFloat(mergedPath, kRate);
    ASSERT_EQ(merged.size(), plain.size());
    std::vector<float> difference(plain.size());
    for (size_t i = 0; i < plain.size(); ++i)
        difference[i] = merged[i] - plain[i];
    EXPECT_LE(rmsDb(difference) - rmsDb(plain), -60.0);
}

INSTANTIATE_TEST_SUITE_P(Rooms, MergeEchoTest, ::testing::Values("room", "conversation", "tones"),
                         [](const auto& info) { return std::string(info.param); });

} // namespace
} // namespace tavrel::test
