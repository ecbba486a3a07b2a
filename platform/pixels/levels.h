#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

/// Y'CbCr between the full range (0 to 255, as JPEG has it) and that of video (luma 16 to 235, colour 16 to 240). All
/// of it in 16 bits, so that the compiler does many at once.
namespace vesk {

/// Full-range values become those of video: (value * gain + base) / 255, rounded.
struct Squeezing {
  uint16_t gain;
  uint16_t base;
};
constexpr Squeezing kLumaSqueezing{219, 16 * 255};
constexpr Squeezing kChromaSqueezing{224, 128 * (255 - 224)};

/// The sum with its half is 61,216 at most, and n / 255 is (n + n / 256) / 256 then.
constexpr uint8_t squeezed(uint8_t value, Squeezing by) {
  const auto sum = static_cast<uint16_t>(value * by.gain + by.base + 128);
  return static_cast<uint8_t>(static_cast<uint16_t>(sum + (sum >> 8)) >> 8);
}

/// Even bytes by `even`, odd ones by `odd`. `from` and `to` may be the same.
template <Squeezing even, Squeezing odd = even>
void squeezeRow(const uint8_t* from, uint8_t* to, int count) {
  constexpr int kBlock = 64;  // of a fixed length, for vectors also where rows overlap
  for (; count >= kBlock; count -= kBlock, from += kBlock, to += kBlock) {
    uint8_t block[kBlock];
    for (int at = 0; at < kBlock; at += 2) {
      block[at] = squeezed(from[at], even);
      block[at + 1] = squeezed(from[at + 1], odd);
    }
    std::memcpy(to, block, sizeof block);
  }
  for (int at = 0; at < count; ++at) to[at] = squeezed(from[at], at % 2 == 0 ? even : odd);
}

/// Values of video become full-range ones: what is above 16, times factor / 128, with `half` for rounding.
struct Widening {
  uint16_t factor;
  uint16_t half;
};
constexpr Widening kLumaWidening{149, 64};
constexpr Widening kChromaWidening{146, 96};  // 128 stays where it is

template <Widening by>
void widenRow(const uint8_t* __restrict from, uint8_t* __restrict to, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    const auto above = static_cast<uint8_t>(std::max<uint8_t>(from[i], 16) - 16);
    const auto product = static_cast<uint16_t>(above * by.factor + by.half);
    to[i] = static_cast<uint8_t>(std::min<int16_t>(static_cast<int16_t>(product >> 7), 255));
  }
}

}  // namespace vesk
