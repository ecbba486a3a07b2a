#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "platform/decompression/jpeg_frame_decoder.h"
#include "platform/pixels/raw_picture.h"

namespace vesk::capture {

/// Puts Motion JPEG frames into planar 4:2:0 memory, their levels those of video (luma 16 to 235).
///
/// Threads: one at a time.
class JPEGToPlanes {
 public:
  /// For frames of this size only.
  JPEGToPlanes(int width, int height);

  /// @return false when the frame is damaged or of another size
  bool fill(const PlaneMemory& planes, std::span<const uint8_t> jpeg);

 private:
  const int mWidth;
  const int mHeight;
  JPEGFrameDecoder mDecoder;
  std::vector<DecodedPicture> mDecoded;
};

}  // namespace vesk::capture
