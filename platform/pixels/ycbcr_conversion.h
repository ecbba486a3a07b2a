#pragma once

#include <cstddef>
#include <cstdint>

#include <vesk/pixel_buffer.h>

namespace libyuv {
struct YuvConstants;
}

namespace vesk {

/// libyuv's constants for a matrix and range, with its blue set right: libyuv cuts the weight of Cb
/// off at 2.0, which makes deep blues of video range too dark, by 3 levels with BT.601 and 13 with
/// BT.709. Ours are within one level of the formulas everywhere.
const libyuv::YuvConstants& constantsFor(YCbCrColour colour);

/// The whole numbers that libyuv calculates with, for others who want the very same colours:
/// `(y * luma >> 16) + bias` and the weighted distances of Cb and Cr from 128 add up to 64 times a level.
struct YCbCrWeights {
  int32_t luma;
  int32_t bias;
  int32_t cbToBlue;
  int32_t cbToGreen;
  int32_t crToGreen;
  int32_t crToRed;
};
YCbCrWeights weightsFor(YCbCrColour colour);

/// 2vuy as blue, green, red, alpha by any matrix, for which libyuv has a public operation for one only. Rows are
/// `rowBytes` apart, which may be negative.
void convert2vuy(const PixelPlane& from, uint8_t* to, ptrdiff_t rowBytes, const libyuv::YuvConstants& constants,
                 int32_t width, int32_t height);

}  // namespace vesk
