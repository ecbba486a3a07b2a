#pragma once

#include <cstdint>
#include <string>

namespace vesk::program {

/// Sound without a picture is kept from this length on, in microseconds: somebody may have spoken. Less is
/// what microphones send while the camera is still being started.
constexpr uint64_t kShortestSound = 5'000'000;

/// Whether the movie of a failed writer holds anything worth keeping, or nobody knows. What the statistics
/// count may have been lost on the way to the disk. Finishes the movie when it can.
bool holdsPictures(const std::string& movie);

}  // namespace vesk::program
