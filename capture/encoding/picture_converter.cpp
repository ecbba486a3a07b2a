#include "capture/encoding/picture_converter.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

#include <libyuv.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace vesk::capture {

namespace {

using ToARGB = int (*)(const uint8_t*, int, uint8_t*, int, int, int);

struct PackedForm {
  AVPixelFormat format;
  ToARGB toARGB;
};
/// libyuv names the channels from the most significant down, libav in the order of memory.
constexpr PackedForm kPackedForms[] = {
    {AV_PIX_FMT_BGR24, libyuv::RGB24ToARGB},     {AV_PIX_FMT_RGB24, libyuv::RAWToARGB},
    {AV_PIX_FMT_BGRA, libyuv::ARGBCopy},         {AV_PIX_FMT_BGR0, libyuv::ARGBCopy},
    {AV_PIX_FMT_RGBA, libyuv::ABGRToARGB},       {AV_PIX_FMT_RGB0, libyuv::ABGRToARGB},
    {AV_PIX_FMT_ARGB, libyuv::BGRAToARGB},       {AV_PIX_FMT_0RGB, libyuv::BGRAToARGB},
    {AV_PIX_FMT_ABGR, libyuv::RGBAToARGB},       {AV_PIX_FMT_0BGR, libyuv::RGBAToARGB},
    {AV_PIX_FMT_RGB565LE, libyuv::RGB565ToARGB}, {AV_PIX_FMT_RGB555LE, libyuv::ARGB1555ToARGB},
};

const PackedForm* packedForm(int format) {
  for (const PackedForm& form : kPackedForms) {
    if (form.format == format) return &form;
  }
  return nullptr;
}

/// Three planes of eight bits, whatever their subsampling.
bool isPlanarYUV(int format) {
  const AVPixFmtDescriptor* form = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(format));
  if (form == nullptr || form->nb_components < 3 || form->comp[0].depth != 8) return false;
  const uint64_t unwanted = AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_HWACCEL | AV_PIX_FMT_FLAG_BITSTREAM;
  return (form->flags & unwanted) == 0 && (form->flags & AV_PIX_FMT_FLAG_PLANAR) != 0 && form->comp[1].plane == 1 &&
         form->comp[2].plane == 2;
}

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
      return frame.color_range == AVCOL_RANGE_JPEG && packedForm(frame.format) == nullptr &&
             frame.format != AV_PIX_FMT_PAL8;
  }
}

/// Full-range values, counted from `middle`, squeezed to `span` steps around `base`.
constexpr std::array<uint8_t, 256> levelTable(int middle, int span, int base) {
  std::array<uint8_t, 256> table{};
  for (int value = 0; value < 256; ++value) {
    const int scaled = (value - middle) * span;
    table[static_cast<size_t>(value)] = static_cast<uint8_t>(base + (scaled + (scaled < 0 ? -127 : 127)) / 255);
  }
  return table;
}
constexpr auto kLumaLevels = levelTable(0, 219, 16);
constexpr auto kChromaLevels = levelTable(128, 224, 128);

void squeezeLevels(uint8_t* pixels, size_t bytes) {
  for (size_t at = 0; at + 1 < bytes; at += 2) {
    pixels[at] = kChromaLevels[pixels[at]];
    pixels[at + 1] = kLumaLevels[pixels[at + 1]];
  }
}

/// The planes of a 4:2:2 picture, one behind the other.
struct Planes {
  Planes(uint8_t* memory, int pictureWidth, int pictureHeight)
      : width(pictureWidth),
        height(pictureHeight),
        y(memory),
        u(y + size_t{1} * width * height),
        v(u + size_t{1} * (width / 2) * height) {}

  static size_t bytes(int width, int height) { return size_t{2} * width * height; }

  int width;
  int height;
  uint8_t* y;
  uint8_t* u;
  uint8_t* v;
};

void blacken(const Planes& picture) {
  const size_t pixels = size_t{1} * picture.width * picture.height;
  std::memset(picture.y, 16, pixels);
  std::memset(picture.u, 128, pixels);  // both colour planes
}

/// Scales `from` into the middle of `to`, its shape kept.
void scaleInto(const Planes& from, const Planes& to) {
  const bool isWider = int64_t{from.width} * to.height > int64_t{to.width} * from.height;
  const int64_t width = isWider ? to.width : int64_t{to.height} * from.width / from.height;
  const int64_t height = isWider ? int64_t{to.width} * from.height / from.width : to.height;
  const int scaledWidth = std::max(static_cast<int>(width) & ~1, 2);
  const int scaledHeight = std::max(static_cast<int>(height), 1);
  const int left = (to.width - scaledWidth) / 2 & ~1;
  const int top = (to.height - scaledHeight) / 2;
  const auto scale = [&](const uint8_t* source, uint8_t* target, int shift) {
    const int rowBytes = to.width >> shift;
    libyuv::ScalePlane(source, from.width >> shift, from.width >> shift, from.height,
                       target + ptrdiff_t{rowBytes} * top + (left >> shift), rowBytes, scaledWidth >> shift,
                       scaledHeight, libyuv::kFilterBox);
  };
  scale(from.y, to.y, 0);
  scale(from.u, to.u, 1);
  scale(from.v, to.v, 1);
}

}  // namespace

bool PictureConverter::canConvert(AVPixelFormat format) {
  switch (format) {
    case AV_PIX_FMT_UYVY422:
    case AV_PIX_FMT_YUYV422:
    case AV_PIX_FMT_GRAY8:
    case AV_PIX_FMT_NV12:
    case AV_PIX_FMT_NV21:
    case AV_PIX_FMT_PAL8:
    case AV_PIX_FMT_YUV420P10LE:
    case AV_PIX_FMT_YUV422P10LE:
      return true;
    default:
      return isPlanarYUV(format) || packedForm(format) != nullptr;
  }
}

uint8_t* PictureConverter::scratch(size_t bytes) {
  if (mScratch.size() < bytes) mScratch.resize(bytes);
  return mScratch.data();
}

bool PictureConverter::convert(const AVFrame& frame, int width, int height, uint8_t* out) {
  if (frame.width < width || frame.height < height || width <= 0 || width % 2 != 0) return false;
  const bool done =
      isPlanarYUV(frame.format) ? convertPlanar(frame, width, height, out) : convertOther(frame, width, height, out);
  if (done && isFullRange(frame)) squeezeLevels(out, size_t{2} * width * height);
  return done;
}

bool PictureConverter::fit(std::span<const uint8_t> picture, int pictureWidth, int pictureHeight, int width, int height,
                           uint8_t* out) {
  const size_t pictureBytes = Planes::bytes(pictureWidth, pictureHeight);
  if (picture.size() < pictureBytes) return false;
  uint8_t* memory = scratch(pictureBytes + Planes::bytes(width, height));
  const Planes from(memory, pictureWidth, pictureHeight);
  const Planes to(memory + pictureBytes, width, height);
  if (libyuv::UYVYToI422(picture.data(), pictureWidth * 2, from.y, pictureWidth, from.u, pictureWidth / 2, from.v,
                         pictureWidth / 2, pictureWidth, pictureHeight) != 0)
    return false;
  blacken(to);
  scaleInto(from, to);
  return libyuv::I422ToUYVY(to.y, width, to.u, width / 2, to.v, width / 2, out, width * 2, width, height) == 0;
}

bool PictureConverter::convertPlanar(const AVFrame& frame, int width, int height, uint8_t* out) {
  const AVPixFmtDescriptor* form = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
  const auto* data = frame.data;
  const auto* rows = frame.linesize;
  if (form->log2_chroma_w == 1 && form->log2_chroma_h == 1) {
    return libyuv::I420ToUYVY(data[0], rows[0], data[1], rows[1], data[2], rows[2], out, width * 2, width, height) == 0;
  }
  if (form->log2_chroma_w == 1 && form->log2_chroma_h == 0) {
    return libyuv::I422ToUYVY(data[0], rows[0], data[1], rows[1], data[2], rows[2], out, width * 2, width, height) == 0;
  }
  const int half = width / 2;
  const size_t planeBytes = static_cast<size_t>(half) * height;
  uint8_t* chroma = scratch(2 * planeBytes);
  for (int plane = 0; plane < 2; ++plane) {
    libyuv::ScalePlane(data[plane + 1], rows[plane + 1], AV_CEIL_RSHIFT(width, form->log2_chroma_w),
                       AV_CEIL_RSHIFT(height, form->log2_chroma_h), chroma + planeBytes * plane, half, half, height,
                       libyuv::kFilterBox);
  }
  return libyuv::I422ToUYVY(data[0], rows[0], chroma, half, chroma + planeBytes, half, out, width * 2, width, height) ==
         0;
}

bool PictureConverter::convertOther(const AVFrame& frame, int width, int height, uint8_t* out) {
  const auto* data = frame.data;
  const auto* rows = frame.linesize;
  const size_t pixels = static_cast<size_t>(width) * height;
  const int half = width / 2;
  uint8_t* y = scratch(4 * pixels);
  uint8_t* u = y + pixels;
  uint8_t* v = u + pixels / 2 + half;
  const auto from420 = [&] {
    return libyuv::I420ToUYVY(y, width, u, half, v, half, out, width * 2, width, height) == 0;
  };
  const auto from422 = [&] {
    return libyuv::I422ToUYVY(y, width, u, half, v, half, out, width * 2, width, height) == 0;
  };
  const auto wide = [&](int plane) { return reinterpret_cast<const uint16_t*>(data[plane]); };
  switch (frame.format) {
    case AV_PIX_FMT_UYVY422:
      libyuv::CopyPlane(data[0], rows[0], out, width * 2, width * 2, height);
      return true;
    case AV_PIX_FMT_YUYV422:
      return libyuv::YUY2ToI422(data[0], rows[0], y, width, u, half, v, half, width, height) == 0 && from422();
    case AV_PIX_FMT_GRAY8:
      std::memset(u, 128, pixels / 2);
      std::memset(v, 128, pixels / 2);
      return libyuv::I422ToUYVY(data[0], rows[0], u, half, v, half, out, width * 2, width, height) == 0;
    case AV_PIX_FMT_NV12:
      return libyuv::NV12ToI420(data[0], rows[0], data[1], rows[1], y, width, u, half, v, half, width, height) == 0 &&
             from420();
    case AV_PIX_FMT_NV21:
      return libyuv::NV21ToI420(data[0], rows[0], data[1], rows[1], y, width, u, half, v, half, width, height) == 0 &&
             from420();
    case AV_PIX_FMT_YUV420P10LE:
      return libyuv::I010ToI420(wide(0), rows[0] / 2, wide(1), rows[1] / 2, wide(2), rows[2] / 2, y, width, u, half, v,
                                half, width, height) == 0 &&
             from420();
    case AV_PIX_FMT_YUV422P10LE:
      return libyuv::I210ToI422(wide(0), rows[0] / 2, wide(1), rows[1] / 2, wide(2), rows[2] / 2, y, width, u, half, v,
                                half, width, height) == 0 &&
             from422();
    case AV_PIX_FMT_PAL8:
      for (int row = 0; row < height; ++row) {
        const uint8_t* line = data[0] + static_cast<ptrdiff_t>(rows[0]) * row;
        for (int column = 0; column < width; ++column) {
          std::memcpy(y + (static_cast<size_t>(row) * width + column) * 4, data[1] + size_t{4} * line[column], 4);
        }
      }
      return libyuv::ARGBToUYVY(y, width * 4, out, width * 2, width, height) == 0;
    default: {
      const PackedForm* form = packedForm(frame.format);
      return form != nullptr && form->toARGB(data[0], rows[0], y, width * 4, width, height) == 0 &&
             libyuv::ARGBToUYVY(y, width * 4, out, width * 2, width, height) == 0;
    }
  }
}

}  // namespace vesk::capture
