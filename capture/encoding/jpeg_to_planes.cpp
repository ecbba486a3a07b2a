#include "capture/encoding/jpeg_to_planes.h"

#include <vesk/pixel_buffer.h>
#include "platform/pixels/picture_conversion.h"

namespace vesk::capture {

JPEGToPlanes::JPEGToPlanes(int width, int height)
    : mWidth(width), mHeight(height), mDecoder({}, static_cast<uint64_t>(width) * static_cast<uint64_t>(height)) {}

bool JPEGToPlanes::fill(const PlaneMemory& planes, std::span<const uint8_t> jpeg) {
  mDecoded.clear();
  if (jpeg.empty() || mDecoder.decode(jpeg, 0, mDecoded) != noErr || mDecoded.empty()) return false;
  const CVPixelBuffer& decoded = *mDecoded.front().image;
  return decoded.width() == mWidth && decoded.height() == mHeight && convertTo420(rawPictureOf(decoded), planes);
}

}  // namespace vesk::capture
