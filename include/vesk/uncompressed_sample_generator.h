#pragma once

#include <vesk/video_sample_generator.h>

namespace vesk {

/// Samples from packed 4:2:2 pictures ("2vuy"), each its own picture buffer. What a picture that is
/// too short leaves open becomes black; what is too much is left out.
class VESK_EXPORT UncompressedSampleGenerator final : public VideoSampleGenerator {
 public:
  UncompressedSampleGenerator(int width, int height, int frameRate, FrameTiming timing = FrameTiming::kSteady);

 private:
  CMSampleBufferRef CreateVideoSampleBuffer(const unsigned char* buffer, unsigned long length,
                                            const CMSampleTimingInfo& timing) override;
};

}  // namespace vesk
