#pragma once

#include <cmath>

namespace tavrel {

/// Maps a level in dBFS linearly from -50...0 dB onto 0...1 (0 below -50, 1 at 0 and above).
constexpr float levelFromDecibels(float db) {
    if (db < -50.0f)
        return 0.0f;
    if (db >= 0.0f)
        return 1.0f;
    return (db + 50.0f) / 50.0f;
}

} // namespace tavrel
