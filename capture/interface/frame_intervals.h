#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <vesk/capture_source.h>

/// Frame intervals in ten-millionths of a second: which of a camera's own suits what it is asked for.

namespace vesk::capture {

constexpr uint32_t kTenMillionths = 10'000'000;

/// What cameras are asked for where nobody has chosen a rate: 30 frames a second.
constexpr uint32_t kUsualInterval = 333'333;

/// The interval that is asked for; 0 when it is none.
uint64_t askedInterval(const VideoParameters& parameters);

/// How far `interval` is from what is asked for; lower is better. A movie with steady frames shows each for
/// 30 ms: whoever asks for at least that is given a shorter interval only where there is no other.
std::pair<bool, uint64_t> distanceOf(uint64_t interval, uint64_t asked);

/// The best of `intervals`; none when there are none.
std::optional<uint32_t> nearestInterval(const std::vector<uint32_t>& intervals, uint64_t asked);

/// Whether two intervals are the same rate to a person: 30 is written for 29.97.
bool isSameRate(uint64_t interval, uint64_t other);

/// Frames a second: "30", "29.97", "7.5".
std::string rateText(uint64_t interval);

}  // namespace vesk::capture
