#pragma once

#include <cstdint>

namespace vesk {

/// Turns noisy measurements of when a packet's first frame was recorded into smooth time stamps, by
/// a second-order loop that learns how fast the device's crystal really runs.
///
/// Stamps never go backwards. Measurements that are far off are ignored for a second, since a sound
/// server's latency may be wrong for a while; when they persist, time has jumped: the clock follows
/// and reports it. What no latency explains is followed at once.
///
/// Threads: one at a time.
class SoundClock {
 public:
  struct Stamp {
    int64_t time = 0;         ///< microseconds, of the first frame
    int64_t missingTime = 0;  ///< microseconds that are missing before it; 0 when it follows on
  };

  explicit SoundClock(uint32_t framesPerSecond);

  /// The stamp of the next packet of `frames` frames, whose first was recorded at about `measured`
  /// microseconds.
  Stamp next(int64_t measured, uint64_t frames);
  /// Frames were lost before the next packet; 0 when nobody knows how many, so that only the next
  /// measurement tells.
  void lose(uint64_t frames);
  /// By how many microseconds `measured` is later than the next frame is expected; 0 before the first.
  double deviation(int64_t measured) const { return mHasBegun ? static_cast<double>(measured - mOrigin) - mTime : 0; }
  /// How fast the device runs against the monotonic clock: 1.0002 when it is 200 ppm fast.
  double speed() const { return mNominalPeriod / mPeriod; }

 private:
  int64_t begin(int64_t measured);
  bool isJump(double error, double seconds);
  void adjust(double error, double seconds);

  const double mNominalPeriod;  ///< microseconds per frame
  double mPeriod;
  double mTime = 0;           ///< microseconds after mOrigin, of the next frame
  int64_t mOrigin = 0;        ///< the first measurement: doubles stay small beside it
  int64_t mLast = 0;          ///< the last stamp
  double mAge = 0;            ///< seconds since the loop began: it narrows as it grows older
  int mFarOff = 0;            ///< measurements in a row that were far off
  double mFarOffSeconds = 0;  ///< of sound that they were for
  double mNearest = 0;        ///< the smallest error among them
  bool mHasBegun = false;
  bool mMustMeasure = false;  ///< frames were lost, nobody knows how many
};

}  // namespace vesk
