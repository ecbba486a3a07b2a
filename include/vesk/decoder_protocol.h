#pragma once

#include <vesk/export.h>
#include <vesk/pixel_buffer.h>

namespace vesk {

/// Receives what a decoder decodes.
class VESK_EXPORT DecoderProtocol {
 public:
  virtual ~DecoderProtocol() = default;

  /// Called once for each decoded frame, on the thread that decodes. The image is never null and
  /// nobody writes to it any more: keeping the reference keeps the picture.
  virtual void displayData(CVImageBufferRef image) = 0;
};

}  // namespace vesk
