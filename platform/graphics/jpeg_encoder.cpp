#include "platform/graphics/jpeg_encoder.h"

#include <jpeglib.h>

#include <algorithm>
#include <array>
#include <csetjmp>
#include <cstdlib>
#include <cstring>

#include "platform/pixels/levels.h"

namespace vesk {
namespace {

constexpr size_t kMostRows = 2 * DCTSIZE;  ///< of a plane in one row of blocks, with halved chroma
constexpr size_t kPlanes = CVPixelBuffer::kMostPlanes;

/// One row of blocks of the picture: what libjpeg takes at a time.
struct Strip {
  std::array<std::array<JSAMPROW, kMostRows>, kPlanes> rows{};
  std::array<JSAMPARRAY, kPlanes> planes{};
};

struct ErrorManager {
  jpeg_error_mgr base;
  std::jmp_buf escape;
};

[[noreturn]] void leave(j_common_ptr info) {
  std::longjmp(reinterpret_cast<ErrorManager*>(info->err)->escape, 1);
}

size_t roundedUp(size_t value, size_t step) {
  return (value + step - 1) / step * step;
}

/// The layout in which a picture's planes go into the file; 0 components when it goes in as RGB.
struct RawLayout {
  int components = 0;
  ChromaStep step;
};

RawLayout rawLayoutOf(const PicturePlanes& picture) {
  const bool isGray = picture.pixelFormat == kCVPixelFormat_Gray;
  if (hasAlpha(picture.pixelFormat)) return {};
  if (!isGray && picture.colour.matrix == YCbCrColour::Matrix::kBT709) return {};
  return {isGray ? 1 : 3, chromaStepOf(picture.pixelFormat)};
}

/// Brings the rows of a picture into the form that libjpeg takes: planes whose rows are whole blocks.
class StripMaker {
 public:
  StripMaker(const PicturePlanes& picture, RawLayout layout) : mPicture(picture), mLayout(layout) {
    const auto mcuWidth = static_cast<size_t>(layout.step.x) * DCTSIZE;
    mRowBytes[0] = roundedUp(static_cast<size_t>(picture.width), mcuWidth);
    mRowBytes[1] = mRowBytes[2] = mRowBytes[0] / static_cast<size_t>(layout.step.x);
    mIsDirect = isPlanar() && picture.colour.isFullRange && mRowBytes[0] == static_cast<size_t>(picture.width);
    if (!mIsDirect) mStart = mMemory.reserve((mRowBytes[0] + 2 * mRowBytes[1]) * kMostRows);
  }

  bool isReady() const { return mIsDirect || mStart != nullptr; }

  /// The rows of blocks that begin at pixel row `y`; below the picture its last row is repeated.
  bool fill(int32_t y, Strip& strip) {
    const int32_t rows = std::min(mLayout.step.y * DCTSIZE, mPicture.height - y);
    const PicturePlanes part = partOf(mPicture, {0, y, mPicture.width, rows});
    if (!mIsDirect && !copy(part)) return false;
    for (size_t plane = 0; plane < static_cast<size_t>(mLayout.components); ++plane) {
      const int32_t step = plane == 0 ? 1 : mLayout.step.y;
      const int32_t last = (rows + step - 1) / step - 1;
      const PixelPlane from = mIsDirect ? part.planes[plane] : PixelPlane{planeStart(plane), mRowBytes[plane]};
      for (int32_t row = 0; row < mLayout.step.y * DCTSIZE / step; ++row)
        strip.rows[plane][static_cast<size_t>(row)] =
            const_cast<JSAMPROW>(from.data) + static_cast<size_t>(std::min(row, last)) * from.bytesPerRow;
      strip.planes[plane] = strip.rows[plane].data();
    }
    return true;
  }

 private:
  bool isPlanar() const {
    return mPicture.pixelFormat != kCMPixelFormat_422YpCbCr8 && mPicture.pixelFormat != kCVPixelFormat_420BiPlanar;
  }

  uint8_t* planeStart(size_t plane) const {
    return mStart + (plane == 0 ? 0 : mRowBytes[0] + (plane - 1) * mRowBytes[1]) * kMostRows;
  }

  bool copy(const PicturePlanes& part) {
    const PicturePlanes planar = planarPicture(part, mUnpacked);
    if (planar.width == 0) return false;
    for (size_t plane = 0; plane < static_cast<size_t>(mLayout.components); ++plane) copyPlane(planar, plane);
    return true;
  }

  size_t widthOf(const PicturePlanes& part, size_t plane) const {
    const auto step = static_cast<size_t>(plane == 0 ? 1 : mLayout.step.x);
    return (static_cast<size_t>(part.width) + step - 1) / step;
  }
  size_t heightOf(const PicturePlanes& part, size_t plane) const {
    const auto step = static_cast<size_t>(plane == 0 ? 1 : mLayout.step.y);
    return (static_cast<size_t>(part.height) + step - 1) / step;
  }

  /// Brings the samples into JPEG's range, and fills the last blocks up with the last pixel.
  void copyPlane(const PicturePlanes& part, size_t plane) {
    const size_t width = widthOf(part, plane);
    for (size_t row = 0; row < heightOf(part, plane); ++row) {
      const uint8_t* const from = part.planes[plane].data + row * part.planes[plane].bytesPerRow;
      uint8_t* const to = planeStart(plane) + row * mRowBytes[plane];
      if (part.colour.isFullRange)
        std::memcpy(to, from, width);
      else if (plane == 0)
        widenRow<kLumaWidening>(from, to, width);
      else
        widenRow<kChromaWidening>(from, to, width);
      std::memset(to + width, to[width - 1], mRowBytes[plane] - width);
    }
  }

  PicturePlanes mPicture;
  RawLayout mLayout;
  std::array<size_t, kPlanes> mRowBytes{};
  bool mIsDirect = false;  ///< the picture's own rows serve
  ScratchMemory mMemory;
  ScratchMemory mUnpacked;
  uint8_t* mStart = nullptr;
};

/// Everything that must be let go of after libjpeg has left by a jump.
struct Encoding {
  jpeg_compress_struct info{};
  ErrorManager errors{};
  unsigned char* bytes = nullptr;
  unsigned long size = 0;

  ~Encoding() {
    jpeg_destroy_compress(&info);
    std::free(bytes);
  }
};

void begin(Encoding& encoding, const PicturePlanes& picture, int quality, J_COLOR_SPACE colours, int components) {
  jpeg_compress_struct& info = encoding.info;
  info.image_width = static_cast<JDIMENSION>(picture.width);
  info.image_height = static_cast<JDIMENSION>(picture.height);
  info.in_color_space = colours;
  info.input_components = components;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, quality, TRUE);
}

void setSampling(jpeg_compress_struct& info, ChromaStep step) {
  info.comp_info[0].h_samp_factor = step.x;
  info.comp_info[0].v_samp_factor = step.y;
}

// Between setjmp and a jump there must be nothing to destroy: the two functions below hold only
// references to what their caller owns.

bool encodeRaw(Encoding& encoding, const PicturePlanes& picture, RawLayout layout, int quality, StripMaker& maker,
               Strip& strip) {
  if (setjmp(encoding.errors.escape) != 0) return false;
  jpeg_create_compress(&encoding.info);
  jpeg_mem_dest(&encoding.info, &encoding.bytes, &encoding.size);
  begin(encoding, picture, quality, layout.components == 1 ? JCS_GRAYSCALE : JCS_YCbCr, layout.components);
  setSampling(encoding.info, layout.step);
  encoding.info.raw_data_in = TRUE;
  jpeg_start_compress(&encoding.info, TRUE);
  while (encoding.info.next_scanline < encoding.info.image_height) {
    if (!maker.fill(static_cast<int32_t>(encoding.info.next_scanline), strip)) return false;
    jpeg_write_raw_data(&encoding.info, strip.planes.data(), static_cast<JDIMENSION>(layout.step.y * DCTSIZE));
  }
  jpeg_finish_compress(&encoding.info);
  return true;
}

bool encodeRGB(Encoding& encoding, const PicturePlanes& picture, int quality, ScratchMemory& memory) {
  constexpr int32_t kRows = 16;
  const size_t rowBytes = static_cast<size_t>(picture.width) * 4;
  uint8_t* const pixels = memory.reserve(rowBytes * kRows);
  if (!pixels) return false;
  if (setjmp(encoding.errors.escape) != 0) return false;
  jpeg_create_compress(&encoding.info);
  jpeg_mem_dest(&encoding.info, &encoding.bytes, &encoding.size);
  begin(encoding, picture, quality, JCS_EXT_BGRX, 4);
  const ChromaStep step = chromaStepOf(picture.pixelFormat);
  setSampling(encoding.info, hasAlpha(picture.pixelFormat) ? ChromaStep{2, 2} : step);
  jpeg_start_compress(&encoding.info, TRUE);
  while (encoding.info.next_scanline < encoding.info.image_height) {
    const auto y = static_cast<int32_t>(encoding.info.next_scanline);
    const int32_t count = std::min(kRows, picture.height - y);
    if (!convertPicture(partOf(picture, {0, y, picture.width, count}), PixelOrder::kBGRA, pixels, rowBytes))
      return false;
    for (int32_t i = 0; i < count; ++i) {
      JSAMPROW row = pixels + static_cast<size_t>(i) * rowBytes;
      jpeg_write_scanlines(&encoding.info, &row, 1);
    }
  }
  jpeg_finish_compress(&encoding.info);
  return true;
}

}  // namespace

std::vector<uint8_t> encodeJPEG(const PicturePlanes& picture, int quality) {
  if (std::max(picture.width, picture.height) > JPEG_MAX_DIMENSION) return {};
  Encoding encoding;
  encoding.info.err = jpeg_std_error(&encoding.errors.base);
  encoding.errors.base.error_exit = leave;
  encoding.errors.base.output_message = [](j_common_ptr) {};

  const RawLayout layout = rawLayoutOf(picture);
  bool isDone = false;
  if (layout.components == 0) {
    ScratchMemory memory;
    isDone = encodeRGB(encoding, picture, quality, memory);
  } else {
    StripMaker maker(picture, layout);
    Strip strip;
    isDone = maker.isReady() && encodeRaw(encoding, picture, layout, quality, maker, strip);
  }
  if (!isDone) return {};
  try {
    return {encoding.bytes, encoding.bytes + encoding.size};
  } catch (const std::bad_alloc&) {
    return {};
  }
}

}  // namespace vesk
