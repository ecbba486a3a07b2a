#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace vesk::h264 {

/// What a sequence parameter set says of the size, shape and colour of its pictures.
struct PictureGeometry {
  uint32_t width = 0;  ///< pixels shown, after cropping
  uint32_t height = 0;
  uint32_t aspectWidth = 1;  ///< shape of a pixel
  uint32_t aspectHeight = 1;
  bool progressive = true;  ///< pictures are frames only
  struct Colour {
    uint8_t primaries;
    uint8_t transfer;
    uint8_t matrix;
  };
  std::optional<Colour> colour;  ///< codes of ITU-T H.264, Annex E
};

/// Reads a sequence parameter set, its NAL unit header included (ITU-T H.264, 7.3.2.1.1). Nothing
/// when it is cut short or says what cannot be.
std::optional<PictureGeometry> readPictureGeometry(std::span<const uint8_t> parameterSet);

}  // namespace vesk::h264
