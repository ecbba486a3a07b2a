#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include <vesk/capture_source.h>
#include "platform/media/adaptive_resampler.h"

namespace vesk::capture {

/// Makes stamped packets of 20 ms out of the blocks of any size that a stream hands over: 16-bit
/// PCM whose count of frames follows the monotonic clock, however fast the device runs.
///
/// What was lost appears as a jump of the stamps by whole packets; the rest of it is silence at the end of
/// the packet before and at the beginning of the one after.
///
/// Threads: one at a time; the callback runs inside the calls, and may end delivery.
class SoundPacketizer {
 public:
  /// `callback` receives the packets; it answers whether it wants more.
  using Callback = std::function<bool(uint8_t* bytes, uint32_t length, int64_t timestamp)>;

  SoundPacketizer(const WaveFormat& format, Callback callback);

  /// The next bytes; the first of them was recorded at about `time` microseconds.
  void add(std::span<const uint8_t> bytes, int64_t time);
  /// Frames are missing before the next bytes; 0 when it is not known how many.
  void lose(uint64_t frames);

 private:
  std::span<const uint8_t> joinSplitFrame(std::span<const uint8_t> bytes, int64_t time);
  void addFrames(std::span<const int16_t> samples, int64_t time);
  void leaveGap(uint64_t frames);
  void deliver();
  double duration(double frames) const { return frames * 1e6 / mRate; }

  const uint32_t mRate;
  const uint32_t mChannels;
  const size_t mPacketSamples;
  const Callback mCallback;
  AdaptiveResampler mResampler;
  std::vector<uint8_t> mSplitFrame;  ///< the beginning of a frame that a block ended in
  std::vector<int16_t> mSamples;     ///< made, not delivered yet
  std::vector<int16_t> mWhole;       ///< the samples of a block, aligned
  double mOutTime = 0;               ///< microseconds after mOrigin, of the first of mSamples by count
  int64_t mOrigin = 0;
  bool mHasBegun = false;
  bool mIsWanted = true;
};

}  // namespace vesk::capture
