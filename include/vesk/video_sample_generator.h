#pragma once

#include <cstdint>
#include <memory>

#include <vesk/frame_timing.h>
#include <vesk/sample_generator.h>

namespace vesk {

class CaptureTimes;

/// Gives frames their times, as FrameTiming says. With kSteady the first frame starts the track at 0,
/// however late it comes; with kCapture the track begins where its first frame stands.
class VESK_EXPORT VideoSampleGenerator : public ISampleGenerator {
 public:
  /// @param width,height pixels
  /// @param frameRate pictures a second; kept, not used for timing
  VideoSampleGenerator(int width, int height, int frameRate, FrameTiming timing = FrameTiming::kSteady);
  ~VideoSampleGenerator() override;
  VideoSampleGenerator(const VideoSampleGenerator&) = delete;
  VideoSampleGenerator& operator=(const VideoSampleGenerator&) = delete;

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

 private:
  struct Span {
    uint64_t start;     ///< microseconds
    uint64_t duration;  ///< microseconds
  };
  Span steadySpan(uint64_t timestamp) const;
  Span captureSpan(uint64_t timestamp);

  const std::unique_ptr<CaptureTimes> mCaptureTimes;  ///< null with kSteady
};

}  // namespace vesk
