#pragma once

#include <cstdint>
#include <vector>

namespace vesk {

/// The time of a movie's samples without the pauses that no recording has. When nothing came in any
/// track for kLongestPause, a clock has jumped: what is longer is skipped, by all tracks alike, so that
/// sound and picture keep their distance. Times are microseconds from the session's start.
class MovieClock {
 public:
  /// Plain tables hold as much of 48 kHz sound twice.
  static constexpr int64_t kLongestPause = int64_t{12} * 3600 * 1'000'000;

  /// Follows a sample that was stamped `time`.
  /// @return how much has been skipped before it.
  int64_t skippedBefore(int64_t time);

 private:
  struct Jump {
    int64_t from;
    int64_t to;
  };

  std::vector<Jump> mJumps;
  int64_t mLatest = 0;  ///< of all samples, without what was skipped
};

}  // namespace vesk
