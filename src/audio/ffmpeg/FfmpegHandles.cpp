#include "audio/ffmpeg/FfmpegHandles.h"

#include <QFile>

namespace tavrel {

namespace {
QString averrorText(int averror) {
    char buffer[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(averror, buffer, sizeof buffer);
    return QString::fromUtf8(buffer);
}
} // namespace

FfmpegError::FfmpegError(const QString& step, int averror)
    : Error(QStringLiteral("%1 : %2").arg(step, averrorText(averror))), m_averror(averror) {}

int ffCheck(int result, const char* step) {
    if (result < 0)
        throw FfmpegError(QString::fromUtf8(step), result);
    return result;
}

AVFormatInputPtr openInput(const QString& path) {
    AVFormatContext* raw = nullptr;
    const QByteArray name = QFile::encodeName(path);
    ffCheck(avformat_open_input(&raw, name.constData(), nullptr, nullptr), "Ouverture du fichier audio");
    AVFormatInputPtr input(raw);
    ffCheck(avformat_find_stream_info(input.get(), nullptr), "Lecture du fichier audio");
    return input;
}

AVFormatOutputPtr makeOutput(const QString& path, const char* formatName) {
    AVFormatContext* raw = nullptr;
    const QByteArray name = QFile::encodeName(path);
    ffCheck(avformat_alloc_output_context2(&raw, nullptr, formatName, name.constData()),
            "Préparation du fichier audio");
    AVFormatOutputPtr output(raw);
    if (!(output->oformat->flags & AVFMT_NOFILE))
        ffCheck(avio_open(&output->pb, name.constData(), AVIO_FLAG_WRITE), "Création du fichier audio");
    return output;
}

void flushOutput(AVFormatContext* output, const char* step) {
    if (!output->pb)
        return;
    avio_flush(output->pb);
    ffCheck(output->pb->error, step);
}

void closeOutput(AVFormatOutputPtr& output, const char* step) {
    AVFormatOutputPtr closing = std::move(output);
    if (!closing->pb || (closing->oformat->flags & AVFMT_NOFILE))
        return;
    avio_flush(closing->pb);
    const int pending = closing->pb->error;
    const int closed = avio_closep(&closing->pb);
    ffCheck(pending < 0 ? pending : closed, step);
}

AVFramePtr makeFrame() {
    AVFramePtr frame(av_frame_alloc());
    if (!frame)
        throw FfmpegError(QStringLiteral("Mémoire insuffisante pour l'audio"));
    return frame;
}

AVPacketPtr makePacket() {
    AVPacketPtr packet(av_packet_alloc());
    if (!packet)
        throw FfmpegError(QStringLiteral("Mémoire insuffisante pour l'audio"));
    return packet;
}

} // namespace tavrel
