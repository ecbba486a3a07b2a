#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <span>

#include <vesk/icm_decoder.h>
#include <vesk/log.h>
#include "platform/foundation/byte_reader.h"

namespace vesk::fuzz {

inline void require(bool holds) {
  if (!holds) std::abort();
}

/// Reads every sample of every picture, so that a plane shorter than it should be is noticed.
struct PictureReader : DecoderProtocol {
  void displayData(CVImageBufferRef image) override {
    require(image && image->width() > 0 && image->height() > 0 && image->planeCount() > 0);
    const auto width = static_cast<size_t>(image->width());
    const auto height = static_cast<size_t>(image->height());
    for (size_t i = 0; i < image->planeCount(); ++i) {
      const PixelPlane& plane = image->plane(i);
      const size_t samples = i == 0 ? width * bytesAPixel(*image) : chromaBytes(*image, width);
      const size_t rows = i == 0 || !isHalfHigh(*image) ? height : (height + 1) / 2;
      require(plane.bytesPerRow >= samples);
      for (size_t y = 0; y < rows; ++y) read({plane.data + y * plane.bytesPerRow, samples});
    }
  }

  static size_t bytesAPixel(const CVPixelBuffer& image) {
    switch (image.pixelFormat()) {
      case kCVPixelFormat_32RGBA:
      case kCVPixelFormat_32BGRA:
        return 4;
      case kCMPixelFormat_422YpCbCr8:
        return 2;
      default:
        return 1;
    }
  }
  static size_t chromaBytes(const CVPixelBuffer& image, size_t width) {
    if (image.pixelFormat() == kCVPixelFormat_444Planar) return width;
    return image.pixelFormat() == kCVPixelFormat_420BiPlanar ? (width + 1) / 2 * 2 : (width + 1) / 2;
  }
  static bool isHalfHigh(const CVPixelBuffer& image) {
    return image.pixelFormat() == kCVPixelFormat_420Planar || image.pixelFormat() == kCVPixelFormat_420BiPlanar;
  }
  void read(std::span<const uint8_t> row) {
    for (const uint8_t sample : row) sum = sum + sample;
  }

  volatile unsigned sum = 0;
};

/// Feeds the input to a decoder as frames, each after its length of 16 bits, big-endian. A length
/// that is too large takes what is left.
inline void decodeFrames(uint32_t width, uint32_t height, uint32_t codec, std::span<const uint8_t> input) {
  static FILE* const nowhere = std::fopen("/dev/null", "w");
  setStandardOutput(nowhere);
  setStandardError(nowhere);
  PictureReader reader;
  const auto decoder = ICMDecoder::initWithWidth(width, height, codec);
  if (!decoder) return;
  decoder->setDelegate(&reader);
  ByteReader frames(input);
  int32_t time = std::numeric_limits<int32_t>::max() - 1;
  while (const auto length = frames.u16()) {
    const auto frame = *frames.take(std::min<size_t>(*length, frames.remaining()));
    decoder->decompressData(frame.data(), static_cast<int32_t>(frame.size()), time);
    time = time < 0 ? time + 1 : std::numeric_limits<int32_t>::min();
  }
}

}  // namespace vesk::fuzz
