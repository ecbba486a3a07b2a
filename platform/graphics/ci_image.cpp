#include <vesk/ci_image.h>

namespace vesk {

std::shared_ptr<const CIImage> CIImage::imageWithCVImageBuffer(CVImageBufferRef buffer) {
  return buffer ? std::make_shared<const CIImage>(std::move(buffer)) : nullptr;
}

std::shared_ptr<const CIImage> CIImage::imageWithCGImage(CGImageRef image) {
  if (!image) return nullptr;
  const CVPixelBuffer::Planes planes{PixelPlane{image->pixels().data(), image->bytesPerRow()}};
  return imageWithCVImageBuffer(
      CVPixelBuffer::wrap(image->width(), image->height(), kCVPixelFormat_32RGBA, planes, {}, image));
}

}  // namespace vesk
