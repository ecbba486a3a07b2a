#pragma once

#include <cstdint>

#include <vesk/error.h>

namespace vesk::capture {

/// What a simulated camera has beyond the controls that all of them have.
struct SimulatedModel {
  enum class Information {
    kNone,
    kFirstSet,      ///< in the device information set
    kAlternateSet,  ///< only in the alternate set
  };

  bool hasMirror = true;
  bool hasSunTrim = true;
  bool hasAutoHue = true;
  bool hasPosition = true;         ///< pan, tilt and zoom are set
  bool hasRelativeMotion = false;  ///< a head that is nudged and reset
  Information information = Information::kFirstSet;

  /// The simpler camera, whose head is nudged.
  static constexpr SimulatedModel plain() { return {false, false, false, false, true, Information::kAlternateSet}; }
};

/// A move of a simulated head.
struct HeadMove {
  enum class Kind {
    kPosition,  ///< sent somewhere
    kTurn,      ///< started to turn: it takes a step at once, the same each time
    kStop,
    kStep,  ///< sent on from where it was
    kReset,
  };
  Kind kind = Kind::kPosition;
  int32_t pan = 0;   ///< where it pointed afterwards, arc seconds to the right
  int32_t tilt = 0;  ///< and up
  bool operator==(const HeadMove&) const = default;
};

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
