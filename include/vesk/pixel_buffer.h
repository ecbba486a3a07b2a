#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include <vesk/export.h>
#include <vesk/four_char_code.h>

namespace vesk {

// Layouts of pictures in memory, 8 bits a sample. Packed 4:2:2 ("2vuy") is kCMPixelFormat_422YpCbCr8.
constexpr uint32_t kCVPixelFormat_420Planar = fourCharCode("y420");  ///< Y, Cb, Cr; Cb and Cr half as wide and high
constexpr uint32_t kCVPixelFormat_422Planar = fourCharCode("y422");  ///< Y, Cb, Cr; Cb and Cr half as wide
constexpr uint32_t kCVPixelFormat_444Planar = fourCharCode("y444");  ///< Y, Cb, Cr of one size
constexpr uint32_t kCVPixelFormat_420BiPlanar =
    fourCharCode("420v");                                         ///< Y, then Cb and Cr in turn; half as wide and high
constexpr uint32_t kCVPixelFormat_Gray = fourCharCode("L008");    ///< Y alone
constexpr uint32_t kCVPixelFormat_32RGBA = fourCharCode("RGBA");  ///< red, green, blue, alpha in memory
constexpr uint32_t kCVPixelFormat_32BGRA = fourCharCode("BGRA");  ///< blue, green, red, alpha in memory

/// How Y'CbCr values stand for colours.
struct YCbCrColour {
  enum class Matrix : uint8_t { kBT601, kBT709 };
  Matrix matrix = Matrix::kBT601;
  bool isFullRange = false;  ///< Y' from 0 to 255 (as JPEG has it) instead of 16 to 235
  bool operator==(const YCbCrColour&) const = default;
};

/// One plane of a picture, its first row the top one.
struct PixelPlane {
  const uint8_t* data = nullptr;
  size_t bytesPerRow = 0;  ///< from row to row; may be more than the row's pixels take
};

/// A picture in memory: one packed plane, or up to three. Written by its maker, then read only, by
/// any thread.
class VESK_EXPORT CVPixelBuffer {
 public:
  static constexpr size_t kMostPlanes = 3;
  using Planes = std::array<PixelPlane, kMostPlanes>;

  /// A picture of width × height pixels, its memory not cleared and aligned to 4096. Only packed 4:2:2
  /// ("2vuy") is made here, without padding. Null for another format, for sizes that are not positive or
  /// for want of memory.
  static std::shared_ptr<CVPixelBuffer> create(int32_t width, int32_t height, uint32_t pixelFormat);

  /// A picture over memory that `owner` keeps alive, such as a decoder's own picture. Chroma planes
  /// have (width + 1) / 2 or (height + 1) / 2 samples where they are halved. Null for sizes that are
  /// not positive, an unknown format, a missing plane or rows shorter than their pixels.
  static std::shared_ptr<CVPixelBuffer> wrap(int32_t width, int32_t height, uint32_t pixelFormat, const Planes& planes,
                                             YCbCrColour colour, std::shared_ptr<const void> owner);

  int32_t width() const { return mWidth; }
  int32_t height() const { return mHeight; }
  uint32_t pixelFormat() const { return mPixelFormat; }
  size_t planeCount() const;
  const PixelPlane& plane(size_t index) const { return mPlanes.at(index); }
  /// Of no meaning for the RGB formats.
  YCbCrColour colour() const { return mColour; }
  void setColour(YCbCrColour colour) { mColour = colour; }

  // The first plane.
  size_t bytesPerRow() const { return mPlanes[0].bytesPerRow; }
  std::span<const uint8_t> data() const { return {mPlanes[0].data, dataSize()}; }
  size_t dataSize() const { return bytesPerRow() * static_cast<size_t>(mHeight); }
  /// To be written by its maker; empty for a picture that wrap made.
  std::span<uint8_t> data() { return {mMemory, mMemory ? dataSize() : 0}; }

  ~CVPixelBuffer();
  CVPixelBuffer(const CVPixelBuffer&) = delete;
  CVPixelBuffer& operator=(const CVPixelBuffer&) = delete;

 private:
  struct VESK_LOCAL Parts;

 public:
  /// For the factories above; use those.
  explicit CVPixelBuffer(Parts&& parts);

 private:
  uint8_t* mMemory;  ///< of create, from the pool of sample memory; null for a picture that wrap made
  std::shared_ptr<const void> mOwner;
  Planes mPlanes;
  int32_t mWidth;
  int32_t mHeight;
  uint32_t mPixelFormat;
  YCbCrColour mColour;
};

using CVPixelBufferRef = std::shared_ptr<CVPixelBuffer>;
/// A picture to be shown. Every picture is one in memory here.
using CVImageBufferRef = std::shared_ptr<const CVPixelBuffer>;

}  // namespace vesk
