#pragma once

#include <cstdint>

namespace vesk {

/// The longest gap in the sound that is filled with silence: a minute. A longer one, say after the
/// machine slept or a clock jumped, is left open and the sound goes on at its capture time: the
/// memory for the silence stays bounded, and the writer keeps the track's time.
constexpr uint64_t kLongestSilence = 60'000'000;  // microseconds

/// Microseconds that `frames` last at `sampleRate` frames a second, which is not 0.
constexpr uint64_t soundDuration(uint64_t frames, uint32_t sampleRate) {
  return frames * 1'000'000 / sampleRate;
}

/// Says that a gap of `gap` microseconds was left open.
void reportOpenGap(uint64_t gap);

}  // namespace vesk
