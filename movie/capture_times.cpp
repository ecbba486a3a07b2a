#include "movie/capture_times.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace vesk {
namespace {

constexpr double kFarthest = 8'000;  // microseconds from the stamp
constexpr uint64_t kLongestDuration = 1'000'000;
constexpr uint32_t kMostCounted = 256;  // a rate that drifts is followed within seconds
constexpr uint32_t kSettled = 12;       // stamps after which the line is a better guide than its last point
constexpr std::array<uint32_t, 4> kLaidAnewAt{24, 48, 96, 192};  // the line has become better by half
constexpr double kMostLost = 30;   // intervals; a longer pause is no matter of lost frames
constexpr double kAverageOf = 16;  // stamps in the average deviation
constexpr double kUsualDeviations = 3;

}  // namespace

uint64_t CaptureTimes::place(uint64_t timestamp) {
  const uint64_t step = timestamp - mLastStamp;
  const auto time = static_cast<double>(timestamp);
  const bool isFirst = mCount == 0;
  if (isFirst) {
    begin(time, 0);
  } else if (step > 0) {
    follow(time, static_cast<double>(step));
  }
  mLastStamp = timestamp;

  const double place = std::clamp(mGridTime, std::max(time - farthest(), 0.0), time + farthest());
  const auto placed = std::max(static_cast<uint64_t>(std::llround(place)), isFirst ? 0 : mLastPlace + 1);
  // To the grid's next place, so that the rounding of the durations does not add up.
  const double next = mGridTime + mFrames * mGridInterval;
  if (!isFirst) {
    const auto end = static_cast<uint64_t>(std::llround(next));
    mDuration = end > placed ? std::min(end - placed, kLongestDuration) : 1;
  }
  mLastPlace = placed;
  return placed;
}

void CaptureTimes::follow(double time, double step) {
  if (mInterval == 0) return begin(time, step);
  const double frames = std::max(1.0, std::floor((time - mTime) / mInterval + 0.5));
  const double expected = mTime + frames * mInterval;
  const double error = time - expected;
  const double usual = std::max(farthest(), kUsualDeviations * mDeviation);
  mUnexplained = std::abs(error) > usual ? mUnexplained + 1 : 0;
  const bool isNewLine = mCount < 4;
  if (frames > kMostLost || mUnexplained >= (isNewLine ? 1 : 2))
    return begin(time, step <= kLongestDuration ? step : mInterval);

  mCount = std::min(mCount + 1, kMostCounted);
  const double count = mCount;
  const double bounded = std::clamp(error, -usual, usual);
  mTime = expected + bounded * 2 * (2 * count - 1) / (count * (count + 1));
  mInterval += bounded / frames * 6 / (count * (count + 1));
  mDeviation += (std::abs(error) - mDeviation) / kAverageOf;

  mFrames = frames;
  mGridTime += frames * mGridInterval;
  const bool hasImproved = std::find(kLaidAnewAt.begin(), kLaidAnewAt.end(), mCount) != kLaidAnewAt.end();
  if (mCount >= kSettled && !hasImproved && std::abs(mGridTime - mTime) <= farthest() / 4) return;
  mGridTime = mTime;
  mGridInterval = mInterval;
}

/// A line through one stamp, with the slope that the last two give.
void CaptureTimes::begin(double time, double interval) {
  mCount = interval > 0 ? 2 : 1;
  mTime = time;
  mInterval = interval;
  mDeviation = 0;
  mUnexplained = 0;
  mFrames = 1;
  mGridTime = time;
  mGridInterval = interval;
}

double CaptureTimes::farthest() const {
  return std::min(mInterval / 4, kFarthest);
}

}  // namespace vesk
