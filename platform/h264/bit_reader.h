#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace vesk::h264 {

/// Reads the bit fields and Exp-Golomb numbers of a NAL unit (ITU-T H.264, 7.2 and 9.1), past its emulation
/// prevention bytes. After the end, and after a number of more than 32 bits, everything is 0 and `good` is false.
class BitReader {
 public:
  /// @param skipped bytes before the first field; none of them for emulation prevention
  BitReader(std::span<const uint8_t> unit, size_t skipped) : mBytes(unit), mAt(skipped) {}

  bool good() const { return mGood; }

  uint32_t bits(uint32_t count) {
    uint32_t value = 0;
    for (uint32_t i = 0; i < count; ++i) value = value << 1 | bit();
    return value;
  }
  bool flag() { return bit() != 0; }
  uint32_t unsignedNumber() {
    uint32_t zeros = 0;
    while (mGood && bit() == 0) ++zeros;
    if (zeros > 31) mGood = false;
    if (!mGood) return 0;
    return (uint32_t{1} << zeros) - 1 + bits(zeros);
  }
  int32_t signedNumber() {
    const uint32_t code = unsignedNumber();
    return code & 1 ? static_cast<int32_t>(code / 2 + 1) : -static_cast<int32_t>(code / 2);
  }

 private:
  uint32_t bit() {
    const bool isPrevention = mBit == 0 && mAt >= 2 && mAt < mBytes.size() && mBytes[mAt] == 3 &&
                              mBytes[mAt - 1] == 0 && mBytes[mAt - 2] == 0;
    if (isPrevention) ++mAt;
    if (mAt >= mBytes.size()) {
      mGood = false;
      return 0;
    }
    const uint32_t value = mBytes[mAt] >> (7 - mBit) & 1U;
    mBit = (mBit + 1) % 8;
    if (mBit == 0) ++mAt;
    return value;
  }

  std::span<const uint8_t> mBytes;
  size_t mAt;
  uint32_t mBit = 0;
  bool mGood = true;
};

}  // namespace vesk::h264
