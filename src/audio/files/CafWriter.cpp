#include "audio/files/CafWriter.h"

#include "core/Error.h"

#include <QFile>
#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <vector>

namespace tavrel {

namespace {

constexpr uint32_t kFlagIsFloat = 1;
constexpr uint32_t kFlagIsLittleEndian = 2;
constexpr int64_t kSilenceBlockFrames = 4096;

void putBigEndian(std::vector<unsigned char>& out, uint64_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i)
        out.push_back(static_cast<unsigned char>(value >> (8 * i)));
}

void putTag(std::vector<unsigned char>& out, const char* tag) {
    out.insert(out.end(), tag, tag + 4);
}

} // namespace

CafWriter::CafWriter(const QString& path, int sampleRateHz, int channels)
    : m_sampleRateHz(sampleRateHz), m_channels(channels) {
    static_assert(std::endian::native == std::endian::little, "samples are written in memory order");
    m_file.reset(std::fopen(QFile::encodeName(path).constData(), "wb"));
    if (!m_file)
        throw Error(QStringLiteral("Impossible de créer le fichier audio %1").arg(path));
    std::vector<unsigned char> header;
    putTag(header, "caff");
    putBigEndian(header, 1, 2); // version
    putBigEndian(header, 0, 2); // flags
    putTag(header, "desc");
    putBigEndian(header, 32, 8);
    putBigEndian(header, std::bit_cast<uint64_t>(static_cast<double>(sampleRateHz)), 8);
    putTag(header, "lpcm");
    putBigEndian(header, kFlagIsFloat | kFlagIsLittleEndian, 4);
    putBigEndian(header, static_cast<uint64_t>(4 * channels), 4); // bytes per packet
    putBigEndian(header, 1, 4);                                   // frames per packet
    putBigEndian(header, static_cast<uint64_t>(channels), 4);
    putBigEndian(header, 32, 4); // bits per channel
    putTag(header, "data");
    m_dataSizeOffset = static_cast<long>(header.size());
    putBigEndian(header, ~uint64_t{0}, 8); // -1: the data runs to the end of the file
    putBigEndian(header, 0, 4);            // edit count
    if (std::fwrite(header.data(), 1, header.size(), m_file.get()) != header.size())
        throw Error(QStringLiteral("Impossible d'écrire le fichier audio %1").arg(path));
    std::fflush(m_file.get());
}

CafWriter::~CafWriter() {
    finish();
}

void CafWriter::append(const float* interleaved, int64_t frames) {
    std::fwrite(interleaved, sizeof(float) * static_cast<size_t>(m_channels), static_cast<size_t>(frames),
                m_file.get());
    m_endFrames += frames;
    m_framesSinceFlush += frames;
    if (m_framesSinceFlush >= m_sampleRateHz / 4) { // at most a quarter of a second lost to a crash
        std::fflush(m_file.get());
        m_framesSinceFlush = 0;
    }
}

void CafWriter::write(const float* interleaved, int64_t frames, int64_t positionFrames) {
    if (!m_file || frames <= 0)
        return;
    if (positionFrames > m_endFrames) {
        const std::vector<float> silence(static_cast<size_t>(kSilenceBlockFrames * m_channels), 0.0f);
        for (int64_t missing = positionFrames - m_endFrames; missing > 0; missing -= kSilenceBlockFrames)
            append(silence.data(), std::min(missing, kSilenceBlockFrames));
    }
    const int64_t skip = std::min(frames, m_endFrames - positionFrames);
    if (skip > 0) {
        interleaved += skip * m_channels;
        frames -= skip;
    }
    append(interleaved, frames);
}

void CafWriter::finish() {
    if (!m_file)
        return;
    std::vector<unsigned char> size;
    putBigEndian(size, static_cast<uint64_t>(4 + m_endFrames * m_channels * 4), 8);
    if (std::fseek(m_file.get(), m_dataSizeOffset, SEEK_SET) == 0)
        std::fwrite(size.data(), 1, size.size(), m_file.get());
    m_file.reset();
}

} // namespace tavrel
