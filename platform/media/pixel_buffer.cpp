#include "platform/media/pixel_buffer.h"

#include <new>

#include "platform/media/four_char_code.h"

namespace vesk {

std::shared_ptr<CVPixelBuffer> CVPixelBuffer::create(int32_t width, int32_t height, uint32_t pixelFormat) {
  if (width <= 0 || height <= 0 || pixelFormat != kCMPixelFormat_422YpCbCr8) return nullptr;
  const size_t bytesPerRow = static_cast<size_t>(width) * 2;
  auto memory = MemoryPool::shared().allocate(bytesPerRow * static_cast<size_t>(height));
  if (!memory) return nullptr;
  try {
    return std::make_shared<CVPixelBuffer>(std::move(memory), width, height, pixelFormat, bytesPerRow);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace vesk
