#pragma once

#include <cstdint>

namespace vesk {

// Silence that fills a gap lies in one sample, so it is bounded. A longer gap, say after the machine
// slept or a clock jumped, is left open and the sound goes on at its capture time: the writer keeps
// the track's time.

/// The longest gap that packets of AAC fill: an hour.
constexpr uint64_t kLongestSilence = 3'600'000'000;  // microseconds
/// Bytes of PCM silence in one sample: almost six minutes of 48 kHz stereo.
constexpr uint64_t kMostSilentBytes = uint64_t{64} << 20;

/// Microseconds that `frames` last at `sampleRate` frames a second, which is not 0.
constexpr uint64_t soundDuration(uint64_t frames, uint32_t sampleRate) {
  return frames * 1'000'000 / sampleRate;
}

/// Says that a gap of `gap` microseconds was left open.
void reportOpenGap(uint64_t gap);

}  // namespace vesk
