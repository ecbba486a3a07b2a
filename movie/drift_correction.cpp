#include "movie/drift_correction.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace vesk {
namespace {

constexpr double kMicroseconds = 1e6;
constexpr double kUntouched = 5'000;     // microseconds between count and stamps
constexpr double kOfPacket = 0.9;        // stamps are rounded, and a lost packet leaves one packet's time
constexpr double kBeyondJitter = 1.5;    // times the largest jitter of late: it is none
constexpr double kSurelyLost = 500'000;  // microseconds: no stamp is off by so much
constexpr double kJitterSeconds = 100;   // in which it fades to a third
constexpr size_t kSampleBytes = sizeof(int16_t);

}  // namespace

DriftCorrection::DriftCorrection(uint32_t sampleRate, uint32_t channels)
    : mRate(sampleRate), mFrameBytes(channels * kSampleBytes), mResampler(sampleRate, channels) {}

uint64_t DriftCorrection::announce(uint64_t timestamp, uint64_t frames) {
  const auto measured = static_cast<int64_t>(timestamp);
  const double seconds = static_cast<double>(frames) / mRate;
  if (isGap(mResampler.deviation(measured), seconds)) mResampler.lose(0);
  const uint64_t missing = mResampler.announce(measured, frames);
  mIsResampling = mIsResampling || std::abs(mResampler.lateness()) > kUntouched;
  return missing;
}

/// Whether a packet of so many seconds that is `late` microseconds stands behind a gap. A stamp that was late by
/// chance, and taken for that, is followed by ones that come early against it: that is jitter from then on, so
/// that the next such stamp brings no silence again.
bool DriftCorrection::isGap(double late, double seconds) {
  const bool isLate = late >= kOfPacket * seconds * kMicroseconds;
  const bool isLost = isLate && late >= std::min(kBeyondJitter * mJitter, kSurelyLost);
  const double jitter = isLate && !isLost ? late : -late;
  mJitter = std::max(jitter, mJitter * std::max(1 - seconds / kJitterSeconds, 0.0));
  return isLost;
}

std::span<const uint8_t> DriftCorrection::apply(std::span<const uint8_t> packet) {
  if (!mIsResampling) {
    mResampler.pass(packet.size() / mFrameBytes);
    return packet;
  }
  mPacket.resize(packet.size() / kSampleBytes);
  std::memcpy(mPacket.data(), packet.data(), packet.size());
  mResampled.clear();
  mResampler.resample(mPacket, mResampled);
  return {reinterpret_cast<const uint8_t*>(mResampled.data()), mResampled.size() * kSampleBytes};
}

}  // namespace vesk
