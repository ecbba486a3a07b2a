#include "platform/pixels/ycbcr_conversion.h"

#include <libyuv.h>
#include <libyuv/row.h>

#include <cstddef>

namespace vesk {
namespace {

// 64 times 2 - 2 kb, widened from 224 to 255 levels.
constexpr uint8_t kBlue601 = 129;
constexpr uint8_t kBlue709 = 135;

#if defined(__x86_64__)
/// The weight of Cb for blue stands in every other byte.
void setBlue(libyuv::YuvConstants& constants, uint8_t blue) {
  for (size_t i = 0; i < sizeof(constants.kUVToB); i += 2) constants.kUVToB[i] = blue;
}
#elif defined(__aarch64__)
/// The weights for blue, red and twice green stand there twice, and apart from them what 128, which is none
/// of a colour, comes to by them.
void setBlue(libyuv::YuvConstants& constants, uint8_t blue) {
  constexpr int kNone = 128;
  const int more = blue - constants.kUVCoeff[0];
  constants.kUVCoeff[0] = constants.kUVCoeff[4] = blue;
  constants.kRGBCoeffBias[1] = static_cast<int16_t>(constants.kRGBCoeffBias[1] + more * kNone);
}
#endif

/// They are read as vectors.
struct alignas(32) Corrected {
  libyuv::YuvConstants constants;
  Corrected(const libyuv::YuvConstants& from, uint8_t blue) : constants(from) { setBlue(constants, blue); }
};

}  // namespace

const libyuv::YuvConstants& constantsFor(YCbCrColour colour) {
  const bool is709 = colour.matrix == YCbCrColour::Matrix::kBT709;
  if (colour.isFullRange) return is709 ? libyuv::kYuvF709Constants : libyuv::kYuvJPEGConstants;
  static const Corrected video601(libyuv::kYuvI601Constants, kBlue601);
  static const Corrected video709(libyuv::kYuvH709Constants, kBlue709);
  return is709 ? video709.constants : video601.constants;
}

YCbCrWeights weightsFor(YCbCrColour colour) {
  constexpr int32_t kRepeated = 0x0101;  // libyuv takes luma as 16 bits, with the byte twice
  constexpr int32_t kVideo = 18997 * kRepeated;
  constexpr int32_t kFull = 16320 * kRepeated;
  const bool is709 = colour.matrix == YCbCrColour::Matrix::kBT709;
  if (colour.isFullRange)
    return is709 ? YCbCrWeights{kFull, 32, 119, 12, 30, 101} : YCbCrWeights{kFull, 32, 113, 22, 46, 90};
  return is709 ? YCbCrWeights{kVideo, -1160, kBlue709, 14, 34, 115}
               : YCbCrWeights{kVideo, -1160, kBlue601, 25, 52, 102};
}

void convert2vuy(const PixelPlane& from, uint8_t* to, ptrdiff_t rowBytes, const libyuv::YuvConstants& constants,
                 int32_t width, int32_t height) {
#if defined(__x86_64__)
  static const auto convertRow = libyuv::TestCpuFlag(libyuv::kCpuHasAVX2)    ? libyuv::UYVYToARGBRow_Any_AVX2
                                 : libyuv::TestCpuFlag(libyuv::kCpuHasSSSE3) ? libyuv::UYVYToARGBRow_Any_SSSE3
                                                                             : libyuv::UYVYToARGBRow_C;
#elif defined(__aarch64__)
  static const auto convertRow =
      libyuv::TestCpuFlag(libyuv::kCpuHasNEON) ? libyuv::UYVYToARGBRow_Any_NEON : libyuv::UYVYToARGBRow_C;
#endif
  const auto pixels = static_cast<size_t>(width);
  if (width % 2 == 0 && from.bytesPerRow == pixels * 2 && rowBytes == ptrdiff_t{width} * 4 &&
      height <= INT32_MAX / width) {
    convertRow(from.data, to, &constants, width * height);  // rows without gaps are one long row
    return;
  }
  for (ptrdiff_t y = 0; y < height; ++y)
    convertRow(from.data + static_cast<size_t>(y) * from.bytesPerRow, to + y * rowBytes, &constants, width);
}

}  // namespace vesk
