#pragma once

#include <cstdint>

namespace vesk::capture {

/// Turns the time stamps of a driver into microseconds of the monotonic clock that always rise. A
/// stamp is believed when the frame can have been taken then; else the moment of its arrival counts.
class FrameClock {
 public:
  /// The stamp of a frame, seen at a moment.
  struct Sighting {
    int64_t stamp = 0;         ///< microseconds of the driver's clock
    bool isMonotonic = false;  ///< the driver reports that this is the monotonic clock
    int64_t now = 0;           ///< monotonic microseconds
    int64_t realNow = 0;       ///< microseconds of the wall clock at that moment
    int64_t emptyAt = 0;       ///< when the driver was last known to have no frame ready
  };

  /// `interval`: microseconds from frame to frame.
  explicit FrameClock(int64_t interval) : mInterval(interval) {}

  int64_t stamp(const Sighting& sighting);

 private:
  bool isPossible(int64_t time, const Sighting& sighting) const;

  const int64_t mInterval;
  int64_t mLast = INT64_MIN;
};

}  // namespace vesk::capture
