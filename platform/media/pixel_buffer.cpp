#include <vesk/pixel_buffer.h>

#include <algorithm>
#include <new>
#include <utility>

#include "platform/media/memory_pool.h"

namespace vesk {
namespace {

/// What a row of each plane takes: bytes for a step of `pixels` pixels, none for a missing plane.
struct RowSize {
  uint8_t bytes;
  uint8_t pixels;
};

struct Layout {
  uint32_t pixelFormat;
  std::array<RowSize, CVPixelBuffer::kMostPlanes> rows;
};

constexpr Layout kLayouts[] = {
    {kCMPixelFormat_422YpCbCr8, {{{4, 2}}}},
    {kCVPixelFormat_420Planar, {{{1, 1}, {1, 2}, {1, 2}}}},
    {kCVPixelFormat_422Planar, {{{1, 1}, {1, 2}, {1, 2}}}},
    {kCVPixelFormat_444Planar, {{{1, 1}, {1, 1}, {1, 1}}}},
    {kCVPixelFormat_420BiPlanar, {{{1, 1}, {2, 2}}}},
    {kCVPixelFormat_Gray, {{{1, 1}}}},
    {kCVPixelFormat_32RGBA, {{{4, 1}}}},
    {kCVPixelFormat_32BGRA, {{{4, 1}}}},
};

const Layout* layoutOf(uint32_t pixelFormat) {
  const auto* const found = std::find_if(std::begin(kLayouts), std::end(kLayouts), [pixelFormat](const Layout& layout) {
    return layout.pixelFormat == pixelFormat;
  });
  return found == std::end(kLayouts) ? nullptr : found;
}

bool holdsPicture(const Layout& layout, const CVPixelBuffer::Planes& planes, size_t width) {
  for (size_t i = 0; i < planes.size(); ++i) {
    const RowSize row = layout.rows[i];
    if (row.bytes == 0) continue;
    const size_t steps = (width + row.pixels - 1) / row.pixels;
    if (planes[i].data == nullptr || planes[i].bytesPerRow < steps * row.bytes) return false;
  }
  return true;
}

/// Even a tiny picture begins on a page.
size_t memoryFor(size_t pictureBytes) {
  return std::max(pictureBytes, MemoryPool::kPageBytes);
}

}  // namespace

struct CVPixelBuffer::Parts {
  int32_t width;
  int32_t height;
  uint32_t pixelFormat;
  const Planes& planes;
  YCbCrColour colour;
  MemoryPool::Block memory;
  std::shared_ptr<const void> owner;
};

CVPixelBuffer::CVPixelBuffer(Parts&& parts)
    : mMemory(parts.memory.release()),
      mOwner(std::move(parts.owner)),
      mPlanes(parts.planes),
      mWidth(parts.width),
      mHeight(parts.height),
      mPixelFormat(parts.pixelFormat),
      mColour(parts.colour) {}

CVPixelBuffer::~CVPixelBuffer() {
  if (mMemory) MemoryPool::shared().giveBack(mMemory, memoryFor(dataSize()));
}

std::shared_ptr<CVPixelBuffer> CVPixelBuffer::create(int32_t width, int32_t height, uint32_t pixelFormat) {
  if (width <= 0 || height <= 0 || pixelFormat != kCMPixelFormat_422YpCbCr8) return nullptr;
  const size_t bytesPerRow = static_cast<size_t>(width) * 2;
  auto memory = MemoryPool::shared().allocate(memoryFor(bytesPerRow * static_cast<size_t>(height)));
  if (!memory) return nullptr;
  const Planes planes{PixelPlane{memory.get(), bytesPerRow}};
  try {
    return std::make_shared<CVPixelBuffer>(
        Parts{width, height, pixelFormat, planes, YCbCrColour{}, std::move(memory), nullptr});
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

std::shared_ptr<CVPixelBuffer> CVPixelBuffer::wrap(int32_t width, int32_t height, uint32_t pixelFormat,
                                                   const Planes& planes, YCbCrColour colour,
                                                   std::shared_ptr<const void> owner) {
  const Layout* const layout = layoutOf(pixelFormat);
  if (width <= 0 || height <= 0 || !layout || !holdsPicture(*layout, planes, static_cast<size_t>(width)))
    return nullptr;
  try {
    return std::make_shared<CVPixelBuffer>(
        Parts{width, height, pixelFormat, planes, colour, MemoryPool::Block{}, std::move(owner)});
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

size_t CVPixelBuffer::planeCount() const {
  const Layout* const layout = layoutOf(mPixelFormat);
  if (!layout) return 0;
  return static_cast<size_t>(
      std::count_if(layout->rows.begin(), layout->rows.end(), [](RowSize row) { return row.bytes != 0; }));
}

}  // namespace vesk
