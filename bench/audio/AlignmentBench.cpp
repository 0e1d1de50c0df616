// How far apart the two sides of a recording drift after a simulated hour: a click every 10 s on both sides, the
// microphone's device clock 100 ppm fast with 40 ms chunks, the output's 100 ppm slow with 20 ms chunks, both
// delivering late by up to 30 ms, losing chunks now and then, the output idle for stretches, and two pauses.
// Our tracks (every chunk placed on the recording's clock) against the same chunks appended as they come, in the
// same run.
//
//   bench_audio_alignment [minutes, default 60]

#include "ClockSimulation.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace {

using namespace tavrel::test;

struct Errors {
    double worstMs = 0.0;
    double atEndMs = 0.0;
};

Errors compare(const std::vector<double>& mic, const std::vector<double>& sys, const std::vector<double>& expected) {
    Errors errors;
    for (size_t i = 0; i < expected.size(); ++i) {
        if (mic[i] < 0.0 || sys[i] < 0.0)
            continue;
        const double gapMs = 1000.0 * std::max({std::abs(mic[i] - sys[i]), std::abs(mic[i] - expected[i]),
                                                std::abs(sys[i] - expected[i])});
        errors.worstMs = std::max(errors.worstMs, gapMs);
        errors.atEndMs = gapMs;
    }
    return errors;
}

} // namespace

int main(int argc, char** argv) {
    const double minutes = argc > 1 ? std::max(1.0, std::atof(argv[1])) : 60.0;
    SimulatedRecording recording;
    recording.durationS = 60.0 * minutes;
    recording.pauses = {{recording.durationS / 3, recording.durationS / 3 + 60.0},
                        {2 * recording.durationS / 3, 2 * recording.durationS / 3 + 3.0}};
    const SimulatedSide microphone{1.0001, 40, 30, {{100, 102}}, 97};
    const SimulatedSide output{
        0.9999, 20, 30, {{600, 1200}, {recording.durationS - 300, recording.durationS - 299}}, 211};
    const std::vector<double> expected = expectedClickPositions(recording);
    const Errors ours =
        compare(simulatedClickPositions(microphone, recording), simulatedClickPositions(output, recording), expected);
    const Errors appended =
        compare(simulatedClickPositions(microphone, recording, 48000, TrackBuilding::appendOnly),
                simulatedClickPositions(output, recording, 48000, TrackBuilding::appendOnly), expected);
    std::printf("alignment after %.0f simulated minutes (drift, late chunks, drop-outs, idle output, 2 pauses)\n",
                minutes);
    std::printf("  ours: worst %8.1f ms, last click %8.1f ms (goal <= 40 ms)\n", ours.worstMs, ours.atEndMs);
    std::printf("  chunks appended as they come: worst %8.1f ms, last click %8.1f ms (reference)\n", appended.worstMs,
                appended.atEndMs);
    if (appended.worstMs > 0)
        std::printf("  ratio ours / reference: %.2e\n", ours.worstMs / appended.worstMs);
    return 0;
}
