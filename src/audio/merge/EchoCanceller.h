#pragma once

// Removes from the microphone track the far end that the microphone heard from the speakers, with the
// system audio (what was played) as the reference. Without a headset the other party's voice reaches the
// microphone a few tens of milliseconds late; summed with the clean system track it would be heard twice.
//
//   EchoCanceller canceller(44100);
//   canceller.push(mic, farEnd, frames);     // the same stretch of time on both, in order from time zero
//   frames = canceller.pull(out, capacity);  // the cleaned microphone, in order from time zero
//   canceller.finish();                      // after the last push; pull then drains the rest
//
// The output is exactly as long as the microphone input and lines up with it sample for sample. Where the
// microphone does not hear the system audio (a headset, nothing played), and where the far end has been
// silent for a second (the user talking alone), the output is the input unchanged, bit for bit: the
// canceller only takes over where it found the far end in the microphone.
//
// Inside: both streams are taken down to 16 kHz, where WebRTC's echo canceller works best and fastest; a
// delay estimator (phase-transform cross-correlation, a few seconds ahead of the canceller) finds whether
// the microphone holds the far end and how late, and tells the canceller that delay. The cleaned 16 kHz
// microphone is brought back to the track's rate; it replaces the original only where echo was found.

#include <cstdint>
#include <memory>

namespace tavrel {

class EchoCanceller {
public:
    struct Report {
        bool echoFound = false;
        /// Energy taken out of the microphone where echo was found and the far end was playing.
        double removedDb = 0.0;
        /// The last acoustic delay found between the far end and its echo.
        double delayMs = 0.0;
    };

    /// Throws `Error` when the canceller cannot be set up.
    explicit EchoCanceller(int sampleRateHz);
    ~EchoCanceller();
    EchoCanceller(const EchoCanceller&) = delete;
    EchoCanceller& operator=(const EchoCanceller&) = delete;

    void push(const float* mic, const float* farEnd, int64_t frames);
    /// No more input: everything pushed can now be pulled.
    void finish();
    /// Moves up to `capacity` cleaned samples into `out`; returns how many (0 when none is ready yet).
    int64_t pull(float* out, int64_t capacity);

    Report report() const;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl; // keeps WebRTC's headers, and the defines they need, out of every includer
};

} // namespace tavrel
