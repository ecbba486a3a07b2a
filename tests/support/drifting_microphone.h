#pragma once

#include <cmath>
#include <cstdint>
#include <random>

namespace vesk::test {

/// A microphone whose crystal is off, and whose frames are stamped with jitter.
class DriftingMicrophone {
 public:
  /// Both in microseconds: the time of the first frame, and how far a stamp is off at most.
  DriftingMicrophone(uint32_t rate, double partsPerMillion, double jitter, int64_t start)
      : mPeriod(1e6 / rate / (1 + partsPerMillion / 1e6)), mJitter(jitter), mStart(start) {}

  /// When the frame after `ahead` others is recorded, microseconds.
  double truth(uint64_t ahead = 0) const {
    return static_cast<double>(mStart) + static_cast<double>(mFrame + ahead) * mPeriod;
  }
  int64_t measure() {
    std::uniform_real_distribution<double> spread(-mJitter, mJitter);
    return std::llround(truth() + spread(mRandom));
  }
  void advance(uint64_t frames) { mFrame += frames; }

 private:
  const double mPeriod;
  const double mJitter;
  const int64_t mStart;
  uint64_t mFrame = 0;
  std::mt19937 mRandom{7};
};

}  // namespace vesk::test
