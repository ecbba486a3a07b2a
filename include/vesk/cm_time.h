#pragma once

#include <cstdint>

#include <vesk/export.h>

namespace vesk {

/// A media time: `value` units of 1/`timescale` seconds. Not valid until made by CMTimeMake.
struct CMTime {
  int64_t value = 0;
  int32_t timescale = 0;
  bool valid = false;
};

constexpr CMTime CMTimeMake(int64_t value, int32_t timescale) {
  return {value, timescale, timescale > 0};
}

inline constexpr CMTime kCMTimeInvalid{};
inline constexpr CMTime kCMTimeZero = CMTimeMake(0, 1);

/// How a value between two units is rounded.
enum class CMTimeRoundingMethod {
  kCMTimeRoundingMethod_RoundHalfAwayFromZero,
  kCMTimeRoundingMethod_RoundTowardZero,
};

/// The same time in another scale; invalid when the time is, when `timescale` is not positive, or
/// when the value does not fit into 64 bits.
VESK_EXPORT CMTime
CMTimeConvertScale(const CMTime& time, int32_t timescale,
                   CMTimeRoundingMethod method = CMTimeRoundingMethod::kCMTimeRoundingMethod_RoundHalfAwayFromZero);

/// Sum and difference, in the least common multiple of both scales where it fits into 32 bits, else
/// rounded half away from zero in the larger scale. Invalid when an operand is, or on overflow.
VESK_EXPORT CMTime CMTimeAdd(const CMTime& a, const CMTime& b);
VESK_EXPORT CMTime CMTimeSubtract(const CMTime& a, const CMTime& b);

/// The time `multiplier` times as long, in its own scale; invalid on overflow.
VESK_EXPORT CMTime CMTimeMultiply(const CMTime& time, int32_t multiplier);

/// Negative, 0 or positive as `a` lies before, at or after `b`. An invalid time lies after all
/// valid ones and equals another invalid one.
VESK_EXPORT int CMTimeCompare(const CMTime& a, const CMTime& b);

/// Seconds; NaN for an invalid time.
VESK_EXPORT double CMTimeGetSeconds(const CMTime& time);

}  // namespace vesk
