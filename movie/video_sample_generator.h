#pragma once

#include <cstdint>

#include "movie/sample_generator.h"

namespace vesk {

/// Gives pictures their times. Each lasts 30 ms and follows the one before without a gap; only when
/// the pictures have fallen 60 ms or more behind their capture times does the next one jump to its
/// own. The first picture starts the track at 0, however late it comes.
class VESK_EXPORT VideoSampleGenerator : public ISampleGenerator {
 public:
  /// @param width,height pixels
  /// @param frameRate pictures a second; kept, not used for timing
  VideoSampleGenerator(int width, int height, int frameRate) : mWidth(width), mHeight(height), mFrameRate(frameRate) {}

  /// Null for a picture stamped before the last one, and where CreateVideoSampleBuffer makes none.
  CMSampleBufferRef CreateSample(const unsigned char* buffer, unsigned int length,
                                 unsigned long long timestamp) override;

 protected:
  /// The sample for a picture with the given times; null when there is none to make.
  virtual CMSampleBufferRef CreateVideoSampleBuffer(const unsigned char* buffer, unsigned long length,
                                                    const CMSampleTimingInfo& timing) = 0;

  const int32_t mWidth;
  const int32_t mHeight;
  const int32_t mFrameRate;
  CMVideoFormatDescriptionRef mFormat;  ///< null until it is known
  uint64_t mNextTime = 0;               ///< microseconds: the end of the last sample; 0 before the first
  uint64_t mLastTimestamp = 0;          ///< microseconds: of the last picture accepted
};

}  // namespace vesk
