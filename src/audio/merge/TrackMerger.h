#pragma once

#include "audio/ffmpeg/FfmpegHandles.h"
#include "audio/merge/EchoCanceller.h"
#include "audio/merge/ParallelM4aWriter.h"

#include <QCoro/QCoroTask>
#include <QString>
#include <QStringList>

namespace tavrel {

/// A track that opened but could not be read to its end: a damaged or cut-short file (`path`).
class DamagedTrackError : public FfmpegError {
public:
    DamagedTrackError(QString path, const QString& problem)
        : FfmpegError(QStringLiteral("Piste audio endommagée (%1) : %2").arg(path.section(u'/', -1), problem)),
          m_path(std::move(path)) {}
    const QString& path() const { return m_path; }

private:
    QString m_path;
};

/// Mixes the microphone file and the system-audio files into one AAC `.m4a` in the temporary directory
/// ("tavrel_merged_<T>.m4a"), every input starting at time zero at unit gain; the result lasts as long as
/// the longest input. Where the microphone heard the speakers, the far end is first removed from it (see
/// EchoCanceller), with the system tracks as the reference. Runs off the calling thread; logs one line on
/// the echo it found.
///
/// Throws `SystemAudioFailure(mergeFailed)` when the microphone file holds no audio stream, and the
/// `FfmpegError` of the step when the microphone cannot be read or the output cannot be written. A system
/// file that cannot be opened or holds no audio is left out (and logged). Any input that opens but breaks
/// part-way, or ends before the length its container states, throws `DamagedTrackError`: a side is never
/// cut short in silence.
QCoro::Task<QString> mergeAudioFiles(QString mic, QStringList systems);

/// The program always removes the echo; benchmarks compare with the plain sum.
enum class EchoRemoval { automatic, off };

/// The blocking body of `mergeAudioFiles`, writing to `outputPath` (for tests and benchmarks, which may also
/// choose how the encoding is cut into segments). Returns what was found of the far end in the microphone.
EchoCanceller::Report mergeAudioFilesInto(const QString& mic, const QStringList& systems, const QString& outputPath,
                                          const ParallelM4aWriter::Tuning& encoding = {},
                                          EchoRemoval echoRemoval = EchoRemoval::automatic);

/// The format of the mix: speech for transcription, so one channel; see TrackMerger.cpp.
inline constexpr int kMergedSampleRateHz = 44100;
inline constexpr int kMergedChannels = 1;

} // namespace tavrel
