#pragma once

#include <cstdint>
#include <vector>

#include <vesk/ci_image.h>

namespace vesk::test {

/// Width of the pictures whose uploads are counted: of no other texture in a window.
constexpr int32_t kWidth = 203;
constexpr int32_t kHeight = 151;

/// Pixels of a framebuffer or a screen: three bytes each, the top row first.
struct Pixels {
  Pixels() = default;
  Pixels(int32_t wide, int32_t high)
      : width(wide), height(high), bytes(static_cast<size_t>(wide) * static_cast<size_t>(high) * 3) {}

  uint8_t* at(int32_t x, int32_t y) {
    return bytes.data() + (static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)) * 3;
  }
  int middle() { return width == 0 ? -1 : *at(width / 2, height / 2); }

  int32_t width = 0;
  int32_t height = 0;
  std::vector<uint8_t> bytes;
};

/// A picture of one level of gray.
CIImageRef gray(int level);
CIImageRef noise(int32_t width, int32_t height);

/// What is in the framebuffer that is bound. Fails the test when there is a GL error.
Pixels readFramebuffer(const NSRect& frame);
/// What the X server shows, from the upper left corner.
Pixels readScreen(int32_t width, int32_t height);

/// Whether the picture is there unscaled, in the middle of these pixels.
bool isExact(Pixels shown, const CIImageRef& picture);

/// Uploads of pictures that are kWidth wide, since countUploads. Call that after the first drawing, when the library
/// has found the function.
extern int gUploads;
void countUploads();

}  // namespace vesk::test
