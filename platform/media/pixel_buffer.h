#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "platform/foundation/export.h"
#include "platform/media/memory_pool.h"

namespace vesk {

/// A picture in memory, one packed plane. Written by its maker, then read only.
class VESK_EXPORT CVPixelBuffer {
 public:
  /// A picture of width × height pixels, its memory not cleared. Only packed 4:2:2 ("2vuy") is made
  /// here. Null for another format, for sizes that are not positive or for want of memory.
  static std::shared_ptr<CVPixelBuffer> create(int32_t width, int32_t height, uint32_t pixelFormat);

  int32_t width() const { return mWidth; }
  int32_t height() const { return mHeight; }
  uint32_t pixelFormat() const { return mPixelFormat; }
  /// Rows are not padded: width × 2 for "2vuy".
  size_t bytesPerRow() const { return mBytesPerRow; }
  std::span<uint8_t> data() { return {mMemory.get(), dataSize()}; }
  std::span<const uint8_t> data() const { return {mMemory.get(), dataSize()}; }
  size_t dataSize() const { return mBytesPerRow * static_cast<size_t>(mHeight); }

  CVPixelBuffer(MemoryPool::Block memory, int32_t width, int32_t height, uint32_t pixelFormat, size_t bytesPerRow)
      : mMemory(std::move(memory)),
        mWidth(width),
        mHeight(height),
        mPixelFormat(pixelFormat),
        mBytesPerRow(bytesPerRow) {}

 private:
  MemoryPool::Block mMemory;
  int32_t mWidth;
  int32_t mHeight;
  uint32_t mPixelFormat;
  size_t mBytesPerRow;
};

using CVPixelBufferRef = std::shared_ptr<CVPixelBuffer>;

}  // namespace vesk
