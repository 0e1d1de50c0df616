#pragma once

// A mono AAC .m4a encoded on several threads: the timeline is cut into segments that separate encoders
// encode at the same time, and their packets are joined, in order, into one track.
//
//   ParallelM4aWriter writer(path, 44100);   // opens the file; throws FfmpegError
//   writer.write(samples, frames);           // mono float, in any amounts, from one thread
//   writer.finish();                         // waits for the encoders; index at the end, exact duration
//
// An AAC packet is a windowed transform over its own frame and the one before, so a segment's encoder starts
// a few frames early on the audio before its segment and those packets are dropped. Two encoders may still
// pick different window shapes for the same frame; segments are joined only where both chose the same
// window for the frame before the join, so that the decoder's overlap-add sees one consistent stream and
// the join sounds like any other frame boundary. A segment also runs a few frames past its end, which gives
// the join room to move.

#include "audio/ffmpeg/FfmpegHandles.h"

#include <QString>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace tavrel {

class ParallelM4aWriter {
public:
    struct Tuning {
        /// Audio per segment, in frames, rounded up to whole AAC frames (1024) and at least 16 of them. Long
        /// segments keep the share of doubly encoded audio small (19 frames per segment), short ones spread a
        /// short file over the threads.
        int64_t segmentFrames = 1024 * 1292; // about 30 s at 44.1 kHz
        /// Encoder threads; 0 means one per hardware thread.
        int threads = 0;
    };

    ParallelM4aWriter(const QString& path, int sampleRateHz, int bitRate, Tuning tuning);
    ParallelM4aWriter(const QString& path, int sampleRateHz, int bitRate);
    /// Stops the encoders; an unfinished file is left incomplete.
    ~ParallelM4aWriter();
    ParallelM4aWriter(const ParallelM4aWriter&) = delete;
    ParallelM4aWriter& operator=(const ParallelM4aWriter&) = delete;

    void write(const float* samples, int64_t frameCount);
    /// Encodes what is left and closes the file. Throws FfmpegError (also for an encoder that failed earlier).
    void finish();

private:
    struct Segment;

    void submitCurrent(bool last);
    void workerLoop();
    void encodeSegment(Segment& segment) const;
    void takeFinished(bool waitForAll);
    void join(Segment& next);
    void writePackets(Segment& segment, int64_t fromPts, int64_t toPts);

    int m_sampleRateHz;
    int m_bitRate;
    Tuning m_tuning;
    AVFormatOutputPtr m_output;
    AVStream* m_stream = nullptr;

    std::unique_ptr<Segment> m_filling;              // the segment being fed, not yet handed to an encoder
    std::deque<std::shared_ptr<Segment>> m_inFlight; // handed over, in timeline order
    std::shared_ptr<Segment> m_held;                 // encoded, its tail waiting for the next segment's join
    int64_t m_writtenUntilPts = INT64_MIN;
    bool m_finished = false;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::shared_ptr<Segment>> m_queue; // waiting for a free encoder thread
    bool m_stopping = false;
    std::vector<std::thread> m_workers; // last: they start once everything above exists
};

} // namespace tavrel
