#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include <vesk/audio_format.h>
#include "platform/foundation/mutex.h"
#include "platform/metering/channel_squares.h"

namespace vesk {

/// The average power of each channel over the last 50 ms or so of sound (whole packets).
///
/// Threads: every operation from any thread.
class PowerMeter {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr uint32_t kMostChannels = kMostMeasuredChannels;

  /// For interleaved samples; with 0 channels nothing is measured.
  PowerMeter(uint32_t channels, uint32_t samplesPerSecond);

  /// Takes in the next samples, which came at `now`. A frame cut short at the end is left out.
  void add(std::span<const int16_t> samples, Clock::time_point now) VESK_EXCLUDES(mMutex);

  uint32_t channels() const { return mMeasured; }
  /// A channel's mean square in decibels of full scale: 0 for a square wave at full scale, −3.01 for
  /// such a sine. kSilenceLevel at the least, and once half a second has brought nothing, or for a
  /// channel that is not there.
  float averagePowerLevel(uint32_t channel, Clock::time_point now) const VESK_EXCLUDES(mMutex);

 private:
  struct Packet {
    uint64_t frames;
    ChannelSquares squares;
  };

  const uint32_t mStride;
  const uint32_t mMeasured;
  const uint64_t mWindow;  ///< frames
  mutable Mutex mMutex;
  std::deque<Packet> mPackets VESK_GUARDED_BY(mMutex);
  Packet mTotal VESK_GUARDED_BY(mMutex){};
  Clock::time_point mLastCame VESK_GUARDED_BY(mMutex);
};

}  // namespace vesk
