#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include <vesk/export.h>
#include "platform/media/adaptive_resampler.h"

namespace vesk {

/// Keeps 16-bit PCM at its capture time in a movie, which counts frames: when a microphone's crystal runs fast
/// or slow, its sound is resampled (AdaptiveResampler).
///
/// Sound whose count stays within 5 ms of its stamps passes untouched, bit for bit: that of sources that do
/// this themselves. A packet that comes later than all jitter, by almost its own length at least, stands
/// behind a gap: what is missing was lost, and is silence.
///
/// Threads: one at a time.
class VESK_LOCAL DriftCorrection {
 public:
  /// Neither may be 0.
  DriftCorrection(uint32_t sampleRate, uint32_t channels);

  /// Announces a packet of `frames` frames, at least one, stamped in microseconds.
  /// @return how many frames of silence belong before it
  uint64_t announce(uint64_t timestamp, uint64_t frames);
  /// What the movie takes for the packet announced: itself or its resampled sound, valid until the next call.
  std::span<const uint8_t> apply(std::span<const uint8_t> packet);

 private:
  bool isGap(double late, double seconds);

  const uint32_t mRate;
  const uint32_t mFrameBytes;
  AdaptiveResampler mResampler;
  double mJitter = 0;  ///< microseconds: the largest of late, which fades away
  bool mIsResampling = false;
  std::vector<int16_t> mPacket;  ///< aligned
  std::vector<int16_t> mResampled;
};

}  // namespace vesk
