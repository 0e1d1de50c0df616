#include "audio/timeline/CaptureTrack.h"

#include "audio/files/TrackFile.h"
#include "core/Log.h"

#include <algorithm>

namespace tavrel {

CaptureTrack::CaptureTrack(std::unique_ptr<TrackFile> file, std::shared_ptr<const RecordingClock> clock,
                           Settings settings, CaptureEvents events, Meter meter)
    : m_file(std::move(file)), m_settings(std::move(settings)), m_events(std::move(events)), m_meter(std::move(meter)),
      m_timeline(std::move(clock), m_settings.sampleRateHz, m_settings.holeNs) {
    m_handOff = std::make_unique<SampleHandOff>(
        m_settings.channels, m_settings.bufferSeconds * m_settings.sampleRateHz,
        [this](const SampleHandOff::Chunk& chunk) { consume(chunk); },
        [this](std::exception_ptr failure) { onWriteFailure(std::move(failure)); }, m_settings.threadName);
}

CaptureTrack::~CaptureTrack() {
    // Whatever is queued still reaches the file; the file's own destructor leaves it readable.
    m_handOff->stop();
}

void CaptureTrack::consume(const SampleHandOff::Chunk& chunk) {
    const int64_t streamFrame = m_timeline.place(chunk.captureNs, chunk.frames, chunk.missingFrames);
    if (!chunk.samples || m_writeFailed.load(std::memory_order_relaxed))
        return;
    const auto channels = static_cast<int64_t>(m_settings.channels);
    m_timeline.toFile(streamFrame, chunk.frames, [&](int64_t position, int64_t offset, int64_t frames) {
        const float* part = chunk.samples + offset * channels;
        m_file->write(part, frames, position);
        m_framesWritten.fetch_add(frames, std::memory_order_relaxed);
        if (m_meter)
            m_meter(part, frames);
        watchSilence(part, frames);
    });
}

void CaptureTrack::watchSilence(const float* samples, int64_t frames) {
    const bool inUse = m_deviceInUse.load(std::memory_order_relaxed);
    const bool zeros = inUse && std::all_of(samples, samples + frames * m_settings.channels,
                                            [](float sample) { return sample == 0.0f; });
    if (!zeros) {
        m_zeroRunFrames = 0;
        if (m_silenceReported.exchange(false))
            report(CaptureEvent::Kind::silenceEnded);
        return;
    }
    m_zeroRunFrames += frames;
    if (!m_silenceReported.load() &&
        m_zeroRunFrames * 1'000'000'000 >= m_settings.silenceReportNs * m_settings.sampleRateHz) {
        m_silenceReported.store(true);
        logLine(m_settings.logPrefix + QStringLiteral(" Rien que du silence numérique, périphérique en service"));
        report(CaptureEvent::Kind::silenceStarted);
    }
}

void CaptureTrack::onWriteFailure(std::exception_ptr failure) {
    if (m_writeFailed.exchange(true))
        return;
    const QString reason = writeFailureReason(failure);
    logLine(m_settings.logPrefix + QStringLiteral(" Écriture impossible, la piste s'arrête : ") + reason);
    report(CaptureEvent::Kind::writeFailed, reason);
}

void CaptureTrack::report(CaptureEvent::Kind kind, const QString& detail) {
    if (m_events)
        m_events(CaptureEvent{kind, m_settings.side, detail});
}

void CaptureTrack::finish() {
    if (m_finished)
        return;
    m_finished = true;
    m_handOff->stop();
    const auto ms = [this](int64_t frames) { return frames * 1000 / m_settings.sampleRateHz; };
    logLine(m_settings.logPrefix + QStringLiteral(" Piste terminée : %1 échantillon(s) perdu(s), %2 ms de silence "
                                                  "ajoutés, %3 ms d'avance rattrapés")
                                       .arg(m_handOff->droppedFrames())
                                       .arg(ms(m_timeline.filledFrames()))
                                       .arg(ms(m_timeline.overlappedFrames())));
    m_file->finish();
}

} // namespace tavrel
