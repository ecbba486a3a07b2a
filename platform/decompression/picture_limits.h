#pragma once

#include <cstddef>
#include <cstdint>

namespace vesk {

// Largest pictures that are decoded. A damaged header may claim any size; what it claims costs memory
// and time before the first bad byte is met.
constexpr uint32_t kMostPixelsASide = 16384;
constexpr uint64_t kMostPixels = uint64_t{1} << 26;  ///< 67 million: twice what 8K video has

constexpr bool isDecodableSize(uint64_t width, uint64_t height) {
  return width > 0 && height > 0 && width <= kMostPixelsASide && height <= kMostPixelsASide &&
         width * height <= kMostPixels;
}

}  // namespace vesk
