#include "platform/metering/channel_squares.h"

#include <algorithm>
#include <cstring>

namespace vesk {
namespace {

/// Fits 32 bits, so that the compiler can take several at once.
uint32_t squareAt(const uint8_t* samples, size_t index) {
  int16_t sample = 0;
  std::memcpy(&sample, samples + index * sizeof(sample), sizeof(sample));
  const int32_t wide = sample;
  return static_cast<uint32_t>(wide * wide);
}

uint64_t ofOne(const uint8_t* samples, size_t count) {
  uint64_t sum = 0;
  for (size_t i = 0; i < count; ++i) sum += squareAt(samples, i);
  return sum;
}

ChannelSquares ofPair(const uint8_t* samples, size_t frames) {
  uint64_t left = 0;
  uint64_t right = 0;
  for (size_t i = 0; i < frames; ++i) {
    left += squareAt(samples, 2 * i);
    right += squareAt(samples, 2 * i + 1);
  }
  return {left, right};
}

}  // namespace

ChannelSquares channelSquares(const uint8_t* samples, size_t frames, uint32_t channels) {
  if (channels == 1) return {ofOne(samples, frames)};
  if (channels == 2) return ofPair(samples, frames);
  ChannelSquares sums{};
  const uint32_t measured = std::min(channels, kMostMeasuredChannels);
  for (size_t frame = 0; frame < frames; ++frame)
    for (uint32_t channel = 0; channel < measured; ++channel)
      sums[channel] += squareAt(samples, frame * channels + channel);
  return sums;
}

}  // namespace vesk
