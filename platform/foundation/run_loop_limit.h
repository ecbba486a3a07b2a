#pragma once

#include <chrono>
#include <optional>

namespace vesk {

/// For tests: from now on no runUntilDate of any loop lasts longer than `longest`; none: each lasts as long as it is
/// asked for. What is ready is served all the same.
void setLongestRunUntilDate(std::optional<std::chrono::microseconds> longest);

}  // namespace vesk
