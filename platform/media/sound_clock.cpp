#include "platform/media/sound_clock.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace vesk {
namespace {

constexpr double kMicroseconds = 1e6;
constexpr double kFarOff = 50'000;           // microseconds: more than a server's jitter, less than a lost second
constexpr double kBeyondGlitches = 500'000;  // microseconds: no latency is wrong by so much
constexpr double kGlitchSeconds = 1;         // a latency may be wrong for so long
constexpr int kPersistent = 3;               // measurements far off before time is taken to have jumped
constexpr double kMostDeviation = 1e-3;      // crystals are good to some hundred ppm
constexpr double kFirstBandwidth = 0.5;      // hertz: finds the latency within seconds
constexpr double kLastBandwidth = 0.02;      // hertz: a server's jitter hardly moves the stamps any more

}  // namespace

SoundClock::SoundClock(uint32_t framesPerSecond)
    : mNominalPeriod(kMicroseconds / std::max(framesPerSecond, 1U)), mPeriod(mNominalPeriod) {}

int64_t SoundClock::begin(int64_t measured) {
  mHasBegun = true;
  mMustMeasure = false;
  mOrigin = measured;
  mLast = measured;
  return measured;
}

SoundClock::Stamp SoundClock::next(int64_t measured, uint64_t frames) {
  Stamp stamp;
  if (!mHasBegun) {
    stamp.time = begin(measured);
    mTime = static_cast<double>(frames) * mPeriod;
    return stamp;
  }
  const double error = deviation(measured);
  const double seconds = static_cast<double>(frames) * mNominalPeriod / kMicroseconds;
  if (mMustMeasure) {
    // What was lost cannot be less than nothing.
    const double missing = std::max(error, 0.0);
    mTime += missing;
    stamp.missingTime = std::llround(missing);
    mMustMeasure = false;
  } else if (isJump(error, seconds)) {
    mTime += mNearest;
    stamp.missingTime = std::max<int64_t>(std::llround(mNearest), 0);
    mFarOff = 0;
  } else if (mFarOff == 0) {
    adjust(error, seconds);
  }
  stamp.time = std::max(mOrigin + std::llround(mTime), static_cast<long long>(mLast));
  mLast = stamp.time;
  mTime += static_cast<double>(frames) * mPeriod;
  return stamp;
}

void SoundClock::lose(uint64_t frames) {
  if (!mHasBegun) return;
  if (frames == 0) mMustMeasure = true;
  mTime += static_cast<double>(frames) * mPeriod;
}

bool SoundClock::isJump(double error, double seconds) {
  if (std::abs(error) <= kFarOff) {
    mFarOff = 0;
    return false;
  }
  const bool isSameWay = mFarOff > 0 && (error > 0) == (mNearest > 0);
  if (!isSameWay) {
    mFarOff = 0;
    mFarOffSeconds = 0;
  }
  if (mFarOff == 0 || std::abs(error) < std::abs(mNearest)) mNearest = error;
  mFarOffSeconds += seconds;
  const bool isCertain = std::abs(mNearest) > kBeyondGlitches || mFarOffSeconds >= kGlitchSeconds;
  return ++mFarOff >= kPersistent && isCertain;
}

void SoundClock::adjust(double error, double seconds) {
  mAge += seconds;
  const double bandwidth = std::clamp(2 / std::max(mAge, seconds), kLastBandwidth, kFirstBandwidth);
  // Very long packets would make the loop swing.
  const double step = std::min(2 * std::numbers::pi * bandwidth * seconds, 0.5);
  mTime += std::numbers::sqrt2 * step * error;
  if (seconds <= 0) return;
  mPeriod += step * step * error * mNominalPeriod / (seconds * kMicroseconds);
  mPeriod = std::clamp(mPeriod, mNominalPeriod * (1 - kMostDeviation), mNominalPeriod * (1 + kMostDeviation));
}

}  // namespace vesk
