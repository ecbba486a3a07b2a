#include "capture/linux/cameras/frame_clock.h"

#include <algorithm>

namespace vesk::capture {
namespace {

constexpr int64_t kAhead = 5'000;  // clocks are not read at the same instant

}  // namespace

/// A frame that came after `emptyAt` was exposed and transferred within two intervals before.
bool FrameClock::isPossible(int64_t time, const Sighting& sighting) const {
  return time <= sighting.now + kAhead && time >= sighting.emptyAt - 2 * mInterval - kAhead;
}

int64_t FrameClock::stamp(const Sighting& sighting) {
  const int64_t fromRealTime = sighting.stamp - (sighting.realNow - sighting.now);
  int64_t time = sighting.now;
  if (isPossible(sighting.stamp, sighting)) {
    time = sighting.stamp;
  } else if (!sighting.isMonotonic && isPossible(fromRealTime, sighting)) {
    time = fromRealTime;
  }
  if (time <= mLast) time = std::max(sighting.now, mLast + 1);
  mLast = time;
  return time;
}

}  // namespace vesk::capture
