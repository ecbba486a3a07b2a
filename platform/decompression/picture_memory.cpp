#include "platform/decompression/picture_memory.h"

#include <memory>
#include <utility>

namespace vesk {
namespace {

constexpr size_t kAlignment = 64;  // of rows: a line of the processor's cache

constexpr size_t aligned(size_t bytes) {
  return (bytes + kAlignment - 1) / kAlignment * kAlignment;
}

}  // namespace

PictureMemory::PictureMemory(const Sizes& sizes) {
  size_t total = 0;
  for (size_t i = 0; i < sizes.size(); ++i) {
    mBytesPerRow[i] = aligned(sizes[i].bytesPerRow);
    total += mBytesPerRow[i] * sizes[i].rows;
  }
  mBlock = MemoryPool::shared().allocate(total);
  uint8_t* next = mBlock.get();
  if (!next) return;
  for (size_t i = 0; i < sizes.size(); ++i) {
    if (sizes[i].rows == 0) continue;
    mPlanes[i] = next;
    next += mBytesPerRow[i] * sizes[i].rows;
  }
}

CVImageBufferRef PictureMemory::makePicture(int32_t width, int32_t height, uint32_t pixelFormat, YCbCrColour colour) {
  CVPixelBuffer::Planes planes;
  for (size_t i = 0; i < planes.size(); ++i) planes[i] = {mPlanes[i], mBytesPerRow[i]};
  const auto owner = std::make_shared<const MemoryPool::Block>(std::move(mBlock));
  return CVPixelBuffer::wrap(width, height, pixelFormat, planes, colour, owner);
}

}  // namespace vesk
