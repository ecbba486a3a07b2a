#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "capture/encoding/av_handles.h"

namespace vesk::capture {

/// Converts decoded pictures to packed 4:2:2 (UYVY, 16 bits a pixel) in video levels (luma 16–235).
/// Y'CbCr keeps the file's own matrix; RGB is converted by BT.601.
class PictureConverter {
 public:
  static bool canConvert(AVPixelFormat format);

  /// Writes width × height pixels to `out`, rows 2 × width bytes apart. `width` is even and not
  /// above the frame's, `height` is the frame's. @return false when the frame cannot be converted.
  bool convert(const AVFrame& frame, int width, int height, uint8_t* out);
  /// Scales a packed picture of another size into width × height pixels at `out`, in the middle of black. All
  /// sizes are above 0, widths even. @return false when it could not be done.
  bool fit(std::span<const uint8_t> picture, int pictureWidth, int pictureHeight, int width, int height, uint8_t* out);

 private:
  bool convertPlanar(const AVFrame& frame, int width, int height, uint8_t* out);
  bool convertOther(const AVFrame& frame, int width, int height, uint8_t* out);
  uint8_t* scratch(size_t bytes);

  std::vector<uint8_t> mScratch;
};

}  // namespace vesk::capture
