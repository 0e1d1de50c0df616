#pragma once

// AAC in an .m4a file, written so that a crash loses at most about a quarter of a second.
//
//   M4aWriter writer(path, 44100, 1);            // opens the file; throws FfmpegError
//   writer.write(samples, frames);               // interleaved float frames, appended at the end
//   writer.write(samples, frames, positionFrames);
//       // placed at `positionFrames` (samples per channel since the file's start): a position past the end
//       // is filled with silence, frames before the end are dropped; a caller that wants a gap left out
//       // simply keeps its positions contiguous.
//   writer.finish();                             // ordinary .m4a: index at the front, exact duration
//
// While recording the file is a fragmented MP4 with a fragment flushed every quarter of a second, so that a
// killed process leaves a readable file; `finish()` rewrites it by stream copy into an ordinary .m4a
// (through a temporary name and a rename). `recoverInterruptedRecording()` does the same for a file that a
// crash left fragmented. One writer is used from one thread at a time.

#include "audio/ffmpeg/FfmpegHandles.h"

#include <QString>
#include <cstdint>
#include <optional>
#include <vector>

namespace tavrel {

class M4aWriter {
public:
    static constexpr int kFragmentIntervalMs = 250;

    M4aWriter(const QString& path, int sampleRateHz, int channels);
    /// An unfinished writer closes its fragments (the file stays readable, but fragmented).
    ~M4aWriter();
    M4aWriter(const M4aWriter&) = delete;
    M4aWriter& operator=(const M4aWriter&) = delete;

    void write(const float* interleaved, int64_t frameCount);
    void write(const float* interleaved, int64_t frameCount, int64_t positionFrames);
    /// Encodes what is left, closes the fragmented file and rewrites it as an ordinary .m4a. Throws FfmpegError;
    /// on failure the fragmented file stays in place. Further calls do nothing.
    void finish();

    const QString& path() const { return m_path; }
    int sampleRateHz() const { return m_sampleRateHz; }
    int channels() const { return m_channels; }
    /// The end of the timeline so far, in frames (what was written plus filled gaps).
    int64_t endFrames() const { return m_endFrames; }
    bool isFinished() const { return m_finished; }

private:
    void appendFrames(const float* interleaved, int64_t frameCount);
    void appendSilence(int64_t frameCount);
    void encodePending(bool flushAll);
    void sendFrame(const float* interleaved, int frames);
    void drainPackets();
    void closeFragmented();

    QString m_path;
    int m_sampleRateHz;
    int m_channels;
    AVFormatOutputPtr m_output;
    AVCodecContextPtr m_encoder;
    AVStream* m_stream = nullptr;
    AVFramePtr m_frame;
    AVPacketPtr m_packet;
    int m_frameSize = 1024;
    std::vector<float> m_pending; // interleaved frames not yet handed to the encoder
    int64_t m_endFrames = 0;
    int64_t m_encodedFrames = 0;
    int64_t m_lastFragmentPts = 0;
    bool m_closed = false;
    bool m_finished = false;
};

enum class RecoveryResult { untouched, recovered, failed };

/// Rewrites `path` as an ordinary .m4a when a crash left it fragmented; leaves any other file untouched.
/// Never throws.
RecoveryResult recoverInterruptedRecording(const QString& path);

/// Whether the file at `path` opens with an audio stream that holds at least one packet. Never throws.
bool holdsAudio(const QString& path);

/// Whether the MP4 file at `path` holds movie fragments (a recording that was not finished).
bool isFragmentedMp4(const QString& path);

/// Copies every audio packet of `source` into an ordinary .m4a at `destination` (index at the front),
/// through a temporary file in the same folder and an atomic rename. Throws FfmpegError. Returns the number
/// of packets copied; a source cut short is copied up to its last readable packet. `totalFrames`, when known,
/// gives the exact length (the last packet of a fragment loses its shortened duration).
int64_t remuxToPlainM4a(const QString& source, const QString& destination,
                        std::optional<int64_t> totalFrames = std::nullopt);

} // namespace tavrel
