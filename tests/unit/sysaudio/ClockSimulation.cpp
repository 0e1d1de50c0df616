#include "ClockSimulation.h"

#include "audio/timeline/CaptureTimeline.h"

#include <cmath>
#include <random>

namespace tavrel::test {

namespace {

constexpr int64_t kOriginNs = 1'000'000'000;

bool inside(const std::vector<std::pair<double, double>>& stretches, double seconds) {
    for (const auto& [from, to] : stretches)
        if (seconds >= from && seconds < to)
            return true;
    return false;
}

std::vector<double> clickTimes(const SimulatedRecording& recording) {
    std::vector<double> times;
    for (double t = recording.clickEveryS; t < recording.durationS; t += recording.clickEveryS)
        if (!inside(recording.pauses, t))
            times.push_back(t);
    return times;
}

} // namespace

std::vector<double> expectedClickPositions(const SimulatedRecording& recording) {
    std::vector<double> positions;
    for (double t : clickTimes(recording)) {
        double paused = 0.0;
        for (const auto& [from, to] : recording.pauses)
            if (to <= t)
                paused += to - from;
        positions.push_back(t - paused);
    }
    return positions;
}

std::vector<double> simulatedClickPositions(const SimulatedSide& side, const SimulatedRecording& recording,
                                            int sampleRateHz, TrackBuilding building) {
    auto clock = std::make_shared<RecordingClock>(kOriginNs);
    for (const auto& [from, to] : recording.pauses) {
        clock->pause(kOriginNs + static_cast<int64_t>(from * 1e9));
        clock->resume(kOriginNs + static_cast<int64_t>(to * 1e9));
    }
    CaptureTimeline timeline(clock, sampleRateHz);
    std::mt19937 random(11);
    std::uniform_int_distribution<int64_t> jitter(0, int64_t{side.jitterMaxMs} * 1'000'000);

    const std::vector<double> clicks = clickTimes(recording);
    std::vector<double> positions(clicks.size(), -1.0);
    size_t nextClick = 0;
    const int64_t chunkFrames = int64_t{sampleRateHz} * side.chunkMs / 1000;
    const double deviceRate = sampleRateHz * side.clockRatio;
    int64_t missing = 0;
    int64_t appended = 0;
    for (int64_t chunk = 0;; ++chunk) {
        const double startS = static_cast<double>(chunk * chunkFrames) / deviceRate;
        const double endS = static_cast<double>((chunk + 1) * chunkFrames) / deviceRate;
        if (startS >= recording.durationS)
            break;
        // Clicks of this chunk, if it reaches the timeline at all.
        const size_t firstClick = nextClick;
        while (nextClick < clicks.size() && clicks[nextClick] < endS)
            ++nextClick;
        if (inside(side.silentStretches, startS))
            continue;
        if (side.dropEveryChunks > 0 && chunk % side.dropEveryChunks == side.dropEveryChunks - 1) {
            missing += chunkFrames;
            continue;
        }
        const int64_t captureNs = kOriginNs + static_cast<int64_t>(startS * 1e9) + jitter(random);
        if (building == TrackBuilding::appendOnly) {
            if (inside(recording.pauses, startS))
                continue;
            for (size_t click = firstClick; click < nextClick; ++click)
                positions[click] =
                    static_cast<double>(appended) / sampleRateHz + (clicks[click] - startS) * side.clockRatio;
            appended += chunkFrames;
            continue;
        }
        const int64_t streamFrame = timeline.place(captureNs, chunkFrames, std::exchange(missing, 0));
        timeline.toFile(streamFrame, chunkFrames, [&](int64_t position, int64_t offset, int64_t frames) {
            for (size_t click = firstClick; click < nextClick; ++click) {
                const auto inChunk = static_cast<int64_t>(std::floor((clicks[click] - startS) * deviceRate));
                if (inChunk >= offset && inChunk < offset + frames)
                    positions[click] = static_cast<double>(position + inChunk - offset) / sampleRateHz;
            }
        });
    }
    return positions;
}

} // namespace tavrel::test
