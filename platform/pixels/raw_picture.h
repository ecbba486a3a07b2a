#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include <vesk/pixel_buffer.h>

namespace vesk {

/// How the pixels of a picture lie in memory, 8 bits a sample unless it says otherwise. Names of packed layouts are
/// in the order of memory.
enum class PixelLayout : uint8_t {
  kNone,  ///< compressed, or not known here
  // Y, Cb and Cr in planes of their own.
  k420Planar,
  k422Planar,
  k444Planar,
  k440Planar,    ///< colour halved downwards
  k411Planar,    ///< colour at a quarter of the columns
  k410Planar,    ///< colour at a quarter of the columns and rows
  k420Planar10,  ///< 10 bits in little-endian words of 16
  k422Planar10,
  // Y, then Cb and Cr in turn, at half the columns and rows.
  k420BiPlanar,
  k420BiPlanarCrFirst,
  // Two pixels in four bytes.
  kUYVY,  ///< "2vuy"
  kYUYV,
  kYVYU,
  kVYUY,
  kGray,
  kRGB,
  kBGR,
  kRGBA,
  kBGRA,
  kARGB,
  kABGR,
  // X is of no meaning.
  kRGBX,
  kBGRX,
  kXRGB,
  kXBGR,
  // Little-endian words of 16 bits, red highest.
  kRGB565,
  kRGB555,
  kPalette,  ///< places in the second plane, which is 256 times BGRA
};

/// A picture as a camera, a file or a decoder made it, wherever it lies; not owned.
struct RawPicture {
  PixelLayout layout = PixelLayout::kNone;
  int width = 0;
  int height = 0;
  std::array<const uint8_t*, 3> data{};
  std::array<int, 3> rowBytes{};  ///< from row to row; negative where the bottom row lies first
  bool isFullRange = false;       ///< Y'CbCr from 0 to 255 (luma) instead of 16 to 235
};

/// The picture in a buffer, which must outlive it.
RawPicture rawPictureOf(const CVPixelBuffer& buffer);

/// Memory for a picture's planes, to be written; not owned. Packed layouts use the first plane.
struct PlaneMemory {
  std::array<uint8_t*, 3> bytes{};
  std::array<size_t, 3> rowBytes{};
};

}  // namespace vesk
