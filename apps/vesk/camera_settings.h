#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <vesk/video_device.h>
#include "apps/vesk/control_settings.h"
#include "apps/vesk/program.h"

namespace vesk::program {

/// A control as a camera has it.
struct ControlState {
  const CameraControl& control;
  std::optional<int64_t> minimum;  ///< with the maximum; none when nobody reports the range
  std::optional<int64_t> maximum;
  int64_t current = 0;
  std::optional<int64_t> initial;
  std::optional<bool> isAutomatic;  ///< whether the camera sets it itself; none when it has no such mode

  bool takes(int64_t value) const { return !minimum || (value >= *minimum && value <= *maximum); }
};

/// A control of an open camera; none when the camera does not have it, or does not answer: its lastError says.
std::optional<ControlState> stateOf(const VeskVideoDevice& camera, const CameraControl& control);
/// All that the camera has; standard error names those that it did not answer for.
/// @throws Failure when it answers for none
std::vector<ControlState> statesOf(const VeskVideoDevice& camera);
/// Whether a camera does not have the control that it was asked for, rather than not answering.
bool isMissing(const Error& error);
/// "-64 to 64", or "?" where nobody reports it.
std::string rangeText(const ControlState& state);
/// Why a camera did not take a value, after "brightness was not set: ".
std::string reasonOf(const Error& error, const ControlState& state);

/// What becomes of settings that are applied together.
struct Outcome {
  std::vector<std::string> applied;
  std::vector<std::pair<std::string, std::string>> refused;  ///< name and reason
  std::vector<std::string> automatic;                        ///< left to a mode that is on
};

/// Sets many controls of an open camera. Automatic modes go off before the controls that they rule are
/// set, and on after that; what a mode rules that is to be on is left to it.
Outcome applySettings(VeskVideoDevice& camera, const std::map<std::string, int64_t>& values);
/// "; left to automatic modes: exposure, focus", or nothing for none.
std::string leftToAutomatic(const std::vector<std::string>& names);
/// Prints what was applied and what was left to automatic modes and, a line each, what was not and why. `event` is for
/// scripts, null for none.
void printOutcome(const GlobalOptions& global, const VeskDeviceInfo& camera, const Outcome& outcome, const char* event);

/// The camera that `text` names; where it names none, the one that the settings were saved from: plugged
/// in elsewhere it has another path, and is the only one of its vendor and product.
/// @throws Failure; DeviceMissing when it is not attached
std::shared_ptr<VeskVideoDevice> cameraFor(const ControlSettings& settings, const std::string& text);

}  // namespace vesk::program
