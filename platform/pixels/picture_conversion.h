#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/pixels/raw_picture.h"

namespace vesk {

/// Makes packed 4:2:2 ("2vuy") in video levels (luma 16 to 235) of pictures of nearly any layout. Y'CbCr keeps its
/// matrix; RGB is converted by BT.601.
///
/// Threads: one at a time.
class Packed422Converter {
 public:
  static bool canConvert(PixelLayout layout);

  /// Writes the picture, whose width is even, to `out`, rows 2 × width bytes apart.
  /// @return false when it cannot be converted
  bool convert(const RawPicture& picture, uint8_t* out);
  /// Scales a packed picture of another size into width × height pixels at `out`, in the middle of black. All
  /// sizes are above 0, widths even. @return false when it could not be done.
  bool fit(std::span<const uint8_t> picture, int pictureWidth, int pictureHeight, int width, int height, uint8_t* out);

 private:
  bool convertLevelsAsTheyAre(const RawPicture& picture, uint8_t* out);
  uint8_t* scratch(size_t bytes);

  std::vector<uint8_t> mScratch;
};

/// Makes planar 4:2:0 in video levels, as encoders take it, of "2vuy", planar Y'CbCr, grey and RGBA pictures of even
/// sides. RGB is converted by BT.601. @return false for other layouts
bool convertTo420(const RawPicture& picture, const PlaneMemory& to);

/// The pixel format of a CVPixelBuffer that a picture of this layout can be converted to for display; 0 for none, as
/// for those that a CVPixelBuffer can hold as they are.
uint32_t displayFormatFor(PixelLayout layout);
/// Converts a picture to that format. @return false when it has none
bool convertForDisplay(const RawPicture& picture, const PlaneMemory& to);

}  // namespace vesk
