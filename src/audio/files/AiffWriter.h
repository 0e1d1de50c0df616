#pragma once

#include "audio/ffmpeg/FfmpegHandles.h"
#include "audio/files/TrackFile.h"

#include <QString>
#include <cstdint>

namespace tavrel {

/// 16-bit big-endian PCM in an AIFF file, for where this FFmpeg cannot write AAC. Flushed every second, so
/// that a failed write shows within a second; every write is checked (`FfmpegError` with the system's reason).
/// After a failed write, `finish()` gives the header the length of what reached the disk, so that the file
/// reads up to there (the header is rewritten in place: it needs no room).
class AiffWriter : public TrackFile {
public:
    AiffWriter(const QString& path, int sampleRateHz, int channels);
    AiffWriter(const AiffWriter&) = delete;
    AiffWriter& operator=(const AiffWriter&) = delete;

    void write(const float* interleaved, int64_t frames, int64_t positionFrames) override;
    void finish() override;

private:
    void append(const float* interleaved, int64_t frames);
    void appendChecked(const float* interleaved, int64_t frames);
    void sealAfterFailure();

    QString m_path;
    AVFormatOutputPtr m_output;
    AVPacketPtr m_packet;
    int m_sampleRateHz;
    int m_channels;
    int64_t m_endFrames = 0;
    int64_t m_framesSinceFlush = 0;
    bool m_finished = false;
    bool m_failed = false;
};

} // namespace tavrel
