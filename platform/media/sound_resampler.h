#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace vesk {

/// Plays 16-bit PCM a little faster or slower (by some thousandths at most, inaudibly), so that the count of
/// frames follows another clock than the device's: by a windowed sinc of 16 frames, exact to -76 dB up to
/// five eighths of the highest frequency, and in the frames at whole positions.
///
/// Threads: one at a time.
class SoundResampler {
 public:
  explicit SoundResampler(uint32_t channels);

  /// Appends to `out` what `in` (whole frames) becomes when `speed` frames of it make one frame.
  /// Half a sinc is held back.
  void process(std::span<const int16_t> in, double speed, std::vector<int16_t>& out);
  /// Forgets what came before: the next frames do not join it.
  void restart();
  /// Frames taken in that have not come out yet, in parts.
  double heldFrames() const;

 private:
  static constexpr size_t kAfter = 8;            ///< frames of the sinc that lie after the position
  static constexpr size_t kBefore = kAfter - 1;  ///< before the one at the position
  static constexpr size_t kTaps = 2 * kAfter;
  struct Kernel;

  size_t frames() const { return mWaiting.size() / mChannels; }
  void appendFrame(const Kernel& kernel, std::vector<int16_t>& out) const;

  const uint32_t mChannels;
  std::vector<int16_t> mWaiting;  ///< the frames around the position and those after them
  double mPosition = kBefore;     ///< of the next frame out, within mWaiting
};

}  // namespace vesk
