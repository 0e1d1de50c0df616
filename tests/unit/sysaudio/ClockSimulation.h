#pragma once

// A recording of simulated device clocks fed through the real CaptureTimeline: each side's device runs at its own
// rate, delivers chunks late by scheduling jitter, goes silent (an idle output sends nothing) or loses chunks to
// a full hand-off; the recording pauses. A click sounds on every side at the same real times; where each side's
// file holds it tells how well the tracks line up.

#include <utility>
#include <vector>

namespace tavrel::test {

struct SimulatedSide {
    double clockRatio = 1.0; ///< device frames per frame of real time (1.0001: 100 ppm fast)
    int chunkMs = 20;
    int jitterMaxMs = 10;                                   ///< each chunk arrives late by up to this
    std::vector<std::pair<double, double>> silentStretches; ///< seconds [from, to) without any data
    int dropEveryChunks = 0; ///< one chunk in this many is lost in the hand-off (and reported as missing)
};

struct SimulatedRecording {
    double durationS = 3600.0;
    std::vector<std::pair<double, double>> pauses; ///< seconds of real time [from, to)
    double clickEveryS = 10.0;
};

/// How a track is built from what arrives.
enum class TrackBuilding {
    timeline,   ///< placed by capture time on the recording's clock (what every track does)
    appendOnly, ///< appended as it comes, paused chunks dropped (what a naive recorder does)
};

/// Where each click (every `clickEveryS` of real time, outside pauses) lands in the side's file, in seconds;
/// a negative value where the side delivered nothing at that moment.
std::vector<double> simulatedClickPositions(const SimulatedSide& side, const SimulatedRecording& recording,
                                            int sampleRateHz = 48000, TrackBuilding building = TrackBuilding::timeline);
/// Where each click belongs: its time less the paused time before it.
std::vector<double> expectedClickPositions(const SimulatedRecording& recording);

} // namespace tavrel::test
