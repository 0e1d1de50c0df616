#include "audio/merge/EchoCanceller.h"

#include "audio/ffmpeg/FfmpegHandles.h"
#include "core/Error.h"

#include <webrtc/modules/audio_processing/include/audio_processing.h>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mem.h>
#include <libavutil/tx.h>
}

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <new>
#include <numbers>
#include <vector>

// Why these choices (measured on speech with a reverberant echo 40 to 250 ms late at -6 dB):
// - WebRTC's canceller at 16 kHz removed 34-38 dB and kept the near end intact (correlation 0.997), about
//   400x real time on one core; at 32 or 48 kHz it is 2-3x slower and treats the upper bands with a gain
//   that blurs the near end (0.986, 0.973). Speech for a transcription service needs nothing above 8 kHz.
// - Its own delay search (delay-agnostic mode) takes seconds to lock on to a 250 ms delay, which loses the
//   first sentences; told the delay, it converges within the first words. Told a delay longer than the real
//   one it cancels nothing, so it is told a little less than what the estimator found.
// - The low suppression level keeps the user's words during double talk (correlation 0.86-0.91 against
//   0.79-0.87 at the moderate level) for a residual echo well below what a transcription hears.

namespace tavrel {

namespace {

constexpr int kCancelRateHz = 16000;
constexpr int kFrame = kCancelRateHz / 100; // WebRTC works on 10 ms frames
constexpr int kHop = kCancelRateHz / 2;     // the estimator's step: 0.5 s
// Delays searched: from the microphone 100 ms ahead of the system track (a capture that lined the tracks up
// imperfectly) to 400 ms late. The canceller gets the far end kLead early, so that what it is told stays
// within the 0 to 500 ms it accepts.
constexpr int kLead = kCancelRateHz / 10;
constexpr int kSpan = kCancelRateHz / 2;
constexpr int kLagBack = kSpan - kLead; // the far end the estimator looks at before a hop
// The estimator runs this far ahead of the canceller, so that the echo's first words are already known
// when the canceller reaches them.
constexpr int kLookAheadHops = 6;
// WebRTC's 16 kHz output comes this many samples after its input (its internal framing); measured, and
// checked by the tests through the near end's alignment.
constexpr int kCancellerLatency = 112;
constexpr int kDelayMarginMs = 10;
constexpr int kDelayHysteresisMs = 4; // a drifting delay is followed in steps, each one re-adapts the filter
constexpr double kFarActiveDb = -55.0;
// Peak of the phase-transform cross-correlation: the far end in the microphone gives 0.4 (double talk) to
// 0.97; two unrelated voices stay below 0.15.
constexpr float kEchoPeak = 0.3f;
constexpr float kNoEchoPeak = 0.2f;
// ...and the far end explains a part of the microphone's energy (0.25 and up in double talk).
constexpr float kEchoCorrelation = 0.1f;
constexpr int kNoEchoHops = 20; // 10 s of far end without its echo before the microphone is left alone again
constexpr int kCrossfadeMs = 10;
// Frequencies the estimator compares: where speech is strongest, and low enough that a slowly drifting delay
// does not turn their phases from one hop to the next.
constexpr int kBandLowHz = 200;
constexpr int kBandHighHz = 3500;

/// One mono float stream, from some position on, addressed by its position from time zero.
class SampleQueue {
public:
    explicit SampleQueue(int64_t firstPosition = 0) : m_begin(firstPosition) {}
    int64_t begin() const { return m_begin; }
    int64_t end() const { return m_begin + static_cast<int64_t>(m_samples.size()) - m_offset; }
    float* at(int64_t position) { return m_samples.data() + m_offset + (position - m_begin); }
    /// Where appended samples go (at `end()`).
    std::vector<float>& storage() { return m_samples; }
    void append(const float* samples, int64_t count) { m_samples.insert(m_samples.end(), samples, samples + count); }
    void padTo(int64_t position) {
        if (position > end())
            m_samples.resize(m_samples.size() + static_cast<size_t>(position - end()), 0.0f);
    }
    void dropBefore(int64_t position) {
        const int64_t drop = std::min(position, end()) - m_begin;
        if (drop <= 0)
            return;
        m_offset += drop;
        m_begin += drop;
        if (m_offset > (1 << 16) && m_offset * 2 > static_cast<int64_t>(m_samples.size())) {
            m_samples.erase(m_samples.begin(), m_samples.begin() + m_offset);
            m_offset = 0;
        }
    }

private:
    std::vector<float> m_samples;
    int64_t m_offset = 0; // samples before it are dropped
    int64_t m_begin;
};

/// Mono float from one rate to another, in pieces; the output starts at time zero like the input.
class StreamResampler {
public:
    StreamResampler(int fromHz, int toHz) {
        AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
        SwrContext* raw = nullptr;
        ffCheck(swr_alloc_set_opts2(&raw, &mono, AV_SAMPLE_FMT_FLT, toHz, &mono, AV_SAMPLE_FMT_FLT, fromHz, 0, nullptr),
                "Préparation du rééchantillonnage");
        m_context.reset(raw);
        ffCheck(swr_init(m_context.get()), "Préparation du rééchantillonnage");
    }
    /// Appends the converted samples to `queue`; `samples` null flushes what the filter still holds.
    void convert(const float* samples, int64_t count, SampleQueue& queue) {
        std::vector<float>& out = queue.storage();
        const int capacity = swr_get_out_samples(m_context.get(), static_cast<int>(count));
        if (capacity <= 0)
            return;
        const size_t before = out.size();
        out.resize(before + static_cast<size_t>(capacity));
        auto* to = reinterpret_cast<uint8_t*>(out.data() + before);
        const auto* from = reinterpret_cast<const uint8_t*>(samples);
        const int converted =
            swr_convert(m_context.get(), &to, capacity, samples ? &from : nullptr, static_cast<int>(count));
        out.resize(before + static_cast<size_t>(std::max(0, converted)));
        ffCheck(converted, "Rééchantillonnage");
    }

private:
    SwrContextPtr m_context;
};

/// Memory aligned for FFmpeg's transforms, which then use their vector instructions.
template <typename T>
struct AlignedAllocator {
    using value_type = T;
    AlignedAllocator() = default;
    template <typename U>
    AlignedAllocator(const AlignedAllocator<U>&) {}
    T* allocate(size_t count) {
        if (void* memory = av_malloc(count * sizeof(T)))
            return static_cast<T*>(memory);
        throw std::bad_alloc();
    }
    void deallocate(T* memory, size_t) { av_free(memory); }
    bool operator==(const AlignedAllocator&) const = default;
};
template <typename T>
using AlignedVector = std::vector<T, AlignedAllocator<T>>;

struct TxDeleter {
    void operator()(AVTXContext* context) const { av_tx_uninit(&context); }
};
using TxPtr = std::unique_ptr<AVTXContext, TxDeleter>;

/// The median of what the canceller took out of each 10 ms frame: the echo removed while only the far end
/// spoke, which a plain energy ratio would drown in the user's own words during double talk.
class RemovalHistogram {
public:
    void add(double beforeEnergy, double afterEnergy) {
        const double removedDb = 10.0 * std::log10((beforeEnergy + 1e-12) / (afterEnergy + 1e-12));
        const auto bin = static_cast<size_t>(std::clamp(removedDb, 0.0, kTopDb - 0.01) / kBinDb);
        ++m_counts[bin];
        ++m_total;
    }
    double median() const {
        int64_t seen = 0;
        for (size_t bin = 0; bin < m_counts.size(); ++bin)
            if ((seen += m_counts[bin]) * 2 >= m_total && m_total > 0)
                return (static_cast<double>(bin) + 0.5) * kBinDb;
        return 0.0;
    }

private:
    static constexpr double kBinDb = 0.5;
    static constexpr double kTopDb = 80.0;
    std::array<int64_t, static_cast<size_t>(kTopDb / kBinDb)> m_counts{};
    int64_t m_total = 0;
};

/// Finds the far end in the microphone: generalised cross-correlation with the phase transform, over the
/// last few seconds in which the far end played. The cross-spectrum is averaged over those hops, so that
/// what does not repeat (the user's voice, noise) cancels out, then every frequency is brought to the same
/// weight: the peak stands out at the echo's delay whatever the voices' spectra, and its height (1 for a
/// pure delay) says how much of the microphone the far end explains. Only the band where speech is
/// strongest is compared: a delay that drifts turns the phases of high frequencies from one hop to the
/// next, and they would only blur the peak.
class DelayEstimator {
public:
    struct Finding {
        bool farActive = false;
        float peak = 0.0f;
        int delay = 0; // samples at 16 kHz
        /// Plain normalised cross-correlation at that delay: near zero for unrelated sounds whose phases
        /// happen to line up (steady tones), whatever the phase transform says.
        float correlation = 0.0f;
    };

    DelayEstimator() {
        while (m_size < kHop + kSpan)
            m_size *= 2;
        const float scale = 1.0f;
        AVTXContext* forward = nullptr;
        AVTXContext* inverse = nullptr;
        ffCheck(av_tx_init(&forward, &m_forwardFn, AV_TX_FLOAT_RDFT, 0, m_size, &scale, 0),
                "Préparation de l'annulation d'écho");
        m_forward.reset(forward);
        ffCheck(av_tx_init(&inverse, &m_inverseFn, AV_TX_FLOAT_RDFT, 1, m_size, &scale, 0),
                "Préparation de l'annulation d'écho");
        m_inverse.reset(inverse);
        const size_t bins = static_cast<size_t>(m_size / 2 + 1);
        m_sum.assign(bins, {});
        m_micSpectrum.resize(bins);
        m_farSpectrum.resize(bins);
        m_time.resize(static_cast<size_t>(m_size + 2));
        m_lowBin = kBandLowHz * m_size / kCancelRateHz;
        m_highBin = kBandHighHz * m_size / kCancelRateHz;
    }

    /// `mic`: one hop; `far`: from kLagBack before the same hop to kLead after it.
    Finding analyse(const float* mic, const float* far) {
        double farEnergy = 0.0;
        for (int i = kLagBack; i < kLagBack + kHop; ++i)
            farEnergy += double(far[i]) * far[i];
        Finding finding{10.0 * std::log10(farEnergy / kHop + 1e-30) > kFarActiveDb, m_peak, m_delay, m_correlation};
        if (!finding.farActive)
            return finding; // nothing to learn from: what the far end said before still stands

        transform(mic, kHop, m_micSpectrum);
        transform(far, kSpan + kHop, m_farSpectrum);
        double meanMagnitude = 0.0;
        m_micEnergy *= kMemory;
        m_farEnergy *= kMemory;
        for (int k = m_lowBin; k < m_highBin; ++k) {
            m_sum[k] = m_sum[k] * kMemory + m_micSpectrum[k] * std::conj(m_farSpectrum[k]);
            m_micEnergy += std::norm(m_micSpectrum[k]);
            m_farEnergy += std::norm(m_farSpectrum[k]);
            meanMagnitude += std::sqrt(std::norm(m_sum[k]));
        }
        meanMagnitude /= m_highBin - m_lowBin;
        // Phase transform; empty bins (digital silence in one of the tracks) would only add noise.
        AlignedVector<std::complex<float>>& weighted = m_micSpectrum;
        std::fill(weighted.begin(), weighted.end(), std::complex<float>{});
        int used = 0;
        for (int k = m_lowBin; k < m_highBin; ++k) {
            const float magnitude = std::sqrt(std::norm(m_sum[k])); // std::abs is hypot: slow and careful
            if (magnitude > 1e-3 * meanMagnitude && magnitude > 0.0f) {
                weighted[k] = m_sum[k] / magnitude;
                ++used;
            }
        }
        if (used == 0)
            return finding;
        m_inverseFn(m_inverse.get(), m_time.data(), weighted.data(), sizeof(std::complex<float>));
        // `used` unit bins of a real transform peak at 2 * used; lag d sits at index d - kLagBack.
        const float scale = 0.5f / static_cast<float>(used);
        m_peak = 0.0f;
        for (int delay = -kLead; delay <= kLagBack; ++delay) {
            const float value = m_time[static_cast<size_t>((delay - kLagBack + m_size) % m_size)] * scale;
            if (value > m_peak) {
                m_peak = value;
                m_delay = delay;
            }
        }
        m_correlation = plainCorrelation(m_delay);
        return Finding{true, m_peak, m_delay, m_correlation};
    }

private:
    static constexpr float kMemory = 0.8f; // per hop of far end: the last 2 to 3 s weigh most

    void transform(const float* samples, int count, AlignedVector<std::complex<float>>& spectrum) {
        std::fill(m_time.begin(), m_time.end(), 0.0f);
        std::copy_n(samples, count, m_time.begin());
        m_forwardFn(m_forward.get(), spectrum.data(), m_time.data(), sizeof(float));
    }

    /// From the averaged cross-spectrum and energies in the band (Parseval). The far block also holds the
    /// samples before the hop, so this errs low.
    float plainCorrelation(int delay) const {
        if (m_micEnergy <= 0.0 || m_farEnergy <= 0.0)
            return 0.0f;
        const double omega = 2.0 * std::numbers::pi * (delay - kLagBack) / m_size;
        double cross = 0.0;
        const std::complex<double> turn = std::polar(1.0, omega);
        std::complex<double> phase = std::polar(1.0, omega * m_lowBin);
        for (int k = m_lowBin; k < m_highBin; ++k, phase *= turn)
            cross += std::real(std::complex<double>(m_sum[k]) * phase);
        return static_cast<float>(cross / std::sqrt(m_micEnergy * m_farEnergy));
    }

    int m_size = 1024;
    TxPtr m_forward;
    TxPtr m_inverse;
    av_tx_fn m_forwardFn = nullptr;
    av_tx_fn m_inverseFn = nullptr;
    std::vector<std::complex<float>> m_sum; // cross-spectrum, averaged over the hops with far end
    AlignedVector<std::complex<float>> m_micSpectrum;
    AlignedVector<std::complex<float>> m_farSpectrum;
    AlignedVector<float> m_time;
    int m_lowBin = 0;
    int m_highBin = 0;
    double m_micEnergy = 0.0; // averaged like m_sum, in the band
    double m_farEnergy = 0.0;
    float m_peak = 0.0f;
    int m_delay = 0;
    float m_correlation = 0.0f;
};

} // namespace

class EchoCanceller::Impl {
public:
    explicit Impl(int sampleRateHz)
        : m_hopFrames(sampleRateHz / 2), m_crossfadeFrames(sampleRateHz * kCrossfadeMs / 1000),
          m_micDown(sampleRateHz, kCancelRateHz), m_farDown(sampleRateHz, kCancelRateHz),
          m_up(kCancelRateHz, sampleRateHz), m_far(-kLagBack) {
        m_far.padTo(0);        // the estimator looks back before time zero
        webrtc::Config config; // the canceller is told the delay: no delay-agnostic mode, normal filter
        m_apm.reset(webrtc::AudioProcessing::Create(config));
        if (!m_apm)
            throw Error(QStringLiteral("Annulation d'écho indisponible"));
        webrtc::EchoCancellation* echo = m_apm->echo_cancellation();
        const webrtc::StreamConfig mono(kCancelRateHz, 1);
        if (echo->enable_drift_compensation(false) != 0 ||
            echo->set_suppression_level(webrtc::EchoCancellation::kLowSuppression) != 0 || echo->Enable(true) != 0 ||
            m_apm->Initialize(webrtc::ProcessingConfig{{mono, mono, mono, mono}}) != 0)
            throw Error(QStringLiteral("Annulation d'écho indisponible"));
    }

    void push(const float* mic, const float* farEnd, int64_t frames) {
        m_raw.append(mic, frames);
        m_micDown.convert(mic, frames, m_mic);
        m_farDown.convert(farEnd, frames, m_far);
        estimate();
        cancel(false);
    }

    void finish() {
        if (m_finished)
            return;
        m_finished = true;
        m_micDown.convert(nullptr, 0, m_mic);
        m_farDown.convert(nullptr, 0, m_far);
        // Whole frames, and enough of them to bring the canceller's late output out.
        const int64_t end = (m_mic.end() + kCancellerLatency + kFrame - 1) / kFrame * kFrame;
        m_mic.padTo(end);
        m_far.padTo(end + kLead);
        estimate();
        cancel(true);
        m_up.convert(nullptr, 0, m_cleaned);
        m_cleaned.padTo(m_raw.end());
    }

    int64_t pull(float* out, int64_t capacity) {
        const int64_t ready = m_finished ? m_raw.end() : std::min(m_raw.end(), m_cleaned.end());
        const int64_t count = std::max<int64_t>(0, std::min(capacity, ready - m_outPosition));
        const float step = 1.0f / static_cast<float>(std::max(1, m_crossfadeFrames));
        for (int64_t done = 0; done < count;) {
            // One hop at a time: the same target all along.
            const int64_t position = m_outPosition + done;
            const int64_t hop = position / m_hopFrames;
            const int64_t run = std::min(count - done, (hop + 1) * m_hopFrames - position);
            const float target = cleanedAt(hop) ? 1.0f : 0.0f;
            const float* raw = m_raw.at(position);
            float* to = out + done;
            if (target == 0.0f && m_weight == 0.0f) {
                std::copy_n(raw, run, to); // left alone, bit for bit
            } else {
                const float* cleaned = m_cleaned.at(position);
                for (int64_t i = 0; i < run; ++i) {
                    m_weight =
                        target > m_weight ? std::min(target, m_weight + step) : std::max(target, m_weight - step);
                    to[i] = m_weight * cleaned[i] + (1.0f - m_weight) * raw[i];
                }
                m_echoUsed = true;
            }
            done += run;
        }
        m_outPosition += count;
        m_raw.dropBefore(m_outPosition);
        m_cleaned.dropBefore(m_outPosition);
        return count;
    }

    Report report() const {
        Report report;
        report.echoFound = m_echoUsed;
        report.removedDb = m_removal.median();
        report.delayMs = m_delayMs;
        return report;
    }

private:
    struct Pending {
        bool used = false;
        double micEnergy = 0.0;
        double cleanedEnergy = 0.0;
    };

    struct Hop {
        bool farActive = false;
        bool echo = false; // what the output does at hop - kLookAheadHops
        int cancellerDelayMs = 0;
    };

    const Hop& hopAt(int64_t hop) const {
        static const Hop kNone;
        if (m_hops.empty() || hop < 0)
            return kNone;
        return m_hops[static_cast<size_t>(std::min<int64_t>(hop, static_cast<int64_t>(m_hops.size()) - 1))];
    }

    void estimate() {
        for (; m_estimated + kHop <= m_mic.end() && m_estimated + kHop + kLead <= m_far.end(); m_estimated += kHop)
            decide(m_estimator.analyse(m_mic.at(m_estimated), m_far.at(m_estimated - kLagBack)));
        if (m_finished && m_estimated < m_mic.end()) { // the last, partial hop: no new evidence, the state holds
            Hop last = hopAt(static_cast<int64_t>(m_hops.size()) - 1);
            last.farActive = false;
            m_hops.push_back(last);
            m_estimated += kHop;
        }
        dropFar();
    }

    void dropFar() { m_far.dropBefore(std::min(m_cancelled + kLead, m_estimated - kLagBack)); }

    void decide(const DelayEstimator::Finding& finding) {
        Hop hop = hopAt(static_cast<int64_t>(m_hops.size()) - 1);
        hop.farActive = finding.farActive;
        if (finding.farActive) {
            const bool evidence = finding.peak >= kEchoPeak && finding.correlation >= kEchoCorrelation;
            // Once the echo is known, a weaker peak (a drifting delay blurs it) still tells where it is.
            const bool trace = hop.echo && finding.peak >= kNoEchoPeak;
            const double foundMs = finding.delay * 1000.0 / kCancelRateHz;
            if ((evidence || trace) && (std::abs(foundMs - m_delayMs) > kDelayHysteresisMs || !hop.echo)) {
                m_delayMs = foundMs;
                hop.cancellerDelayMs = std::max(0, static_cast<int>(std::lround(m_delayMs)) +
                                                       kLead * 1000 / kCancelRateHz - kDelayMarginMs);
            }
            if (evidence) {
                hop.echo = true;
                m_hopsWithoutEcho = 0;
            } else if (finding.peak >= kNoEchoPeak) {
                m_hopsWithoutEcho = 0; // weak, but there: not the sign of a headset
            } else if (++m_hopsWithoutEcho >= kNoEchoHops) {
                hop.echo = false;
            }
        }
        m_hops.push_back(hop);
    }

    /// Where the output takes the cleaned microphone: echo found (looking ahead), and the far end played
    /// around this hop (the two before, the one after), so that its echo may be in the microphone. Elsewhere (the user
    /// talking alone, silence) the microphone goes out as it is, and the canceller has nothing to do.
    bool cleanedAt(int64_t hop) const {
        return hopAt(hop + kLookAheadHops).echo && (hopAt(hop + 1).farActive || hopAt(hop).farActive ||
                                                    hopAt(hop - 1).farActive || hopAt(hop - 2).farActive);
    }

    /// The canceller runs half a second before the output takes it, and while it cross-fades away.
    bool cancellerNeeded(int64_t hop) const { return cleanedAt(hop - 1) || cleanedAt(hop) || cleanedAt(hop + 1); }

    void cancel(bool draining) {
        const webrtc::StreamConfig mono(kCancelRateHz, 1);
        float out[kFrame];
        float farCopy[kFrame];
        for (; m_cancelled + kFrame <= std::min(m_mic.end(), m_far.end() - kLead); m_cancelled += kFrame) {
            const int64_t hop = m_cancelled / kHop;
            if (!draining && hop + kLookAheadHops + 1 >= static_cast<int64_t>(m_hops.size()))
                break; // what the output will do here is not known yet
            const bool needed = cancellerNeeded(hop);
            if (needed) {
                std::copy_n(m_far.at(m_cancelled + kLead), kFrame, farCopy);
                const float* farFrame = farCopy;
                float* farOut = farCopy;
                const float* micFrame = m_mic.at(m_cancelled);
                float* outFrame = out;
                m_apm->ProcessReverseStream(&farFrame, mono, mono, &farOut);
                m_apm->set_stream_delay_ms(hopAt(hop + kLookAheadHops).cancellerDelayMs);
                if (m_apm->ProcessStream(&micFrame, mono, mono, &outFrame) != webrtc::AudioProcessing::kNoError)
                    std::copy_n(micFrame, kFrame, out); // a frame it refuses stays as it was
            } else {
                std::fill_n(out, kFrame, 0.0f); // never heard: the output takes the original here
            }
            measureRemoval(cleanedAt(hop), out);
            const int skip = std::min(kFrame, m_latencyLeft);
            m_latencyLeft -= skip;
            m_up.convert(out + skip, kFrame - skip, m_cleaned);
        }
        m_mic.dropBefore(m_cancelled);
        dropFar();
    }

    /// How much of a frame the canceller took out, where the far end played and the output uses it. A
    /// frame's cleaned samples come out kCancellerLatency later: the end of this output and the start of
    /// the next one.
    void measureRemoval(bool used, const float* out) {
        const auto energy = [](const float* samples, int count) {
            double sum = 0.0;
            for (int i = 0; i < count; ++i)
                sum += double(samples[i]) * samples[i];
            return sum;
        };
        if (m_pending.used)
            m_removal.add(m_pending.micEnergy, m_pending.cleanedEnergy + energy(out, kCancellerLatency));
        const float* far = m_far.at(m_cancelled + kLead);
        const float* mic = m_mic.at(m_cancelled);
        m_pending.used = used && 10.0 * std::log10(energy(far, kFrame) / kFrame + 1e-30) > kFarActiveDb;
        m_pending.micEnergy = energy(mic, kFrame);
        m_pending.cleanedEnergy = energy(out + kCancellerLatency, kFrame - kCancellerLatency);
    }

    int m_hopFrames;       // a hop at the track's rate
    int m_crossfadeFrames; // between the original and the cleaned microphone
    StreamResampler m_micDown;
    StreamResampler m_farDown;
    StreamResampler m_up;
    DelayEstimator m_estimator;
    std::unique_ptr<webrtc::AudioProcessing> m_apm;

    SampleQueue m_raw;     // the microphone as given, until output
    SampleQueue m_cleaned; // the canceller's output at the track's rate, lined up with m_raw
    SampleQueue m_mic;     // 16 kHz, from what the canceller has not taken yet
    SampleQueue m_far;     // 16 kHz, from what the estimator or the canceller still needs
    std::vector<Hop> m_hops;
    int64_t m_estimated = 0; // 16 kHz position up to which the estimator has looked
    int64_t m_cancelled = 0; // 16 kHz position up to which the canceller has run
    int m_latencyLeft = kCancellerLatency;
    int64_t m_outPosition = 0;
    bool m_finished = false;

    int m_hopsWithoutEcho = 0;
    double m_delayMs = 0.0;
    float m_weight = 0.0f; // share of the cleaned microphone in the output
    bool m_echoUsed = false;
    RemovalHistogram m_removal;
    Pending m_pending; // the frame whose cleaned output is not complete yet
};

EchoCanceller::EchoCanceller(int sampleRateHz) : m_impl(std::make_unique<Impl>(sampleRateHz)) {}
EchoCanceller::~EchoCanceller() = default;

void EchoCanceller::push(const float* mic, const float* farEnd, int64_t frames) {
    if (frames > 0)
        m_impl->push(mic, farEnd, frames);
}

void EchoCanceller::finish() {
    m_impl->finish();
}

int64_t EchoCanceller::pull(float* out, int64_t capacity) {
    return m_impl->pull(out, capacity);
}

EchoCanceller::Report EchoCanceller::report() const {
    return m_impl->report();
}

} // namespace tavrel
