#include "platform/decompression/av_picture.h"

#include <libyuv.h>

#include <algorithm>
#include <utility>

#include "platform/decompression/picture_memory.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

namespace vesk {
namespace {

struct Layout {
  AVPixelFormat format;
  uint32_t pixelFormat;
};
constexpr Layout kSameLayouts[] = {
    {AV_PIX_FMT_YUV420P, kCVPixelFormat_420Planar},  {AV_PIX_FMT_YUVJ420P, kCVPixelFormat_420Planar},
    {AV_PIX_FMT_YUV422P, kCVPixelFormat_422Planar},  {AV_PIX_FMT_YUVJ422P, kCVPixelFormat_422Planar},
    {AV_PIX_FMT_YUV444P, kCVPixelFormat_444Planar},  {AV_PIX_FMT_YUVJ444P, kCVPixelFormat_444Planar},
    {AV_PIX_FMT_NV12, kCVPixelFormat_420BiPlanar},   {AV_PIX_FMT_GRAY8, kCVPixelFormat_Gray},
    {AV_PIX_FMT_UYVY422, kCMPixelFormat_422YpCbCr8}, {AV_PIX_FMT_RGBA, kCVPixelFormat_32RGBA},
    {AV_PIX_FMT_BGRA, kCVPixelFormat_32BGRA},
};

/// What libyuv turns into one of ours. It names packed RGB by the order of a little-endian word.
struct Conversion {
  AVPixelFormat format;
  uint32_t pixelFormat;
  int (*convert)(const AVFrame& from, const PictureMemory& to);
};

template <int (*function)(const uint8_t*, int, uint8_t*, int, int, int)>
int packed(const AVFrame& from, const PictureMemory& to) {
  return function(from.data[0], from.linesize[0], to.plane(0), static_cast<int>(to.bytesPerRow(0)), from.width,
                  from.height);
}

template <int (*function)(const uint16_t*, int, const uint16_t*, int, const uint16_t*, int, uint8_t*, int, uint8_t*,
                          int, uint8_t*, int, int, int)>
int tenBits(const AVFrame& from, const PictureMemory& to) {
  const auto words = [&from](size_t plane) { return reinterpret_cast<const uint16_t*>(from.data[plane]); };
  const auto bytesPerRow = [&to](size_t plane) { return static_cast<int>(to.bytesPerRow(plane)); };
  return function(words(0), from.linesize[0] / 2, words(1), from.linesize[1] / 2, words(2), from.linesize[2] / 2,
                  to.plane(0), bytesPerRow(0), to.plane(1), bytesPerRow(1), to.plane(2), bytesPerRow(2), from.width,
                  from.height);
}

int packed422(const AVFrame& from, const PictureMemory& to) {
  return libyuv::YUY2ToI422(from.data[0], from.linesize[0], to.plane(0), static_cast<int>(to.bytesPerRow(0)),
                            to.plane(1), static_cast<int>(to.bytesPerRow(1)), to.plane(2),
                            static_cast<int>(to.bytesPerRow(2)), from.width, from.height);
}

int biPlanarCrFirst(const AVFrame& from, const PictureMemory& to) {
  return libyuv::NV21ToI420(from.data[0], from.linesize[0], from.data[1], from.linesize[1], to.plane(0),
                            static_cast<int>(to.bytesPerRow(0)), to.plane(1), static_cast<int>(to.bytesPerRow(1)),
                            to.plane(2), static_cast<int>(to.bytesPerRow(2)), from.width, from.height);
}

constexpr Conversion kConversions[] = {
    {AV_PIX_FMT_YUYV422, kCVPixelFormat_422Planar, packed422},
    {AV_PIX_FMT_NV21, kCVPixelFormat_420Planar, biPlanarCrFirst},
    {AV_PIX_FMT_YUV420P10LE, kCVPixelFormat_420Planar, tenBits<libyuv::I010ToI420>},
    {AV_PIX_FMT_YUV422P10LE, kCVPixelFormat_422Planar, tenBits<libyuv::I210ToI422>},
    {AV_PIX_FMT_RGB24, kCVPixelFormat_32BGRA, packed<libyuv::RAWToARGB>},
    {AV_PIX_FMT_BGR24, kCVPixelFormat_32BGRA, packed<libyuv::RGB24ToARGB>},
    {AV_PIX_FMT_ARGB, kCVPixelFormat_32BGRA, packed<libyuv::BGRAToARGB>},
    {AV_PIX_FMT_RGB565LE, kCVPixelFormat_32BGRA, packed<libyuv::RGB565ToARGB>},
};

template <class Row, size_t count>
const Row* rowFor(const Row (&rows)[count], int format) {
  const auto* const found =
      std::find_if(std::begin(rows), std::end(rows), [format](const Row& row) { return row.format == format; });
  return found == std::end(rows) ? nullptr : found;
}

PictureMemory::Sizes sizesOf(uint32_t pixelFormat, const AVFrame& frame) {
  const auto width = static_cast<size_t>(frame.width);
  const auto height = static_cast<size_t>(frame.height);
  const size_t halfWidth = (width + 1) / 2;
  switch (pixelFormat) {
    case kCVPixelFormat_420Planar:
      return {{{width, height}, {halfWidth, (height + 1) / 2}, {halfWidth, (height + 1) / 2}}};
    case kCVPixelFormat_422Planar:
      return {{{width, height}, {halfWidth, height}, {halfWidth, height}}};
    default:
      return {{{width * 4, height}}};
  }
}

YCbCrColour colourOf(const AVFrame& frame, YCbCrColour described) {
  YCbCrColour colour = described;
  if (frame.colorspace != AVCOL_SPC_UNSPECIFIED)
    colour.matrix = frame.colorspace == AVCOL_SPC_BT709 ? YCbCrColour::Matrix::kBT709 : YCbCrColour::Matrix::kBT601;
  const bool isJPEGFormat =
      frame.format == AV_PIX_FMT_YUVJ420P || frame.format == AV_PIX_FMT_YUVJ422P || frame.format == AV_PIX_FMT_YUVJ444P;
  if (frame.color_range != AVCOL_RANGE_UNSPECIFIED || isJPEGFormat)
    colour.isFullRange = frame.color_range == AVCOL_RANGE_JPEG || isJPEGFormat;
  return colour;
}

OSStatus convertPicture(const AVFrame& frame, YCbCrColour colour, CVImageBufferRef* picture) {
  const Conversion* const conversion = rowFor(kConversions, frame.format);
  if (!conversion) return codecUnimpErr;
  PictureMemory memory(sizesOf(conversion->pixelFormat, frame));
  if (!memory) return memFullErr;
  if (conversion->convert(frame, memory) != 0) return codecUnimpErr;
  *picture = memory.makePicture(frame.width, frame.height, conversion->pixelFormat, colour);
  return *picture ? noErr : memFullErr;
}

}  // namespace

void AVFrameFree::operator()(AVFrame* frame) const noexcept {
  av_frame_free(&frame);
}

OSStatus makePicture(AVFramePtr frame, YCbCrColour described, CVImageBufferRef* picture) {
  const YCbCrColour colour = colourOf(*frame, described);
  const Layout* const layout = rowFor(kSameLayouts, frame->format);
  if (!layout) return convertPicture(*frame, colour, picture);
  CVPixelBuffer::Planes planes;
  for (size_t i = 0; i < planes.size(); ++i) {
    if (frame->linesize[i] < 0) return codecUnimpErr;  // bottom row first
    planes[i] = {frame->data[i], static_cast<size_t>(frame->linesize[i])};
  }
  const int32_t width = frame->width;
  const int32_t height = frame->height;
  std::shared_ptr<const AVFrame> owner = std::move(frame);
  *picture = CVPixelBuffer::wrap(width, height, layout->pixelFormat, planes, colour, std::move(owner));
  return *picture ? noErr : codecUnimpErr;
}

}  // namespace vesk
