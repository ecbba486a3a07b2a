#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace vesk::h264 {

/// The place of the next start code 00 00 01 at or after `from`; `stream.size()` when there is none. Four-byte
/// start codes are found by their last three bytes.
size_t findStartCode(std::span<const uint8_t> stream, size_t from);

/// Steps through the units of a byte stream (ITU-T H.264, annex B) with start codes of any length. The zero
/// bytes between a unit and the next start code belong to neither, and units of zero bytes alone are passed over.
class ByteStreamWalk {
 public:
  explicit ByteStreamWalk(std::span<const uint8_t> stream) : mStream(stream), mCode(findStartCode(stream, 0)) {}

  /// The next unit, its header byte first; nothing at the end.
  std::optional<std::span<const uint8_t>> next() {
    while (mCode < mStream.size()) {
      const size_t begin = mCode + kCodeSize;
      mCode = findStartCode(mStream, begin);
      size_t end = mCode;
      while (end > begin && mStream[end - 1] == 0) --end;
      if (end > begin) return mStream.subspan(begin, end - begin);
    }
    return std::nullopt;
  }

 private:
  static constexpr size_t kCodeSize = 3;

  std::span<const uint8_t> mStream;
  size_t mCode;  ///< the start code before the next unit
};

}  // namespace vesk::h264
