#include <vesk/cm_time.h>

#include <limits>
#include <numeric>

namespace vesk {
namespace {

__extension__ using Wide = __int128;

constexpr Wide kMost = std::numeric_limits<int64_t>::max();
constexpr Wide kLeast = std::numeric_limits<int64_t>::min();

CMTime makeChecked(Wide value, int32_t timescale) {
  if (value > kMost || value < kLeast) return kCMTimeInvalid;
  return CMTimeMake(static_cast<int64_t>(value), timescale);
}

Wide divide(Wide value, Wide by, CMTimeRoundingMethod method) {
  switch (method) {
    case CMTimeRoundingMethod::kCMTimeRoundingMethod_RoundTowardZero:
      return value / by;
    case CMTimeRoundingMethod::kCMTimeRoundingMethod_RoundHalfAwayFromZero:
      return value >= 0 ? (value + by / 2) / by : (value - by / 2) / by;
  }
  return value / by;
}

/// The scale in which two times are added: exact if 32 bits hold it.
int32_t commonScale(int32_t a, int32_t b) {
  const int64_t common = int64_t{a} / std::gcd(a, b) * b;
  return common <= std::numeric_limits<int32_t>::max() ? static_cast<int32_t>(common) : (a > b ? a : b);
}

CMTime combine(const CMTime& a, const CMTime& b, int sign) {
  if (!a.valid || !b.valid) return kCMTimeInvalid;
  const int32_t scale = commonScale(a.timescale, b.timescale);
  const CMTime left = CMTimeConvertScale(a, scale);
  const CMTime right = CMTimeConvertScale(b, scale);
  if (!left.valid || !right.valid) return kCMTimeInvalid;
  return makeChecked(Wide{left.value} + sign * Wide{right.value}, scale);
}

}  // namespace

CMTime CMTimeConvertScale(const CMTime& time, int32_t timescale, CMTimeRoundingMethod method) {
  if (!time.valid || timescale <= 0) return kCMTimeInvalid;
  if (time.timescale == timescale) return time;
  return makeChecked(divide(Wide{time.value} * timescale, time.timescale, method), timescale);
}

CMTime CMTimeAdd(const CMTime& a, const CMTime& b) {
  return combine(a, b, 1);
}
CMTime CMTimeSubtract(const CMTime& a, const CMTime& b) {
  return combine(a, b, -1);
}

CMTime CMTimeMultiply(const CMTime& time, int32_t multiplier) {
  if (!time.valid) return kCMTimeInvalid;
  return makeChecked(Wide{time.value} * multiplier, time.timescale);
}

int CMTimeCompare(const CMTime& a, const CMTime& b) {
  if (!a.valid || !b.valid) return static_cast<int>(b.valid) - static_cast<int>(a.valid);
  const Wide left = Wide{a.value} * b.timescale;
  const Wide right = Wide{b.value} * a.timescale;
  return left < right ? -1 : left > right ? 1 : 0;
}

double CMTimeGetSeconds(const CMTime& time) {
  if (!time.valid) return std::numeric_limits<double>::quiet_NaN();
  return static_cast<double>(time.value) / time.timescale;
}

}  // namespace vesk
