#include "audio/merge/TrackMerger.h"

#include "audio/BackgroundTask.h"
#include "audio/ffmpeg/AacEncoder.h"
#include "audio/ffmpeg/FfmpegHandles.h"
#include "audio/sources/SystemAudioSource.h"
#include "core/Log.h"
#include "core/RecordingFiles.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

// The mix is mono: the tracks are speech for a transcription service, the microphone is already mono, and
// one channel halves the AAC encoding, which is most of the time the user waits for (that encoding is also
// spread over the processor's threads, see ParallelM4aWriter). A stereo input is folded with 1/2 + 1/2 (a
// centred voice keeps its level) rather than swresample's default downmix, which adds the channels up; the
// tracks themselves are then summed at unit gain.
//
// Echo removal runs here rather than live during the recording: the merge already has every track decoded
// on the same timeline, so the canceller can look a few seconds ahead for the delay, costs nothing while
// recording, and runs on the merge's own thread while the encoders fill the other cores; the raw
// microphone file stays the recording of record until the merge has succeeded.

namespace tavrel {

namespace {

constexpr int kChunkFrames = 16384; // hand-over unit between a decoder thread and the mixer
constexpr size_t kQueueDepth = 6;   // chunks buffered per input: bounded memory, some slack for jitter
// Timestamps that jump by less than this are decoder rounding, not a hole in the recording.
constexpr int64_t kGapToleranceFrames = 64;
// Decoded audio may fall this short of the length the container states (priming, rounding) before the file
// counts as cut short.
constexpr int64_t kShortfallToleranceFrames = kMergedSampleRateHz / 2;

/// One input file, decoded and resampled to the mix format, read in order from time zero.
class TrackDecoder {
public:
    /// Opens `path`; throws `FfmpegError` when the file cannot be read. `hasAudio()` tells whether it has
    /// an audio stream worth decoding.
    explicit TrackDecoder(const QString& path) : m_path(path), m_input(openInput(path)) {
        const int index = av_find_best_stream(m_input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
        if (index < 0)
            return;
        m_stream = m_input->streams[index];
        const AVCodec* codec = avcodec_find_decoder(m_stream->codecpar->codec_id);
        if (!codec)
            throw FfmpegError(QStringLiteral("Décodeur audio introuvable"));
        m_decoder.reset(avcodec_alloc_context3(codec));
        if (!m_decoder)
            throw FfmpegError(QStringLiteral("Mémoire insuffisante pour l'audio"));
        ffCheck(avcodec_parameters_to_context(m_decoder.get(), m_stream->codecpar), "Lecture du format audio");
        m_decoder->pkt_timebase = m_stream->time_base;
        ffCheck(avcodec_open2(m_decoder.get(), codec, nullptr), "Ouverture du décodeur audio");
        // Everything but the chosen stream is skipped by the demuxer.
        for (unsigned i = 0; i < m_input->nb_streams; ++i)
            if (static_cast<int>(i) != index)
                m_input->streams[i]->discard = AVDISCARD_ALL;
        m_packet = makePacket();
        m_frame = makeFrame();
    }

    bool hasAudio() const { return m_stream != nullptr; }

    /// Fills `out` with up to `frames` mono samples at the mix rate; fewer only at the end of the file.
    int read(float* out, int frames) {
        while (static_cast<int64_t>(m_pending.size()) - m_pendingStart < frames && !m_finished)
            decodeMore();
        const int available = static_cast<int>(std::min<int64_t>(frames, m_pending.size() - m_pendingStart));
        std::copy_n(m_pending.begin() + m_pendingStart, available, out);
        m_pendingStart += available;
        if (m_pendingStart > (1 << 16)) {
            m_pending.erase(m_pending.begin(), m_pending.begin() + m_pendingStart);
            m_pendingStart = 0;
        }
        return available;
    }

private:
    void decodeMore() {
        const int received = avcodec_receive_frame(m_decoder.get(), m_frame.get());
        if (received == 0) {
            convert(m_frame.get());
            av_frame_unref(m_frame.get());
            return;
        }
        if (received == AVERROR_EOF) {
            finish();
            return;
        }
        // A track that breaks part-way fails the merge: mixing what came before would cut that side short, and
        // the inputs are deleted once the mix is made.
        if (received != AVERROR(EAGAIN))
            throw damaged(QStringLiteral("Décodage audio"), received);
        const int readResult = av_read_frame(m_input.get(), m_packet.get());
        if (readResult == AVERROR_EOF) {
            checkComplete();
            avcodec_send_packet(m_decoder.get(), nullptr); // drain
            return;
        }
        if (readResult < 0)
            throw damaged(QStringLiteral("Lecture audio"), readResult);
        if (m_packet->stream_index == m_stream->index) {
            const int sent = avcodec_send_packet(m_decoder.get(), m_packet.get());
            if (sent < 0 && sent != AVERROR(EAGAIN)) {
                av_packet_unref(m_packet.get());
                throw damaged(QStringLiteral("Décodage audio"), sent);
            }
        }
        av_packet_unref(m_packet.get());
    }

    DamagedTrackError damaged(const QString& step, int averror) const {
        return DamagedTrackError(m_path, FfmpegError(step, averror).localizedDescription());
    }

    /// A file whose container states its length must deliver all of it: the rest was lost (a file cut short).
    void checkComplete() const {
        if (m_input->duration_estimation_method != AVFMT_DURATION_FROM_STREAM || m_stream->duration <= 0)
            return;
        const int64_t statedFrames =
            av_rescale_q(m_stream->duration, m_stream->time_base, AVRational{1, m_inputRateHz});
        if (m_inputFrames + kShortfallToleranceFrames < statedFrames)
            throw DamagedTrackError(m_path, QStringLiteral("Fichier audio tronqué : %1 s lues sur %2 s")
                                                .arg(static_cast<double>(m_inputFrames) / m_inputRateHz, 0, 'f', 1)
                                                .arg(static_cast<double>(statedFrames) / m_inputRateHz, 0, 'f', 1));
    }

    void ensureResampler(const AVFrame* frame) {
        if (m_resampler)
            return;
        AVChannelLayout inLayout{};
        if (frame->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC || frame->ch_layout.nb_channels == 0)
            av_channel_layout_default(&inLayout, std::max(1, frame->ch_layout.nb_channels));
        else
            av_channel_layout_copy(&inLayout, &frame->ch_layout);
        AVChannelLayout outLayout{};
        av_channel_layout_default(&outLayout, kMergedChannels);
        SwrContext* raw = nullptr;
        const int allocated =
            swr_alloc_set_opts2(&raw, &outLayout, AV_SAMPLE_FMT_FLT, kMergedSampleRateHz, &inLayout,
                                static_cast<AVSampleFormat>(frame->format), frame->sample_rate, 0, nullptr);
        m_resampler.reset(raw);
        const int inChannels = inLayout.nb_channels;
        av_channel_layout_uninit(&inLayout);
        av_channel_layout_uninit(&outLayout);
        ffCheck(allocated, "Préparation du rééchantillonnage");
        std::vector<double> matrix(static_cast<size_t>(inChannels), 1.0 / inChannels);
        ffCheck(swr_set_matrix(m_resampler.get(), matrix.data(), inChannels), "Préparation du mixage");
        ffCheck(swr_init(m_resampler.get()), "Préparation du rééchantillonnage");
        m_inputRateHz = frame->sample_rate;
    }

    void convert(const AVFrame* frame) {
        ensureResampler(frame);
        placeAt(frame);
        const int capacity = swr_get_out_samples(m_resampler.get(), frame->nb_samples);
        if (capacity <= 0)
            return;
        const size_t before = m_pending.size();
        m_pending.resize(before + static_cast<size_t>(capacity));
        auto* out = reinterpret_cast<uint8_t*>(m_pending.data() + before);
        const int converted = swr_convert(m_resampler.get(), &out, capacity,
                                          const_cast<const uint8_t**>(frame->extended_data), frame->nb_samples);
        m_pending.resize(before + static_cast<size_t>(std::max(0, converted)));
        m_inputFrames += frame->nb_samples;
    }

    /// Honours the frame's timestamp: a jump forward is a stretch of silence in the recording.
    void placeAt(const AVFrame* frame) {
        const int64_t pts = frame->best_effort_timestamp;
        if (pts == AV_NOPTS_VALUE)
            return;
        const int64_t position = av_rescale_q(pts, m_stream->time_base, AVRational{1, m_inputRateHz});
        const int64_t gap = position - m_inputFrames;
        if (gap <= kGapToleranceFrames)
            return;
        const int64_t silence = av_rescale(gap, kMergedSampleRateHz, m_inputRateHz);
        m_pending.insert(m_pending.end(), static_cast<size_t>(silence), 0.0f);
        m_inputFrames = position;
    }

    void finish() {
        if (m_finished)
            return;
        m_finished = true;
        if (!m_resampler)
            return;
        const int capacity = swr_get_out_samples(m_resampler.get(), 0);
        if (capacity <= 0)
            return;
        const size_t before = m_pending.size();
        m_pending.resize(before + static_cast<size_t>(capacity));
        auto* out = reinterpret_cast<uint8_t*>(m_pending.data() + before);
        const int flushed = swr_convert(m_resampler.get(), &out, capacity, nullptr, 0);
        m_pending.resize(before + static_cast<size_t>(std::max(0, flushed)));
    }

    QString m_path;
    AVFormatInputPtr m_input;
    AVStream* m_stream = nullptr;
    AVCodecContextPtr m_decoder;
    SwrContextPtr m_resampler;
    AVPacketPtr m_packet;
    AVFramePtr m_frame;
    int m_inputRateHz = kMergedSampleRateHz;
    int64_t m_inputFrames = 0; // input-rate frames handed to the resampler, gaps included
    std::vector<float> m_pending;
    int64_t m_pendingStart = 0;
    bool m_finished = false;
};

/// Runs one decoder on a thread of its own and hands its output over in fixed-size chunks, so that the
/// inputs decode in parallel with each other and with the encoder. A chunk shorter than kChunkFrames is the
/// last one.
class DecoderPipe {
public:
    explicit DecoderPipe(std::unique_ptr<TrackDecoder> decoder)
        : m_decoder(std::move(decoder)), m_thread([this] { run(); }) {}

    ~DecoderPipe() {
        {
            std::lock_guard lock(m_mutex);
            m_cancelled = true;
        }
        m_changed.notify_all();
        m_thread.join();
    }
    DecoderPipe(const DecoderPipe&) = delete;
    DecoderPipe& operator=(const DecoderPipe&) = delete;

    /// The next chunk; rethrows the decoder's failure in place of the last one.
    std::vector<float> take() {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return !m_chunks.empty(); });
        std::vector<float> chunk = std::move(m_chunks.front());
        m_chunks.pop_front();
        if (m_failure && m_chunks.empty() && chunk.size() < static_cast<size_t>(kChunkFrames))
            std::rethrow_exception(m_failure);
        lock.unlock();
        m_changed.notify_all();
        return chunk;
    }

private:
    void run() {
        bool more = true;
        while (more) {
            std::vector<float> chunk(kChunkFrames);
            int frames = 0;
            std::exception_ptr failure;
            try {
                frames = m_decoder->read(chunk.data(), kChunkFrames);
            } catch (...) {
                failure = std::current_exception();
            }
            chunk.resize(failure ? 0 : static_cast<size_t>(frames));
            more = !failure && frames == kChunkFrames;
            std::unique_lock lock(m_mutex);
            m_failure = failure;
            m_changed.wait(lock, [this] { return m_chunks.size() < kQueueDepth || m_cancelled; });
            if (m_cancelled)
                return;
            m_chunks.push_back(std::move(chunk));
            lock.unlock();
            m_changed.notify_all();
        }
    }

    std::unique_ptr<TrackDecoder> m_decoder;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::vector<float>> m_chunks;
    std::exception_ptr m_failure; // the input broke part-way; handed over with the last chunk
    bool m_cancelled = false;
    std::thread m_thread; // last: starts once everything above exists
};

/// A system file that cannot be opened or has no audio is left out of the mix.
std::unique_ptr<TrackDecoder> openSystemTrack(const QString& path) {
    QString problem = QStringLiteral("aucune piste audio");
    try {
        auto decoder = std::make_unique<TrackDecoder>(path);
        if (decoder->hasAudio())
            return decoder;
    } catch (const FfmpegError& error) {
        problem = error.localizedDescription();
    }
    logLine(QStringLiteral("[TrackMerger] Piste illisible laissée de côté : %1 (%2)")
                .arg(QFileInfo(path).fileName(), problem));
    return nullptr;
}

} // namespace

EchoCanceller::Report mergeAudioFilesInto(const QString& mic, const QStringList& systems, const QString& outputPath,
                                          const ParallelM4aWriter::Tuning& encoding, EchoRemoval echoRemoval) {
    auto micDecoder = std::make_unique<TrackDecoder>(mic); // unreadable: FfmpegError goes to the caller
    if (!micDecoder->hasAudio())
        throw SystemAudioFailure(SystemAudioError::mergeFailed);
    std::vector<std::unique_ptr<TrackDecoder>> systemDecoders;
    for (const QString& system : systems)
        if (auto decoder = openSystemTrack(system))
            systemDecoders.push_back(std::move(decoder));

    ParallelM4aWriter encoder(outputPath, kMergedSampleRateHz, aacBitRateFor(kMergedChannels), encoding);
    std::unique_ptr<EchoCanceller> canceller;
    if (echoRemoval == EchoRemoval::automatic && !systemDecoders.empty()) {
        try {
            canceller = std::make_unique<EchoCanceller>(kMergedSampleRateHz);
        } catch (const Error& error) { // the plain sum is still a recording; this is the merge's one line
            logLine(QStringLiteral("[TrackMerger] Annulation d'écho impossible : ") + error.localizedDescription());
            echoRemoval = EchoRemoval::off;
        }
    }
    auto micPipe = std::make_unique<DecoderPipe>(std::move(micDecoder));
    std::vector<std::unique_ptr<DecoderPipe>> systemPipes;
    for (auto& decoder : systemDecoders)
        systemPipes.push_back(std::make_unique<DecoderPipe>(std::move(decoder)));

    // The mix from `written` on (at `mix[mixStart]`): the system tracks' sum as far as decoded, plus the
    // microphone up to `micEnd`, which the canceller hands out a few seconds behind the input. What lies
    // before `micEnd` is complete and goes to the encoder, which works in parallel on its own threads.
    std::vector<float> mix;
    size_t mixStart = 0;
    int64_t written = 0;
    int64_t micEnd = 0;
    const auto addMic = [&](const float* samples, int64_t count) {
        float* to = mix.data() + mixStart + (micEnd - written);
        for (int64_t i = 0; i < count; ++i)
            to[i] += samples[i];
        micEnd += count;
    };
    std::vector<float> far(kChunkFrames);
    std::vector<float> cleaned(kChunkFrames);
    while (micPipe || !systemPipes.empty()) {
        std::vector<float> micChunk;
        if (micPipe) {
            micChunk = micPipe->take();
            if (micChunk.size() < static_cast<size_t>(kChunkFrames))
                micPipe.reset();
        }
        std::fill(far.begin(), far.end(), 0.0f);
        size_t span = micChunk.size();
        for (auto it = systemPipes.begin(); it != systemPipes.end();) {
            const std::vector<float> chunk = (*it)->take();
            for (size_t i = 0; i < chunk.size(); ++i)
                far[i] += chunk[i];
            span = std::max(span, chunk.size());
            it = chunk.size() < static_cast<size_t>(kChunkFrames) ? systemPipes.erase(it) : it + 1;
        }
        mix.insert(mix.end(), far.begin(), far.begin() + static_cast<std::ptrdiff_t>(span));
        if (canceller) {
            canceller->push(micChunk.data(), far.data(), static_cast<int64_t>(micChunk.size()));
            if (!micPipe)
                canceller->finish();
            for (int64_t count; (count = canceller->pull(cleaned.data(), kChunkFrames)) > 0;)
                addMic(cleaned.data(), count);
        } else {
            addMic(micChunk.data(), static_cast<int64_t>(micChunk.size()));
        }
        const int64_t complete = micPipe ? micEnd : written + static_cast<int64_t>(mix.size() - mixStart);
        encoder.write(mix.data() + mixStart, complete - written);
        mixStart += static_cast<size_t>(complete - written);
        written = complete;
        if (mixStart > mix.size() / 2) {
            mix.erase(mix.begin(), mix.begin() + static_cast<std::ptrdiff_t>(mixStart));
            mixStart = 0;
        }
    }
    encoder.finish();

    const EchoCanceller::Report report = canceller ? canceller->report() : EchoCanceller::Report{};
    if (echoRemoval == EchoRemoval::automatic) {
        if (report.echoFound)
            logLine(QStringLiteral("[TrackMerger] Écho des haut-parleurs retiré du micro : %1 dB (retard %2 ms)")
                        .arg(report.removedDb, 0, 'f', 1)
                        .arg(std::lround(report.delayMs)));
        else
            logLine(QStringLiteral("[TrackMerger] Pas d'écho des haut-parleurs dans le micro"));
    }
    return report;
}

QCoro::Task<QString> mergeAudioFiles(QString mic, QStringList systems) {
    const QString outputPath = RecordingFiles::mergedFile();
    try {
        co_await runInBackground([&] { mergeAudioFilesInto(mic, systems, outputPath); });
    } catch (...) {
        QFile::remove(outputPath); // half a mix is nobody's recording
        throw;
    }
    co_return outputPath;
}

} // namespace tavrel
