#include "movie/video_sample_generator.h"

namespace vesk {
namespace {

constexpr int32_t kTimeScale = 1'000'000;
constexpr uint64_t kFrameDuration = 30'000;
constexpr uint64_t kMostBehind = 60'000;

CMTime microseconds(uint64_t time) {
  return CMTimeMake(static_cast<int64_t>(time), kTimeScale);
}

}  // namespace

CMSampleBufferRef VideoSampleGenerator::CreateSample(const unsigned char* buffer, unsigned int length,
                                                     unsigned long long timestamp) {
  if (timestamp < mLastTimestamp || timestamp > kLatestTimestamp) return nullptr;
  mLastTimestamp = timestamp;

  const uint64_t start = timestamp < mNextTime + kMostBehind ? mNextTime : timestamp;
  const bool isFirst = mNextTime == 0;
  const uint64_t presentation = isFirst ? 0 : start;
  const uint64_t duration = isFirst ? start + kFrameDuration : kFrameDuration;

  auto sample =
      CreateVideoSampleBuffer(buffer, length, {microseconds(duration), microseconds(presentation), kCMTimeInvalid});
  if (sample) mNextTime = presentation + duration;
  return sample;
}

}  // namespace vesk
