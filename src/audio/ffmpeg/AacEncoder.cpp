#include "audio/ffmpeg/AacEncoder.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <mutex>

namespace tavrel {

int aacBitRateFor(int channels) {
    return channels == 1 ? 96000 : 64000 * std::clamp(channels, 1, 3);
}

void quietFfmpegLog() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (av_log_get_level() > AV_LOG_WARNING)
            av_log_set_level(AV_LOG_WARNING);
    });
}

AVCodecContextPtr openAacEncoder(int sampleRateHz, int channels, int bitRate, bool globalHeader) {
    quietFfmpegLog();
    const AVCodec* codec = avcodec_find_encoder_by_name("aac");
    if (!codec)
        throw FfmpegError(QStringLiteral("Encodeur AAC introuvable"));
    AVCodecContextPtr encoder(avcodec_alloc_context3(codec));
    if (!encoder)
        throw FfmpegError(QStringLiteral("Mémoire insuffisante pour l'audio"));
    encoder->sample_fmt = AV_SAMPLE_FMT_FLTP;
    encoder->sample_rate = sampleRateHz;
    av_channel_layout_default(&encoder->ch_layout, channels);
    encoder->bit_rate = bitRate;
    encoder->time_base = AVRational{1, sampleRateHz};
    if (globalHeader)
        encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    // The default two-loop search costs several times more CPU for a difference nobody hears in speech.
    av_opt_set(encoder->priv_data, "aac_coder", "fast", 0);
    // Noise substitution and temporal shaping buy little for voices at these bit rates and cost an eighth of
    // the encoder's time, which is most of what a recording or a merge costs.
    av_opt_set_int(encoder->priv_data, "aac_pns", 0, 0);
    av_opt_set_int(encoder->priv_data, "aac_tns", 0, 0);
    ffCheck(avcodec_open2(encoder.get(), codec, nullptr), "Ouverture de l'encodeur AAC");
    return encoder;
}

} // namespace tavrel
