#pragma once

#include <cstdint>

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
    kTurn,      ///< told to turn: it takes a step at once, the same each time
    kStop,
    kStep,  ///< sent on from where it was
    kReset,
  };
  Kind kind = Kind::kPosition;
  int32_t pan = 0;   ///< where it pointed afterwards, arc seconds to the right
  int32_t tilt = 0;  ///< and up
  bool operator==(const HeadMove&) const = default;
};

}  // namespace vesk::capture
