#include "platform/graphics/ycbcr_conversion.h"

#include <libyuv.h>
#include <libyuv/row.h>

#include <cstddef>

namespace vesk {
namespace {

#if defined(__x86_64__)
// 64 times 2 - 2 kb, widened from 224 to 255 levels.
constexpr uint8_t kBlue601 = 129;
constexpr uint8_t kBlue709 = 135;

/// The constants have a weight for Cb in every other byte, and are read as vectors.
struct alignas(32) Corrected {
  libyuv::YuvConstants constants;
  Corrected(const libyuv::YuvConstants& from, uint8_t blue) : constants(from) {
    for (size_t i = 0; i < sizeof(constants.kUVToB); i += 2) constants.kUVToB[i] = blue;
  }
};
#endif

}  // namespace

const libyuv::YuvConstants& constantsFor(YCbCrColour colour) {
  const bool is709 = colour.matrix == YCbCrColour::Matrix::kBT709;
  if (colour.isFullRange) return is709 ? libyuv::kYuvF709Constants : libyuv::kYuvJPEGConstants;
#if defined(__x86_64__)
  static const Corrected video601(libyuv::kYuvI601Constants, kBlue601);
  static const Corrected video709(libyuv::kYuvH709Constants, kBlue709);
  return is709 ? video709.constants : video601.constants;
#else
  return is709 ? libyuv::kYuvH709Constants : libyuv::kYuvI601Constants;
#endif
}

#if defined(__x86_64__)
bool convert2vuyDirectly(const PixelPlane& from, uint8_t* to, size_t rowBytes, const libyuv::YuvConstants& constants,
                         int32_t width, int32_t height) {
  static const auto convertRow = libyuv::TestCpuFlag(libyuv::kCpuHasAVX2)    ? libyuv::UYVYToARGBRow_Any_AVX2
                                 : libyuv::TestCpuFlag(libyuv::kCpuHasSSSE3) ? libyuv::UYVYToARGBRow_Any_SSSE3
                                                                             : libyuv::UYVYToARGBRow_C;
  const auto pixels = static_cast<size_t>(width);
  if (width % 2 == 0 && from.bytesPerRow == pixels * 2 && rowBytes == pixels * 4 && height <= INT32_MAX / width) {
    convertRow(from.data, to, &constants, width * height);  // rows without gaps are one long row
    return true;
  }
  for (size_t y = 0; y < static_cast<size_t>(height); ++y)
    convertRow(from.data + y * from.bytesPerRow, to + y * rowBytes, &constants, width);
  return true;
}
#else
bool convert2vuyDirectly(const PixelPlane& /*from*/, uint8_t* /*to*/, size_t /*rowBytes*/,
                         const libyuv::YuvConstants& /*constants*/, int32_t /*width*/, int32_t /*height*/) {
  return false;
}
#endif

}  // namespace vesk
