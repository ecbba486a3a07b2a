#pragma once

#include <memory>

#include <vesk/video_sample_generator.h>

namespace vesk {

class CH264HeaderInfo;

/// Samples from length-prefixed H.264 access units. Makes none until both parameter sets have been
/// seen; they go into the format, which then stays for the whole stream, and the samples hold slices only.
class VESK_EXPORT H264SampleGenerator final : public VideoSampleGenerator {
 public:
  H264SampleGenerator(int width, int height, int frameRate, FrameTiming timing = FrameTiming::kSteady);
  ~H264SampleGenerator() override;
  H264SampleGenerator(const H264SampleGenerator&) = delete;
  H264SampleGenerator& operator=(const H264SampleGenerator&) = delete;

 private:
  CMSampleBufferRef CreateVideoSampleBuffer(const unsigned char* buffer, unsigned long length,
                                            const CMSampleTimingInfo& timing) override;
  /// The format for the parameter sets held; null when they do not make one.
  CMVideoFormatDescriptionRef CreateVideoFormat() const;

  const std::unique_ptr<CH264HeaderInfo> mHeaderInfo;
};

}  // namespace vesk
