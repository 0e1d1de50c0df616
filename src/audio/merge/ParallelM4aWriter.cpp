#include "audio/merge/ParallelM4aWriter.h"

#include "audio/ffmpeg/AacEncoder.h"
#include "core/Log.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

#include <algorithm>
#include <exception>
#include <limits>
#include <system_error>

namespace tavrel {

namespace {

constexpr int64_t kAacFrame = 1024;
// Audio fed to a segment's encoder before its segment: the first packet overlaps the frame before, and the
// encoder's attack detection and rate control need a few frames of history to settle into the choices an
// encoder that had been running all along would make.
constexpr int64_t kLeadFrames = 8 * kAacFrame;
// How far past its nominal start a segment may take over from the previous one.
constexpr int64_t kJoinSearchFrames = 8 * kAacFrame;
// Audio fed to an encoder past its segment's end: the join search, plus the frame a packet overlaps and the
// lookahead its window decision reads.
constexpr int64_t kTailFrames = kJoinSearchFrames + 3 * kAacFrame;
// Room set aside for a segment's samples up front; a longer segment grows as it fills.
constexpr int64_t kReservedFrames = int64_t{1} << 21;

/// The window of an AAC packet's first channel, read from the raw bitstream; unknown (-1) when the packet
/// does not start the way FFmpeg's encoder writes mono frames.
struct WindowChoice {
    int sequence = -1;
    int shape = -1;
    bool known() const { return sequence >= 0; }
    bool operator==(const WindowChoice&) const = default;
};

class BitReader {
public:
    BitReader(const uint8_t* data, int size) : m_data(data), m_sizeBits(int64_t{size} * 8) {}
    bool has(int64_t bits) const { return m_position + bits <= m_sizeBits; }
    unsigned read(int bits) {
        unsigned value = 0;
        for (int i = 0; i < bits; ++i, ++m_position)
            value = (value << 1) | ((m_data[m_position >> 3] >> (7 - (m_position & 7))) & 1u);
        return value;
    }
    void skip(int64_t bits) { m_position += bits; }

private:
    const uint8_t* m_data;
    int64_t m_sizeBits;
    int64_t m_position = 0;
};

WindowChoice windowChoiceOf(const AVPacket& packet) {
    enum : unsigned { kSingleChannel = 0, kFill = 6 };
    BitReader bits(packet.data, packet.size);
    // The encoder tags some frames with its name in a fill element ahead of the audio.
    while (bits.has(3 + 4 + 8 + 1 + 2 + 1)) {
        const unsigned element = bits.read(3);
        if (element == kFill) {
            int64_t count = bits.read(4);
            if (count == 15)
                count += int64_t{bits.read(8)} - 1;
            if (!bits.has(count * 8))
                return {};
            bits.skip(count * 8);
            continue;
        }
        if (element != kSingleChannel)
            return {};
        bits.skip(4 + 8 + 1); // instance tag, global gain, reserved bit
        WindowChoice choice;
        choice.sequence = static_cast<int>(bits.read(2));
        choice.shape = static_cast<int>(bits.read(1));
        return choice;
    }
    return {};
}

struct EncodedPacket {
    AVPacketPtr packet; // emptied once written
    int64_t pts = 0;    // in frames, on the whole file's timeline
    WindowChoice window;
};

} // namespace

struct ParallelM4aWriter::Segment {
    int64_t startFrames = 0;     // the earliest join with the segment before
    int64_t feedStartFrames = 0; // the first frame fed to the encoder, lead-in included
    std::vector<float> samples;  // from feedStartFrames on
    bool last = false;

    // Written by the encoder thread before `done` is set under the writer's mutex.
    std::vector<EncodedPacket> packets;
    std::exception_ptr error;
    bool done = false;

    int64_t feedEndFrames() const { return feedStartFrames + static_cast<int64_t>(samples.size()); }

    const EncodedPacket* packetAt(int64_t pts) const {
        if (packets.empty())
            return nullptr;
        const int64_t index = (pts - packets.front().pts) / kAacFrame;
        if (index < 0 || index >= static_cast<int64_t>(packets.size()))
            return nullptr;
        const EncodedPacket& found = packets[static_cast<size_t>(index)];
        return found.pts == pts ? &found : nullptr;
    }
};

ParallelM4aWriter::ParallelM4aWriter(const QString& path, int sampleRateHz, int bitRate)
    : ParallelM4aWriter(path, sampleRateHz, bitRate, Tuning{}) {}

ParallelM4aWriter::ParallelM4aWriter(const QString& path, int sampleRateHz, int bitRate, Tuning tuning)
    : m_sampleRateHz(sampleRateHz), m_bitRate(bitRate), m_tuning(tuning) {
    // A segment must outlast the next one's lead-in and the join search, or joins would overtake each other.
    m_tuning.segmentFrames =
        std::max(kLeadFrames + kJoinSearchFrames, (m_tuning.segmentFrames + kAacFrame - 1) / kAacFrame * kAacFrame);
    if (m_tuning.threads <= 0)
        m_tuning.threads = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));

    m_output = makeOutput(path, "ipod");
    // The stream's parameters come from an encoder set up exactly like the segments' ones.
    const AVCodecContextPtr model =
        openAacEncoder(sampleRateHz, 1, bitRate, m_output->oformat->flags & AVFMT_GLOBALHEADER);
    if (model->frame_size != kAacFrame)
        throw FfmpegError(QStringLiteral("Encodeur AAC inattendu"));
    m_stream = avformat_new_stream(m_output.get(), nullptr);
    if (!m_stream)
        throw FfmpegError(QStringLiteral("Mémoire insuffisante pour l'audio"));
    ffCheck(avcodec_parameters_from_context(m_stream->codecpar, model.get()), "Préparation du fichier audio");
    m_stream->time_base = model->time_base;
    ffCheck(avformat_write_header(m_output.get(), nullptr), "Écriture de l'en-tête audio");

    m_filling = std::make_unique<Segment>();
    m_filling->samples.reserve(static_cast<size_t>(std::min(m_tuning.segmentFrames, kReservedFrames) + kTailFrames));
    try {
        for (int i = 0; i < m_tuning.threads; ++i)
            m_workers.emplace_back([this] { workerLoop(); });
    } catch (const std::system_error&) {
        if (m_workers.empty())
            throw FfmpegError(QStringLiteral("Impossible de lancer l'encodage audio"));
        // Fewer threads than asked for still encode everything.
        m_tuning.threads = static_cast<int>(m_workers.size());
    }
}

ParallelM4aWriter::~ParallelM4aWriter() {
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_all();
    for (std::thread& worker : m_workers)
        worker.join();
}

void ParallelM4aWriter::write(const float* samples, int64_t frameCount) {
    if (m_finished || !samples)
        return;
    while (frameCount > 0) {
        Segment& segment = *m_filling;
        const int64_t feedEnd = segment.startFrames + m_tuning.segmentFrames + kTailFrames;
        const int64_t taken = std::min(frameCount, feedEnd - segment.feedEndFrames());
        segment.samples.insert(segment.samples.end(), samples, samples + taken);
        samples += taken;
        frameCount -= taken;
        if (segment.feedEndFrames() == feedEnd)
            submitCurrent(false);
    }
}

void ParallelM4aWriter::finish() {
    if (m_finished)
        return;
    m_finished = true;
    submitCurrent(true);
    takeFinished(true);
    ffCheck(av_write_trailer(m_output.get()), "Finalisation du fichier audio");
    m_output.reset();
}

void ParallelM4aWriter::submitCurrent(bool last) {
    std::shared_ptr<Segment> segment = std::move(m_filling);
    segment->last = last;
    if (!last) {
        // The next segment starts with the lead-in, which this one already holds.
        m_filling = std::make_unique<Segment>();
        m_filling->startFrames = segment->startFrames + m_tuning.segmentFrames;
        m_filling->feedStartFrames = m_filling->startFrames - kLeadFrames;
        m_filling->samples.reserve(
            static_cast<size_t>(kLeadFrames + std::min(m_tuning.segmentFrames, kReservedFrames) + kTailFrames));
        const auto overlap = segment->samples.end() - (kLeadFrames + kTailFrames);
        m_filling->samples.assign(overlap, segment->samples.end());
    }
    {
        std::lock_guard lock(m_mutex);
        m_queue.push_back(segment);
    }
    m_changed.notify_all();
    m_inFlight.push_back(std::move(segment));
    takeFinished(false);
}

void ParallelM4aWriter::workerLoop() {
    for (;;) {
        std::shared_ptr<Segment> segment;
        {
            std::unique_lock lock(m_mutex);
            m_changed.wait(lock, [this] { return m_stopping || !m_queue.empty(); });
            if (m_stopping)
                return;
            segment = std::move(m_queue.front());
            m_queue.pop_front();
        }
        try {
            encodeSegment(*segment);
        } catch (...) {
            segment->error = std::current_exception();
        }
        {
            std::lock_guard lock(m_mutex);
            segment->done = true;
        }
        m_changed.notify_all();
    }
}

void ParallelM4aWriter::encodeSegment(Segment& segment) const {
    const AVCodecContextPtr encoder = openAacEncoder(m_sampleRateHz, 1, m_bitRate, true);
    const AVFramePtr frame = makeFrame();
    frame->format = encoder->sample_fmt;
    frame->sample_rate = m_sampleRateHz;
    ffCheck(av_channel_layout_copy(&frame->ch_layout, &encoder->ch_layout), "Encodage AAC");
    frame->nb_samples = static_cast<int>(kAacFrame);
    ffCheck(av_frame_get_buffer(frame.get(), 0), "Encodage AAC");
    segment.packets.reserve(segment.samples.size() / kAacFrame + 3);

    auto drain = [&] {
        for (;;) {
            AVPacketPtr packet = makePacket();
            const int received = avcodec_receive_packet(encoder.get(), packet.get());
            if (received == AVERROR(EAGAIN) || received == AVERROR_EOF)
                return;
            ffCheck(received, "Encodage AAC");
            const int64_t pts = packet->pts;
            const WindowChoice window = windowChoiceOf(*packet);
            segment.packets.push_back(EncodedPacket{std::move(packet), pts, window});
        }
    };
    const auto total = static_cast<int64_t>(segment.samples.size());
    for (int64_t offset = 0; offset < total; offset += kAacFrame) {
        const int64_t frames = std::min(kAacFrame, total - offset);
        ffCheck(av_frame_make_writable(frame.get()), "Encodage AAC");
        frame->nb_samples = static_cast<int>(frames);
        std::copy_n(segment.samples.data() + offset, frames, reinterpret_cast<float*>(frame->data[0]));
        frame->pts = segment.feedStartFrames + offset;
        ffCheck(avcodec_send_frame(encoder.get(), frame.get()), "Encodage AAC");
        drain();
    }
    // Drained even where the tail is dropped, so that the encoder closes without complaint.
    ffCheck(avcodec_send_frame(encoder.get(), nullptr), "Encodage AAC");
    drain();
    // The samples are no longer needed; the packets wait for the join.
    std::vector<float>().swap(segment.samples);
}

void ParallelM4aWriter::takeFinished(bool waitForAll) {
    // One segment ready beyond the busy threads keeps them fed; more would only hold memory.
    const size_t limit = static_cast<size_t>(m_tuning.threads) + 1;
    while (!m_inFlight.empty()) {
        {
            std::unique_lock lock(m_mutex);
            if (waitForAll || m_inFlight.size() > limit)
                m_changed.wait(lock, [this] { return m_inFlight.front()->done; });
            else if (!m_inFlight.front()->done)
                return;
        }
        std::shared_ptr<Segment> segment = std::move(m_inFlight.front());
        m_inFlight.pop_front();
        if (segment->error)
            std::rethrow_exception(segment->error);
        join(*segment);
        m_held = std::move(segment);
        if (m_held->last) {
            writePackets(*m_held, m_writtenUntilPts, std::numeric_limits<int64_t>::max());
            m_held.reset();
        }
    }
}

void ParallelM4aWriter::join(Segment& next) {
    if (!m_held)
        return;
    // The decoder overlaps each packet with the one before: hand over where both encoders windowed the frame
    // before the join alike, so that the next segment's first packet continues what the decoder already has.
    int64_t joinPts = next.startFrames;
    bool matched = false;
    for (int64_t pts = next.startFrames; pts <= next.startFrames + kJoinSearchFrames && !matched; pts += kAacFrame) {
        const EncodedPacket* before = m_held->packetAt(pts - kAacFrame);
        const EncodedPacket* after = next.packetAt(pts - kAacFrame);
        if (before && after && next.packetAt(pts) && before->window.known() && before->window == after->window) {
            joinPts = pts;
            matched = true;
        }
    }
    if (!matched)
        logLine(QStringLiteral("[TrackMerger] Raccord AAC sans fenêtre commune à %1 s")
                    .arg(static_cast<double>(joinPts) / m_sampleRateHz, 0, 'f', 2));
    writePackets(*m_held, m_writtenUntilPts, joinPts);
    m_writtenUntilPts = joinPts;
}

void ParallelM4aWriter::writePackets(Segment& segment, int64_t fromPts, int64_t toPts) {
    for (EncodedPacket& encoded : segment.packets) {
        if (encoded.pts < fromPts || encoded.pts >= toPts)
            continue;
        AVPacket* packet = encoded.packet.get();
        av_packet_rescale_ts(packet, AVRational{1, m_sampleRateHz}, m_stream->time_base);
        packet->stream_index = m_stream->index;
        ffCheck(av_write_frame(m_output.get(), packet), "Écriture du fichier audio");
        av_packet_unref(packet);
    }
}

} // namespace tavrel
