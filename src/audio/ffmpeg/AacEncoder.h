#pragma once

// The one place where this program's AAC encoder is set up, so that every file it writes (live recordings,
// merged tracks) is encoded with the same options.
//
//   AVCodecContextPtr encoder = openAacEncoder(44100, 1, aacBitRateFor(1), /*globalHeader=*/true);
//
// The encoder takes planar float frames of `encoder->frame_size` samples with pts in samples; its packets come
// out one frame late (`initial_padding`).

#include "audio/ffmpeg/FfmpegHandles.h"

namespace tavrel {

/// Speech at a bit rate transparent enough for a transcription service: 96 kb/s for one channel, 64 kb/s per
/// channel beyond (at most three channels' worth).
int aacBitRateFor(int channels);

/// Keeps FFmpeg's informational chatter (encoder statistics, muxer passes) out of our log; warnings stay.
void quietFfmpegLog();

/// Opens FFmpeg's native AAC encoder for float planar input at `sampleRateHz` with `channels` channels (default
/// layout). `globalHeader` puts the decoder configuration in extradata, as MP4 needs. Throws FfmpegError.
AVCodecContextPtr openAacEncoder(int sampleRateHz, int channels, int bitRate, bool globalHeader);

} // namespace tavrel
