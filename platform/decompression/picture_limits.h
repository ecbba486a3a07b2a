#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "platform/decompression/image_description.h"

namespace vesk {

// Largest pictures that are decoded. A damaged header may claim any size, and what it claims costs
// memory and time before the first bad byte is met.
constexpr uint32_t kMostPixelsASide = 16384;
constexpr uint64_t kMostPixels = uint64_t{1} << 26;             ///< 67 million: twice what 8K video has
constexpr uint64_t kMostPixelsUndescribed = uint64_t{1} << 24;  ///< 17 million: twice what 4K video has

constexpr bool isDecodableSize(uint64_t width, uint64_t height, uint64_t mostPixels = kMostPixels) {
  return width > 0 && height > 0 && width <= kMostPixelsASide && height <= kMostPixelsASide &&
         width * height <= mostPixels;
}

/// Most pixels of a picture in a stream, which may be of another size than its description says:
/// four times the described pixels, and kMostPixelsUndescribed in any case.
inline uint64_t mostPixelsFor(const ImageDescription& description) {
  const uint64_t described =
      uint64_t{description.get(ImageDescription::kWidth)} * description.get(ImageDescription::kHeight);
  return std::clamp(4 * described, kMostPixelsUndescribed, kMostPixels);
}

}  // namespace vesk
