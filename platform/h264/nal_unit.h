#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/foundation/byte_reader.h"

namespace vesk::h264 {

/// Types of NAL units that matter here (ITU-T H.264, table 7-1).
enum NALUnitType : uint8_t {
  kSlice = 1,
  kSlicePartitionA = 2,
  kIDRSlice = 5,
  kSequenceParameterSet = 7,
  kPictureParameterSet = 8,
  kAccessUnitDelimiter = 9,
};

/// The type of a unit, from its header byte.
constexpr uint8_t unitType(uint8_t header) {
  return header & 0x1F;
}

/// Steps through the units of a length-prefixed buffer, as movies hold them (ISO/IEC 14496-15, 5.3.4.2), and
/// never past its end.
class NALUnitWalk {
 public:
  static constexpr size_t kLengthSize = 4;

  /// @param lengthSize bytes of a length field: 1, 2 or 4
  explicit NALUnitWalk(std::span<const uint8_t> buffer, size_t lengthSize = kLengthSize)
      : mRest(buffer), mLengthSize(lengthSize) {}

  /// The next unit, its header byte first (no bytes at all for a length of 0). Nothing at the end of
  /// the buffer, and nothing where a length is cut off or runs past the end: the walk stops there.
  std::optional<std::span<const uint8_t>> next() {
    if (mRest.size() < mLengthSize) return std::nullopt;
    const size_t length = readLength();
    if (length > mRest.size() - mLengthSize) return std::nullopt;
    const auto unit = mRest.subspan(mLengthSize, length);
    mRest = mRest.subspan(mLengthSize + length);
    return unit;
  }

  /// Whether the units walked so far fill the buffer exactly.
  bool atEnd() const { return mRest.empty(); }

 private:
  size_t readLength() const {
    if (mLengthSize == kLengthSize) return readBigEndian32(mRest.data());
    return mLengthSize == 2 ? size_t{mRest[0]} << 8 | mRest[1] : mRest[0];
  }

  std::span<const uint8_t> mRest;
  size_t mLengthSize;
};

/// The first unit of a type in a buffer with lengths of four bytes; none when a length runs past the end before
/// it. Empty units are passed over.
inline std::optional<std::span<const uint8_t>> findUnit(uint8_t type, std::span<const uint8_t> buffer) {
  NALUnitWalk walk(buffer);
  while (const auto unit = walk.next())
    if (!unit->empty() && unitType(unit->front()) == type) return unit;
  return std::nullopt;
}

/// Appends a unit after its length of four bytes.
inline void appendUnit(std::vector<uint8_t>& buffer, std::span<const uint8_t> unit) {
  const size_t at = buffer.size();
  buffer.resize(at + NALUnitWalk::kLengthSize);
  writeBigEndian32(buffer.data() + at, static_cast<uint32_t>(unit.size()));
  buffer.insert(buffer.end(), unit.begin(), unit.end());
}

}  // namespace vesk::h264
