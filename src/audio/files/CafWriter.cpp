#include "audio/files/CafWriter.h"

#include "core/Error.h"

#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
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
    : m_path(path), m_sampleRateHz(sampleRateHz), m_channels(channels) {
    static_assert(std::endian::native == std::endian::little, "samples are written in memory order");
    m_file.reset(std::fopen(QFile::encodeName(path).constData(), "wb"));
    if (!m_file)
        fail("Impossible de créer le fichier audio", errno);
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
    if (std::fwrite(header.data(), 1, header.size(), m_file.get()) != header.size() || std::fflush(m_file.get()) != 0)
        fail("Impossible d'écrire le fichier audio", errno);
}

CafWriter::~CafWriter() {
    try {
        finish();
    } catch (const Error&) {
        // The data chunk stays open-ended: readers take the file to its end.
    }
}

void CafWriter::fail(const char* what, int errorNumber) const {
    throw FileWriteError(QStringLiteral("%1 %2 : %3")
                             .arg(QString::fromUtf8(what), QFileInfo(m_path).fileName(),
                                  QString::fromLocal8Bit(std::strerror(errorNumber))),
                         errorNumber);
}

void CafWriter::append(const float* interleaved, int64_t frames) {
    errno = 0;
    const size_t written = std::fwrite(interleaved, sizeof(float) * static_cast<size_t>(m_channels),
                                       static_cast<size_t>(frames), m_file.get());
    m_endFrames += static_cast<int64_t>(written);
    if (written != static_cast<size_t>(frames))
        fail("Écriture audio impossible dans", errno ? errno : EIO);
    m_framesSinceFlush += frames;
    if (m_framesSinceFlush >= m_sampleRateHz / 4) { // at most a quarter of a second lost to a crash
        m_framesSinceFlush = 0;
        if (std::fflush(m_file.get()) != 0)
            fail("Écriture audio impossible dans", errno);
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
    // Whatever happens below, the handle goes: a second finish has nothing left to do.
    std::unique_ptr<std::FILE, FileCloser> file = std::move(m_file);
    if (std::fflush(file.get()) != 0)
        fail("Écriture audio impossible dans", errno);
    std::vector<unsigned char> size;
    putBigEndian(size, static_cast<uint64_t>(4 + m_endFrames * m_channels * 4), 8);
    if (std::fseek(file.get(), m_dataSizeOffset, SEEK_SET) != 0)
        fail("Déplacement impossible dans", errno);
    if (std::fwrite(size.data(), 1, size.size(), file.get()) != size.size() || std::fflush(file.get()) != 0)
        fail("Écriture audio impossible dans", errno ? errno : EIO);
    if (std::fclose(file.release()) != 0) // the handle is gone even when closing fails
        fail("Écriture audio impossible dans", errno);
}

} // namespace tavrel
