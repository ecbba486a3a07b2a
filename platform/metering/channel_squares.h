#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vesk {

constexpr uint32_t kMostMeasuredChannels = 8;
/// One for each channel; those beyond are not measured.
using ChannelSquares = std::array<uint64_t, kMostMeasuredChannels>;

/// The sums of the squares of interleaved 16-bit samples, which need not be aligned.
ChannelSquares channelSquares(const uint8_t* samples, size_t frames, uint32_t channels);

}  // namespace vesk
