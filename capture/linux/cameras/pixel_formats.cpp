#include "capture/linux/cameras/pixel_formats.h"

#include <linux/videodev2.h>

#include <cstddef>
#include <iterator>
#include <utility>

#include <vesk/four_char_code.h>

namespace vesk::capture {
namespace {

constexpr uint32_t kRaw = kCMPixelFormat_422YpCbCr8;

constexpr PixelFormat kFormats[] = {
    {V4L2_PIX_FMT_H264, kCMVideoCodecType_H264, PixelLayout::kNone, 0},
    {V4L2_PIX_FMT_MJPEG, kCMVideoCodecType_MotionJPEG, PixelLayout::kNone, 0},
    {V4L2_PIX_FMT_JPEG, kCMVideoCodecType_MotionJPEG, PixelLayout::kNone, 0},
    {V4L2_PIX_FMT_UYVY, kRaw, PixelLayout::kUYVY, 2},
    {V4L2_PIX_FMT_YUYV, kRaw, PixelLayout::kYUYV, 2},
    {V4L2_PIX_FMT_YVYU, kRaw, PixelLayout::kYVYU, 2},
    {V4L2_PIX_FMT_VYUY, kRaw, PixelLayout::kVYUY, 2},
    {V4L2_PIX_FMT_YUV422P, kRaw, PixelLayout::k422Planar, 1},
    {V4L2_PIX_FMT_NV12, kRaw, PixelLayout::k420BiPlanar, 1},
    {V4L2_PIX_FMT_NV21, kRaw, PixelLayout::k420BiPlanarCrFirst, 1},
    {V4L2_PIX_FMT_YUV420, kRaw, PixelLayout::k420Planar, 1},
    {V4L2_PIX_FMT_YVU420, kRaw, PixelLayout::k420Planar, 1, true},
    {V4L2_PIX_FMT_RGB24, kRaw, PixelLayout::kRGB, 3},
    {V4L2_PIX_FMT_BGR24, kRaw, PixelLayout::kBGR, 3},
    {V4L2_PIX_FMT_XBGR32, kRaw, PixelLayout::kBGRX, 4},
    {V4L2_PIX_FMT_ABGR32, kRaw, PixelLayout::kBGRA, 4},
    {V4L2_PIX_FMT_BGR32, kRaw, PixelLayout::kBGRX, 4},
    {V4L2_PIX_FMT_XRGB32, kRaw, PixelLayout::kXRGB, 4},
    {V4L2_PIX_FMT_RGB32, kRaw, PixelLayout::kXRGB, 4},
    {V4L2_PIX_FMT_RGB565, kRaw, PixelLayout::kRGB565, 2},
    {V4L2_PIX_FMT_GREY, kRaw, PixelLayout::kGray, 1},
};

size_t bytesOf(const FrameFormat& form) {
  const size_t first = size_t{form.rowBytes} * static_cast<size_t>(form.height);
  const size_t chromaRows = (static_cast<size_t>(form.height) + 1) / 2;
  switch (form.format->layout) {
    case PixelLayout::kNone:
      return 0;
    case PixelLayout::k420BiPlanar:
    case PixelLayout::k420BiPlanarCrFirst:
      return first + form.rowBytes * chromaRows;
    case PixelLayout::k420Planar:
      return first + 2 * (form.rowBytes / 2 * chromaRows);
    case PixelLayout::k422Planar:
      return 2 * first;
    default: {
      // The last row may end with its pixels.
      const size_t pixels = static_cast<size_t>(form.width) * form.format->bytesPerPixel;
      return first - form.rowBytes + pixels;
    }
  }
}

}  // namespace

const PixelFormat* pixelFormat(uint32_t fourcc) {
  for (const PixelFormat& format : kFormats) {
    if (format.fourcc == fourcc) return &format;
  }
  return nullptr;
}

size_t rankOf(const PixelFormat& format) {
  return static_cast<size_t>(&format - std::begin(kFormats));
}

PixelConverter::PixelConverter(const FrameFormat& form) : mFormat(form), mNeededBytes(bytesOf(form)) {}

bool PixelConverter::isReadyAsItIs() const {
  return mFormat.format->layout == PixelLayout::kUYVY && mFormat.rowBytes == 2 * static_cast<uint32_t>(mFormat.width) &&
         !mFormat.isFullRange;
}

/// The planes stand one behind the other.
RawPicture PixelConverter::rawPicture(const uint8_t* frame) const {
  const auto rowBytes = static_cast<int>(mFormat.rowBytes);
  const uint8_t* const second = frame + ptrdiff_t{rowBytes} * mFormat.height;
  RawPicture raw{mFormat.format->layout, mFormat.width, mFormat.height, {frame}, {rowBytes}, mFormat.isFullRange};
  switch (raw.layout) {
    case PixelLayout::k420BiPlanar:
    case PixelLayout::k420BiPlanarCrFirst:
      raw.data[1] = second;
      raw.rowBytes[1] = rowBytes;
      break;
    case PixelLayout::k420Planar:
    case PixelLayout::k422Planar: {
      const int chromaRows = raw.layout == PixelLayout::k420Planar ? (mFormat.height + 1) / 2 : mFormat.height;
      raw.data[1] = second;
      raw.data[2] = second + ptrdiff_t{rowBytes / 2} * chromaRows;
      raw.rowBytes[1] = raw.rowBytes[2] = rowBytes / 2;
      if (mFormat.format->isVFirst) std::swap(raw.data[1], raw.data[2]);
      break;
    }
    default:
      break;
  }
  return raw;
}

std::span<uint8_t> PixelConverter::convert(std::span<uint8_t> frame) {
  if (frame.size() < mNeededBytes) return {};
  const size_t bytes = size_t{2} * static_cast<size_t>(mFormat.width) * static_cast<size_t>(mFormat.height);
  if (isReadyAsItIs()) return frame.first(bytes);
  mOut.resize(bytes);
  if (!mConverter.convert(rawPicture(frame.data()), mOut.data())) return {};
  return mOut;
}

}  // namespace vesk::capture
