#include <vesk/sample_generators.h>

#include "movie/capture_times.h"

namespace vesk {
namespace {

constexpr int32_t kTimeScale = 1'000'000;
constexpr uint64_t kFrameDuration = 30'000;
constexpr uint64_t kMostBehind = 60'000;

CMTime microseconds(uint64_t time) {
  return CMTimeMake(static_cast<int64_t>(time), kTimeScale);
}

}  // namespace

VideoSampleGenerator::VideoSampleGenerator(int width, int height, int frameRate, FrameTiming timing)
    : mWidth(width),
      mHeight(height),
      mFrameRate(frameRate),
      mCaptureTimes(timing == FrameTiming::kCapture ? std::make_unique<CaptureTimes>() : nullptr) {}

VideoSampleGenerator::~VideoSampleGenerator() = default;

CMSampleBufferRef VideoSampleGenerator::CreateSample(const unsigned char* buffer, unsigned int length,
                                                     unsigned long long timestamp) {
  if (timestamp < mLastTimestamp || timestamp > kLatestTimestamp) return nullptr;
  mLastTimestamp = timestamp;

  const auto [start, duration] = mCaptureTimes ? captureSpan(timestamp) : steadySpan(timestamp);
  auto sample = CreateVideoSampleBuffer(buffer, length, {microseconds(duration), microseconds(start), kCMTimeInvalid});
  if (sample) mNextTime = start + duration;
  return sample;
}

VideoSampleGenerator::Span VideoSampleGenerator::steadySpan(uint64_t timestamp) const {
  const uint64_t start = timestamp < mNextTime + kMostBehind ? mNextTime : timestamp;
  if (mNextTime == 0) return {0, start + kFrameDuration};
  return {start, kFrameDuration};
}

/// The writer makes a frame last until the next one begins; the duration counts for the last frame only.
VideoSampleGenerator::Span VideoSampleGenerator::captureSpan(uint64_t timestamp) {
  const uint64_t start = mCaptureTimes->place(timestamp);
  return {start, mCaptureTimes->duration()};
}

}  // namespace vesk
