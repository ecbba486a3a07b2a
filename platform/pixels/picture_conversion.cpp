#include "platform/pixels/picture_conversion.h"

#include <libyuv.h>

#include <algorithm>
#include <array>
#include <cstring>

#include <vesk/pixel_buffer.h>
#include "platform/pixels/levels.h"

namespace vesk {

namespace {

template <Squeezing by>
void squeezePlane(const uint8_t* from, int fromRow, uint8_t* to, size_t toRow, int width, int height) {
  for (ptrdiff_t row = 0; row < height; ++row)
    squeezeRow<by>(from + row * fromRow, to + row * static_cast<ptrdiff_t>(toRow), width);
}

void squeezePacked(uint8_t* pixels, int width, int height) {
  for (ptrdiff_t row = 0; row < height; ++row) {
    uint8_t* const begin = pixels + row * width * 2;
    squeezeRow<kChromaSqueezing, kLumaSqueezing>(begin, begin, width * 2);
  }
}

// --- Layouts ---

/// libyuv names the channels from the most significant of a word down, we in the order of memory.
using ToBGRA = int (*)(const uint8_t*, int, uint8_t*, int, int, int);

ToBGRA toBGRA(PixelLayout layout) {
  switch (layout) {
    case PixelLayout::kRGB:
      return libyuv::RAWToARGB;
    case PixelLayout::kBGR:
      return libyuv::RGB24ToARGB;
    case PixelLayout::kBGRA:
    case PixelLayout::kBGRX:
      return libyuv::ARGBCopy;
    case PixelLayout::kRGBA:
    case PixelLayout::kRGBX:
      return libyuv::ABGRToARGB;
    case PixelLayout::kARGB:
    case PixelLayout::kXRGB:
      return libyuv::BGRAToARGB;
    case PixelLayout::kABGR:
    case PixelLayout::kXBGR:
      return libyuv::RGBAToARGB;
    case PixelLayout::kRGB565:
      return libyuv::RGB565ToARGB;
    case PixelLayout::kRGB555:
      return libyuv::ARGB1555ToARGB;
    default:
      return nullptr;
  }
}

/// Columns and rows of luma for each sample of colour, as shifts, in planes of 8 bits; negative for other layouts.
struct ChromaShift {
  int across = -1;
  int down = -1;
};
ChromaShift chromaShift(PixelLayout layout) {
  switch (layout) {
    case PixelLayout::k420Planar:
      return {1, 1};
    case PixelLayout::k422Planar:
      return {1, 0};
    case PixelLayout::k444Planar:
      return {0, 0};
    case PixelLayout::k440Planar:
      return {0, 1};
    case PixelLayout::k411Planar:
      return {2, 0};
    case PixelLayout::k410Planar:
      return {2, 2};
    default:
      return {};
  }
}
bool isPlanar(PixelLayout layout) {
  return chromaShift(layout).across >= 0;
}

int shifted(int size, int shift) {
  return (size + (1 << shift) - 1) >> shift;
}

int stride(const PlaneMemory& memory, size_t plane) {
  return static_cast<int>(memory.rowBytes[plane]);
}

/// What 4:2:0 or 4:2:2 becomes in planes of 8 bits; none for layouts that makePlanar does not take.
PixelLayout planarLayoutFor(PixelLayout layout) {
  switch (layout) {
    case PixelLayout::k420Planar10:
    case PixelLayout::k420BiPlanar:
    case PixelLayout::k420BiPlanarCrFirst:
      return PixelLayout::k420Planar;
    case PixelLayout::k422Planar10:
    case PixelLayout::kYUYV:
      return PixelLayout::k422Planar;
    default:
      return PixelLayout::kNone;
  }
}

bool makePlanar(const RawPicture& from, const PlaneMemory& to) {
  const auto& data = from.data;
  const auto& rows = from.rowBytes;
  const auto words = [&from](size_t plane) { return reinterpret_cast<const uint16_t*>(from.data[plane]); };
  const auto& [y, u, v] = to.bytes;
  switch (from.layout) {
    case PixelLayout::k420Planar10:
      return libyuv::I010ToI420(words(0), rows[0] / 2, words(1), rows[1] / 2, words(2), rows[2] / 2, y, stride(to, 0),
                                u, stride(to, 1), v, stride(to, 2), from.width, from.height) == 0;
    case PixelLayout::k422Planar10:
      return libyuv::I210ToI422(words(0), rows[0] / 2, words(1), rows[1] / 2, words(2), rows[2] / 2, y, stride(to, 0),
                                u, stride(to, 1), v, stride(to, 2), from.width, from.height) == 0;
    case PixelLayout::k420BiPlanar:
      return libyuv::NV12ToI420(data[0], rows[0], data[1], rows[1], y, stride(to, 0), u, stride(to, 1), v,
                                stride(to, 2), from.width, from.height) == 0;
    case PixelLayout::k420BiPlanarCrFirst:
      return libyuv::NV21ToI420(data[0], rows[0], data[1], rows[1], y, stride(to, 0), u, stride(to, 1), v,
                                stride(to, 2), from.width, from.height) == 0;
    case PixelLayout::kYUYV:
      return libyuv::YUY2ToI422(data[0], rows[0], y, stride(to, 0), u, stride(to, 1), v, stride(to, 2), from.width,
                                from.height) == 0;
    default:
      return false;
  }
}

/// Brings packed 4:2:2 of another order into that of "2vuy". libyuv moves the bytes of four pixels at a time.
bool reorder(const RawPicture& picture, std::array<uint8_t, 4> order, uint8_t* out) {
  std::array<uint8_t, 16> places{};
  for (size_t at = 0; at < places.size(); ++at) places[at] = static_cast<uint8_t>(at / 4 * 4 + order[at % 4]);
  return libyuv::ARGBShuffle(picture.data[0], picture.rowBytes[0], out, picture.width * 2, places.data(),
                             picture.width / 2, picture.height) == 0;
}

bool planarToPacked(const RawPicture& picture, uint8_t* out) {
  const auto& [y, u, v] = picture.data;
  const auto& [yRow, uRow, vRow] = picture.rowBytes;
  const auto convert = picture.layout == PixelLayout::k420Planar ? libyuv::I420ToUYVY : libyuv::I422ToUYVY;
  return convert(y, yRow, u, uRow, v, vRow, out, picture.width * 2, picture.width, picture.height) == 0;
}

/// The planes of a picture in one piece of memory.
PlaneMemory planesIn(uint8_t* memory, int width, int height) {
  const size_t luma = static_cast<size_t>(width) * static_cast<size_t>(height);
  const auto half = static_cast<size_t>(shifted(width, 1));
  return {{memory, memory + luma, memory + luma + half * static_cast<size_t>(height)},
          {static_cast<size_t>(width), half, half}};
}

RawPicture pictureOf(const PlaneMemory& memory, PixelLayout layout, int width, int height) {
  const auto& [y, u, v] = memory.bytes;
  return {layout, width, height, {y, u, v}, {stride(memory, 0), stride(memory, 1), stride(memory, 2)}};
}

// --- Scaling ---

void blacken(const PlaneMemory& picture, int width, int height) {
  const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
  std::memset(picture.bytes[0], 16, pixels);
  std::memset(picture.bytes[1], 128, pixels);  // both colour planes
}

struct Size {
  int width;
  int height;
};

/// Scales a 4:2:2 picture into the middle of another, its shape kept.
void scaleInto(const PlaneMemory& from, Size fromSize, const PlaneMemory& to, Size toSize) {
  const bool isWider = int64_t{fromSize.width} * toSize.height > int64_t{toSize.width} * fromSize.height;
  const int64_t width = isWider ? toSize.width : int64_t{toSize.height} * fromSize.width / fromSize.height;
  const int64_t height = isWider ? int64_t{toSize.width} * fromSize.height / fromSize.width : toSize.height;
  const int scaledWidth = std::max(static_cast<int>(width) & ~1, 2);
  const int scaledHeight = std::max(static_cast<int>(height), 1);
  const int left = (toSize.width - scaledWidth) / 2 & ~1;
  const int top = (toSize.height - scaledHeight) / 2;
  for (size_t plane = 0; plane < 3; ++plane) {
    const int shift = plane == 0 ? 0 : 1;
    const int rowBytes = toSize.width >> shift;
    libyuv::ScalePlane(from.bytes[plane], fromSize.width >> shift, fromSize.width >> shift, fromSize.height,
                       to.bytes[plane] + ptrdiff_t{rowBytes} * top + (left >> shift), rowBytes, scaledWidth >> shift,
                       scaledHeight, libyuv::kFilterBox);
  }
}

}  // namespace

bool Packed422Converter::canConvert(PixelLayout layout) {
  switch (layout) {
    case PixelLayout::kUYVY:
    case PixelLayout::kYVYU:
    case PixelLayout::kVYUY:
    case PixelLayout::kGray:
    case PixelLayout::kPalette:
      return true;
    default:
      return isPlanar(layout) || planarLayoutFor(layout) != PixelLayout::kNone || toBGRA(layout) != nullptr;
  }
}

uint8_t* Packed422Converter::scratch(size_t bytes) {
  if (mScratch.size() < bytes) mScratch.resize(bytes);
  return mScratch.data();
}

bool Packed422Converter::convert(const RawPicture& picture, uint8_t* out) {
  if (picture.width <= 0 || picture.height <= 0 || picture.width % 2 != 0) return false;
  if (!convertLevelsAsTheyAre(picture, out)) return false;
  const bool isRGB = toBGRA(picture.layout) != nullptr || picture.layout == PixelLayout::kPalette;
  if (picture.isFullRange && !isRGB) squeezePacked(out, picture.width, picture.height);
  return true;
}

bool Packed422Converter::convertLevelsAsTheyAre(const RawPicture& picture, uint8_t* out) {
  const int width = picture.width;
  const int height = picture.height;
  const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
  const auto& data = picture.data;
  const auto& rows = picture.rowBytes;
  switch (picture.layout) {
    case PixelLayout::k420Planar:
    case PixelLayout::k422Planar:
      return planarToPacked(picture, out);
    case PixelLayout::kUYVY:
      libyuv::CopyPlane(data[0], rows[0], out, width * 2, width * 2, height);
      return true;
    case PixelLayout::kYUYV:
      return reorder(picture, {1, 0, 3, 2}, out);
    case PixelLayout::kYVYU:
      return reorder(picture, {3, 0, 1, 2}, out);
    case PixelLayout::kVYUY:
      return reorder(picture, {2, 1, 0, 3}, out);
    case PixelLayout::kGray: {
      uint8_t* const chroma = scratch(pixels);
      std::memset(chroma, 128, pixels);
      const int half = width / 2;
      return planarToPacked({PixelLayout::k422Planar, width, height, {data[0], chroma, chroma}, {rows[0], half, half}},
                            out);
    }
    case PixelLayout::kPalette: {
      uint8_t* const colours = scratch(4 * pixels);
      for (ptrdiff_t row = 0; row < height; ++row) {
        const uint8_t* const line = data[0] + row * rows[0];
        for (ptrdiff_t column = 0; column < width; ++column)
          std::memcpy(colours + (row * width + column) * 4, data[1] + ptrdiff_t{4} * line[column], 4);
      }
      return libyuv::ARGBToUYVY(colours, width * 4, out, width * 2, width, height) == 0;
    }
    default:
      break;
  }
  if (const auto convert = toBGRA(picture.layout)) {
    uint8_t* const colours = scratch(4 * pixels);
    return convert(data[0], rows[0], colours, width * 4, width, height) == 0 &&
           libyuv::ARGBToUYVY(colours, width * 4, out, width * 2, width, height) == 0;
  }
  const PlaneMemory planes = planesIn(scratch(2 * pixels), width, height);
  if (const auto planar = planarLayoutFor(picture.layout); planar != PixelLayout::kNone)
    return makePlanar(picture, planes) && planarToPacked(pictureOf(planes, planar, width, height), out);
  if (!isPlanar(picture.layout)) return false;
  const ChromaShift shift = chromaShift(picture.layout);
  for (const size_t plane : {1, 2})
    libyuv::ScalePlane(data[plane], rows[plane], shifted(width, shift.across), shifted(height, shift.down),
                       planes.bytes[plane], stride(planes, plane), width / 2, height, libyuv::kFilterBox);
  RawPicture scaled = pictureOf(planes, PixelLayout::k422Planar, width, height);
  scaled.data[0] = data[0];
  scaled.rowBytes[0] = rows[0];
  return planarToPacked(scaled, out);
}

bool Packed422Converter::fit(std::span<const uint8_t> picture, int pictureWidth, int pictureHeight, int width,
                             int height, uint8_t* out) {
  const auto bytesOf = [](int across, int down) {
    return size_t{2} * static_cast<size_t>(across) * static_cast<size_t>(down);
  };
  const size_t pictureBytes = bytesOf(pictureWidth, pictureHeight);
  if (picture.size() < pictureBytes) return false;
  uint8_t* const memory = scratch(pictureBytes + bytesOf(width, height));
  const PlaneMemory from = planesIn(memory, pictureWidth, pictureHeight);
  const PlaneMemory to = planesIn(memory + pictureBytes, width, height);
  if (libyuv::UYVYToI422(picture.data(), pictureWidth * 2, from.bytes[0], stride(from, 0), from.bytes[1],
                         stride(from, 1), from.bytes[2], stride(from, 2), pictureWidth, pictureHeight) != 0)
    return false;
  blacken(to, width, height);
  scaleInto(from, {pictureWidth, pictureHeight}, to, {width, height});
  return planarToPacked(pictureOf(to, PixelLayout::k422Planar, width, height), out);
}

bool convertTo420(const RawPicture& picture, const PlaneMemory& to) {
  const int width = picture.width;
  const int height = picture.height;
  const auto& [y, u, v] = to.bytes;
  if (picture.layout == PixelLayout::kUYVY && !picture.isFullRange)
    return libyuv::UYVYToI420(picture.data[0], picture.rowBytes[0], y, stride(to, 0), u, stride(to, 1), v,
                              stride(to, 2), width, height) == 0;
  if (picture.layout == PixelLayout::kRGBA)
    return libyuv::ABGRToI420(picture.data[0], picture.rowBytes[0], y, stride(to, 0), u, stride(to, 1), v,
                              stride(to, 2), width, height) == 0;
  const bool isGray = picture.layout == PixelLayout::kGray;
  if (!isGray && !isPlanar(picture.layout)) return false;
  const auto copy = [&](size_t plane, const uint8_t* from, int fromRow, int across, int down) {
    if (!picture.isFullRange)
      libyuv::CopyPlane(from, fromRow, to.bytes[plane], stride(to, plane), across, down);
    else if (plane == 0)
      squeezePlane<kLumaSqueezing>(from, fromRow, to.bytes[plane], to.rowBytes[plane], across, down);
    else
      squeezePlane<kChromaSqueezing>(from, fromRow, to.bytes[plane], to.rowBytes[plane], across, down);
  };
  copy(0, picture.data[0], picture.rowBytes[0], width, height);
  const int halfWidth = width / 2;
  const int halfHeight = height / 2;
  for (const size_t plane : {1, 2}) {
    if (isGray) {
      libyuv::SetPlane(to.bytes[plane], stride(to, plane), halfWidth, halfHeight, 128);
      continue;
    }
    if (picture.layout == PixelLayout::k420Planar) {
      copy(plane, picture.data[plane], picture.rowBytes[plane], halfWidth, halfHeight);
      continue;
    }
    const ChromaShift shift = chromaShift(picture.layout);
    libyuv::ScalePlane(picture.data[plane], picture.rowBytes[plane], shifted(width, shift.across),
                       shifted(height, shift.down), to.bytes[plane], stride(to, plane), halfWidth, halfHeight,
                       libyuv::kFilterBox);
    if (picture.isFullRange) copy(plane, to.bytes[plane], stride(to, plane), halfWidth, halfHeight);
  }
  return true;
}

uint32_t displayFormatFor(PixelLayout layout) {
  switch (layout) {
    case PixelLayout::kRGB:
    case PixelLayout::kBGR:
    case PixelLayout::kARGB:
    case PixelLayout::kABGR:
    case PixelLayout::kRGB565:
    case PixelLayout::kRGB555:
      return kCVPixelFormat_32BGRA;
    case PixelLayout::kYUYV:
    case PixelLayout::k422Planar10:
      return kCVPixelFormat_422Planar;
    case PixelLayout::k420BiPlanarCrFirst:
    case PixelLayout::k420Planar10:
      return kCVPixelFormat_420Planar;
    default:
      return 0;
  }
}

bool convertForDisplay(const RawPicture& picture, const PlaneMemory& to) {
  if (displayFormatFor(picture.layout) == 0) return false;
  if (const auto convert = toBGRA(picture.layout))
    return convert(picture.data[0], picture.rowBytes[0], to.bytes[0], stride(to, 0), picture.width, picture.height) ==
           0;
  return makePlanar(picture, to);
}

}  // namespace vesk
