#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "capture/encoding/av_handles.h"
#include "platform/decompression/jpeg_frame_decoder.h"

namespace vesk::capture {

/// Puts a "2vuy" picture into planar 4:2:0 memory of its size. @return false when it is not whole
bool fillFrom2vuy(AVFrame& picture, std::span<const uint8_t> bytes);

/// Puts Motion JPEG pictures into planar 4:2:0 memory, their levels those of video (luma 16 to 235).
///
/// Threads: one at a time.
class JPEGToPlanes {
 public:
  /// For pictures of this size only.
  JPEGToPlanes(int width, int height);

  /// @return false when the picture is damaged or of another size
  bool fill(AVFrame& picture, std::span<const uint8_t> jpeg);

 private:
  JPEGFrameDecoder mDecoder;
  std::vector<DecodedPicture> mDecoded;
};

}  // namespace vesk::capture
