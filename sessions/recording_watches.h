#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include <vesk/recording_statistics.h>

namespace vesk {

// What a recording is watched for. Each is asked again and again, with the time at that moment, by one thread.

using WatchClock = std::chrono::steady_clock;

/// Notices that what should keep coming has stopped, and that it goes on.
class StallWatch {
 public:
  enum class Change { kNone, kStalled, kResumed };

  static constexpr std::chrono::seconds kLimit{5};

  void restart(WatchClock::time_point now);
  /// @param count of what has come so far
  Change look(uint64_t count, WatchClock::time_point now);

 private:
  uint64_t mCount = 0;
  WatchClock::time_point mSince;
  bool mIsStalled = false;
};

/// Notices that a microphone has been quiet for long: once for each time that it is, and less and less often,
/// since talks have pauses.
class QuietWatch {
 public:
  /// @param quiet seconds for which it has been quiet
  /// @return for how many seconds it is quiet, when that is to be reported
  std::optional<double> look(double quiet);

 private:
  double mLimit = 10;  ///< seconds
  bool mIsReported = false;
};

/// Judges how long there is room on the disk for a movie that grows as it has so far.
class DiskWatch {
 public:
  enum class Verdict {
    kEnough,
    kFilling,  ///< for some minutes only; once, until there is room again
    kFull,     ///< just enough to finish the movie, at two looks one after the other
  };

  void restart(WatchClock::time_point now);
  /// @param room bytes that may still be written
  Verdict look(uint64_t room, const RecordingStatistics& statistics, WatchClock::time_point now);
  /// Seconds of movie; none before the movie is long enough to tell.
  std::optional<double> secondsLeft() const { return mSecondsLeft; }

 private:
  Verdict judge(uint64_t room, const RecordingStatistics& statistics, WatchClock::time_point now);

  WatchClock::time_point mStart;
  uint64_t mBytes = 0;  ///< of the movie, when it was last looked at
  std::optional<double> mSecondsLeft;
  bool mIsFilling = false;
  bool mWasFull = false;
};

}  // namespace vesk
