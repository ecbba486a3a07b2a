#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include <vesk/pixel_buffer.h>
#include "platform/decompression/image_description.h"
#include "platform/decompression/status.h"

namespace vesk {

/// A picture, and the number of the frame that it was decoded from.
struct DecodedPicture {
  CVImageBufferRef image;
  int64_t frame;
};

/// Decodes one kind of frames. One for each session; called by one thread at a time.
class FrameDecoder {
 public:
  virtual ~FrameDecoder() = default;

  /// Decodes the bytes of one frame, not empty, and appends what is ready to be shown to `pictures`:
  /// usually the picture of this very frame; none, or those of earlier frames, where a stream reorders
  /// its pictures. `frame` grows from call to call. Pictures need neither `data` nor the decoder.
  /// @return noErr, also when there is no picture yet; codecBadDataErr for damage; codecUnimpErr for
  ///         a kind of picture that cannot be handed on; memFullErr. The decoder remains usable.
  virtual OSStatus decode(std::span<const uint8_t> data, int64_t frame, std::vector<DecodedPicture>& pictures) = 0;
};

/// The decoder for pictures of a description; null when there is none or it refuses the description.
std::unique_ptr<FrameDecoder> makeFrameDecoder(const ImageDescription& description);

}  // namespace vesk
