#pragma once

#include <cstdint>

namespace vesk::capture {

/// The times of things that come at even intervals from time 0 on: frames, packets of sound.
class Cadence {
 public:
  /// The interval in seconds is numerator / denominator, both above 0.
  Cadence(uint32_t numerator, uint32_t denominator) : mNumerator(numerator), mDenominator(denominator) {}

  /// The cadence of frames. An interval is written in whole ten-millionths of a second, which is
  /// not exact for 30 a second: what is within a hundred-thousandth of a whole or half number of
  /// frames a second is taken as that number, so that every whole second has its frame.
  static Cadence ofFrames(uint32_t numerator, uint32_t denominator);

  uint32_t numerator() const { return mNumerator; }
  uint32_t denominator() const { return mDenominator; }

  /// Microseconds, rounded down.
  int64_t timeOf(int64_t number) const {
    return static_cast<int64_t>(static_cast<Wide>(number) * mNumerator * kMicroseconds / mDenominator);
  }
  /// The number of the first that is not before `time`.
  int64_t firstFrom(int64_t time) const;
  int64_t interval() const { return timeOf(1); }

 private:
  __extension__ typedef __int128 Wide;
  static constexpr int64_t kMicroseconds = 1'000'000;

  uint32_t mNumerator;
  uint32_t mDenominator;
};

}  // namespace vesk::capture
