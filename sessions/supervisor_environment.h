#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <vesk/recording_supervisor.h>
#include "sessions/recording_watches.h"

namespace vesk {

/// Bytes that a growing movie may still take on its disk, with what is set aside for it already.
std::optional<uint64_t> roomForMovie(const std::string& movie);

/// What a supervisor asks of the machine: tests put their own in its place.
struct SupervisorEnvironment {
  std::function<std::optional<uint64_t>(const std::string& movie)> room = roomForMovie;  ///< on any thread
  std::function<WatchClock::time_point()> now = WatchClock::now;
  std::chrono::milliseconds tick{200};       ///< between two looks at the recording
  std::chrono::milliseconds arrival{2000};   ///< within which a camera's own microphone comes after it
  std::chrono::milliseconds departure{600};  ///< within which a camera goes after its own microphone
  std::chrono::milliseconds retry{1000};     ///< while a camera that is back refuses: the system prepares it
  std::chrono::milliseconds roomInterval{1000};
};

struct SupervisorTesting {
  static std::shared_ptr<VeskRecordingSupervisor> make(VeskRecordingSupervisor::EventHandler handler,
                                                       SupervisorEnvironment environment);
};

}  // namespace vesk
