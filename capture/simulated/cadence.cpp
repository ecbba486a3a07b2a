#include "capture/simulated/cadence.h"

#include <cmath>

namespace vesk::capture {

Cadence Cadence::ofFrames(uint32_t numerator, uint32_t denominator) {
  constexpr double kTolerance = 1e-5;
  const double halves = 2.0 * denominator / numerator;  // half frames a second
  const double nearest = std::round(halves);
  if (nearest < 1 || std::abs(halves - nearest) > nearest * kTolerance) return {numerator, denominator};
  const auto halfFrames = static_cast<uint32_t>(nearest);
  return halfFrames % 2 == 0 ? Cadence(1, halfFrames / 2) : Cadence(2, halfFrames);
}

int64_t Cadence::firstFrom(int64_t time) const {
  if (time <= 0) return 0;
  int64_t number = static_cast<int64_t>(static_cast<Wide>(time) * mDenominator / (kMicroseconds * mNumerator));
  while (timeOf(number) < time) ++number;
  return number;
}

}  // namespace vesk::capture
