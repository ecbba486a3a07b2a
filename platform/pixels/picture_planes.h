#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

#include <vesk/pixel_buffer.h>

namespace vesk {

/// A picture's planes, wherever they lie; the same layouts as CVPixelBuffer's.
struct PicturePlanes {
  int32_t width = 0;
  int32_t height = 0;
  uint32_t pixelFormat = 0;
  CVPixelBuffer::Planes planes;
  YCbCrColour colour;
};

/// The planes of a buffer, which must outlive them.
PicturePlanes planesOf(const CVPixelBuffer& buffer);

/// Memory that is used again for the next picture, grown when that needs more.
class ScratchMemory {
 public:
  /// At least `size` bytes, what they hold undefined; null when memory is short.
  uint8_t* reserve(size_t size) {
    if (size > mSize) {
      mBytes.reset(new (std::nothrow) uint8_t[size]);
      mSize = mBytes ? size : 0;
    }
    return mBytes.get();
  }

 private:
  std::unique_ptr<uint8_t[]> mBytes;
  size_t mSize = 0;
};

/// How far chroma samples lie apart, in pixels.
struct ChromaStep {
  int32_t x = 1;
  int32_t y = 1;
};
ChromaStep chromaStepOf(uint32_t pixelFormat);

/// Whether pixels of this layout may be transparent.
bool hasAlpha(uint32_t pixelFormat);

/// A part of a picture, in pixels from its upper left corner. The origin must be a multiple of the
/// chroma step; the part must lie inside.
struct PixelBox {
  int32_t x = 0;
  int32_t y = 0;
  int32_t width = 0;
  int32_t height = 0;
  bool operator==(const PixelBox&) const = default;
};
PicturePlanes partOf(const PicturePlanes& picture, PixelBox box);

/// The picture with each of Y, Cb and Cr in a plane of its own, as scaling and JPEG take it: itself, or
/// 2vuy and two-plane pictures taken apart into `scratch`. Where the last pixel of a 2vuy row of odd
/// width lacks its second chroma sample, it takes that of the pixel before. No width when memory is
/// short.
PicturePlanes planarPicture(const PicturePlanes& picture, ScratchMemory& scratch);

struct ScalingScratch {
  ScratchMemory unpacked;
  ScratchMemory scaled;
};

/// The picture scaled on the CPU into `scratch`: bilinear, box filtered when it becomes less than
/// half as wide or high. No width when memory is short.
PicturePlanes scaledPicture(const PicturePlanes& picture, int32_t width, int32_t height, ScalingScratch& scratch);

/// Orders of the four bytes of a pixel in memory.
enum class PixelOrder { kRGBA, kBGRA };

/// Writes the picture as 4 bytes a pixel, the top row at `to` and the others `rowBytes` apart, which is negative to
/// have the lowest row first in memory. YCbCr becomes
/// opaque RGB by its matrix and range; RGB stays as it is. False when memory is short.
bool convertPicture(const PicturePlanes& picture, PixelOrder order, uint8_t* to, ptrdiff_t rowBytes);

}  // namespace vesk
