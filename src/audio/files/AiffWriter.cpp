#include "audio/files/AiffWriter.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

#include <QFile>
#include <QFileInfo>
#include <QtEndian>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <vector>

namespace tavrel {

AiffWriter::AiffWriter(const QString& path, int sampleRateHz, int channels)
    : m_path(path), m_output(makeOutput(path, "aiff")), m_sampleRateHz(sampleRateHz), m_channels(channels) {
    AVStream* stream = avformat_new_stream(m_output.get(), nullptr);
    if (!stream)
        throw FfmpegError(QStringLiteral("Mémoire insuffisante pour l'audio"));
    stream->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
    stream->codecpar->codec_id = AV_CODEC_ID_PCM_S16BE;
    stream->codecpar->sample_rate = sampleRateHz;
    av_channel_layout_default(&stream->codecpar->ch_layout, channels);
    stream->codecpar->bits_per_coded_sample = 16;
    stream->codecpar->block_align = 2 * channels;
    stream->time_base = AVRational{1, sampleRateHz};
    ffCheck(avformat_write_header(m_output.get(), nullptr), "Écriture de l'en-tête audio");
    flushOutput(m_output.get(), "Écriture de l'en-tête audio");
    m_packet = makePacket();
}

void AiffWriter::write(const float* interleaved, int64_t frames, int64_t position) {
    if (m_finished || m_failed)
        return;
    if (position > m_endFrames) {
        const std::vector<float> silence(static_cast<size_t>((position - m_endFrames) * m_channels), 0.0f);
        append(silence.data(), position - m_endFrames);
    }
    const int64_t skip = std::min(frames, m_endFrames - position);
    if (skip > 0) {
        interleaved += skip * m_channels;
        frames -= skip;
    }
    append(interleaved, frames);
}

void AiffWriter::finish() {
    if (m_finished)
        return;
    m_finished = true;
    if (m_failed) {
        sealAfterFailure();
        return;
    }
    ffCheck(av_write_trailer(m_output.get()), "Finalisation du fichier audio");
    closeOutput(m_output, "Finalisation du fichier audio");
}

void AiffWriter::append(const float* interleaved, int64_t frames) {
    try {
        appendChecked(interleaved, frames);
    } catch (const Error&) {
        m_failed = true;
        throw;
    }
}

void AiffWriter::sealAfterFailure() {
    m_output.reset(); // what it still buffers cannot be written anyway
    QFile file(m_path);
    const auto fail = [&] {
        throw FileWriteError(
            QStringLiteral("Finalisation impossible de %1 : %2").arg(QFileInfo(m_path).fileName(), file.errorString()),
            EIO);
    };
    if (!file.open(QIODevice::ReadWrite))
        fail();
    const qint64 size = file.size();
    const auto putBigEndian32 = [&](qint64 at, quint32 value) {
        const char bytes[4] = {char(value >> 24), char(value >> 16), char(value >> 8), char(value)};
        if (!file.seek(at) || file.write(bytes, 4) != 4)
            fail();
    };
    // FORM header, then chunks: id, size, body. The sample count sits 2 bytes into COMM, the data in SSND.
    const QByteArray head = file.read(4096);
    qint64 commAt = -1;
    qint64 ssndAt = -1;
    for (qint64 at = 12; at + 8 <= head.size();) {
        const QByteArray id = head.mid(at, 4);
        const auto bodySize = qFromBigEndian<quint32>(head.constData() + at + 4);
        if (id == "COMM")
            commAt = at;
        else if (id == "SSND")
            ssndAt = at;
        if (ssndAt >= 0)
            break;
        at += 8 + bodySize + (bodySize & 1);
    }
    if (commAt < 0 || ssndAt < 0 || size < ssndAt + 16)
        fail();
    const qint64 dataBytes = size - (ssndAt + 16);
    putBigEndian32(4, static_cast<quint32>(size - 8));
    putBigEndian32(commAt + 10, static_cast<quint32>(dataBytes / (2 * m_channels)));
    putBigEndian32(ssndAt + 4, static_cast<quint32>(size - (ssndAt + 8)));
    if (!file.flush())
        fail();
}

void AiffWriter::appendChecked(const float* interleaved, int64_t frames) {
    if (frames <= 0)
        return;
    const int64_t count = frames * m_channels;
    ffCheck(av_new_packet(m_packet.get(), static_cast<int>(count * 2)), "Écriture du fichier audio");
    for (int64_t i = 0; i < count; ++i) {
        const auto value = static_cast<int16_t>(std::lrint(std::clamp(interleaved[i], -1.0f, 1.0f) * 32767.0f));
        m_packet->data[2 * i] = static_cast<uint8_t>(static_cast<uint16_t>(value) >> 8);
        m_packet->data[2 * i + 1] = static_cast<uint8_t>(value & 0xff);
    }
    m_packet->pts = m_packet->dts = m_endFrames;
    m_packet->duration = frames;
    m_packet->stream_index = 0;
    m_endFrames += frames;
    const int written = av_write_frame(m_output.get(), m_packet.get());
    av_packet_unref(m_packet.get());
    ffCheck(written, "Écriture du fichier audio");
    m_framesSinceFlush += frames;
    if (m_framesSinceFlush >= m_sampleRateHz) {
        m_framesSinceFlush = 0;
        flushOutput(m_output.get(), "Écriture du fichier audio");
    }
}

} // namespace tavrel
