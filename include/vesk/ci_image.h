#pragma once

#include <memory>
#include <utility>

#include <vesk/cg_image.h>
#include <vesk/export.h>
#include <vesk/geometry.h>
#include <vesk/pixel_buffer.h>

namespace vesk {

/// A picture to be drawn, in any of the layouts of CVPixelBuffer. It keeps the buffer; nothing is
/// copied or converted before it is drawn. In its coordinates a pixel is 1 × 1, the origin is the
/// lower left corner and y runs upwards; the buffer's first row is the top one. RGBA and BGRA
/// buffers are taken as premultiplied. Immutable, for any thread.
class VESK_EXPORT CIImage {
 public:
  /// Null without a buffer.
  static std::shared_ptr<const CIImage> imageWithCVImageBuffer(CVImageBufferRef buffer);
  /// Null without an image.
  static std::shared_ptr<const CIImage> imageWithCGImage(CGImageRef image);

  /// The image's rectangle: (0, 0, width, height).
  CGRect extent() const { return {0, 0, static_cast<float>(mBuffer->width()), static_cast<float>(mBuffer->height())}; }
  const CVImageBufferRef& imageBuffer() const { return mBuffer; }

  explicit CIImage(CVImageBufferRef buffer) : mBuffer(std::move(buffer)) {}

 private:
  CVImageBufferRef mBuffer;
};

using CIImageRef = std::shared_ptr<const CIImage>;

}  // namespace vesk
