#pragma once

#include <chrono>
#include <cstdint>

namespace vesk::capture {

/// Microseconds of the process's monotonic clock: what all time stamps are counted on.
inline int64_t monotonicMicroseconds() {
  return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

/// The moment at which monotonicMicroseconds() answers `microseconds`.
inline std::chrono::steady_clock::time_point monotonicMoment(int64_t microseconds) {
  return std::chrono::steady_clock::time_point(std::chrono::microseconds(microseconds));
}

}  // namespace vesk::capture
