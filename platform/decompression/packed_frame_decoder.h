#pragma once

#include <memory>

#include "platform/decompression/frame_decoder.h"

namespace vesk {

/// Packed 4:2:2 ("2vuy"): copies each frame, since the camera's buffer goes back to the camera. Frames
/// have no padding; one of any other length is damaged.
class PackedFrameDecoder final : public FrameDecoder {
 public:
  /// Null for an odd width, which pairs of pixels cannot have. The colour property of the description
  /// tells the matrix.
  static std::unique_ptr<FrameDecoder> create(const ImageDescription& description);

  OSStatus decode(std::span<const uint8_t> data, int64_t frame, std::vector<DecodedPicture>& pictures) override;

  PackedFrameDecoder(int32_t width, int32_t height, YCbCrColour colour)
      : mWidth(width), mHeight(height), mColour(colour) {}

 private:
  int32_t mWidth;
  int32_t mHeight;
  YCbCrColour mColour;
};

}  // namespace vesk
