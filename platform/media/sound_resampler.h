#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace vesk {

/// Plays 16-bit PCM a little faster or slower (by some hundred ppm, inaudibly), by cubic
/// interpolation, so that the count of frames follows another clock than the device's.
///
/// Threads: one at a time.
class SoundResampler {
 public:
  explicit SoundResampler(uint32_t channels) : mChannels(channels) {}

  /// Appends to `out` what `in` (whole frames) becomes when `speed` frames of it make one frame.
  /// Two frames are held back for the interpolation.
  void process(std::span<const int16_t> in, double speed, std::vector<int16_t>& out);
  /// Forgets what came before: the next frames do not join it.
  void restart();
  /// Frames taken in that have not come out yet, in parts.
  double heldFrames() const;

 private:
  size_t frames() const { return mWaiting.size() / mChannels; }
  int16_t interpolate(size_t frame, uint32_t channel, double fraction) const;

  const uint32_t mChannels;
  std::vector<int16_t> mWaiting;  ///< the frame before the position and those after it
  double mPosition = 1;           ///< of the next frame out, within mWaiting
};

}  // namespace vesk
