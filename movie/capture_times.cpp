#include "movie/capture_times.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace vesk {
namespace {

constexpr double kFarthest = 8'000;  // microseconds from the stamp
constexpr uint64_t kLongestDuration = 1'000'000;
constexpr uint32_t kMostCounted = 256;  // a rate that drifts is followed within seconds
constexpr uint32_t kSettled = 12;       // stamps after which the line is a better guide than its last point
constexpr std::array<uint32_t, 4> kLaidAnewAt{24, 48, 96, 192};  // the line has become better by half
constexpr double kMostLost = 30;        // intervals; a longer pause is no matter of lost frames
constexpr double kAverageOf = 16;       // stamps in the average deviation
constexpr double kUsualDeviations = 5;  // within which the line explains a stamp
// What another rate takes to be believed: so many stamps in a row that did not come an interval after the
// one before, of which the last cannot be explained and lies so far behind the first; or more of them.
constexpr int kFewOdd = 2;
constexpr double kFewOddLast = 40'000;  // microseconds
constexpr int kManyOdd = 6;

/// Of a number that is not negative.
uint64_t rounded(double number) {
  return static_cast<uint64_t>(std::llround(number));
}

}  // namespace

uint64_t CaptureTimes::place(uint64_t timestamp) {
  const uint64_t step = timestamp - mLastStamp;
  const auto time = static_cast<double>(timestamp);
  const bool isFirst = mCount == 0;
  if (isFirst) {
    begin(time, 0);
  } else if (step > 0 || usualError() > mInterval / 2) {  // an equal stamp tells nothing unless stamps scatter so far
    follow(time, static_cast<double>(step));
  }
  mLastStamp = timestamp;

  const double most = std::min(usualError(), kFarthest);
  const double place = std::clamp(mGridTime, std::max(time - most, 0.0), time + most);
  const auto placed = std::max(rounded(place), isFirst ? 0 : mLastPlace + 1);
  // To the grid's next place, so that the rounding of the durations does not add up.
  const double next = mGridTime + mFrames * mGridInterval;
  if (!isFirst) {
    const uint64_t end = rounded(next);
    mDuration = end > placed ? std::min(end - placed, kLongestDuration) : 1;
  }
  mLastPlace = placed;
  return placed;
}

void CaptureTimes::follow(double time, double step) {
  if (mInterval == 0) return begin(time, step);
  const double usual = usualError();
  const double since = time - mTime;
  // As few frames as explain the stamp: a late one is no lost one.
  double frames = std::max(1.0, std::ceil((since - usual) / mInterval));
  if (frames > kMostLost) return begin(time, step <= kLongestDuration ? step : mInterval);
  if (frames > 1 && std::abs(since - frames * mInterval) > usual) --frames;
  const double expected = mTime + frames * mInterval;
  const double error = time - expected;
  const bool isExplained = std::abs(error) <= usual;

  // By what their distances scatter, to which a rate that has changed a little adds little.
  const double scatter = std::abs(step - frames * mInterval) / std::numbers::sqrt2;
  mScattered = std::min(mScattered + 1, kAverageOf);
  mDeviation += (std::min(scatter, kFarthest) - mDeviation) / mScattered;
  if (isExplained && frames == 1) {
    mOdd = 0;
  } else if (mOdd++ == 0) {
    mBeforeOdd = time - step;
  }
  const bool isAnotherRate = !isExplained && mOdd >= kFewOdd && time - mBeforeOdd >= kFewOddLast;
  if (isAnotherRate || mOdd >= kManyOdd) {
    const auto count = static_cast<uint32_t>(mOdd);
    begin(time, (time - mBeforeOdd) / count);
    mCount = count + 1;
    return;
  }

  mCount = std::min(mCount + 1, kMostCounted);
  const double count = mCount;
  const double bounded = std::clamp(error, -usual, usual);
  mTime = expected + bounded * 2 * (2 * count - 1) / (count * (count + 1));
  mInterval = std::max(mInterval + bounded / frames * 6 / (count * (count + 1)), 1.0);

  mFrames = frames;
  mGridTime += frames * mGridInterval;
  const bool hasImproved = std::find(kLaidAnewAt.begin(), kLaidAnewAt.end(), mCount) != kLaidAnewAt.end();
  if (mCount >= kSettled && !hasImproved && std::abs(mGridTime - mTime) <= farthest() / 4) return;
  mGridTime = mTime;
  mGridInterval = mInterval;
}

/// A line through one stamp, with a slope that others give.
void CaptureTimes::begin(double time, double interval) {
  mCount = interval > 0 ? 2 : 1;
  mTime = time;
  mInterval = interval;
  mOdd = 0;
  mFrames = 1;
  mGridTime = time;
  mGridInterval = interval;
}

double CaptureTimes::farthest() const {
  return std::min(mInterval / 4, kFarthest);
}

double CaptureTimes::usualError() const {
  return std::max(farthest(), kUsualDeviations * mDeviation);
}

}  // namespace vesk
