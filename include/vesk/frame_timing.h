#pragma once

#include <cstdint>

namespace vesk {

/// When the pictures of a movie are shown.
enum class FrameTiming : int32_t {
  /// Each lasts 30 ms and follows the one before; pictures that have fallen 60 ms or more behind their
  /// capture times jump to them. Made for cameras of 30 pictures a second: those that come faster than one
  /// in 30 ms are shown later and later (RecordingStatistics::videoLate).
  kSteady = 0,
  /// Each at its capture time, of any rate and with every gap; the jitter of the stamps is smoothed. 16-bit
  /// PCM stays at its capture time as well, whatever its microphone's crystal does.
  kCapture = 1,
};

}  // namespace vesk
