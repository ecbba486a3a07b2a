#include "platform/metering/power_meter.h"

#include <algorithm>
#include <cmath>

namespace vesk {
namespace {

constexpr double kFullScale = 32768.0;
constexpr std::chrono::milliseconds kWindow(50);
constexpr std::chrono::milliseconds kStale(500);

}  // namespace

PowerMeter::PowerMeter(uint32_t channels, uint32_t samplesPerSecond)
    : mStride(channels),
      mMeasured(std::min(channels, kMostChannels)),
      mWindow(std::max<uint64_t>(1, uint64_t{samplesPerSecond} * kWindow.count() / 1000)) {}

void PowerMeter::add(std::span<const int16_t> samples, Clock::time_point now) {
  if (mStride == 0) return;
  const size_t frames = samples.size() / mStride;
  if (frames == 0) return;
  const Packet packet{frames, channelSquares(reinterpret_cast<const uint8_t*>(samples.data()), frames, mStride)};
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
