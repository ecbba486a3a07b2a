#include "platform/decompression/av_layout.h"

#include <algorithm>
#include <iterator>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

namespace vesk {
namespace {

struct Row {
  AVPixelFormat format;
  PixelLayout layout;
};
constexpr Row kRows[] = {
    {AV_PIX_FMT_YUV420P, PixelLayout::k420Planar},
    {AV_PIX_FMT_YUVJ420P, PixelLayout::k420Planar},
    {AV_PIX_FMT_YUVA420P, PixelLayout::k420Planar},
    {AV_PIX_FMT_YUV422P, PixelLayout::k422Planar},
    {AV_PIX_FMT_YUVJ422P, PixelLayout::k422Planar},
    {AV_PIX_FMT_YUVA422P, PixelLayout::k422Planar},
    {AV_PIX_FMT_YUV444P, PixelLayout::k444Planar},
    {AV_PIX_FMT_YUVJ444P, PixelLayout::k444Planar},
    {AV_PIX_FMT_YUVA444P, PixelLayout::k444Planar},
    {AV_PIX_FMT_YUV440P, PixelLayout::k440Planar},
    {AV_PIX_FMT_YUVJ440P, PixelLayout::k440Planar},
    {AV_PIX_FMT_YUV411P, PixelLayout::k411Planar},
    {AV_PIX_FMT_YUVJ411P, PixelLayout::k411Planar},
    {AV_PIX_FMT_YUV410P, PixelLayout::k410Planar},
    {AV_PIX_FMT_YUV420P10LE, PixelLayout::k420Planar10},
    {AV_PIX_FMT_YUV422P10LE, PixelLayout::k422Planar10},
    {AV_PIX_FMT_NV12, PixelLayout::k420BiPlanar},
    {AV_PIX_FMT_NV21, PixelLayout::k420BiPlanarCrFirst},
    {AV_PIX_FMT_UYVY422, PixelLayout::kUYVY},
    {AV_PIX_FMT_YUYV422, PixelLayout::kYUYV},
    {AV_PIX_FMT_GRAY8, PixelLayout::kGray},
    {AV_PIX_FMT_RGB24, PixelLayout::kRGB},
    {AV_PIX_FMT_BGR24, PixelLayout::kBGR},
    {AV_PIX_FMT_RGBA, PixelLayout::kRGBA},
    {AV_PIX_FMT_BGRA, PixelLayout::kBGRA},
    {AV_PIX_FMT_ARGB, PixelLayout::kARGB},
    {AV_PIX_FMT_ABGR, PixelLayout::kABGR},
    {AV_PIX_FMT_RGB0, PixelLayout::kRGBX},
    {AV_PIX_FMT_BGR0, PixelLayout::kBGRX},
    {AV_PIX_FMT_0RGB, PixelLayout::kXRGB},
    {AV_PIX_FMT_0BGR, PixelLayout::kXBGR},
    {AV_PIX_FMT_RGB565LE, PixelLayout::kRGB565},
    {AV_PIX_FMT_RGB555LE, PixelLayout::kRGB555},
    {AV_PIX_FMT_PAL8, PixelLayout::kPalette},
};

bool isFullRange(const AVFrame& frame) {
  switch (frame.format) {
    case AV_PIX_FMT_YUVJ420P:
    case AV_PIX_FMT_YUVJ422P:
    case AV_PIX_FMT_YUVJ444P:
    case AV_PIX_FMT_YUVJ440P:
    case AV_PIX_FMT_YUVJ411P:
      return true;
    case AV_PIX_FMT_GRAY8:
      return frame.color_range != AVCOL_RANGE_MPEG;
    default:
      return frame.color_range == AVCOL_RANGE_JPEG;
  }
}

}  // namespace

PixelLayout pixelLayoutOf(int avPixelFormat) {
  const auto* const found = std::find_if(std::begin(kRows), std::end(kRows),
                                         [avPixelFormat](const Row& row) { return row.format == avPixelFormat; });
  return found == std::end(kRows) ? PixelLayout::kNone : found->layout;
}

RawPicture rawPictureOf(const AVFrame& frame) {
  return {pixelLayoutOf(frame.format),
          frame.width,
          frame.height,
          {frame.data[0], frame.data[1], frame.data[2]},
          {frame.linesize[0], frame.linesize[1], frame.linesize[2]},
          isFullRange(frame)};
}

PlaneMemory planeMemoryOf(const AVFrame& frame) {
  PlaneMemory memory;
  for (size_t plane = 0; plane < memory.bytes.size(); ++plane) {
    memory.bytes[plane] = frame.data[plane];
    memory.rowBytes[plane] = static_cast<size_t>(frame.linesize[plane]);
  }
  return memory;
}

}  // namespace vesk
