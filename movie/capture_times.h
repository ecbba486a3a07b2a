#pragma once

#include <cstdint>

#include <vesk/export.h>

namespace vesk {

/// Places frames at their capture times and takes the jitter out of them: a camera of constant rate
/// gets constant durations.
///
/// The stamps are followed by a straight line, fitted to the last few seconds of them by least squares
/// (a line's gains for n points: 2(2n-1)/(n(n+1)) for the place, 6/(n(n+1)) for the slope). Frames stand
/// on a grid of that slope, which is laid anew only when the line has left it. No frame is ever further
/// than 8 ms from its stamp, nor further than a quarter of the interval where the stamps themselves do not
/// scatter more than that; so nothing accumulates. A lost frame leaves a gap of whole intervals. Stamps in
/// a row that the line cannot explain mean another rate: the line begins anew with them.
class VESK_LOCAL CaptureTimes {
 public:
  /// @param timestamp microseconds; not before the last one
  /// @return where the frame stands, microseconds: later than the one before, by one at least
  uint64_t place(uint64_t timestamp);
  /// Microseconds that the frame placed last will probably last: as long as the one before it did, a
  /// second at most; at first a thirtieth.
  uint64_t duration() const { return mDuration; }

 private:
  void follow(double time, double step);
  void begin(double time, double interval);
  /// A quarter of the interval, 8 ms at most.
  double farthest() const;
  /// How far from the line a stamp may lie that is no sign of anything.
  double usualError() const;

  uint32_t mCount = 0;    ///< stamps in the line, kMostCounted at most; 0 before the first
  double mTime = 0;       ///< the line at the last stamp
  double mInterval = 0;   ///< its slope: microseconds a frame; 0 before the second stamp
  double mDeviation = 0;  ///< how far stamps scatter about it, on average over mScattered of them
  double mScattered = 0;
  int mOdd = 0;           ///< stamps in a row that did not come an interval after the one before
  double mBeforeOdd = 0;  ///< the stamp before these
  double mGridTime = 0;   ///< where the last frame stands on the grid
  double mGridInterval = 0;
  double mFrames = 1;  ///< intervals that the last frame but one lasted
  uint64_t mLastStamp = 0;
  uint64_t mLastPlace = 0;
  uint64_t mDuration = 33'333;
};

}  // namespace vesk
