#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include <vesk/pixel_buffer.h>
#include "platform/media/memory_pool.h"

namespace vesk {

/// Pooled memory for the planes of a picture that is being made, not cleared.
class PictureMemory {
 public:
  struct PlaneSize {
    size_t bytesPerRow = 0;  ///< rounded up here, so that rows start aligned
    size_t rows = 0;         ///< 0 for a plane that is not there
  };
  using Sizes = std::array<PlaneSize, CVPixelBuffer::kMostPlanes>;

  explicit PictureMemory(const Sizes& sizes);

  /// Whether there was memory.
  explicit operator bool() const { return mBlock != nullptr; }
  uint8_t* plane(size_t index) const { return mPlanes.at(index); }
  size_t bytesPerRow(size_t index) const { return mBytesPerRow.at(index); }

  /// The finished picture, which takes the memory over; null when the planes do not hold one.
  CVImageBufferRef makePicture(int32_t width, int32_t height, uint32_t pixelFormat, YCbCrColour colour);

 private:
  MemoryPool::Block mBlock;
  std::array<uint8_t*, CVPixelBuffer::kMostPlanes> mPlanes{};
  std::array<size_t, CVPixelBuffer::kMostPlanes> mBytesPerRow{};
};

}  // namespace vesk
