#pragma once

#include <vesk/video_sample_generator.h>
#include "movie/h264_header_info.h"

namespace vesk {

/// Samples from length-prefixed H.264 access units. Makes none until both parameter sets have been
/// seen; they go into the format, which then stays for the whole stream, and the samples hold slices only.
class VESK_EXPORT H264SampleGenerator final : public VideoSampleGenerator {
 public:
  using VideoSampleGenerator::VideoSampleGenerator;

 private:
  CMSampleBufferRef CreateVideoSampleBuffer(const unsigned char* buffer, unsigned long length,
                                            const CMSampleTimingInfo& timing) override;
  /// The format for the parameter sets held; null when they do not make one.
  CMVideoFormatDescriptionRef CreateVideoFormat() const;

  CH264HeaderInfo mHeaderInfo;
};

}  // namespace vesk
