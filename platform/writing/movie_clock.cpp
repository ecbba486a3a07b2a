#include "platform/writing/movie_clock.h"

#include <algorithm>

namespace vesk {

int64_t MovieClock::skippedBefore(int64_t time) {
  // The samples of other tracks that come after the jump may be a little older than the first that did.
  constexpr int64_t kLatestOfOthers = 2'000'000;
  int64_t skipped = 0;
  for (const Jump& jump : mJumps) skipped += std::clamp<int64_t>(time - jump.from, 0, jump.to - jump.from);
  const int64_t tooLong = time - skipped - mLatest - kLongestPause;
  if (tooLong > 0) {
    const int64_t to = time - kLatestOfOthers;
    mJumps.push_back({to - tooLong, to});
    skipped += tooLong;
  }
  mLatest = std::max(mLatest, time - skipped);
  return skipped;
}

}  // namespace vesk
