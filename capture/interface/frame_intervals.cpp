#include "capture/interface/frame_intervals.h"

#include <algorithm>
#include <cstdio>

namespace vesk::capture {
namespace {

constexpr uint64_t kSteadyFrame = 300'000;  // as long as a steady movie shows each

}  // namespace

uint64_t askedInterval(const VideoParameters& parameters) {
  if (parameters.intervalDenominator == 0) return 0;
  return uint64_t{parameters.intervalNumerator} * kTenMillionths / parameters.intervalDenominator;
}

std::pair<bool, uint64_t> distanceOf(uint64_t interval, uint64_t asked) {
  const uint64_t distance = interval > asked ? interval - asked : asked - interval;
  const bool isTooFast = asked >= kSteadyFrame && interval < kSteadyFrame;
  return {isTooFast, distance <= 1 ? 0 : distance};  // fractions are cut off here and there
}

std::optional<uint32_t> nearestInterval(const std::vector<uint32_t>& intervals, uint64_t asked) {
  const auto nearest = std::min_element(intervals.begin(), intervals.end(), [asked](uint32_t one, uint32_t other) {
    return distanceOf(one, asked) < distanceOf(other, asked);
  });
  return nearest == intervals.end() ? std::nullopt : std::optional(*nearest);
}

bool isSameRate(uint64_t interval, uint64_t other) {
  constexpr uint64_t kPart = 100;
  return (interval > other ? interval - other : other - interval) <= other / kPart;
}

std::string rateText(uint64_t interval) {
  char text[32];
  std::snprintf(text, sizeof text, "%.4g", static_cast<double>(kTenMillionths) / static_cast<double>(interval));
  return text;
}

}  // namespace vesk::capture
