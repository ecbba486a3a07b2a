#include "capture/linux/cameras/pixel_formats.h"

#include <libyuv.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <array>
#include <iterator>

#include <vesk/four_char_code.h>

namespace vesk::capture {
namespace {

constexpr uint32_t kRaw = kCMPixelFormat_422YpCbCr8;

constexpr PixelFormat compressed(uint32_t fourcc, uint32_t codec) {
  return {fourcc, codec, PixelLayout::kCompressed, {}, AV_PIX_FMT_NONE, false, 0};
}
constexpr PixelFormat packed422(uint32_t fourcc, int8_t u, int8_t y0, int8_t v, int8_t y1) {
  return {fourcc, kRaw, PixelLayout::kPacked422, {u, y0, v, y1}, AV_PIX_FMT_UYVY422, false, 2};
}
constexpr PixelFormat other(uint32_t fourcc, PixelLayout layout, AVPixelFormat libav, uint8_t bytesPerPixel,
                            bool isVFirst = false) {
  return {fourcc, kRaw, layout, {}, libav, isVFirst, bytesPerPixel};
}

constexpr PixelFormat kFormats[] = {
    compressed(V4L2_PIX_FMT_H264, kCMVideoCodecType_H264),
    compressed(V4L2_PIX_FMT_MJPEG, kCMVideoCodecType_MotionJPEG),
    compressed(V4L2_PIX_FMT_JPEG, kCMVideoCodecType_MotionJPEG),
    packed422(V4L2_PIX_FMT_UYVY, 0, 1, 2, 3),
    packed422(V4L2_PIX_FMT_YUYV, 1, 0, 3, 2),
    packed422(V4L2_PIX_FMT_YVYU, 3, 0, 1, 2),
    packed422(V4L2_PIX_FMT_VYUY, 2, 1, 0, 3),
    other(V4L2_PIX_FMT_YUV422P, PixelLayout::kPlanar422, AV_PIX_FMT_YUV422P, 1),
    other(V4L2_PIX_FMT_NV12, PixelLayout::kSemiPlanar, AV_PIX_FMT_NV12, 1),
    other(V4L2_PIX_FMT_NV21, PixelLayout::kSemiPlanar, AV_PIX_FMT_NV21, 1),
    other(V4L2_PIX_FMT_YUV420, PixelLayout::kPlanar420, AV_PIX_FMT_YUV420P, 1),
    other(V4L2_PIX_FMT_YVU420, PixelLayout::kPlanar420, AV_PIX_FMT_YUV420P, 1, true),
    other(V4L2_PIX_FMT_RGB24, PixelLayout::kPacked, AV_PIX_FMT_RGB24, 3),
    other(V4L2_PIX_FMT_BGR24, PixelLayout::kPacked, AV_PIX_FMT_BGR24, 3),
    other(V4L2_PIX_FMT_XBGR32, PixelLayout::kPacked, AV_PIX_FMT_BGR0, 4),
    other(V4L2_PIX_FMT_ABGR32, PixelLayout::kPacked, AV_PIX_FMT_BGRA, 4),
    other(V4L2_PIX_FMT_BGR32, PixelLayout::kPacked, AV_PIX_FMT_BGR0, 4),
    other(V4L2_PIX_FMT_XRGB32, PixelLayout::kPacked, AV_PIX_FMT_0RGB, 4),
    other(V4L2_PIX_FMT_RGB32, PixelLayout::kPacked, AV_PIX_FMT_0RGB, 4),
    other(V4L2_PIX_FMT_RGB565, PixelLayout::kPacked, AV_PIX_FMT_RGB565LE, 2),
    other(V4L2_PIX_FMT_GREY, PixelLayout::kPacked, AV_PIX_FMT_GRAY8, 1),
};

size_t bytesOf(const PictureForm& form) {
  const size_t first = size_t{form.rowBytes} * static_cast<size_t>(form.height);
  const size_t chromaRows = (static_cast<size_t>(form.height) + 1) / 2;
  switch (form.format->layout) {
    case PixelLayout::kCompressed:
      return 0;
    case PixelLayout::kPacked422:
    case PixelLayout::kPacked: {
      // The last row may end with its pixels.
      const size_t pixels = static_cast<size_t>(form.width) * form.format->bytesPerPixel;
      return first - form.rowBytes + pixels;
    }
    case PixelLayout::kSemiPlanar:
      return first + form.rowBytes * chromaRows;
    case PixelLayout::kPlanar420:
      return first + 2 * (form.rowBytes / 2 * chromaRows);
    case PixelLayout::kPlanar422:
      return 2 * first;
  }
  return 0;
}

/// libyuv moves the bytes of four pixels at a time.
bool reorder(const PictureForm& form, const uint8_t* picture, uint8_t* out) {
  std::array<uint8_t, 16> places{};
  for (size_t at = 0; at < places.size(); ++at)
    places[at] = static_cast<uint8_t>(at / 4 * 4 + static_cast<size_t>(form.format->order[at % 4]));
  return libyuv::ARGBShuffle(picture, static_cast<int>(form.rowBytes), out, form.width * 2, places.data(),
                             form.width / 2, form.height) == 0;
}

void setPlanes(AVFrame& frame, const PictureForm& form, uint8_t* picture) {
  const auto rowBytes = static_cast<int>(form.rowBytes);
  const int height = form.height;
  uint8_t* const second = picture + static_cast<ptrdiff_t>(rowBytes) * height;
  frame.data[0] = picture;
  frame.linesize[0] = rowBytes;
  if (form.format->layout == PixelLayout::kSemiPlanar) {
    frame.data[1] = second;
    frame.linesize[1] = rowBytes;
    return;
  }
  if (form.format->layout != PixelLayout::kPlanar420 && form.format->layout != PixelLayout::kPlanar422) return;
  const int chromaRows = form.format->layout == PixelLayout::kPlanar420 ? (height + 1) / 2 : height;
  uint8_t* const third = second + static_cast<ptrdiff_t>(rowBytes / 2) * chromaRows;
  frame.data[1] = form.format->isVFirst ? third : second;
  frame.data[2] = form.format->isVFirst ? second : third;
  frame.linesize[1] = frame.linesize[2] = rowBytes / 2;
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

PixelConverter::PixelConverter(const PictureForm& form)
    : mForm(form), mNeededBytes(bytesOf(form)), mFrame(av_frame_alloc()) {
  if (!mFrame) throw std::bad_alloc();
  mFrame->width = form.width;
  mFrame->height = form.height;
  mFrame->format = form.format->libav;
  mFrame->color_range = form.isFullRange ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
}

bool PixelConverter::isReadyAsItIs() const {
  return mForm.format->fourcc == V4L2_PIX_FMT_UYVY && mForm.rowBytes == 2 * static_cast<uint32_t>(mForm.width) &&
         !mForm.isFullRange;
}

bool PixelConverter::convertInto(uint8_t* out, uint8_t* picture) {
  if (mForm.format->layout == PixelLayout::kPacked422 && !mForm.isFullRange) return reorder(mForm, picture, out);
  if (mForm.format->layout != PixelLayout::kPacked422) {
    setPlanes(*mFrame, mForm, picture);
    return mConverter.convert(*mFrame, mForm.width, mForm.height, out);
  }
  // Brought into order in place of itself, then squeezed to video levels.
  if (!reorder(mForm, picture, out)) return false;
  mFrame->data[0] = out;
  mFrame->linesize[0] = mForm.width * 2;
  return mConverter.convert(*mFrame, mForm.width, mForm.height, out);
}

std::span<uint8_t> PixelConverter::convert(std::span<uint8_t> picture) {
  if (picture.size() < mNeededBytes) return {};
  const size_t bytes = size_t{2} * static_cast<size_t>(mForm.width) * static_cast<size_t>(mForm.height);
  if (isReadyAsItIs()) return picture.first(bytes);
  mOut.resize(bytes);
  if (!convertInto(mOut.data(), picture.data())) return {};
  return mOut;
}

}  // namespace vesk::capture
