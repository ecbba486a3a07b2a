#pragma once

#include <cstdint>

#include <vesk/error.h>

namespace vesk::capture {

/// What goes wrong with a simulated device. The counts count down as frames or packets go out.
struct SimulatedFaults {
  enum class Damage {
    kTruncated,  ///< the second half is missing
    kGarbled,    ///< every eighth byte is wrong
    kEmpty,      ///< no bytes at all
  };

  bool openFails = false;
  Error error;                 ///< why calls fail, when they do; none leaves it at the general error of their status
  int32_t startStatus = 0;     ///< what starts answer instead of starting; 19: in use elsewhere
  int32_t stopStatus = 0;      ///< what stops answer instead of stopping
  int32_t propertyStatus = 0;  ///< what reading and setting properties answers instead of working
  bool isStalled = false;      ///< nothing is delivered, while time goes on

  uint32_t droppedPackets = 0;  ///< the next ones are lost: a gap
  uint32_t shiftedPackets = 0;  ///< the next ones after that have wrong time stamps
  int64_t timestampShift = 0;   ///< microseconds: later above 0, out of order below
  uint32_t damagedPackets = 0;  ///< the next ones are damaged
  Damage damage = Damage::kTruncated;
};

}  // namespace vesk::capture
