#include "platform/decompression/av_picture.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "platform/decompression/av_layout.h"
#include "platform/decompression/picture_memory.h"
#include "platform/pixels/picture_conversion.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

namespace vesk {
namespace {

struct SameLayout {
  AVPixelFormat format;
  uint32_t pixelFormat;
};
constexpr SameLayout kSameLayouts[] = {
    {AV_PIX_FMT_YUV420P, kCVPixelFormat_420Planar},  {AV_PIX_FMT_YUVJ420P, kCVPixelFormat_420Planar},
    {AV_PIX_FMT_YUV422P, kCVPixelFormat_422Planar},  {AV_PIX_FMT_YUVJ422P, kCVPixelFormat_422Planar},
    {AV_PIX_FMT_YUV444P, kCVPixelFormat_444Planar},  {AV_PIX_FMT_YUVJ444P, kCVPixelFormat_444Planar},
    {AV_PIX_FMT_NV12, kCVPixelFormat_420BiPlanar},   {AV_PIX_FMT_GRAY8, kCVPixelFormat_Gray},
    {AV_PIX_FMT_UYVY422, kCMPixelFormat_422YpCbCr8}, {AV_PIX_FMT_RGBA, kCVPixelFormat_32RGBA},
    {AV_PIX_FMT_BGRA, kCVPixelFormat_32BGRA},
};

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

OSStatus convertedPicture(const AVFrame& frame, YCbCrColour colour, CVImageBufferRef* picture) {
  const RawPicture raw = rawPictureOf(frame);
  const uint32_t pixelFormat = displayFormatFor(raw.layout);
  if (pixelFormat == 0) return codecUnimpErr;
  PictureMemory memory(sizesOf(pixelFormat, frame));
  if (!memory) return memFullErr;
  const PlaneMemory planes{{memory.plane(0), memory.plane(1), memory.plane(2)},
                           {memory.bytesPerRow(0), memory.bytesPerRow(1), memory.bytesPerRow(2)}};
  if (!convertForDisplay(raw, planes)) return codecUnimpErr;
  *picture = memory.makePicture(frame.width, frame.height, pixelFormat, colour);
  return *picture ? noErr : memFullErr;
}

}  // namespace

void AVFrameFree::operator()(AVFrame* frame) const noexcept {
  av_frame_free(&frame);
}

OSStatus makePicture(AVFramePtr frame, YCbCrColour described, CVImageBufferRef* picture) {
  const YCbCrColour colour = colourOf(*frame, described);
  const auto* const layout = std::find_if(std::begin(kSameLayouts), std::end(kSameLayouts),
                                          [&](const SameLayout& row) { return row.format == frame->format; });
  if (layout == std::end(kSameLayouts)) return convertedPicture(*frame, colour, picture);
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
