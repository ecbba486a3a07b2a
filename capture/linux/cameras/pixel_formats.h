#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "platform/pixels/picture_conversion.h"

namespace vesk::capture {

/// A format of the kernel's that is taken from cameras.
struct PixelFormat {
  uint32_t fourcc;        ///< the kernel's code
  uint32_t codec;         ///< what it is delivered as
  PixelLayout layout;     ///< kNone for compressed ones
  uint8_t bytesPerPixel;  ///< of the first plane
  bool isVFirst = false;  ///< planar: V stands before U
};

/// The format of a code; null for those that are not taken. The best to convert come first.
const PixelFormat* pixelFormat(uint32_t fourcc);
/// How good a format is, among those that are delivered alike: the lower the better.
size_t rankOf(const PixelFormat& format);

/// The frame that a driver has been set to deliver.
struct FrameFormat {
  const PixelFormat* format = nullptr;
  int32_t width = 0;
  int32_t height = 0;
  uint32_t rowBytes = 0;  ///< of the first plane; 0 for compressed frames
  bool isFullRange = false;
};

/// Makes packed 4:2:2 frames ("2vuy") from what cameras deliver.
class PixelConverter {
 public:
  /// `form` is of a format with pixels, its width even, its rows at least as long as its pixels.
  explicit PixelConverter(const FrameFormat& form);

  /// Bytes that a frame takes at least.
  size_t neededBytes() const { return mNeededBytes; }
  /// The frame as "2vuy", writable: `frame` itself where its layout is that already, else a
  /// buffer that is valid until the next call. Empty when it cannot be converted.
  std::span<uint8_t> convert(std::span<uint8_t> frame);

 private:
  bool isReadyAsItIs() const;
  RawPicture rawPicture(const uint8_t* frame) const;

  FrameFormat mFormat;
  size_t mNeededBytes = 0;
  std::vector<uint8_t> mOut;
  Packed422Converter mConverter;
};

}  // namespace vesk::capture
