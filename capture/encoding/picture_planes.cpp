#include "capture/encoding/picture_planes.h"

#include <libyuv.h>

#include <cstddef>

namespace vesk::capture {
namespace {

/// Full-range values become those of video: value * gain / 256 + base, which is one off the exact one
/// in a few places, and of which the compiler does many at once.
struct Levels {
  uint16_t gain;
  uint16_t base;  ///< in 256ths, half of one for rounding included
};
constexpr Levels kLumaLevels{220, 4204};
constexpr Levels kChromaLevels{225, 4096};

constexpr int kBlock = 64;  // of a fixed length, so that the compiler uses vectors

/// `from` and `to` may be the same.
void squeezeRow(const uint8_t* from, uint8_t* to, int count, Levels levels) {
  const auto squeezed = [levels](uint8_t value) {
    return static_cast<uint8_t>(static_cast<uint16_t>(value * levels.gain + levels.base) >> 8);
  };
  for (; count >= kBlock; count -= kBlock, from += kBlock, to += kBlock) {
    uint8_t block[kBlock];
    for (int at = 0; at < kBlock; ++at) block[at] = squeezed(from[at]);
    for (int at = 0; at < kBlock; ++at) to[at] = block[at];
  }
  for (int at = 0; at < count; ++at) to[at] = squeezed(from[at]);
}

struct Plane {
  const uint8_t* bytes;
  int rowBytes;
  int width;
  int height;
};

/// Into plane `index` of `picture`.
void squeezePlane(const Plane& from, AVFrame& picture, int index, Levels levels) {
  uint8_t* const to = picture.data[index];
  const int rowBytes = picture.linesize[index];
  for (ptrdiff_t row = 0; row < from.height; ++row)
    squeezeRow(from.bytes + row * from.rowBytes, to + row * rowBytes, from.width, levels);
}

/// Chroma of whatever resolution.
void fillChroma(const Plane& from, AVFrame& picture, int index) {
  const int width = picture.width / 2;
  const int height = picture.height / 2;
  if (from.width == width && from.height == height) return squeezePlane(from, picture, index, kChromaLevels);
  libyuv::ScalePlane(from.bytes, from.rowBytes, from.width, from.height, picture.data[index], picture.linesize[index],
                     width, height, libyuv::kFilterBox);
  squeezePlane({picture.data[index], picture.linesize[index], width, height}, picture, index, kChromaLevels);
}

void fillWithoutColour(AVFrame& picture) {
  for (const int index : {1, 2})
    libyuv::SetPlane(picture.data[index], picture.linesize[index], picture.width / 2, picture.height / 2, 128);
}

Plane planeOf(const CVPixelBuffer& decoded, size_t index, int width, int height) {
  const PixelPlane& plane = decoded.plane(index);
  return {plane.data, static_cast<int>(plane.bytesPerRow), width, height};
}

bool fillFrom(const CVPixelBuffer& decoded, AVFrame& picture) {
  const int width = picture.width;
  const int height = picture.height;
  const uint32_t format = decoded.pixelFormat();
  if (format == kCVPixelFormat_32RGBA) {
    const Plane rgba = planeOf(decoded, 0, width, height);
    return libyuv::ABGRToI420(rgba.bytes, rgba.rowBytes, picture.data[0], picture.linesize[0], picture.data[1],
                              picture.linesize[1], picture.data[2], picture.linesize[2], width, height) == 0;
  }
  squeezePlane(planeOf(decoded, 0, width, height), picture, 0, kLumaLevels);
  if (format == kCVPixelFormat_Gray) {
    fillWithoutColour(picture);
    return true;
  }
  const int chromaWidth = format == kCVPixelFormat_444Planar ? width : width / 2;
  const int chromaHeight = format == kCVPixelFormat_420Planar ? height / 2 : height;
  for (const int index : {1, 2})
    fillChroma(planeOf(decoded, static_cast<size_t>(index), chromaWidth, chromaHeight), picture, index);
  return true;
}

}  // namespace

bool fillFrom2vuy(AVFrame& picture, std::span<const uint8_t> bytes) {
  const int rowBytes = picture.width * 2;
  if (bytes.size() < static_cast<size_t>(rowBytes) * static_cast<size_t>(picture.height)) return false;
  return libyuv::UYVYToI420(bytes.data(), rowBytes, picture.data[0], picture.linesize[0], picture.data[1],
                            picture.linesize[1], picture.data[2], picture.linesize[2], picture.width,
                            picture.height) == 0;
}

JPEGToPlanes::JPEGToPlanes(int width, int height)
    : mDecoder({}, static_cast<uint64_t>(width) * static_cast<uint64_t>(height)) {}

bool JPEGToPlanes::fill(AVFrame& picture, std::span<const uint8_t> jpeg) {
  mDecoded.clear();
  if (jpeg.empty() || mDecoder.decode(jpeg, 0, mDecoded) != noErr || mDecoded.empty()) return false;
  const CVPixelBuffer& decoded = *mDecoded.front().image;
  return decoded.width() == picture.width && decoded.height() == picture.height && fillFrom(decoded, picture);
}

}  // namespace vesk::capture
