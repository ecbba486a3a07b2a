#include "platform/media/adaptive_resampler.h"

#include <algorithm>
#include <cmath>

namespace vesk {
namespace {

constexpr double kMicroseconds = 1e6;
constexpr double kMostCorrection = 500e-6;  // of the speed: beyond that the ear may notice
constexpr double kCorrectionSeconds = 10;   // in which the count makes up for what it is off
constexpr double kFarOff = 40'000;          // microseconds: beyond that lips and voice come apart,
constexpr double kFastCorrection = 3e-3;    // which is worse than a twentieth of a semitone
constexpr double kSpeedSeconds = 1;         // in which the speed follows: steps of it would be heard beside a tone

}  // namespace

AdaptiveResampler::AdaptiveResampler(uint32_t framesPerSecond, uint32_t channels)
    : mRate(framesPerSecond), mChannels(channels), mClock(framesPerSecond), mResampler(channels) {}

uint64_t AdaptiveResampler::announce(int64_t measured, uint64_t frames) {
  const auto stamp = mClock.next(measured, frames);
  const bool isGap = mHasBegun && (stamp.missingTime > 0 || mHasLost);
  if (!mHasBegun) mOrigin = stamp.time;
  mTime = stamp.time;
  mHasBegun = true;
  mHasLost = false;
  if (!isGap) return 0;
  mResampler.restart();
  // Where the clock has gone back before, what the count was ahead by is paid back first.
  const auto missing = static_cast<uint64_t>(std::llround(std::max(lateness(), 0.0) * mRate / kMicroseconds));
  mCounted += missing;
  return missing;
}

void AdaptiveResampler::resample(std::span<const int16_t> samples, std::vector<int16_t>& out) {
  const double seconds = static_cast<double>(samples.size()) / mChannels / mRate;
  mSpeed += (wantedSpeed() - mSpeed) * std::min(seconds / kSpeedSeconds, 1.0);
  const size_t before = out.size();
  mResampler.process(samples, mSpeed, out);
  mCounted += (out.size() - before) / mChannels;
}

void AdaptiveResampler::lose(uint64_t frames) {
  mHasLost = true;
  mClock.lose(frames);
}

double AdaptiveResampler::lateness() const {
  const double counted = static_cast<double>(mCounted) + mResampler.heldFrames();
  return static_cast<double>(mTime - mOrigin) - counted * kMicroseconds / mRate;
}

/// The device's speed, and a little more or less while the count of frames is off.
double AdaptiveResampler::wantedSpeed() const {
  const double late = lateness();
  const double most = std::abs(late) > kFarOff ? kFastCorrection : kMostCorrection;
  return mClock.speed() + std::clamp(-late / (kCorrectionSeconds * kMicroseconds), -most, most);
}

}  // namespace vesk
