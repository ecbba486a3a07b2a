#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <vesk/error.h>
#include <vesk/export.h>

namespace vesk {

/// A bitmap of red, green, blue and alpha, 8 bits each, colours premultiplied with alpha; without
/// padding, the top row first. Immutable, for any thread.
class VESK_EXPORT CGImage {
 public:
  /// Null when the bytes do not fit the size.
  static std::shared_ptr<const CGImage> create(int32_t width, int32_t height, std::vector<uint8_t> pixels);

  int32_t width() const { return mWidth; }
  int32_t height() const { return mHeight; }
  size_t bytesPerRow() const { return static_cast<size_t>(mWidth) * 4; }
  const std::vector<uint8_t>& pixels() const { return mPixels; }

  CGImage(int32_t width, int32_t height, std::vector<uint8_t> pixels)
      : mWidth(width), mHeight(height), mPixels(std::move(pixels)) {}

 private:
  int32_t mWidth;
  int32_t mHeight;
  std::vector<uint8_t> mPixels;
};

using CGImageRef = std::shared_ptr<const CGImage>;

/// The first picture of a plain image file, of any kind that gdk-pixbuf reads. Null when the file
/// cannot be read, is damaged or cut off, or holds more than `kMostImagePixels` pixels; `why` (may be
/// null) then tells.
constexpr int64_t kMostImagePixels = int64_t{1} << 26;
VESK_EXPORT CGImageRef CGImageCreateWithFile(const std::string& path, Error* why = nullptr);

}  // namespace vesk
