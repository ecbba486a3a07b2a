#include "platform/pixels/picture_planes.h"

#include <libyuv.h>

#include <algorithm>
#include <array>

#include "platform/pixels/ycbcr_conversion.h"

namespace vesk {
namespace {

/// Rows that are worked on at a time where there are two steps, so that what lies between them stays
/// in the cache. Even, for halved chroma.
constexpr int32_t kStripRows = 16;

int32_t halved(int32_t size) {
  return (size + 1) / 2;
}

int stride(const PixelPlane& plane) {
  return static_cast<int>(plane.bytesPerRow);
}

/// A layout's planes: bytes for each step of pixels across, and rows for each step down.
struct PlaneShape {
  uint8_t bytes;
  uint8_t acrossStep;
  uint8_t downStep;
};

struct Shape {
  uint32_t pixelFormat;
  std::array<PlaneShape, CVPixelBuffer::kMostPlanes> planes;
};

constexpr Shape kShapes[] = {
    {kCMPixelFormat_422YpCbCr8, {{{4, 2, 1}}}},
    {kCVPixelFormat_420Planar, {{{1, 1, 1}, {1, 2, 2}, {1, 2, 2}}}},
    {kCVPixelFormat_422Planar, {{{1, 1, 1}, {1, 2, 1}, {1, 2, 1}}}},
    {kCVPixelFormat_444Planar, {{{1, 1, 1}, {1, 1, 1}, {1, 1, 1}}}},
    {kCVPixelFormat_420BiPlanar, {{{1, 1, 1}, {2, 2, 2}}}},
    {kCVPixelFormat_Gray, {{{1, 1, 1}}}},
    {kCVPixelFormat_32RGBA, {{{4, 1, 1}}}},
    {kCVPixelFormat_32BGRA, {{{4, 1, 1}}}},
};

const Shape& shapeOf(uint32_t pixelFormat) {
  const auto* const found = std::find_if(std::begin(kShapes), std::end(kShapes), [pixelFormat](const Shape& shape) {
    return shape.pixelFormat == pixelFormat;
  });
  return found == std::end(kShapes) ? kShapes[0] : *found;  // a CVPixelBuffer has no other
}

/// Tightly packed planes for a picture in scratch memory.
PicturePlanes planesIn(ScratchMemory& scratch, int32_t width, int32_t height, uint32_t pixelFormat,
                       YCbCrColour colour) {
  const Shape& shape = shapeOf(pixelFormat);
  std::array<size_t, CVPixelBuffer::kMostPlanes> rowBytes{};
  std::array<size_t, CVPixelBuffer::kMostPlanes + 1> starts{};
  for (size_t i = 0; i < rowBytes.size(); ++i) {
    const PlaneShape plane = shape.planes[i];
    starts[i + 1] = starts[i];
    if (plane.bytes == 0) continue;
    rowBytes[i] = (static_cast<size_t>(width) + plane.acrossStep - 1) / plane.acrossStep * plane.bytes;
    starts[i + 1] += rowBytes[i] * ((static_cast<size_t>(height) + plane.downStep - 1) / plane.downStep);
  }
  uint8_t* const memory = scratch.reserve(starts.back());
  if (!memory) return {};
  PicturePlanes picture{width, height, pixelFormat, {}, colour};
  for (size_t i = 0; i < rowBytes.size(); ++i)
    if (rowBytes[i] != 0) picture.planes[i] = {memory + starts[i], rowBytes[i]};
  return picture;
}

/// Scratch memory is ours to write; the planes only say where it is.
uint8_t* writable(const PixelPlane& plane) {
  return const_cast<uint8_t*>(plane.data);
}

bool lacksLastSample(const PicturePlanes& picture) {
  return picture.width % 2 != 0 && picture.planes[0].bytesPerRow < static_cast<size_t>(halved(picture.width)) * 4;
}

/// The last column of a 2vuy picture of odd width whose rows end after its U and Y.
void completeLastColumn(const PicturePlanes& packed, const PicturePlanes& planar) {
  const auto last = static_cast<size_t>(packed.width) - 1;
  for (size_t row = 0; row < static_cast<size_t>(packed.height); ++row) {
    const uint8_t* const pixel = packed.planes[0].data + row * packed.planes[0].bytesPerRow + last * 2;
    uint8_t* const v = writable(planar.planes[2]) + row * planar.planes[2].bytesPerRow + last / 2;
    writable(planar.planes[0])[row * planar.planes[0].bytesPerRow + last] = pixel[1];
    writable(planar.planes[1])[row * planar.planes[1].bytesPerRow + last / 2] = pixel[0];
    *v = last == 0 ? 128 : v[-1];
  }
}

PicturePlanes planarFrom2vuy(const PicturePlanes& picture, ScratchMemory& scratch) {
  const PicturePlanes planar =
      planesIn(scratch, picture.width, picture.height, kCVPixelFormat_422Planar, picture.colour);
  if (planar.width == 0) return {};
  const auto& [y, u, v] = planar.planes;
  const int32_t width = lacksLastSample(picture) ? picture.width - 1 : picture.width;
  if (width > 0)
    libyuv::UYVYToI422(picture.planes[0].data, stride(picture.planes[0]), writable(y), stride(y), writable(u),
                       stride(u), writable(v), stride(v), width, picture.height);
  if (width != picture.width) completeLastColumn(picture, planar);
  return planar;
}

bool convert2vuy(const PicturePlanes& picture, uint8_t* to, int rowBytes) {
  if (!lacksLastSample(picture)) {
    convert2vuy(picture.planes[0], to, rowBytes, constantsFor(picture.colour), picture.width, picture.height);
    return true;
  }
  ScratchMemory scratch;
  for (int32_t y = 0; y < picture.height; y += kStripRows) {
    const PicturePlanes strip = partOf(picture, {0, y, picture.width, std::min(kStripRows, picture.height - y)});
    const PicturePlanes planar = planarFrom2vuy(strip, scratch);
    if (planar.width == 0) return false;
    convertPicture(planar, PixelOrder::kBGRA, to + ptrdiff_t{y} * rowBytes, rowBytes);
  }
  return true;
}

/// Cb and Cr as planes of their own; Y stays where it is. libyuv can scale them in turn as well, but
/// rounds each sample down by up to two levels then.
PicturePlanes planarFromBiPlanar(const PicturePlanes& picture, ScratchMemory& scratch) {
  PicturePlanes planar = planesIn(scratch, picture.width, picture.height, kCVPixelFormat_420Planar, picture.colour);
  if (planar.width == 0) return {};
  planar.planes[0] = picture.planes[0];
  const auto& [y, u, v] = planar.planes;
  libyuv::SplitUVPlane(picture.planes[1].data, stride(picture.planes[1]), writable(u), stride(u), writable(v),
                       stride(v), halved(picture.width), halved(picture.height));
  return planar;
}

PixelOrder orderOf(uint32_t pixelFormat) {
  return pixelFormat == kCVPixelFormat_32RGBA ? PixelOrder::kRGBA : PixelOrder::kBGRA;
}

/// Pixels in the order that is cheapest for the layout (orderOf).
bool convertAsItComes(const PicturePlanes& picture, uint8_t* to, int rowBytes) {
  const auto& [first, second, third] = picture.planes;
  const libyuv::YuvConstants* const constants = &constantsFor(picture.colour);
  const int32_t width = picture.width;
  const int32_t height = picture.height;
  switch (picture.pixelFormat) {
    case kCVPixelFormat_420Planar:
      libyuv::I420ToARGBMatrix(first.data, stride(first), second.data, stride(second), third.data, stride(third), to,
                               rowBytes, constants, width, height);
      return true;
    case kCVPixelFormat_422Planar:
      libyuv::I422ToARGBMatrix(first.data, stride(first), second.data, stride(second), third.data, stride(third), to,
                               rowBytes, constants, width, height);
      return true;
    case kCVPixelFormat_444Planar:
      libyuv::I444ToARGBMatrix(first.data, stride(first), second.data, stride(second), third.data, stride(third), to,
                               rowBytes, constants, width, height);
      return true;
    case kCVPixelFormat_420BiPlanar:
      libyuv::NV12ToARGBMatrix(first.data, stride(first), second.data, stride(second), to, rowBytes, constants, width,
                               height);
      return true;
    case kCVPixelFormat_Gray:
      libyuv::I400ToARGBMatrix(first.data, stride(first), to, rowBytes, constants, width, height);
      return true;
    case kCMPixelFormat_422YpCbCr8:
      return convert2vuy(picture, to, rowBytes);
    default:
      libyuv::ARGBCopy(first.data, stride(first), to, rowBytes, width, height);
      return true;
  }
}

}  // namespace

PicturePlanes planesOf(const CVPixelBuffer& buffer) {
  PicturePlanes picture{buffer.width(), buffer.height(), buffer.pixelFormat(), {}, buffer.colour()};
  for (size_t i = 0; i < buffer.planeCount(); ++i) picture.planes[i] = buffer.plane(i);
  return picture;
}

ChromaStep chromaStepOf(uint32_t pixelFormat) {
  ChromaStep step;
  for (const PlaneShape plane : shapeOf(pixelFormat).planes) {
    if (plane.bytes == 0) continue;
    step = {std::max<int32_t>(step.x, plane.acrossStep), std::max<int32_t>(step.y, plane.downStep)};
  }
  return step;
}

bool hasAlpha(uint32_t pixelFormat) {
  return pixelFormat == kCVPixelFormat_32RGBA || pixelFormat == kCVPixelFormat_32BGRA;
}

PicturePlanes partOf(const PicturePlanes& picture, PixelBox box) {
  PicturePlanes part = picture;
  part.width = box.width;
  part.height = box.height;
  const Shape& shape = shapeOf(picture.pixelFormat);
  for (size_t i = 0; i < part.planes.size(); ++i) {
    const PlaneShape plane = shape.planes[i];
    if (plane.bytes == 0) continue;
    part.planes[i].data += static_cast<size_t>(box.y) / plane.downStep * part.planes[i].bytesPerRow +
                           static_cast<size_t>(box.x) / plane.acrossStep * plane.bytes;
  }
  return part;
}

PicturePlanes planarPicture(const PicturePlanes& picture, ScratchMemory& scratch) {
  switch (picture.pixelFormat) {
    case kCMPixelFormat_422YpCbCr8:
      return planarFrom2vuy(picture, scratch);
    case kCVPixelFormat_420BiPlanar:
      return planarFromBiPlanar(picture, scratch);
    default:
      return picture;
  }
}

PicturePlanes scaledPicture(const PicturePlanes& picture, int32_t width, int32_t height, ScalingScratch& scratch) {
  const PicturePlanes planar = planarPicture(picture, scratch.unpacked);
  const PicturePlanes scaled = planesIn(scratch.scaled, width, height, planar.pixelFormat, picture.colour);
  if (planar.width == 0 || scaled.width == 0) return {};
  const bool isMuchSmaller = width < picture.width / 2 || height < picture.height / 2;
  const auto filter = isMuchSmaller ? libyuv::kFilterBox : libyuv::kFilterBilinear;
  const auto& from = planar.planes;
  const auto& to = scaled.planes;
  const auto scalePlanar = [&](auto scale) {
    scale(from[0].data, stride(from[0]), from[1].data, stride(from[1]), from[2].data, stride(from[2]), picture.width,
          picture.height, writable(to[0]), stride(to[0]), writable(to[1]), stride(to[1]), writable(to[2]),
          stride(to[2]), width, height, filter);
  };
  switch (planar.pixelFormat) {
    case kCVPixelFormat_420Planar:
      scalePlanar(libyuv::I420Scale);
      break;
    case kCVPixelFormat_422Planar:
      scalePlanar(libyuv::I422Scale);
      break;
    case kCVPixelFormat_444Planar:
      scalePlanar(libyuv::I444Scale);
      break;
    case kCVPixelFormat_Gray:
      libyuv::ScalePlane(from[0].data, stride(from[0]), picture.width, picture.height, writable(to[0]), stride(to[0]),
                         width, height, filter);
      break;
    default:
      libyuv::ARGBScale(from[0].data, stride(from[0]), picture.width, picture.height, writable(to[0]), stride(to[0]),
                        width, height, filter);
      break;
  }
  return scaled;
}

bool convertPicture(const PicturePlanes& picture, PixelOrder order, uint8_t* to, ptrdiff_t rowBytes) {
  if (orderOf(picture.pixelFormat) == order) return convertAsItComes(picture, to, static_cast<int>(rowBytes));
  for (int32_t y = 0; y < picture.height; y += kStripRows) {
    const PicturePlanes strip = partOf(picture, {0, y, picture.width, std::min(kStripRows, picture.height - y)});
    uint8_t* const rows = to + ptrdiff_t{y} * rowBytes;
    if (!convertAsItComes(strip, rows, static_cast<int>(rowBytes))) return false;
    libyuv::ARGBToABGR(rows, static_cast<int>(rowBytes), rows, static_cast<int>(rowBytes), strip.width, strip.height);
  }
  return true;
}

}  // namespace vesk
