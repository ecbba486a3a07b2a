#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "platform/foundation/byte_reader.h"

namespace vesk {

/// Kinds of H.264 NAL units that matter here (ITU-T H.264, table 7-1).
enum NALUnitType : uint8_t {
  kNALUnitTypeIDRSlice = 5,
  kNALUnitTypeSPS = 7,
  kNALUnitTypePPS = 8,
};

/// The kind of a unit, from its first byte.
constexpr uint8_t nalUnitType(uint8_t header) {
  return header & 0x1F;
}

/// Steps through the units of a length-prefixed H.264 buffer and never past its end.
class NALUnitWalk {
 public:
  static constexpr size_t kLengthSize = 4;

  explicit NALUnitWalk(std::span<const uint8_t> stream) : mRest(stream) {}

  /// The next unit, its header byte first (no bytes at all for a length of 0). Nothing at the end of
  /// the buffer, and nothing where a length is cut off or runs past the end: the walk stops there.
  std::optional<std::span<const uint8_t>> next() {
    if (mRest.size() < kLengthSize) return std::nullopt;
    const size_t length = readBigEndian32(mRest.data());
    if (length > mRest.size() - kLengthSize) return std::nullopt;
    const auto unit = mRest.subspan(kLengthSize, length);
    mRest = mRest.subspan(kLengthSize + length);
    return unit;
  }

  /// Whether the units walked so far fill the buffer exactly.
  bool atEnd() const { return mRest.empty(); }

 private:
  std::span<const uint8_t> mRest;
};

}  // namespace vesk
