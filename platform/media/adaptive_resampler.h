#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "platform/media/sound_clock.h"
#include "platform/media/sound_resampler.h"

namespace vesk {

/// Makes the count of a microphone's frames (16-bit PCM) follow the clock of their time stamps, however fast
/// its crystal runs: by a little more or less speed, inaudibly, where the two part.
///
/// Each portion is announced with the time at which it was recorded, then handed to `resample` or `pass`.
/// What was lost is not smeared: it is told as missing frames, and the count is put forward by them.
///
/// Threads: one at a time.
class AdaptiveResampler {
 public:
  /// Neither may be 0.
  AdaptiveResampler(uint32_t framesPerSecond, uint32_t channels);

  /// Announces the next `frames` frames, the first of which was recorded at about `measured` microseconds.
  /// @return how many frames are missing before them
  uint64_t announce(int64_t measured, uint64_t frames);
  /// Appends to `out` what the frames announced become, a few less or more; some are held back.
  void resample(std::span<const int16_t> samples, std::vector<int16_t>& out);
  /// Counts the frames announced as they are. Only until the first are resampled.
  void pass(uint64_t frames) { mCounted += frames; }

  /// Frames were lost before the next ones; 0 when nobody knows how many, so that their time tells.
  void lose(uint64_t frames);
  /// By how many microseconds the next frames are later than expected when they were recorded at `measured`.
  double deviation(int64_t measured) const { return mClock.deviation(measured); }
  /// By how many microseconds the count is behind the time of the frames announced; negative: ahead.
  double lateness() const;

 private:
  double wantedSpeed() const;

  const uint32_t mRate;
  const uint32_t mChannels;
  SoundClock mClock;
  SoundResampler mResampler;
  int64_t mOrigin = 0;    ///< microseconds, of the first frame of all
  int64_t mTime = 0;      ///< microseconds, of the first frame announced
  uint64_t mCounted = 0;  ///< frames since mOrigin, those missing among them
  double mSpeed = 1;      ///< frames taken in for each that comes out
  bool mHasBegun = false;
  bool mHasLost = false;
};

}  // namespace vesk
