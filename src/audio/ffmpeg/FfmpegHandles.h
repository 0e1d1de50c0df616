#pragma once

// Owning handles for FFmpeg objects, and the error type of every FFmpeg failure.
//
//   AVFormatInputPtr in = openInput(path);            // avformat_open_input, closed by the deleter
//   AVFormatOutputPtr out = makeOutput(path, "ipod"); // allocated output context; the deleter closes its AVIO
//   AVCodecContextPtr, AVFramePtr, AVPacketPtr, SwrContextPtr, AVAudioFifoPtr: the matching *_free calls.
//   ffCheck(ret, "what failed") throws FfmpegError with av_strerror's text when ret < 0.

#include "core/Error.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libswresample/swresample.h>
}

#include <QString>
#include <memory>

namespace tavrel {

/// An FFmpeg call failed: the text names the step and carries FFmpeg's own message.
class FfmpegError : public Error {
public:
    FfmpegError(const QString& step, int averror);
    explicit FfmpegError(const QString& description) : Error(description) {}
    int averror() const noexcept { return m_averror; }

private:
    int m_averror = 0;
};

/// Throws `FfmpegError` when `result` is negative; returns it otherwise.
int ffCheck(int result, const char* step);

struct AVFormatInputDeleter {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
struct AVFormatOutputDeleter {
    void operator()(AVFormatContext* context) const {
        if (context->pb && !(context->oformat->flags & AVFMT_NOFILE))
            avio_closep(&context->pb);
        avformat_free_context(context);
    }
};
struct AVCodecContextDeleter {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct AVFrameDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct AVPacketDeleter {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct SwrContextDeleter {
    void operator()(SwrContext* context) const { swr_free(&context); }
};
struct AVAudioFifoDeleter {
    void operator()(AVAudioFifo* fifo) const { av_audio_fifo_free(fifo); }
};
struct AVDictionaryDeleter {
    void operator()(AVDictionary* dictionary) const { av_dict_free(&dictionary); }
};

using AVFormatInputPtr = std::unique_ptr<AVFormatContext, AVFormatInputDeleter>;
using AVFormatOutputPtr = std::unique_ptr<AVFormatContext, AVFormatOutputDeleter>;
using AVCodecContextPtr = std::unique_ptr<AVCodecContext, AVCodecContextDeleter>;
using AVFramePtr = std::unique_ptr<AVFrame, AVFrameDeleter>;
using AVPacketPtr = std::unique_ptr<AVPacket, AVPacketDeleter>;
using SwrContextPtr = std::unique_ptr<SwrContext, SwrContextDeleter>;
using AVAudioFifoPtr = std::unique_ptr<AVAudioFifo, AVAudioFifoDeleter>;

/// Opens a file for reading and reads its stream information. Throws `FfmpegError`.
AVFormatInputPtr openInput(const QString& path);
/// Allocates an output context for `formatName` (e.g. "ipod", "caf") and opens the file for writing.
AVFormatOutputPtr makeOutput(const QString& path, const char* formatName);
/// Flushes what the output still buffers, checks that every byte reached the file, and closes it; throws
/// `FfmpegError` with the system's reason otherwise (the context is freed either way).
void closeOutput(AVFormatOutputPtr& output, const char* step);
/// Flushes the output's buffer now; throws `FfmpegError` when the file refused it.
void flushOutput(AVFormatContext* output, const char* step);
AVFramePtr makeFrame();
AVPacketPtr makePacket();

} // namespace tavrel
