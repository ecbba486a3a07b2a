#include "platform/pixels/raw_picture.h"

namespace vesk {
namespace {

PixelLayout layoutOf(uint32_t pixelFormat) {
  switch (pixelFormat) {
    case kCMPixelFormat_422YpCbCr8:
      return PixelLayout::kUYVY;
    case kCVPixelFormat_420Planar:
      return PixelLayout::k420Planar;
    case kCVPixelFormat_422Planar:
      return PixelLayout::k422Planar;
    case kCVPixelFormat_444Planar:
      return PixelLayout::k444Planar;
    case kCVPixelFormat_420BiPlanar:
      return PixelLayout::k420BiPlanar;
    case kCVPixelFormat_Gray:
      return PixelLayout::kGray;
    case kCVPixelFormat_32RGBA:
      return PixelLayout::kRGBA;
    case kCVPixelFormat_32BGRA:
      return PixelLayout::kBGRA;
    default:
      return PixelLayout::kNone;
  }
}

}  // namespace

RawPicture rawPictureOf(const CVPixelBuffer& buffer) {
  RawPicture picture{layoutOf(buffer.pixelFormat()), buffer.width(), buffer.height()};
  for (size_t plane = 0; plane < buffer.planeCount(); ++plane) {
    picture.data[plane] = buffer.plane(plane).data;
    picture.rowBytes[plane] = static_cast<int>(buffer.plane(plane).bytesPerRow);
  }
  picture.isFullRange = buffer.colour().isFullRange;
  return picture;
}

}  // namespace vesk
