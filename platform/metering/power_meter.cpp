#include "platform/metering/power_meter.h"

#include <algorithm>
#include <cmath>

namespace vesk {
namespace {

constexpr double kFullScale = 32768.0;
constexpr std::chrono::milliseconds kWindow(50);
constexpr std::chrono::milliseconds kStale(500);

/// Adds up squares in blocks whose sums fit 32 bits, so that the compiler can take several at once.
uint64_t squaresOf(const int16_t* samples, size_t count) {
  uint64_t sum = 0;
  for (size_t i = 0; i < count; ++i) {
    const int32_t sample = samples[i];
    sum += static_cast<uint32_t>(sample * sample);
  }
  return sum;
}

/// The same for each of two interleaved channels.
void squaresOfPair(const int16_t* samples, size_t frames, uint64_t* sums) {
  uint64_t left = 0;
  uint64_t right = 0;
  for (size_t i = 0; i < frames; ++i) {
    const int32_t first = samples[2 * i];
    const int32_t second = samples[2 * i + 1];
    left += static_cast<uint32_t>(first * first);
    right += static_cast<uint32_t>(second * second);
  }
  sums[0] = left;
  sums[1] = right;
}

void squaresOfMany(const int16_t* samples, size_t frames, uint32_t stride, uint32_t measured, uint64_t* sums) {
  for (size_t i = 0; i < frames; ++i) {
    for (uint32_t channel = 0; channel < measured; ++channel) {
      const int32_t sample = samples[i * stride + channel];
      sums[channel] += static_cast<uint32_t>(sample * sample);
    }
  }
}

}  // namespace

PowerMeter::PowerMeter(uint32_t channels, uint32_t samplesPerSecond)
    : mStride(channels),
      mMeasured(std::min(channels, kMostChannels)),
      mWindow(std::max<uint64_t>(1, uint64_t{samplesPerSecond} * kWindow.count() / 1000)) {}

void PowerMeter::add(std::span<const int16_t> samples, Clock::time_point now) {
  if (mStride == 0) return;
  const size_t frames = samples.size() / mStride;
  if (frames == 0) return;
  Packet packet{frames, {}};
  if (mStride == 1) {
    packet.squares[0] = squaresOf(samples.data(), frames);
  } else if (mStride == 2) {
    squaresOfPair(samples.data(), frames, packet.squares.data());
  } else {
    squaresOfMany(samples.data(), frames, mStride, mMeasured, packet.squares.data());
  }

  const MutexLock lock(mMutex);
  mLastCame = now;
  mPackets.push_back(packet);
  mTotal.frames += packet.frames;
  for (uint32_t i = 0; i < mMeasured; ++i) mTotal.squares[i] += packet.squares[i];
  while (mTotal.frames - mPackets.front().frames >= mWindow) {
    const Packet& oldest = mPackets.front();
    mTotal.frames -= oldest.frames;
    for (uint32_t i = 0; i < mMeasured; ++i) mTotal.squares[i] -= oldest.squares[i];
    mPackets.pop_front();
  }
}

float PowerMeter::averagePowerLevel(uint32_t channel, Clock::time_point now) const {
  const MutexLock lock(mMutex);
  if (channel >= mMeasured || mTotal.frames == 0 || now - mLastCame > kStale) return kSilenceLevel;
  const double mean = static_cast<double>(mTotal.squares[channel]) / static_cast<double>(mTotal.frames);
  if (mean <= 0) return kSilenceLevel;
  return std::max(kSilenceLevel, static_cast<float>(10.0 * std::log10(mean / (kFullScale * kFullScale))));
}

}  // namespace vesk
