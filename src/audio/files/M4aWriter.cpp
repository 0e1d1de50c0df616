#include "audio/files/M4aWriter.h"

#include "audio/ffmpeg/AacEncoder.h"
#include "core/Log.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

#include <QByteArray>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace tavrel {

namespace {

constexpr int kMinSampleRateHz = 8000;
constexpr int kMaxSampleRateHz = 192000;
constexpr int kMaxChannels = 8;
constexpr int64_t kSilenceChunkFrames = 4096;
// FFmpeg's AAC encoder delays its output by one frame.
constexpr int64_t kAacPrimingFrames = 1024;

// Empty moov and a fragment per explicit flush: audio never makes "keyframe" fragments by itself.
constexpr const char* kFragmentedMovFlags = "empty_moov+default_base_moof+frag_custom";

} // namespace

M4aWriter::M4aWriter(const QString& path, int sampleRateHz, int channels)
    : m_path(path), m_sampleRateHz(sampleRateHz), m_channels(channels) {
    quietFfmpegLog();
    if (sampleRateHz < kMinSampleRateHz || sampleRateHz > kMaxSampleRateHz || channels < 1 || channels > kMaxChannels)
        throw FfmpegError(
            QStringLiteral("Format audio non pris en charge : %1 Hz, %2 voie(s)").arg(sampleRateHz).arg(channels));

    m_output = makeOutput(path, "ipod");
    m_encoder =
        openAacEncoder(sampleRateHz, channels, aacBitRateFor(channels), m_output->oformat->flags & AVFMT_GLOBALHEADER);
    if (m_encoder->frame_size > 0)
        m_frameSize = m_encoder->frame_size;

    m_stream = avformat_new_stream(m_output.get(), nullptr);
    if (!m_stream)
        throw FfmpegError(QStringLiteral("Mémoire insuffisante pour l'audio"));
    ffCheck(avcodec_parameters_from_context(m_stream->codecpar, m_encoder.get()), "Paramètres de la piste audio");
    m_stream->time_base = m_encoder->time_base;

    AVDictionary* options = nullptr;
    av_dict_set(&options, "movflags", kFragmentedMovFlags, 0);
    const int headerResult = avformat_write_header(m_output.get(), &options);
    av_dict_free(&options);
    ffCheck(headerResult, "Écriture de l'en-tête audio");
    avio_flush(m_output->pb);

    m_frame = makeFrame();
    m_frame->format = m_encoder->sample_fmt;
    m_frame->sample_rate = sampleRateHz;
    ffCheck(av_channel_layout_copy(&m_frame->ch_layout, &m_encoder->ch_layout), "Disposition des voies");
    m_frame->nb_samples = m_frameSize;
    ffCheck(av_frame_get_buffer(m_frame.get(), 0), "Tampon audio");
    m_packet = makePacket();
    m_pending.reserve(static_cast<size_t>(m_frameSize * channels * 2));
}

M4aWriter::~M4aWriter() {
    if (m_closed)
        return;
    try {
        closeFragmented();
    } catch (const Error& error) {
        logLine(
            QStringLiteral("[AudioRecorder] Fichier audio laissé fragmenté : %1").arg(error.localizedDescription()));
    }
}

void M4aWriter::write(const float* interleaved, int64_t frameCount) {
    write(interleaved, frameCount, m_endFrames);
}

void M4aWriter::write(const float* interleaved, int64_t frameCount, int64_t positionFrames) {
    if (m_closed || frameCount <= 0 || !interleaved)
        return;
    if (positionFrames > m_endFrames)
        appendSilence(positionFrames - m_endFrames);
    if (positionFrames < m_endFrames) {
        const int64_t overlap = m_endFrames - positionFrames;
        if (overlap >= frameCount)
            return;
        interleaved += overlap * m_channels;
        frameCount -= overlap;
    }
    appendFrames(interleaved, frameCount);
}

void M4aWriter::appendFrames(const float* interleaved, int64_t frameCount) {
    m_pending.insert(m_pending.end(), interleaved, interleaved + frameCount * m_channels);
    m_endFrames += frameCount;
    encodePending(false);
}

void M4aWriter::appendSilence(int64_t frameCount) {
    while (frameCount > 0) {
        const int64_t chunk = std::min(frameCount, kSilenceChunkFrames);
        m_pending.insert(m_pending.end(), static_cast<size_t>(chunk * m_channels), 0.0f);
        m_endFrames += chunk;
        frameCount -= chunk;
        encodePending(false);
    }
}

void M4aWriter::encodePending(bool flushAll) {
    const size_t frameSamples = static_cast<size_t>(m_frameSize) * static_cast<size_t>(m_channels);
    size_t offset = 0;
    while (m_pending.size() - offset >= frameSamples) {
        sendFrame(m_pending.data() + offset, m_frameSize);
        offset += frameSamples;
    }
    if (flushAll && m_pending.size() > offset) {
        // The encoder accepts a shorter last frame and keeps the exact duration.
        sendFrame(m_pending.data() + offset, static_cast<int>((m_pending.size() - offset) / m_channels));
        offset = m_pending.size();
    }
    m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<std::ptrdiff_t>(offset));
}

void M4aWriter::sendFrame(const float* interleaved, int frames) {
    ffCheck(av_frame_make_writable(m_frame.get()), "Tampon audio");
    m_frame->nb_samples = frames;
    for (int channel = 0; channel < m_channels; ++channel) {
        auto* plane = reinterpret_cast<float*>(m_frame->extended_data[channel]);
        for (int i = 0; i < frames; ++i)
            plane[i] = interleaved[i * m_channels + channel];
    }
    m_frame->pts = m_encodedFrames;
    m_encodedFrames += frames;
    ffCheck(avcodec_send_frame(m_encoder.get(), m_frame.get()), "Encodage AAC");
    drainPackets();
}

void M4aWriter::drainPackets() {
    for (;;) {
        const int result = avcodec_receive_packet(m_encoder.get(), m_packet.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
            return;
        ffCheck(result, "Encodage AAC");
        av_packet_rescale_ts(m_packet.get(), m_encoder->time_base, m_stream->time_base);
        m_packet->stream_index = m_stream->index;
        const int64_t packetEnd = m_packet->pts + m_packet->duration;
        const int writeResult = av_write_frame(m_output.get(), m_packet.get());
        av_packet_unref(m_packet.get());
        ffCheck(writeResult, "Écriture audio");
        const int64_t interval = av_rescale_q(kFragmentIntervalMs, AVRational{1, 1000}, m_stream->time_base);
        if (packetEnd - m_lastFragmentPts >= interval) {
            ffCheck(av_write_frame(m_output.get(), nullptr), "Écriture audio");
            avio_flush(m_output->pb);
            m_lastFragmentPts = packetEnd;
        }
    }
}

void M4aWriter::closeFragmented() {
    m_closed = true;
    encodePending(true);
    ffCheck(avcodec_send_frame(m_encoder.get(), nullptr), "Encodage AAC");
    drainPackets();
    ffCheck(av_write_trailer(m_output.get()), "Fin du fichier audio");
    m_output.reset();
}

void M4aWriter::finish() {
    if (m_finished)
        return;
    if (!m_closed)
        closeFragmented();
    m_finished = true;
    remuxToPlainM4a(m_path, m_path, m_endFrames);
}

namespace {

struct BoxScan {
    bool hasMoof = false;
    bool hasMvex = false;
};

bool readBoxHeader(QFile& file, qint64 end, QByteArray& type, qint64& bodyStart, qint64& boxEnd) {
    const qint64 start = file.pos();
    if (end - start < 8)
        return false;
    const QByteArray header = file.read(8);
    if (header.size() < 8)
        return false;
    auto be32 = [](const char* p) {
        return (quint32(quint8(p[0])) << 24) | (quint32(quint8(p[1])) << 16) | (quint32(quint8(p[2])) << 8) |
               quint32(quint8(p[3]));
    };
    quint64 size = be32(header.constData());
    type = header.mid(4, 4);
    bodyStart = start + 8;
    if (size == 1) {
        const QByteArray large = file.read(8);
        if (large.size() < 8)
            return false;
        size = (quint64(be32(large.constData())) << 32) | be32(large.constData() + 4);
        bodyStart += 8;
    } else if (size == 0) {
        size = static_cast<quint64>(end - start);
    }
    if (size < static_cast<quint64>(bodyStart - start))
        return false;
    boxEnd = start + static_cast<qint64>(std::min<quint64>(size, static_cast<quint64>(end - start)));
    return true;
}

BoxScan scanBoxes(const QString& path) {
    BoxScan scan;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return scan;
    const qint64 end = file.size();
    QByteArray type;
    qint64 bodyStart = 0;
    qint64 boxEnd = 0;
    while (readBoxHeader(file, end, type, bodyStart, boxEnd)) {
        if (type == "moof") {
            scan.hasMoof = true;
            break;
        }
        if (type == "moov") {
            QByteArray childType;
            qint64 childBody = 0;
            qint64 childEnd = 0;
            while (file.pos() < boxEnd && readBoxHeader(file, boxEnd, childType, childBody, childEnd)) {
                if (childType == "mvex")
                    scan.hasMvex = true;
                if (!file.seek(childEnd))
                    break;
            }
        }
        if (boxEnd <= file.pos() - 8 || !file.seek(boxEnd))
            break;
    }
    return scan;
}

} // namespace

bool holdsAudio(const QString& path) {
    try {
        AVFormatInputPtr input = openInput(path);
        const int audioIndex = av_find_best_stream(input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
        if (audioIndex < 0)
            return false;
        AVPacketPtr packet = makePacket();
        while (packet && av_read_frame(input.get(), packet.get()) >= 0) {
            const bool audio = packet->stream_index == audioIndex;
            av_packet_unref(packet.get());
            if (audio)
                return true;
        }
    } catch (const Error&) {
    }
    return false;
}

bool isFragmentedMp4(const QString& path) {
    const BoxScan scan = scanBoxes(path);
    return scan.hasMoof || scan.hasMvex;
}

int64_t remuxToPlainM4a(const QString& source, const QString& destination, std::optional<int64_t> totalFrames) {
    const QFileInfo target(destination);
    // Hidden and with its own extension so that nobody takes it for a recording; ".m4a" at the end keeps the
    // muxer from warning.
    const QString temporary = target.absolutePath() + QStringLiteral("/.") + target.completeBaseName() +
                              QStringLiteral(".part-%1.m4a").arg(QCoreApplication::applicationPid());
    int64_t copied = 0;
    try {
        AVFormatInputPtr input = openInput(source);
        const int audioIndex = av_find_best_stream(input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
        ffCheck(audioIndex, "Piste audio introuvable");
        AVStream* inStream = input->streams[audioIndex];

        AVFormatOutputPtr output = makeOutput(temporary, "ipod");
        AVStream* outStream = avformat_new_stream(output.get(), nullptr);
        if (!outStream)
            throw FfmpegError(QStringLiteral("Mémoire insuffisante pour l'audio"));
        ffCheck(avcodec_parameters_copy(outStream->codecpar, inStream->codecpar), "Paramètres de la piste audio");
        outStream->codecpar->codec_tag = 0;
        outStream->time_base = inStream->time_base;

        AVDictionary* options = nullptr;
        av_dict_set(&options, "movflags", "+faststart", 0);
        const int headerResult = avformat_write_header(output.get(), &options);
        av_dict_free(&options);
        ffCheck(headerResult, "Écriture de l'en-tête audio");

        // Fragments carry no edit list, so the encoder's priming shows as audio at the start; moving the
        // timeline back by it lets the plain file's edit list hide it again, as in a file written in one go.
        const int sampleRateHz = inStream->codecpar->sample_rate > 0 ? inStream->codecpar->sample_rate : 44100;
        const AVRational samples{1, sampleRateHz};
        std::optional<int64_t> shift;

        AVPacketPtr packet = makePacket();
        AVPacketPtr pending = makePacket();
        bool hasPending = false;
        auto writePending = [&](int64_t duration) {
            if (duration > 0)
                pending->duration = duration;
            av_packet_rescale_ts(pending.get(), inStream->time_base, outStream->time_base);
            pending->stream_index = 0;
            pending->pos = -1;
            const int writeResult = av_write_frame(output.get(), pending.get());
            av_packet_unref(pending.get());
            hasPending = false;
            ffCheck(writeResult, "Écriture audio");
            ++copied;
        };
        for (;;) {
            const int result = av_read_frame(input.get(), packet.get());
            if (result < 0)
                break; // the end, or the cut-off tail of an interrupted file
            if (packet->stream_index != audioIndex || packet->dts == AV_NOPTS_VALUE ||
                (hasPending && packet->dts <= pending->dts)) {
                av_packet_unref(packet.get());
                continue;
            }
            if (!shift) {
                const bool primed = inStream->codecpar->codec_id == AV_CODEC_ID_AAC && packet->pts >= 0;
                shift = primed ? av_rescale_q(kAacPrimingFrames, samples, inStream->time_base) : 0;
            }
            packet->dts -= *shift;
            if (packet->pts != AV_NOPTS_VALUE)
                packet->pts -= *shift;
            if (hasPending)
                writePending(packet->dts - pending->dts);
            av_packet_move_ref(pending.get(), packet.get());
            hasPending = true;
        }
        if (hasPending) {
            int64_t lastDuration = pending->duration;
            if (totalFrames)
                lastDuration = av_rescale_q(*totalFrames, samples, inStream->time_base) - pending->dts;
            if (lastDuration <= 0)
                lastDuration = av_rescale_q(kAacPrimingFrames, samples, inStream->time_base);
            writePending(lastDuration);
        }
        ffCheck(av_write_trailer(output.get()), "Fin du fichier audio");
        output.reset();
        input.reset();
        const QByteArray from = QFile::encodeName(temporary);
        const QByteArray to = QFile::encodeName(destination);
        if (std::rename(from.constData(), to.constData()) != 0)
            throw FfmpegError(QStringLiteral("Impossible de remplacer %1 : %2")
                                  .arg(target.fileName(), QString::fromLocal8Bit(std::strerror(errno))));
    } catch (...) {
        QFile::remove(temporary);
        throw;
    }
    return copied;
}

RecoveryResult recoverInterruptedRecording(const QString& path) {
    if (!QFileInfo(path).isFile() || !isFragmentedMp4(path))
        return RecoveryResult::untouched;
    try {
        remuxToPlainM4a(path, path);
        logLine(
            QStringLiteral("[AudioRecorder] Enregistrement interrompu réparé : %1").arg(QFileInfo(path).fileName()));
        return RecoveryResult::recovered;
    } catch (const Error& error) {
        logLine(QStringLiteral("[AudioRecorder] Enregistrement interrompu illisible : %1 (%2)")
                    .arg(QFileInfo(path).fileName(), error.localizedDescription()));
        return RecoveryResult::failed;
    }
}

} // namespace tavrel
