#pragma once

#include "audio/files/TrackFile.h"

#include <QString>
#include <cstdint>
#include <cstdio>
#include <memory>

namespace tavrel {

/// Uncompressed 32-bit float PCM in a Core Audio Format file, written as it comes.
///
/// The data chunk is declared "to the end of the file" until `finish()` writes its size, so a file cut
/// short by a crash stays readable up to the last quarter of a second flushed. Every write, flush and seek is
/// checked: a failure throws `FileWriteError` and leaves the file readable up to what reached the disk.
class CafWriter : public TrackFile {
public:
    /// Creates the file; throws `FileWriteError` when it cannot be written.
    CafWriter(const QString& path, int sampleRateHz, int channels);
    ~CafWriter() override;
    CafWriter(const CafWriter&) = delete;
    CafWriter& operator=(const CafWriter&) = delete;

    void write(const float* interleaved, int64_t frames, int64_t positionFrames) override;
    /// Writes the data size and closes the file. Further calls do nothing.
    void finish() override;

    int64_t endFrames() const { return m_endFrames; }
    int sampleRateHz() const { return m_sampleRateHz; }
    int channels() const { return m_channels; }

private:
    struct FileCloser {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    void append(const float* interleaved, int64_t frames);
    [[noreturn]] void fail(const char* what, int errorNumber) const;

    QString m_path;
    std::unique_ptr<std::FILE, FileCloser> m_file;
    int m_sampleRateHz;
    int m_channels;
    int64_t m_endFrames = 0;
    int64_t m_framesSinceFlush = 0;
    long m_dataSizeOffset = 0;
};

} // namespace tavrel
